// Get, set and delete of single keys against a temporary host: key schemas
// with impact annotations, a Python apply plugin that records what it was
// given, extract plugins whose answers the test sets, and the real store.
#include <gtest/gtest.h>

#include <sstream>

#include "CustomHost.h"
#include "FeatureState.h"
#include "hostapi/hostapi_internal.h"

using namespace QenConfigManager;
using QenTest::RecordingTask;

namespace {

std::string Schema(const std::string& group, const std::string& key, bool singleton,
                   const std::string& extra = R"("userConfig": "u", )") {
  const std::string item = R"({"type": "object", "properties": {
      "name": {"type": "string", "minLength": 2, "pattern": "^[a-z0-9]+$"},
      "v": {"type": "integer", "default": 0}, "secret": {"type": "string", "sensitive": true}}})";
  return R"({"component": "test", "group": ")" + group + R"(", "key": ")" + key + R"(", )" + extra +
         (singleton ? R"("singleton": true, "schema": )" + item
                    : R"("singleton": false, "instanceId": "name", "schema": {"type": "array", "items": )" +
                          item + "}") +
         "}";
}

const char* kReboot = R"("userConfig": "u", "rebootRequired": {"operations": ["SET", "ADD", "DELETE"], "perProperty": false}, )";
const char* kMaint = R"("userConfig": "u", "maintenanceModeRequired": {"operations": ["SET", "ADD", "DELETE"], "perProperty": false}, )";

// Extracts test/net/list: the objects listed in answer.txt beside it
// ([[instance, value], ...]), or "fail".
const char* kExtractPy = R"(import json, os
import qenplugin

def extract(call):
    with open(os.path.join(os.path.dirname(__file__), "answer.txt")) as f:
        answer = json.load(f)
    if answer == "fail":
        raise qenplugin.PluginError("corvane.qen.settings.test.extract-broke", [])
    for instance, value in answer:
        call.result.AddObject(qenplugin.ConfigStoreObjectId("list", "net", "test", instance), value)
)";

const char* kStore = R"({"host": {
  "defaults": {"test": {"net": {"a": {"name": "abc", "v": 0}}}},
  "current": {"test": {"net": {"a": {"name": "abc", "v": 1}, "list": [{"name": "l1", "v": 0}, {"name": "l0", "v": 2}]},
                       "g": {"dep": {"name": "dep", "v": 7}},
                       "sys": {"boot": {"name": "boot", "v": 1}, "mm": {"name": "mm", "v": 1},
                               "orphan": {"name": "orphan", "v": 1}}}}}})";

template <typename E>
std::string Failure(const std::function<void()>& f) {
  try {
    f();
  } catch (const E& e) {
    std::string text = std::to_string(e.GetErrorCode()) + " " + e.what();
    for (const std::string& arg : e.GetArgs()) text += " [" + arg + "]";
    return text;
  }
  return "no failure";
}

ImpactResult Impact(IMPACT_TYPE type) {
  ImpactResult result;
  result.compliant = false;
  result.impact = type;
  return result;
}

