// Fixture of the qenconfig tests: a sample host root and qenconfig run as a
// real process against it, to completion or in the background.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HostRootTest.h"

namespace QenTest {

struct Outcome {
  int exit = -1;  // the exit status, or 128 + the signal that ended it
  std::string out, err;
};

class QenConfigTest : public HostRootTest {
 protected:
  // A qenconfig process started by Start; its output goes to two files.
  struct Running {
    pid_t pid = -1;
    std::string out, err;  // logical paths of stdout and stderr
  };

  void SetUp() override {
    HostRootTest::SetUp();
    InstallSampleHost();
  }

  // Starts qenconfig --root <this root> args... in the background; `name`
  // tells its output files apart from those of other running ones. Standard
  // input is `input` (a physical path, opened for reading and writing).
  Running Start(std::vector<std::string> args, const std::string& name = "run",
                const std::string& input = "/dev/null") {
    Running running{-1, "/." + name + ".stdout", "/." + name + ".stderr"};
    if (passRoot_) args.insert(args.begin(), {"--root", Root()});
    args.insert(args.begin(), QEN_BINARY_DIR "/tools/qenconfig");
    args.insert(args.begin(), runAs_.begin(), runAs_.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    const std::string out = Path(running.out), err = Path(running.err);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDWR, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    char* env[] = {nullptr};
    int rc = posix_spawn(&running.pid, argv[0], &actions, nullptr, argv.data(), env);
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(rc, 0) << "cannot start qenconfig";
    if (rc != 0) running.pid = -1;
    return running;
  }

  // Waits for a started qenconfig and collects what it wrote.
  Outcome Finish(const Running& running) {
    Outcome outcome;
    if (running.pid < 0) return outcome;
    int status = 0;
    while (waitpid(running.pid, &status, 0) < 0 && errno == EINTR) {
    }
    outcome.exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    outcome.out = ReadFile(running.out);
    outcome.err = ReadFile(running.err);
    return outcome;
  }

  // Runs qenconfig --root <this root> args... to completion.
  Outcome Run(std::vector<std::string> args) { return Finish(Start(std::move(args))); }

  // Seeds the store with the sample host's values, as most tests start.
  void LoadSampleStore() { ASSERT_EQ(Run({"store", "load", std::string(kDocs) + "store-sample.json"}).exit, 0); }

  // A user file outside the host root's logical paths.
  std::string UserFile(const std::string& name, const std::string& text) {
    WriteFile("/" + name, text);
    return Path("/" + name);
  }

  // Whether Start passes --root <this root> (tests of --root itself do not).
  bool passRoot_ = true;
  // A command (and its arguments) that runs qenconfig, e.g. as another user.
  std::vector<std::string> runAs_;

  static constexpr const char* kDocs = QEN_SOURCE_DIR "/host/documents/";
};

}  // namespace QenTest
