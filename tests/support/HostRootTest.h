// Test fixture: a fresh temporary host root per test, installed as the
// process's host root for the test's duration. Files are addressed by their
// logical host paths.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "CSLogger.h"

namespace QenTest {

class HostRootTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  const std::string& Root() const { return root_; }
  // Physical path of a logical host path.
  std::string Path(const std::string& logical) const;
  void WriteFile(const std::string& logical, const std::string& content, int mode = 0644);
  std::string ReadFile(const std::string& logical) const;
  bool Exists(const std::string& logical) const;
  // Permission bits of a logical path (not following a link); -1 if absent.
  int Mode(const std::string& logical) const;
  // Copies the sample host (host/root plus the built runners and plugins)
  // into this root.
  void InstallSampleHost();

  CSLogger::Capture log_;

 private:
  std::string root_;
};

// Copies the sample host into `root` (used by the fixture and by benchmarks).
void InstallSampleHostInto(const std::string& root);

}  // namespace QenTest