class HostApiTest : public QenTest::CustomHostTest {
 protected:
  void SetUp() override {
    CustomHostTest::SetUp();
    WriteKeySchema("test", "net", "a", Schema("net", "a", true));
    WriteKeySchema("test", "net", "list", Schema("net", "list", false));
    WriteKeySchema("test", "g", "dep", Schema("g", "dep", true));
    WriteKeySchema("test", "sys", "boot", Schema("sys", "boot", true, kReboot));
    WriteKeySchema("test", "sys", "bootlist", Schema("sys", "bootlist", false, kReboot));
    WriteKeySchema("test", "sys", "mm", Schema("sys", "mm", true, kMaint));
    WriteKeySchema("test", "sys", "orphan", Schema("sys", "orphan", true));
    WriteKeySchema("test", "sys", "internal", Schema("sys", "internal", true, ""));
    WritePythonPlugin("alpha", R"({"version": 3, "type": "python",
        "accepts": ["test:net:a", "test:net:list", "test:sys:boot", "test:sys:bootlist", "test:sys:mm"],
        "apply": {"apply_group": "network", "boot": true, "REMEDIATE": {"provides": "alpha", "depends": []}}})",
                      QenTest::kRecordingApplyPy);
    WritePythonPlugin("val", R"({"version": 3, "type": "python", "accepts": ["test:net:a"],
        "validation": {"supports": true, "references": ["test:g:dep"]}})", "");
    SetFeature(false);
    LoadStore(kStore);
  }

  void SetFeature(bool on) {
    WriteFile("/etc/corvane/features.json",
              std::string(R"({"features": {"Tavapps_ConfigPluginReads": )") + (on ? "true" : "false") + "}}");
  }

  void ExtractPlugin(const std::string& name, const std::string& answer) {
    WritePythonPlugin(name, R"({"version": 3, "type": "python", "accepts": ["test:net:list"],
                                "extract": {"supports": true}})", kExtractPy);
    WriteFile("/usr/lib/corvane/configmanager/apply_modules/" + name + "/answer.txt", answer);
  }

  static std::string Text(const rapidjson::Value& value) { return QenPlatform::CompactJson(value); }

  std::string Dump() { return Text(QenConfigStore::DumpStoreDescription()->GetDocument()); }

  std::vector<std::string> Applied() {
    std::vector<std::string> lines;
    std::istringstream in(Exists("/tmp/applied.txt") ? ReadFile("/tmp/applied.txt") : "");
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  // The current value of a key as GetConfig presents it.
  std::string Current(const std::string& group, const std::string& key) {
    std::string defaults, current, user;
    GetConfig("test", group, key, defaults, current, user);
    return current;
  }

  // Validates, builds the documents and sets, as a caller would.
  ErrorInfo Set(const std::string& group, const std::string& key, const std::string& text,
                IMPACT_TYPE expected, std::shared_ptr<TaskHandle> task = TaskHandle::Dummy()) {
    rapidjson::Document value, desired, current, relevant;
    std::vector<ValidationErrorInfo> errors;
    EXPECT_TRUE(ValidateInputSet("test", group, key, text, value, errors));
    GenerateSetDocuments("test", group, key, value, desired, current, relevant);
    ImpactResult impact = CheckImpact(desired, current, task);
    EXPECT_EQ(impact.impact, expected);
    return SetConfig(desired, current, value, impact, "test", group, key, task);
  }

  ErrorInfo Delete(const std::string& group, const std::string& key, IMPACT_TYPE expected) {
    rapidjson::Document current, relevant;
    ValidateInputDelete("test", group, key);
    GenerateDeleteDocuments("test", group, key, current, relevant);
    rapidjson::Document nothing(rapidjson::kObjectType);
    ImpactResult impact = CheckImpact(nothing, current, TaskHandle::Dummy());
    EXPECT_EQ(impact.impact, expected);
    return DeleteConfig(current, impact, "test", group, key, TaskHandle::Dummy());
  }
};

TEST_F(HostApiTest, InputValidationRefusals) {
  auto validate = [](const std::string& key, const std::string& text) {
    return [key, text] {
      rapidjson::Document doc;
      std::vector<ValidationErrorInfo> errors;
      ValidateInputSet("test", "net", key, text, doc, errors);
    };
  };
  EXPECT_EQ(Failure<InvalidArgumentException>(validate("a", "{\"name\": ")),
            "2080 Failed to parse JSON String [Invalid Json]");
  for (const char* empty : {"[]", "{}", " null "})
    EXPECT_EQ(Failure<InvalidArgumentException>(validate("a", empty)),
              "2023 The desired configuration document is empty. [Cannot set empty configuration]")
        << empty;
  EXPECT_EQ(Failure<InvalidArgumentException>(validate("a", R"([{"name": "abc"}])")),
            "2022 Not a Singleton object: comp test grp net key a [comp test grp net key a]");
  EXPECT_EQ(Failure<InvalidArgumentException>(validate("list", R"({"name": "abc"})")),
            "2028 Not a Non-Singleton object: comp test grp net key list [comp test grp net key list]");
  EXPECT_EQ(Failure<ConfigManagerException>(validate("nope", R"({"name": "abc"})")),
            "2021 Schema object not found: comp test grp net key nope [comp test grp net key nope]");
  EXPECT_EQ(Failure<ConfigManagerException>([] { ValidateInputDelete("test", "net", "nope"); }),
            "2021 Schema object not found: comp test grp net key nope [comp test grp net key nope]");
}

