// Apply task generation, check-apply and apply against a temporary host:
// Python apply plugins in three apply groups (version 3, version 2, version
// 3 without boot support) and an impact plugin that keeps drift, run by the
// real runner.
#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <sstream>

#include "CustomHost.h"
#include "QenConfigStore.h"
#include "apply/apply_runner.h"
#include "configmanager/extract.h"

using namespace QenConfigManager;
using QenTest::RecordingTask;

namespace {

// Answers the impact named in /tmp/impact.txt ("0", "1", "2" or "fail") and
// writes what it was handed (operation, cached drift) to /tmp/impact-seen.txt.
const char* kImpactPy = R"(import qenplugin

def impact(call):
    try:
        with open(qenplugin.HostPath("/tmp/impact.txt")) as f:
            cue = f.read().strip()
    except FileNotFoundError:
        cue = "0"
    if cue == "fail":
        raise qenplugin.PluginError("corvane.qen.settings.test.impact-failed", [call.request.GetId()])
    seen = []
    for item in call.request.GetData():
        oid = item.object.GetConfigStoreObjectId()
        cached = item.cachedDrift
        seen.append("%s %s cached=%s" % (oid.instance, item.operation,
                    "%s %s" % (cached.operation, cached.drift.ToString() if cached.drift else None) if cached else None))
        call.result.AddImpact(oid, int(cue))
    with open(qenplugin.HostPath("/tmp/impact-seen.txt"), "w") as f:
        f.write("\n".join(seen))
)";

const char* kBetaManifest = R"({"version": 2, "type": "python", "apply": {"apply_group": "storage", "boot": true,
  "operations": {"DELETE": {"provides": "beta", "depends": ["alpha"]}, "ADD": {"provides": "beta", "depends": ["alpha"]},
                 "SET": {"provides": "beta", "depends": ["alpha"]}}}})";

const char* kStore = R"({"host": {"current": {"test": {
  "net": {"a": {"v": 1}, "list": [{"name": "l0", "v": 1}]},
  "g": {"b": [{"name": "b0", "v": 1}, {"name": "b1", "v": 1}]},
  "sys": {"c": {"v": 1}}}}}, "bootMode": 1})";

// A desired document: the store's values unless given.
std::string Doc(const std::string& a = R"({"v": 1})", const std::string& b = R"([{"name": "b0", "v": 1}, {"name": "b1", "v": 1}])",
                const std::string& c = R"({"v": 1})", const std::string& list = R"([{"name": "l0", "v": 1}])") {
  return R"({"profile": {"test": {"net": {"a": )" + a + R"(, "list": )" + list + R"(}, "g": {"b": )" + b +
         R"(}, "sys": {"c": )" + c + "}}}}";
}

// Hands out one recording child task for the remediation.
class ParentTask : public RecordingTask {
 public:
  std::shared_ptr<TaskHandle> ChildTask(int n) override {
    childArgs.push_back(n);
    return child;
  }
  std::shared_ptr<RecordingTask> child = std::make_shared<RecordingTask>();
  std::vector<int> childArgs;
};

// Aborts once its progress has moved past `after`.
class AbortingTask : public RecordingTask {
 public:
  explicit AbortingTask(float after) : after_(after) {}
  void UpdateProgress(float percent) override {
    RecordingTask::UpdateProgress(percent);
    if (percent > after_) AbortNow();
  }

 private:
  float after_;
};

std::vector<std::string> Notes(const RecordingTask& task) {
  std::vector<std::string> out;
  for (const auto& n : task.Notes()) out.push_back(n.kind + " " + n.msgId + " " + n.args.front());
  return out;
}

std::vector<std::string> Outcomes(const std::vector<ApplyTaskOutcome>& tasks) {
  std::vector<std::string> out;
  for (const auto& t : tasks)
    out.push_back(t.key + " " + std::to_string(t.inputs) + " " +
                  (t.state == APPLY_TASK_DONE     ? "done"
                   : t.state == APPLY_TASK_FAILED ? "failed " + t.error.msgId
                   : t.state == APPLY_TASK_NOT_RUN ? "not run"
                                                   : "no operation"));
  return out;
}

