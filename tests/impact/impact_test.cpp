// Impact against a temporary host: key schemas with impact annotations, the
// store's current values and Python impact plugins run by the real runner.
#include <gtest/gtest.h>

#include "CustomHost.h"
#include "JsonErrors.h"
#include "configmanager/impact.h"

using namespace QenConfigManager;
using QenTest::RecordingTask;

namespace {

// Reboot for SET (per property) and ADD, maintenance mode for SET (per
// property); annotated scalars of every type, an annotated array of scalars
// and an array of objects with an annotated member.
const char* kOptsSchema = R"({
  "component": "test", "group": "g", "key": "opts", "singleton": true, "userConfig": "opts",
  "rebootRequired": {"operations": ["SET", "ADD"], "perProperty": true},
  "maintenanceModeRequired": {"operations": ["SET"], "perProperty": true},
  "schema": {"type": "object", "properties": {
    "count": {"type": "integer", "rebootRequired": {"SET": [5]}},
    "ratio": {"type": "number", "rebootRequired": {"SET": [5.0]}},
    "flag": {"type": "boolean", "maintenanceModeRequired": {"SET": [true]}},
    "mode": {"type": "string", "rebootRequired": {"SET": ["strict"]}, "maintenanceModeRequired": {"SET": []}},
    "tags": {"type": "array", "items": {"type": "string", "rebootRequired": {"SET": []}}},
    "secret": {"type": "string", "sensitive": true, "maintenanceModeRequired": {"SET": ["s3cret"]}},
    "rules": {"type": "array", "instanceId": "name", "items": {"type": "object", "properties": {
      "name": {"type": "string"}, "level": {"type": "integer", "rebootRequired": {"SET": [9]}}}}}}}})";

// Maintenance mode to add or remove a pool, decided per key.
const char* kPoolSchema = R"({
  "component": "test", "group": "g", "key": "pool", "singleton": false, "instanceId": "name",
  "userConfig": "pool", "maintenanceModeRequired": {"operations": ["ADD", "DELETE"], "perProperty": false},
  "schema": {"type": "array", "items": {"type": "object", "properties": {
    "name": {"type": "string"}, "size": {"type": "integer"}}}}})";

const char* kStore = R"({"host": {"current": {"test": {"g": {
  "opts": {"count": 1, "ratio": 1.5, "flag": false, "mode": "lax", "tags": ["a"]},
  "pool": [{"name": "p1", "size": 1}]}}}}})";

// An impact plugin whose answer the context names: "reboot", "mm", "none",
// "noquick:<instance>" (no quick boot for that instance) or "fail".
const char* kImpactPy = R"(import qenplugin

def impact(call):
    cue, _, arg = call.request.GetClusterContext().partition(":")
    if cue == "fail":
        raise qenplugin.PluginError("corvane.qen.settings.test.impact-failed", [call.request.GetId()])
    level = {"reboot": qenplugin.IMPACT_REBOOT, "mm": qenplugin.IMPACT_MAINTENANCE_MODE}.get(cue, 0)
    for item in call.request.GetData():
        oid = item.object.GetConfigStoreObjectId()
        call.result.AddImpact(oid, level, quick_boot_supported=not (cue == "noquick" and oid.instance == arg))
)";

std::string ImpactManifest(const std::string& accepts) {
  return R"({"version": 3, "type": "python", "accepts": [")" + accepts + R"("], "impact": {"supports": true}})";
}

// The opts value of the store with one member replaced (or added).
std::string Opts(const std::string& member, const std::string& value) {
  rapidjson::Document opts;
  ParseDocument(R"({"count": 1, "ratio": 1.5, "flag": false, "mode": "lax", "tags": ["a"]})", opts);
  rapidjson::Value v;
  rapidjson::Document parsed;
  ParseDocument(value, parsed);
  v.CopyFrom(parsed, opts.GetAllocator());
  opts.RemoveMember(member.c_str());
  opts.AddMember(rapidjson::Value(member, opts.GetAllocator()), v, opts.GetAllocator());
  return QenPlatform::CompactJson(opts);
}