TEST_F(HostApiTest, EveryValidatorErrorIsItsOwnRecord) {
  auto errorsOf = [](const std::string& key, const std::string& text) {
    rapidjson::Document doc;
    std::vector<ValidationErrorInfo> errors;
    const bool valid = ValidateInputSet("test", "net", key, text, doc, errors);
    std::vector<std::string> out;
    for (const auto& e : errors) {
      EXPECT_EQ(e.messages.size(), 1u);
      std::string line = e.path + " " + e.messages[0].msgId;
      for (const auto& arg : e.messages[0].args) line += " " + arg;
      out.push_back(line);
    }
    EXPECT_EQ(valid, out.empty());
    return out;
  };
  EXPECT_EQ(errorsOf("a", R"({"name": "abc", "v": 3})"), std::vector<std::string>{});
  // "X" is both too short and off the pattern: two records for one path.
  EXPECT_EQ(errorsOf("a", R"({"name": "X", "v": "3"})"),
            (std::vector<std::string>{"/name corvane.qen.settings.schema.min-length 1 2",
                                      "/name corvane.qen.settings.schema.pattern-mismatch \"X\" ^[a-z0-9]+$",
                                      "/v corvane.qen.settings.schema.type-mismatch integer string"}));
  // Instances one by one, each error's path naming its element.
  EXPECT_EQ(errorsOf("list", R"([{"name": "l0"}, {"name": "l1", "v": 1.5}])"),
            (std::vector<std::string>{"/1/v corvane.qen.settings.schema.type-mismatch integer number"}));
}

TEST_F(HostApiTest, GetConfigPresentsDefaultAndCurrent) {
  std::string defaults, current, user;
  GetConfig("test", "net", "a", defaults, current, user);
  // The default equals the schema's default for v, so it is left out.
  EXPECT_EQ(defaults, R"({"name":"abc"})");
  EXPECT_EQ(current, R"({"name":"abc","v":1})");
  EXPECT_EQ(user, "u");
  // No default instances: the empty text, never "[]"; instances in stored order.
  GetConfig("test", "net", "list", defaults, current, user);
  EXPECT_EQ(defaults, "");
  EXPECT_EQ(current, R"([{"name":"l1"},{"name":"l0","v":2}])");
  EXPECT_EQ(Failure<ConfigManagerException>([&] { GetConfig("test", "sys", "internal", defaults, current, user); }),
            "2181 Cannot use HostAPIs as Configuration is not user configuration");
}