// "<code> <message>" of the E that applying `check` throws.
template <typename E>
std::string Refusal(const std::shared_ptr<CheckApplyResult>& check) {
  try {
    Apply(check, TaskHandle::Dummy());
  } catch (const E& e) {
    return std::to_string(e.GetErrorCode()) + " " + e.what();
  }
  return "no refusal";
}

class ApplyTest : public QenTest::CustomHostTest {
 protected:
  void SetUp() override {
    CustomHostTest::SetUp();
    WriteKeySchema("test", "net", "a", QenTest::TestKeySchema("net", "a", true));
    WriteKeySchema("test", "net", "list", QenTest::TestKeySchema("net", "list", false));
    WriteKeySchema("test", "g", "b", QenTest::TestKeySchema("g", "b", false));
    WriteKeySchema("test", "sys", "c", QenTest::TestKeySchema("sys", "c", true));
    WritePythonPlugin("alpha", QenTest::V3ApplyManifest(R"("test:net:a", "test:net:list")", "network", "alpha", true),
                      QenTest::kRecordingApplyPy);
    WritePythonPlugin("test/g/b", kBetaManifest, QenTest::kRecordingApplyPy);
    WritePythonPlugin("gamma", QenTest::V3ApplyManifest(R"("test:sys:c")", "system", "gamma", false),
                      QenTest::kRecordingApplyPy);
    WritePythonPlugin("imp", R"({"version": 3, "type": "python", "accepts": ["test:g:b"],
                                 "impact": {"supports": true, "cache_drift": ["test:g:b"]}})", kImpactPy);
    LoadStore(kStore);
  }

  static rapidjson::Document Parse(const std::string& text) {
    rapidjson::Document doc;
    ParseDocument(text, doc);
    return doc;
  }

  std::shared_ptr<CheckApplyResult> Check(const std::string& text, const std::string& context = "") {
    rapidjson::Document doc = Parse(text);
    return CheckApply(doc, context, TaskHandle::Dummy());
  }

  std::vector<std::string> Applied() {
    std::vector<std::string> lines;
    std::istringstream in(ReadFile("/tmp/applied.txt"));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  bool Complies(const std::string& text) {
    rapidjson::Document doc = Parse(text);
    ComplianceResult result;
    CheckCompliance(doc, false, result, TaskHandle::Dummy());
    return result.compliant;
  }
};

TEST_F(ApplyTest, GeneratedInputsFollowTheDriftWalk) {
  rapidjson::Document doc = Parse(Doc(R"({"v": 2})", R"([{"name": "b1", "v": 2}, {"name": "b2", "v": 1}])"));
  std::vector<std::string> inputs;
  for (const auto& input : GenerateApplyTasks(doc)) {
    const auto& id = input.object->GetConfigStoreObjectId();
    inputs.push_back(input.operation + " " + id.GetKey() + "/" + id.GetInstanceId() + " " +
                     input.object->GetSerializedData() + (input.drift ? " " + input.drift->GetSerializedDrift() : ""));
  }
  EXPECT_EQ(inputs, (std::vector<std::string>{R"(SET a/ {"v":2} {"v":"SET"})", R"(SET b/b1 {"name":"b1","v":2} {"v":"SET"})",
                                              R"(ADD b/b2 {"name":"b2","v":1})", R"(DELETE b/b0 {"name":"b0","v":1})"}));

  rapidjson::Document same = Parse(Doc());
  EXPECT_TRUE(GenerateApplyTasks(same).empty());
  // A key the host lacks is set, with no drift to describe.
  LoadStore(R"({"host": {"current": {"test": {"net": {"list": [{"name": "l0", "v": 1}]},
                 "g": {"b": [{"name": "b0", "v": 1}, {"name": "b1", "v": 1}]}, "sys": {"c": {"v": 1}}}}}})");
  const DesiredConfigInputList created = GenerateApplyTasks(same);
  ASSERT_EQ(created.size(), 1u);
  EXPECT_EQ(created[0].operation, "SET");
  EXPECT_FALSE(created[0].drift);
}

