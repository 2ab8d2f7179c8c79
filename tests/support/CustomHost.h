// A temporary host with the sample host's runners and SDKs but only the key
// schemas and plugins a test writes itself, so each test controls exactly
// which plugins run and what they answer.
#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "HostRootTest.h"
#include "configmanager/common.h"

namespace QenTest {

class CustomHostTest : public HostRootTest {
 protected:
  void SetUp() override;

  // Writes a key schema file (the schema store's format) for c/g/k.
  void WriteKeySchema(const std::string& component, const std::string& group,
                      const std::string& key, const std::string& fileBody);
  // Writes apply_modules/<name>/manifest.json and, when given, plugin.py.
  void WritePythonPlugin(const std::string& name, const std::string& manifest,
                         const std::string& pluginPy);
  // Replaces the store's content with a store description.
  void LoadStore(const std::string& description);
  void EnableFeature(const std::string& name);
};

// A key schema file for test/<group>/<key> whose values are {"name": string,
// "v": integer}: one object (singleton) or instances named by "name".
// `extra` adds members to the file (each ending in ", ").
std::string TestKeySchema(const std::string& group, const std::string& key, bool singleton,
                          const std::string& extra = "");

// A version-3 Python plugin manifest with one apply operation.
std::string V3ApplyManifest(const std::string& accepts, const std::string& applyGroup,
                            const std::string& provides, bool boot);

// A Python apply plugin that records each input in the store and appends
// what it was given to /tmp/applied.txt: "<plugin> OP:key[/instance][=drift]
// ...". A cue fails one plugin: the context, or when that is empty the file
// /tmp/apply-cue, says "fail:<id>", "die:<id>" (killed by a signal) or
// "garbage:<id>" (a broken result file).
extern const char* const kRecordingApplyPy;

// A task handle that records what an operation reports and aborts on cue.
class RecordingTask : public QenConfigManager::TaskHandle {
 public:
  struct Note {
    std::string kind;  // "info", "warning", "error"
    std::string msgId;
    std::list<std::string> args;
  };

  bool IsAborted() override;
  void UpdateProgress(float percent) override;
  std::shared_ptr<Notifications> AddNotification() override;

  void AbortNow() { std::lock_guard<std::mutex> l(mutex_); aborted_ = true; }
  std::vector<float> Progress() const;
  std::vector<Note> Notes() const;

 private:
  class Sink;
  mutable std::mutex mutex_;
  bool aborted_ = false;
  std::vector<float> progress_;
  std::vector<Note> notes_;
};

}  // namespace QenTest