TEST_F(HostApiTest, CurrentValueThroughTheExtractPluginWhenSwitchedOn) {
  ExtractPlugin("ex", R"([["p1", {"name": "p1", "v": 5}], ["p0", {"name": "p0"}]])");
  EXPECT_EQ(Current("net", "list"), R"([{"name":"l1"},{"name":"l0","v":2}])");
  SetFeature(true);
  EXPECT_EQ(Current("net", "list"), R"([{"name":"p1","v":5},{"name":"p0"}])");
  // A key no extract plugin serves is read from the store.
  EXPECT_EQ(Current("net", "a"), R"({"name":"abc","v":1})");
  EXPECT_TRUE(log_.Contains(3, "No extract plugins found for comp test grp net key a"));

  ExtractPlugin("ex", "[]");
  EXPECT_EQ(Current("net", "list"), "");
  EXPECT_TRUE(log_.Contains(3, "Plugin ex resulted in empty csoList"));
  ExtractPlugin("ex", R"("fail")");
  EXPECT_EQ(Failure<ConfigManagerException>([&] { Current("net", "list"); }),
            "2031 Extract plugin failed: ex [ex]");
  ExtractPlugin("ex", R"([["p0", {"name": "p0", "v": "seven", "secret": "hush"}]])");
  EXPECT_EQ(Failure<ConfigManagerException>([&] { Current("net", "list"); }),
            "2032 Extract plugin(s) returned invalid config: ex [ex]");
  EXPECT_TRUE(log_.Contains(0, R"x(Found an invalid CSO: {{"name":"p0","secret":"(redacted)","v":"seven"}})x"));
  for (const auto& line : log_.Lines()) EXPECT_EQ(line.second.find("hush"), std::string::npos) << line.second;
  ExtractPlugin("ex2", "[]");
  EXPECT_EQ(Failure<ConfigManagerException>([&] { Current("net", "list"); }),
            "2033 Multiple extract plugins found for config: comp test grp net key list "
            "[comp test grp net key list]");
}

TEST_F(HostApiTest, DependentsFillTheRelevantDocumentUnlessOneIsStaged) {
  rapidjson::Document value, desired, current, relevant;
  ParseDocument(R"({"name": "new", "v": 2})", value);
  GenerateSetDocuments("test", "net", "a", value, desired, current, relevant);
  EXPECT_EQ(Text(desired), R"({"test":{"net":{"a":{"name":"new","v":2}}}})");
  EXPECT_EQ(Text(current), R"({"test":{"net":{"a":{"name":"abc","v":1}}}})");
  EXPECT_EQ(Text(relevant), R"({"test":{"net":{"a":{"name":"new","v":2}},"g":{"dep":{"name":"dep","v":7}}}})");

  // The validation plugin's reference is staged: refused before relevant
  // gets anything from the dependents.
  LoadStore(R"({"host": {"current": {"test": {"net": {"a": {"name": "abc"}}}},
                         "desired": {"test": {"g": {"dep": {"name": "dep", "v": 8}}}}}})");
  rapidjson::Document d2, c2, r2;
  EXPECT_EQ(Failure<HostInDBM>([&] { GenerateSetDocuments("test", "net", "a", value, d2, c2, r2); }),
            "2029 The host has other pending desired configurations, please reboot the host.");
  EXPECT_EQ(Text(r2), Text(d2));
  EXPECT_TRUE(log_.Contains(0, "A dependent config with csoId{comp test grp g key dep} already exist in desired "
                               "table. The host need to reboot first."));

  // Objects of the key's apply plugin count only with the switch on.
  LoadStore(R"({"host": {"current": {"test": {"net": {"a": {"name": "abc"}}}},
                         "desiredDeletes": [{"component": "test", "group": "sys", "key": "mm"}]}})");
  rapidjson::Document d3, c3, r3;
  GenerateSetDocuments("test", "net", "a", value, d3, c3, r3);
  SetFeature(true);
  EXPECT_EQ(Failure<HostInDBM>([&] { GenerateSetDocuments("test", "net", "a", value, d3, c3, r3); }).substr(0, 4),
            "2029");

  // A delete of a key without a current value touches nothing.
  LoadStore("{}");
  rapidjson::Document c4, r4;
  GenerateDeleteDocuments("test", "net", "a", c4, r4);
  EXPECT_TRUE(c4.IsNull());
  EXPECT_TRUE(r4.IsNull());
}