TEST_F(ApplyTest, TasksRunInDependencyOrderWithProgressAndNotifications) {
  const std::string doc = Doc(R"({"v": 2})", R"([{"name": "b0", "v": 1}, {"name": "b1", "v": 1}, {"name": "b2", "v": 1}])",
                              R"({"v": 2})");
  auto check = Check(doc);
  ASSERT_TRUE(check);
  EXPECT_EQ(check->GetImpact(), NO_IMPACT);
  auto task = std::make_shared<ParentTask>();
  ApplyResult result = Apply(check, task);
  EXPECT_EQ(result.status, APPLY_DONE);
  EXPECT_TRUE(result.errorInfo.msgId.empty());
  EXPECT_EQ(Outcomes(result.tasks),
            (std::vector<std::string>{"REMEDIATE:alpha 1 done", "ADD:test:g:b 1 done", "REMEDIATE:gamma 1 done"}));
  EXPECT_EQ(Applied(), (std::vector<std::string>{"alpha SET:a={\"v\":\"SET\"}", "test:g:b ADD:b/b2", "gamma SET:c={\"v\":\"SET\"}"}));

  // The re-check reports on the task itself, the remediation on its second child.
  EXPECT_EQ(task->childArgs, (std::vector<int>{2, 2}));
  EXPECT_EQ(task->Progress(), (std::vector<float>{20.0f, 100.0f}));
  const std::vector<float> progress = task->child->Progress();
  const std::vector<float> expected = {20.0f, 46.67f, 73.33f, 100.0f};
  ASSERT_EQ(progress.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_NEAR(progress[i], expected[i], 0.01) << i;
  EXPECT_EQ(Notes(*task->child), (std::vector<std::string>{
                                     "info corvane.qen.settings.apply.plugin.started alpha",
                                     "info corvane.qen.settings.apply.plugin.finished alpha",
                                     "info corvane.qen.settings.apply.plugin.started test:g:b",
                                     "info corvane.qen.settings.apply.plugin.finished test:g:b",
                                     "info corvane.qen.settings.apply.plugin.started gamma",
                                     "info corvane.qen.settings.apply.plugin.finished gamma"}));
  EXPECT_EQ(QenConfigStore::GetBootMode(), 0);
  EXPECT_TRUE(Complies(doc));
}

TEST_F(ApplyTest, TaskKeysByManifestVersion) {
  const std::string doc = Doc(R"({"v": 2})", R"([{"name": "b1", "v": 2}, {"name": "b2", "v": 1}])", R"({"v": 1})",
                              R"([{"name": "l0", "v": 1}, {"name": "l1", "v": 1}])");
  ApplyResult result = Apply(Check(doc), TaskHandle::Dummy());
  // Version 3: one task for all inputs; version 2: one per operation, in the
  // manifest's operation order.
  EXPECT_EQ(Outcomes(result.tasks), (std::vector<std::string>{"REMEDIATE:alpha 2 done", "DELETE:test:g:b 1 done",
                                                              "ADD:test:g:b 1 done", "SET:test:g:b 1 done"}));
  EXPECT_EQ(Applied(), (std::vector<std::string>{"alpha SET:a={\"v\":\"SET\"} ADD:list/l1", "test:g:b DELETE:b/b0",
                                                 "test:g:b ADD:b/b2", "test:g:b SET:b/b1={\"v\":\"SET\"}"}));
}

TEST_F(ApplyTest, ATaskNoOperationMatchesNeverRunsAndIsToldApart) {
  WritePythonPlugin("test/g/b", R"({"version": 2, "type": "python", "apply": {"apply_group": "storage",
      "boot": true, "operations": {"SET": {"provides": "beta", "depends": []}}}})", "");
  const std::string doc = Doc(R"({"v": 1})", R"([{"name": "b0", "v": 1}, {"name": "b1", "v": 2}, {"name": "b2", "v": 1}])");
  auto task = std::make_shared<ParentTask>();
  ApplyResult result = Apply(Check(doc), task);
  EXPECT_TRUE(result.errorInfo.msgId.empty()) << result.errorInfo.msgId;
  EXPECT_EQ(Outcomes(result.tasks), (std::vector<std::string>{"SET:test:g:b 1 done", "ADD:test:g:b 1 no operation"}));
  EXPECT_EQ(Applied(), std::vector<std::string>{"test:g:b SET:b/b1={\"v\":\"SET\"}"});
  // Counted in the step all the same.
  EXPECT_EQ(task->child->Progress(), (std::vector<float>{20.0f, 60.0f}));
  EXPECT_TRUE(log_.Contains(1, "No apply operation of plugin=test:g:b matches key=ADD:test:g:b"));
}