std::string Document(const std::string& opts, const std::string& pool = R"([{"name": "p1", "size": 1}])") {
  return R"({"profile": {"test": {"g": {"opts": )" + opts + R"(, "pool": )" + pool + "}}}}";
}

std::vector<std::string> Messages(const ImpactResult& result) {
  std::vector<std::string> out;
  for (const auto& info : result.impactInfo) {
    std::string text = info.msgId;
    for (const auto& a : info.args) text += " " + a;
    out.push_back(text);
  }
  return out;
}

class ImpactTest : public QenTest::CustomHostTest {
 protected:
  void SetUp() override {
    CustomHostTest::SetUp();
    WriteKeySchema("test", "g", "opts", kOptsSchema);
    WriteKeySchema("test", "g", "pool", kPoolSchema);
    LoadStore(kStore);
  }

  ImpactResult Run(const std::string& text, const std::string& context = "",
                   std::shared_ptr<TaskHandle> task = TaskHandle::Dummy()) {
    rapidjson::Document doc;
    ParseDocument(text, doc);
    return Impact(doc, context, task);
  }
};

TEST_F(ImpactTest, SchemaAnnotationsPerActionAndValueType) {
  const std::string set = "corvane.settings.impact.info.set opts g test";
  const std::string reboot = "corvane.settings.impact.info.reboot";
  const std::string mm = "corvane.settings.impact.info.maintenance-mode";
  struct Case {
    std::string name, document;
    IMPACT_TYPE impact;
    std::vector<std::string> messages;
  } cases[] = {
      {"integer in the list", Document(Opts("count", "5")), REBOOT_REQUIRED, {set, reboot}},
      {"integer not in the list", Document(Opts("count", "6")), NO_IMPACT, {set}},
      {"integral number never matches a floating list", Document(Opts("ratio", "5")), NO_IMPACT, {set}},
      {"floating number in the list", Document(Opts("ratio", "5.0")), REBOOT_REQUIRED, {set, reboot}},
      {"boolean", Document(Opts("flag", "true")), MAINTENANCE_MODE_REQUIRED, {set, mm}},
      {"string in both lists: reboot outranks", Document(Opts("mode", "\"strict\"")), REBOOT_REQUIRED,
       {set, reboot}},
      {"empty list matches any value", Document(Opts("mode", "\"other\"")), MAINTENANCE_MODE_REQUIRED, {set, mm}},
      {"array of scalars is never examined", Document(Opts("tags", R"(["a", "b"])")), NO_IMPACT, {set}},
      {"array of objects, element by element", Document(Opts("rules", R"([{"name": "a", "level": 1},
       {"name": "b", "level": 9}])")), REBOOT_REQUIRED, {set, reboot}},
      {"a property removed weighs nothing", Document(R"({"count": 1, "ratio": 1.5, "flag": false, "tags": ["a"]})"),
       NO_IMPACT, {set}},
      {"instance added", Document(Opts("count", "1"), R"([{"name": "p1", "size": 1}, {"name": "p2"}])"),
       MAINTENANCE_MODE_REQUIRED, {"corvane.settings.impact.info.add pool g test", mm}},
      {"instance deleted", Document(Opts("count", "1"), "[]"), MAINTENANCE_MODE_REQUIRED,
       {"corvane.settings.impact.info.delete pool g test", mm}},
      {"instance changed: not a listed operation", Document(Opts("count", "1"), R"([{"name": "p1", "size": 2}])"),
       NO_IMPACT, {"corvane.settings.impact.info.set pool g test"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ImpactResult result = Run(c.document);
    EXPECT_TRUE(result.errorInfo.msgId.empty());
    EXPECT_FALSE(result.compliant);
    EXPECT_EQ(result.impact, c.impact);
    EXPECT_EQ(Messages(result), c.messages);
    EXPECT_EQ(result.quickBootStatus, QUICKBOOT_SUPPORTED);
  }
}

TEST_F(ImpactTest, MatchesAreLoggedWithTheirPaths) {
  Run(Document(Opts("rules", R"([{"name": "a", "level": 1}, {"name": "b", "level": 9}])")));
  EXPECT_TRUE(log_.Contains(2, ">>> DesiredLong: 9"));
  EXPECT_TRUE(log_.Contains(2, ">>> ImpactLong: 9"));
  EXPECT_TRUE(log_.Contains(2, "RebootRequired for path: /test/g/opts/rules/1/level"));
  EXPECT_FALSE(log_.Contains(2, "RebootRequired for path: /test/g/opts/rules/0/level"));
  EXPECT_TRUE(log_.Contains(2, "Impact: rebootRequired, Op: SET for path: /test/g/opts"));

  log_.Clear();
  Run(Document(Opts("ratio", "5")));
  for (const auto& line : log_.Texts(2)) EXPECT_EQ(line.find(">>> DesiredDouble"), std::string::npos) << line;
  Run(Document(Opts("ratio", "5.0")));
  EXPECT_TRUE(log_.Contains(2, ">>> DesiredDouble: 5.000000"));

  // A sensitive value is weighed, never logged.
  log_.Clear();
  EXPECT_EQ(Run(Document(Opts("secret", "\"s3cret\""))).impact, MAINTENANCE_MODE_REQUIRED);
  EXPECT_EQ(Run(Document(Opts("secret", "\"hunter2\""))).impact, NO_IMPACT);
  EXPECT_TRUE(log_.Contains(2, ">>> DesiredStr: (sensitive)"));
  for (const auto& line : log_.Lines()) EXPECT_EQ(line.second.find("hunter2"), std::string::npos) << line.second;

  log_.Clear();
  Run(Document(Opts("count", "1"), "[]"));
  EXPECT_TRUE(log_.Contains(2, "Impact: maintenanceModeRequired=1, rebootRequired=0 Op: DELETE for path: /test/g/pool/0"));
}

TEST_F(ImpactTest, NoDriftNoImpact) {
  auto task = std::make_shared<RecordingTask>();
  ImpactResult result = Run(Document(Opts("count", "1")), "", task);
  EXPECT_TRUE(result.compliant);
  EXPECT_EQ(result.impact, NO_IMPACT);
  EXPECT_TRUE(result.impactInfo.empty());
  EXPECT_EQ(result.quickBootStatus, QUICKBOOT_UNSUPPORTED);
  EXPECT_EQ(task->Progress(), std::vector<float>{20.0f});
}

TEST_F(ImpactTest, SingletonTheHostLacksIsAnAdd) {
  LoadStore(R"({"host": {"current": {"test": {"g": {"pool": [{"name": "p1", "size": 1}]}}}}})");
  ImpactResult result = Run(Document(Opts("count", "1")));
  EXPECT_EQ(result.impact, REBOOT_REQUIRED);
  EXPECT_EQ(Messages(result), (std::vector<std::string>{"corvane.settings.impact.info.add opts g test",
                                                        "corvane.settings.impact.info.reboot"}));
}

TEST_F(ImpactTest, PluginsAnswerPerKey) {
  WritePythonPlugin("poolimpact", ImpactManifest("test:g:pool"), kImpactPy);
  WritePythonPlugin("optsimpact", ImpactManifest("test:g:opts"), kImpactPy);
  // No impact from the schemas: the plugins decide.
  const std::string doc = Document(Opts("count", "2"), R"([{"name": "p1", "size": 2}])");

  auto task = std::make_shared<RecordingTask>();
  ImpactResult result = Run(doc, "reboot", task);
  EXPECT_EQ(result.impact, REBOOT_REQUIRED);
  EXPECT_EQ(result.quickBootStatus, QUICKBOOT_SUPPORTED);
  // Plugins run in identifier order, each once with all its keys.
  EXPECT_EQ(task->Progress(), (std::vector<float>{20.0f, 60.0f, 100.0f}));
  std::vector<std::string> notes;
  for (const auto& n : task->Notes()) notes.push_back(n.kind + " " + n.msgId + " " + n.args.front());
  EXPECT_EQ(notes, (std::vector<std::string>{
                       "info corvane.qen.settings.impact.plugin.started optsimpact",
                       "info corvane.qen.settings.impact.plugin.finished optsimpact",
                       "info corvane.qen.settings.impact.plugin.started poolimpact",
                       "info corvane.qen.settings.impact.plugin.finished poolimpact"}));
  EXPECT_TRUE(log_.Contains(3, "Impact: Plugin=poolimpact, impact=2 (pool:test:g:p1)"));

  EXPECT_EQ(Run(doc, "mm").impact, MAINTENANCE_MODE_REQUIRED);
  EXPECT_EQ(Run(doc, "none").impact, NO_IMPACT);
  // One entry without quick boot spoils it for the whole document.
  EXPECT_EQ(Run(doc, "noquick:p1").quickBootStatus, QUICKBOOT_UNSUPPORTED);
}

TEST_F(ImpactTest, PluginFailureAndAbortEndTheComputation) {
  WritePythonPlugin("poolimpact", ImpactManifest("test:g:pool"), kImpactPy);
  const std::string doc = Document(Opts("count", "5"), "[]");

  auto task = std::make_shared<RecordingTask>();
  ImpactResult failed = Run(doc, "fail", task);
  EXPECT_EQ(failed.errorInfo, ErrorInfo("corvane.qen.settings.test.impact-failed", {"poolimpact"}, "test.g.pool"));
  // What was computed so far: nothing merged yet.
  EXPECT_TRUE(failed.compliant);
  EXPECT_EQ(failed.impact, NO_IMPACT);
  EXPECT_TRUE(failed.impactInfo.empty());
  ASSERT_EQ(task->Notes().size(), 2u);
  EXPECT_EQ(task->Notes()[1].kind, "error");
  EXPECT_EQ(task->Notes()[1].msgId, "corvane.qen.settings.test.impact-failed");
  EXPECT_TRUE(log_.Contains(0, "poolimpact plugin failed to execute."));

  auto aborted = std::make_shared<RecordingTask>();
  aborted->AbortNow();
  ImpactResult result = Run(doc, "reboot", aborted);
  EXPECT_EQ(result.errorInfo, ErrorInfo("corvane.qen.settings.impact.plugin.aborted", {"poolimpact"}));
  EXPECT_TRUE(result.compliant);
  EXPECT_EQ(aborted->Progress(), std::vector<float>{20.0f});
  EXPECT_TRUE(aborted->Notes().empty());
}

TEST_F(ImpactTest, MalformedInputIsAJsonError) {
  // "<code> <condition>" of the JSON error: JSON error:"<file>":<line>: <condition>.
  auto failure = [&](const std::string& text) {
    try {
      Run(text);
    } catch (const QenConfigStore::ConfigStoreException& e) {
      const std::string what = e.what();
      if (what.rfind("JSON error:\"" + QenTest::JsonLibraryFile() + "\":", 0) != 0) return what;
      return std::to_string(e.GetErrorCode()) + " " + what.substr(what.rfind(": ") + 2);
    }
    return std::string("nothing thrown");
  };
  auto annotate = [&](const std::string& values) {
    std::string schema = kOptsSchema;
    WriteKeySchema("test", "g", "opts", schema.replace(schema.find("[5]"), 3, values));
  };
  EXPECT_EQ(failure("[1, 2]"), "1082 IsObject()");
  annotate("5");
  EXPECT_EQ(failure(Document(Opts("count", "7"))), "1082 IsArray()");
  annotate(R"(["5"])");
  EXPECT_EQ(failure(Document(Opts("count", "7"))), "1082 data_.f.flags & kInt64Flag");
}

}  // namespace