TEST_F(HostApiTest, SetAndDeleteApplyAtOnceWithoutImpact) {
  auto task = std::make_shared<RecordingTask>();
  EXPECT_TRUE(Set("net", "a", R"({"name": "abc", "v": 5})", NO_IMPACT, task).IsEmpty());
  EXPECT_EQ(Applied(), std::vector<std::string>{"alpha SET:a={\"v\":\"SET\"}"});
  EXPECT_EQ(Current("net", "a"), R"({"name":"abc","v":5})");
  EXPECT_EQ(task->Progress().back(), 100.0f);
  EXPECT_TRUE(log_.Contains(3, "Setting configuration Successful"));

  // Setting a non-singleton key replaces its instances.
  EXPECT_TRUE(Set("net", "list", R"([{"name": "l0", "v": 2}, {"name": "l9"}])", NO_IMPACT).IsEmpty());
  EXPECT_EQ(Applied().back(), "alpha ADD:list/l9 DELETE:list/l1");
  EXPECT_EQ(Current("net", "list"), R"([{"name":"l0","v":2},{"name":"l9"}])");

  EXPECT_TRUE(Delete("net", "a", NO_IMPACT).IsEmpty());
  EXPECT_EQ(Applied().back(), "alpha DELETE:a");
  EXPECT_EQ(Current("net", "a"), "");
  EXPECT_TRUE(log_.Contains(3, "Deleting configuration Successful"));
  EXPECT_EQ(QenConfigStore::GetBootMode(), 0);

  // Nothing to change: no plugin runs.
  EXPECT_TRUE(Set("net", "list", R"([{"name": "l9"}, {"name": "l0", "v": 2}])", NO_IMPACT).IsEmpty());
  EXPECT_EQ(Applied().size(), 3u);
  EXPECT_TRUE(log_.Contains(3, "Host is already compliant. Nothing needs to be changed."));

  WriteFile("/tmp/apply-cue", "fail:alpha");
  EXPECT_EQ(Set("net", "list", R"([{"name": "l0"}])", NO_IMPACT),
            ErrorInfo("corvane.qen.settings.test.apply-failed", {"alpha"}, "test.net.a"));
  EXPECT_TRUE(log_.Contains(0, "Setting configuration Failed"));
}

TEST_F(HostApiTest, MaintenanceModeIsRequiredWhenTheImpactSaysSo) {
  const std::string before = Dump();
  EXPECT_EQ(Failure<HostNotInMM>([&] { Set("sys", "mm", R"({"name": "mm", "v": 2})", MAINTENANCE_MODE_REQUIRED); }),
            "2026 The host must be in maintenance mode for apply to proceed.");
  EXPECT_EQ(Failure<HostNotInMM>([&] { Delete("sys", "mm", MAINTENANCE_MODE_REQUIRED); }),
            "2026 The host must be in maintenance mode for apply to proceed.");
  rapidjson::Document doc(rapidjson::kObjectType), value(rapidjson::kObjectType);
  EXPECT_EQ(Failure<HostNotInMM>([&] {
              SetConfig(doc, doc, value, Impact(static_cast<IMPACT_TYPE>(7)), "test", "sys", "mm", TaskHandle::Dummy());
            }).substr(0, 4), "2026");
  EXPECT_EQ(Applied(), std::vector<std::string>{});
  EXPECT_EQ(Dump(), before);

  WriteFile("/var/run/corvane/sysinfo.json", R"({"interfaceCount": 21, "maintenanceMode": 1})");
  EXPECT_TRUE(Set("sys", "mm", R"({"name": "mm", "v": 2})", MAINTENANCE_MODE_REQUIRED).IsEmpty());
  EXPECT_TRUE(Delete("sys", "mm", MAINTENANCE_MODE_REQUIRED).IsEmpty());
  EXPECT_EQ(Applied(), (std::vector<std::string>{"alpha SET:mm={\"v\":\"SET\"}", "alpha DELETE:mm"}));
}