TEST_F(ApplyTest, AbortBetweenTasksLeavesTheRestUnrun) {
  rapidjson::Document doc = Parse(Doc(R"({"v": 2})", R"([{"name": "b0", "v": 2}, {"name": "b1", "v": 1}])", R"({"v": 2})"));
  auto task = std::make_shared<AbortingTask>(20.0f);
  std::vector<ApplyTaskOutcome> outcomes;
  ErrorInfo error = RemediateHost(doc, "", task, false, &outcomes);
  EXPECT_EQ(error, ErrorInfo("corvane.qen.settings.apply.plugin.aborted", {"SET:test:g:b"}, ""));
  EXPECT_EQ(Outcomes(outcomes), (std::vector<std::string>{"REMEDIATE:alpha 1 done", "SET:test:g:b 1 not run",
                                                          "REMEDIATE:gamma 1 not run"}));
  EXPECT_EQ(Applied(), std::vector<std::string>{"alpha SET:a={\"v\":\"SET\"}"});
  EXPECT_TRUE(log_.Contains(2, "Apply aborted, returning..."));
}

TEST_F(ApplyTest, AFailingPluginStopsTheRest) {
  const std::string doc = Doc(R"({"v": 2})", R"([{"name": "b0", "v": 2}, {"name": "b1", "v": 1}])", R"({"v": 2})");
  const struct {
    std::string cue;
    ErrorInfo error;
  } cases[] = {
      {"fail:test:g:b", ErrorInfo("corvane.qen.settings.test.apply-failed", {"test:g:b"}, "test.g.b")},
      {"die:test:g:b", ErrorInfo("corvane.qen.settings.apply.plugin.unexpected.error", {"test:g:b"})},
      {"garbage:test:g:b", ErrorInfo("corvane.qen.settings.apply.plugin.unexpected.error", {"test:g:b"})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cue);
    LoadStore(kStore);
    WriteFile("/tmp/applied.txt", "");
    auto task = std::make_shared<ParentTask>();
    ApplyResult result = Apply(Check(doc, c.cue), task);
    EXPECT_EQ(result.status, APPLY_DONE);
    EXPECT_EQ(result.errorInfo, c.error);
    EXPECT_EQ(Outcomes(result.tasks), (std::vector<std::string>{"REMEDIATE:alpha 1 done",
                                                                "SET:test:g:b 1 failed " + c.error.msgId,
                                                                "REMEDIATE:gamma 1 not run"}));
    EXPECT_EQ(result.tasks[1].pluginId, "test:g:b");
    EXPECT_EQ(Applied(), std::vector<std::string>{"alpha SET:a={\"v\":\"SET\"}"});
    EXPECT_EQ(Notes(*task->child).back(), "error " + c.error.msgId + " test:g:b");
    EXPECT_TRUE(log_.Contains(0, "test:g:b plugin failed to execute."));
  }
}

