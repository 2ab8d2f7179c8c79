#include "CustomHost.h"

#include <boost/filesystem.hpp>

#include "QenConfigStore.h"
#include "QenSchemaStore.h"

namespace QenTest {

namespace {
const char* kSchemaDir = "/usr/lib/corvane/configstore/schemas";
const char* kModulesDir = "/usr/lib/corvane/configmanager/apply_modules";
}  // namespace

void CustomHostTest::SetUp() {
  HostRootTest::SetUp();
  InstallSampleHost();
  boost::filesystem::remove_all(Path(kSchemaDir));
  boost::filesystem::remove_all(Path(kModulesDir));
  boost::filesystem::create_directories(Path(kSchemaDir));
  boost::filesystem::create_directories(Path(kModulesDir));
  boost::filesystem::create_directories(Path("/tmp"));
  QenSchemaStore::SchemaStore::Invalidate();
}

void CustomHostTest::WriteKeySchema(const std::string& component, const std::string& group,
                                    const std::string& key, const std::string& fileBody) {
  WriteFile(std::string(kSchemaDir) + "/" + component + "/" + group + "/" + key + ".json", fileBody);
  QenSchemaStore::SchemaStore::Invalidate();
}

void CustomHostTest::WritePythonPlugin(const std::string& name, const std::string& manifest,
                                       const std::string& pluginPy) {
  std::string dir = std::string(kModulesDir) + "/" + name;
  WriteFile(dir + "/manifest.json", manifest);
  if (!pluginPy.empty()) WriteFile(dir + "/plugin.py", pluginPy);
}

void CustomHostTest::LoadStore(const std::string& description) {
  rapidjson::Document doc;
  doc.Parse(description.c_str());
  ASSERT_FALSE(doc.HasParseError()) << description;
  QenConfigStore::LoadStoreDescription(doc);
}

void CustomHostTest::EnableFeature(const std::string& name) {
  WriteFile("/etc/corvane/features.json", "{\"features\": {\"" + name + "\": true}}");
}

std::string TestKeySchema(const std::string& group, const std::string& key, bool singleton,
                          const std::string& extra) {
  const std::string item = R"({"type": "object", "properties": {"name": {"type": "string"}, "v": {"type": "integer"}}})";
  return R"({"component": "test", "group": ")" + group + R"(", "key": ")" + key + R"(", "userConfig": "u", )" + extra +
         (singleton ? R"("singleton": true, "schema": )" + item
                    : R"("singleton": false, "instanceId": "name", "schema": {"type": "array", "items": )" + item + "}") +
         "}";
}

std::string V3ApplyManifest(const std::string& accepts, const std::string& applyGroup,
                            const std::string& provides, bool boot) {
  return R"({"version": 3, "type": "python", "accepts": [)" + accepts + R"(], "apply": {"apply_group": ")" +
         applyGroup + R"(", "boot": )" + (boot ? "true" : "false") + R"(, "REMEDIATE": {"provides": ")" + provides +
         R"(", "depends": []}}})";
}

const char* const kRecordingApplyPy = R"(import os, signal
import qenplugin

def apply(call):
    me = call.request.GetId()
    cue = call.request.GetClusterContext()
    if not cue and os.path.exists(qenplugin.HostPath("/tmp/apply-cue")):
        with open(qenplugin.HostPath("/tmp/apply-cue")) as f:
            cue = f.read().strip()
    verb, _, who = cue.partition(":")
    if who == me and verb == "fail":
        raise qenplugin.PluginError("corvane.qen.settings.test.apply-failed", [me])
    if who == me and verb == "die":
        os.kill(os.getpid(), signal.SIGKILL)
    if who == me and verb == "garbage":
        with open(qenplugin.HostPath("/var/corvane/lifecycle/cm-plugin-output.json"), "w") as f:
            f.write('{"error": ')
        os._exit(0)
    line = me
    for item in call.request.GetData():
        oid = item.object.GetConfigStoreObjectId()
        line += " %s:%s%s" % (item.operation, oid.key, "/" + oid.instance if oid.instance else "")
        if item.drift:
            line += "=" + item.drift.ToString()
        if item.operation == "DELETE":
            call.store.DeleteObject(oid)
        else:
            call.store.SetObject(oid, item.object.GetValue())
    with open(qenplugin.HostPath("/tmp/applied.txt"), "a") as f:
        f.write(line + "\n")
)";

class RecordingTask::Sink : public QenConfigManager::TaskHandle::Notifications {
 public:
  explicit Sink(RecordingTask* task) : task_(task) {}
  void PluginInfo(const std::string& id, const std::list<std::string>& args) override {
    Add("info", id, args);
  }
  void PluginWarning(const std::string& id, const std::list<std::string>& args) override {
    Add("warning", id, args);
  }
  void PluginError(QenConfigManager::ErrorInfo error) override {
    Add("error", error.msgId, error.args);
  }

 private:
  void Add(const char* kind, const std::string& id, const std::list<std::string>& args) {
    std::lock_guard<std::mutex> l(task_->mutex_);
    task_->notes_.push_back(Note{kind, id, args});
  }
  RecordingTask* task_;
};

bool RecordingTask::IsAborted() {
  std::lock_guard<std::mutex> l(mutex_);
  return aborted_;
}

void RecordingTask::UpdateProgress(float percent) {
  std::lock_guard<std::mutex> l(mutex_);
  progress_.push_back(percent);
}

std::shared_ptr<QenConfigManager::TaskHandle::Notifications> RecordingTask::AddNotification() {
  return std::make_shared<Sink>(this);
}

std::vector<float> RecordingTask::Progress() const {
  std::lock_guard<std::mutex> l(mutex_);
  return progress_;
}

std::vector<RecordingTask::Note> RecordingTask::Notes() const {
  std::lock_guard<std::mutex> l(mutex_);
  return notes_;
}

}  // namespace QenTest