TEST_F(HostApiTest, RebootImpactStagesForTheNextBoot) {
  EXPECT_TRUE(Set("sys", "bootlist", R"([{"name": "b0", "v": 1}, {"name": "b1"}])", REBOOT_REQUIRED).IsEmpty());
  EXPECT_EQ(QenConfigStore::GetBootMode(), 4);
  rapidjson::Document dump;
  ParseDocument(Dump(), dump);
  EXPECT_EQ(Text(dump["host"]["desired"]), R"({"test":{"sys":{"bootlist":[{"name":"b0","v":1},{"name":"b1"}]}}})");
  EXPECT_EQ(Applied(), std::vector<std::string>{});

  // A delete is staged without touching the boot mode.
  QenConfigStore::SetBootMode(0);
  EXPECT_TRUE(Delete("sys", "boot", REBOOT_REQUIRED).IsEmpty());
  EXPECT_EQ(QenConfigStore::GetBootMode(), 0);
  ParseDocument(Dump(), dump);
  EXPECT_EQ(Text(dump["host"]["desiredDeletes"]), R"([{"component":"test","group":"sys","key":"boot"}])");
  EXPECT_EQ(Current("sys", "boot"), R"({"name":"boot","v":1})");
}

TEST_F(HostApiTest, AFailedStagingWriteLeavesNothingStaged) {
  rapidjson::Document value, desired, current, relevant;
  std::vector<ValidationErrorInfo> errors;
  ASSERT_TRUE(ValidateInputSet("test", "sys", "bootlist", R"([{"name": "b0"}, {"name": "b1"}])", value, errors));
  GenerateSetDocuments("test", "sys", "bootlist", value, desired, current, relevant);
  const std::string before = Dump();
  // Each instance is two writes; the boot mode is the fifth.
  for (int n : {2, 3, 5}) {
    QenConfigStore::FailNthWrite(n);
    EXPECT_EQ(Failure<QenConfigStore::ConfigStoreException>([&] {
                SetConfig(desired, current, value, Impact(REBOOT_REQUIRED), "test", "sys", "bootlist",
                          TaskHandle::Dummy());
              }).substr(0, 4), "2002") << n;
    QenConfigStore::FailNthWrite(0);
    EXPECT_EQ(Dump(), before) << n;
  }
  // Five writes in all: with the hook past them the staging goes through.
  QenConfigStore::FailNthWrite(6);
  EXPECT_TRUE(SetConfig(desired, current, value, Impact(REBOOT_REQUIRED), "test", "sys", "bootlist",
                        TaskHandle::Dummy()).IsEmpty());
  QenConfigStore::FailNthWrite(0);
  EXPECT_EQ(QenConfigStore::GetBootMode(), 4);
}

TEST_F(HostApiTest, RefusalsBeforeAnythingChanges) {
  LoadStore(R"({"host": {"current": {"test": {"net": {"a": {"name": "abc"}}, "sys": {"orphan": {"name": "orphan"}}}}},
                "bootMode": 1})");
  const std::string staged = Dump();
  rapidjson::Document doc(rapidjson::kObjectType), value(rapidjson::kObjectType);
  for (IMPACT_TYPE impact : {NO_IMPACT, REBOOT_REQUIRED}) {
    EXPECT_EQ(Failure<HostInDBM>([&] { SetConfig(doc, doc, value, Impact(impact), "test", "net", "a", TaskHandle::Dummy()); }),
              "2029 The host has other pending desired configurations, please reboot the host.");
    EXPECT_EQ(Failure<HostInDBM>([&] { DeleteConfig(doc, Impact(impact), "test", "net", "a", TaskHandle::Dummy()); })
                  .substr(0, 4), "2029");
  }
  EXPECT_EQ(Dump(), staged);

  // An object no apply plugin serves is refused before any plugin runs.
  QenConfigStore::SetBootMode(0);
  EXPECT_EQ(Failure<ConfigManagerException>([&] { Set("sys", "orphan", R"({"name": "other"})", NO_IMPACT); }),
            "2085 No Apply plugins were found for comp test grp sys key orphan configuration. "
            "[comp test grp sys key orphan]");
  EXPECT_EQ(Applied(), std::vector<std::string>{});
}

}  // namespace