TEST_F(ApplyTest, BootRunsOnlyBootCapablePlugins) {
  rapidjson::Document doc = Parse(Doc(R"({"v": 2})", R"([{"name": "b0", "v": 2}, {"name": "b1", "v": 1}])", R"({"v": 2})"));
  std::vector<ApplyTaskOutcome> outcomes;
  EXPECT_TRUE(RemediateHost(doc, "", TaskHandle::Dummy(), true, &outcomes).msgId.empty());
  EXPECT_EQ(Outcomes(outcomes), (std::vector<std::string>{"REMEDIATE:alpha 1 done", "SET:test:g:b 1 done"}));
  EXPECT_TRUE(log_.Contains(0, "Plugin=gamma does not support boot-time remediation for csoid=comp test grp sys key c"));

  rapidjson::Document same = Parse(Doc(R"({"v": 2})", R"([{"name": "b0", "v": 2}, {"name": "b1", "v": 1}])"));
  EXPECT_TRUE(RemediateHost(same, "", TaskHandle::Dummy(), false, &outcomes).msgId.empty());
  EXPECT_TRUE(outcomes.empty());
  EXPECT_TRUE(log_.Contains(1, "No tasks generated for the desired configuration."));
}

TEST_F(ApplyTest, RecheckTransitions) {
  const std::string doc = Doc(R"({"v": 1})", R"([{"name": "b0", "v": 1}, {"name": "b1", "v": 5}])");
  EXPECT_FALSE(Check(Doc()));
  EXPECT_EQ(Refusal<ConfigManagerException>(nullptr), "2024 The Apply API was invoked without valid input.");
  EXPECT_TRUE(log_.Contains(0, "Apply invoked with empty check apply result."));

  // Maintenance mode no longer needed: applied without asking the host.
  WriteFile("/tmp/impact.txt", "1");
  auto check = Check(doc);
  EXPECT_EQ(check->GetImpact(), MAINTENANCE_MODE_REQUIRED);
  WriteFile("/tmp/impact.txt", "0");
  log_.Clear();
  ApplyResult result = Apply(check, TaskHandle::Dummy());
  EXPECT_EQ(result.status, APPLY_DONE);
  EXPECT_EQ(Applied(), std::vector<std::string>{"test:g:b SET:b/b1={\"v\":\"SET\"}"});
  EXPECT_TRUE(log_.Contains(0, "Impact reported by CheckApply() is no longer applicable, continue. old_impact=1, new_impact=0"));
  EXPECT_FALSE(log_.Contains(2, "Checking if host is in maintenanceMode"));
  // Applying it again finds nothing left to do.
  EXPECT_EQ(Apply(check, TaskHandle::Dummy()).status, APPLY_DONE);
  EXPECT_TRUE(log_.Contains(2, "Drift reported by CheckApply() is resolved."));

  // Grown from none to a reboot: refused, nothing applied.
  LoadStore(kStore);
  WriteFile("/tmp/applied.txt", "");
  check = Check(doc);
  WriteFile("/tmp/impact.txt", "2");
  EXPECT_EQ(Refusal<InvalidImpact>(check), "2025 The impact result is not applicable anymore.");
  EXPECT_TRUE(log_.Contains(0, "Impact reported by CheckApply() is no longer applicable, abort. old_impact=0, new_impact=2"));

  // Reboot both times: staged for the next boot, no plugin run.
  check = Check(doc);
  result = Apply(check, TaskHandle::Dummy());
  EXPECT_EQ(result.status, APPLY_STAGED_FOR_REBOOT);
  EXPECT_TRUE(result.tasks.empty());
  EXPECT_EQ(QenConfigStore::GetBootMode(), 1);
  EXPECT_EQ(QenPlatform::CompactJson(ExtractDesiredConfiguration()->GetDocument()["test"]["g"]["b"]),
            R"([{"name":"b0","v":1},{"name":"b1","v":5}])");
  EXPECT_EQ(Applied(), std::vector<std::string>{});
}

TEST_F(ApplyTest, MaintenanceModeAndImpactFailures) {
  const std::string doc = Doc(R"({"v": 1})", R"([{"name": "b0", "v": 1}, {"name": "b1", "v": 5}])");
  WriteFile("/tmp/impact.txt", "1");
  auto check = Check(doc);
  EXPECT_EQ(Refusal<HostNotInMM>(check), "2026 The host must be in maintenance mode for apply to proceed.");
  EXPECT_EQ(Applied(), std::vector<std::string>{});

  WriteFile("/tmp/impact.txt", "fail");
  // The re-check's plugin failure comes back in the result; nothing applied.
  ApplyResult result = Apply(check, TaskHandle::Dummy());
  EXPECT_EQ(result.status, APPLY_DONE);
  EXPECT_EQ(result.errorInfo, ErrorInfo("corvane.qen.settings.test.impact-failed", {"imp"}, "test.g.b"));
  // Check-apply throws the error itself.
  try {
    Check(doc);
    ADD_FAILURE() << "no error thrown";
  } catch (const ErrorInfo& e) {
    EXPECT_EQ(e, ErrorInfo("corvane.qen.settings.test.impact-failed", {"imp"}, "test.g.b"));
  }

  WriteFile("/tmp/impact.txt", "1");
  WriteFile("/var/run/corvane/sysinfo.json", R"({"interfaceCount": 21, "maintenanceMode": 1})");
  EXPECT_EQ(Apply(check, TaskHandle::Dummy()).status, APPLY_DONE_IN_MAINTENANCE_MODE);
  EXPECT_EQ(Applied(), std::vector<std::string>{"test:g:b SET:b/b1={\"v\":\"SET\"}"});

  auto broken = std::make_shared<CheckApplyResult>(NO_IMPACT, Parse(doc), check->GetTimestamp(),
                                                   QUICKBOOT_UNSUPPORTED, "", "{");
  EXPECT_EQ(Refusal<InvalidImpact>(broken), "2025 The impact result is not applicable anymore.");
  EXPECT_TRUE(log_.Contains(0, "Drift cache failed to initialize."));
}

TEST_F(ApplyTest, DriftCacheRecordedByCheckReplayedByApply) {
  const std::string doc = Doc(R"({"v": 1})", R"([{"name": "b1", "v": 2}, {"name": "b2", "v": 1}])");
  auto check = Check(doc, "ctx");
  EXPECT_EQ(check->GetDriftCache(), R"({"test:g:b:b1":{"operation":"SET","drift":{"v":"SET"}},)"
                                    R"("test:g:b:b2":{"operation":"ADD","drift":null},)"
                                    R"("test:g:b:b0":{"operation":"DELETE","drift":null}})");
  EXPECT_EQ(ReadFile("/tmp/impact-seen.txt"), "b1 SET cached=None\nb2 ADD cached=None\nb0 DELETE cached=None");
  EXPECT_EQ(check->GetContext(), "ctx");
  EXPECT_LE(std::abs(std::stoll(check->GetTimestamp()) - static_cast<long long>(std::time(nullptr))), 5);

  EXPECT_TRUE(Apply(check, TaskHandle::Dummy()).errorInfo.msgId.empty());
  EXPECT_EQ(ReadFile("/tmp/impact-seen.txt"),
            "b1 SET cached=SET {\"v\":\"SET\"}\nb2 ADD cached=ADD null\nb0 DELETE cached=DELETE null");

  // What the plugin receives is the kept cache, not the drift found now.
  LoadStore(kStore);
  auto kept = std::make_shared<CheckApplyResult>(
      check->GetImpact(), check->GetDesiredDocument(), check->GetTimestamp(), check->GetQuickBootStatus(),
      check->GetContext(), R"({"test:g:b:b1":{"operation":"ADD","drift":{"x":"DELETE"}}})");
  EXPECT_TRUE(Apply(kept, TaskHandle::Dummy()).errorInfo.msgId.empty());
  EXPECT_EQ(ReadFile("/tmp/impact-seen.txt"), "b1 SET cached=ADD {\"x\":\"DELETE\"}\nb2 ADD cached=None\nb0 DELETE cached=None");
}

}  // namespace
