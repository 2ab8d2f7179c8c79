// Every store write of the operations that change the store, made to fail in
// turn (QenConfigStore::FailNthWrite): each failure must leave the store
// exactly as it was committed (compared as a store dump) and end in the
// operation's own error; the first run past the last write succeeds and
// changes the store.
#include <gtest/gtest.h>

#include <functional>

#include "CustomHost.h"
#include "QenConfigStore.h"
#include "configmanager/boot.h"
#include "configmanager/extract.h"
#include "configmanager/hostapi.h"
#include "configmanager/impact.h"

using namespace QenConfigManager;

namespace {

const std::string kWriteFailed =
    "Configuration store \"/var/lib/corvane/configstore/configstore.db\": write failed: injected fault";
const char* kNotify = "/etc/corvane/autodeploy/waiterNotify.json";
const char* kFirewall = "/etc/corvane/firewall/autodeploy.xml";

const char* kStore = R"({"host": {
  "current": {"test": {"net": {"a": {"name": "a", "v": 1}, "list": [{"name": "l0", "v": 1}, {"name": "l1", "v": 1}]},
                       "sys": {"k": {"name": "k", "v": 1}, "klist": [{"name": "b0", "v": 1}]}}},
  "desired": {"test": {"net": {"a": {"name": "a", "v": 2}, "list": [{"name": "l0", "v": 2}, {"name": "l2", "v": 2}]}}}},
  "bootApplyState": {"isBootComplete": false, "bootApplyRecord": ""}})";
// The same without a staged document, which the host API refuses to change
// keys next to.
const char* kStoreNothingStaged = R"({"host": {
  "current": {"test": {"net": {"a": {"name": "a", "v": 1}, "list": [{"name": "l0", "v": 1}, {"name": "l1", "v": 1}]},
                       "sys": {"k": {"name": "k", "v": 1}, "klist": [{"name": "b0", "v": 1}]}}}},
  "bootApplyState": {"isBootComplete": true, "bootApplyRecord": ""}})";

// A boot-capable apply plugin that only notes its calls in a file, so that
// the store holds what the operation under test wrote and nothing else.
const char* kNotingApplyPy = R"(import qenplugin

def apply(call):
    with open(qenplugin.HostPath("/tmp/applied.txt"), "a") as f:
        f.write("%d\n" % len(call.request.GetData()))
)";

class StoreFaultTest;

// One operation under test: `prepare` sets the scene (outside the fault
// hook), `run` does it and returns "" on success or its failure as text.
struct Operation {
  const char* name;
  int minWrites;  // store writes the operation makes at least
  std::string expected;
  std::function<void(StoreFaultTest&)> prepare;
  std::function<std::string(StoreFaultTest&)> run;
};

void PrintTo(const Operation& op, std::ostream* os) { *os << op.name; }

// "<code> <message>" of the store exception `f` throws, "error <msgId>" of
// the ErrorInfo it returns, "" when it succeeds.
std::string Outcome(const std::function<ErrorInfo()>& f) {
  try {
    const ErrorInfo error = f();
    return error.IsEmpty() ? "" : "error " + error.msgId;
  } catch (const QenConfigStore::ConfigStoreException& e) {
    return std::to_string(e.GetErrorCode()) + " " + e.what();
  }
}

class StoreFaultTest : public QenTest::CustomHostTest, public ::testing::WithParamInterface<Operation> {
 protected:
  void SetUp() override {
    CustomHostTest::SetUp();
    using QenTest::TestKeySchema;
    const std::string reboot = R"("rebootRequired": {"operations": ["SET", "ADD", "DELETE"]}, )";
    WriteKeySchema("test", "net", "a", TestKeySchema("net", "a", true));
    WriteKeySchema("test", "net", "list", TestKeySchema("net", "list", false));
    WriteKeySchema("test", "sys", "k", TestKeySchema("sys", "k", true, reboot));
    WriteKeySchema("test", "sys", "klist", TestKeySchema("sys", "klist", false, reboot));
    WritePythonPlugin("noting", QenTest::V3ApplyManifest(R"("test:net:a", "test:net:list", "test:sys:k", "test:sys:klist")",
                                                         "network", "noting", true),
                      kNotingApplyPy);
    ResetStore(kStore);
  }
  void TearDown() override {
    QenConfigStore::FailNthWrite(0);
    CustomHostTest::TearDown();
  }

 public:
  void ResetStore(const char* description) {
    LoadStore(description);
    // The first extraction copies the host's SSH files into the store; later
    // ones write nothing, so a dump compares only what the operation writes.
    ExtractCurrentConfiguration();
  }
  static std::string Dump() { return QenPlatform::CompactJson(QenConfigStore::DumpStoreDescription()->GetDocument()); }
  std::string DocumentFile(const std::string& body) {
    WriteFile("/tmp/document.json", body);
    return "/tmp/document.json";
  }
  void WriteAutoDeployFiles() {
    WriteFile(kNotify, R"({"waiter": {"url": "https://deploy.example/ready"}})");
    WriteFile(kFirewall, "<firewall/>");
  }
  // A boot entry point's result: "" for 0, else "1 " and its last failure line.
  std::string Returned(int rc) const {
    if (rc == 0) return "";
    const std::vector<std::string> lines = log_.Texts(0);
    return "1 " + (lines.empty() ? std::string("(no failure line)") : lines.back());
  }
  void ClearLog() { log_.Clear(); }
};

TEST_P(StoreFaultTest, EveryFailedWriteLeavesTheCommittedStateAndTheOperationsError) {
  const Operation& op = GetParam();
  int n = 1;
  for (;; ++n) {
    op.prepare(*this);
    const std::string before = Dump();
    ClearLog();
    QenConfigStore::FailNthWrite(n);
    const std::string outcome = op.run(*this);
    QenConfigStore::FailNthWrite(0);
    if (outcome.empty()) {
      EXPECT_NE(Dump(), before) << "the operation changed nothing";
      break;
    }
    EXPECT_EQ(outcome, op.expected) << "write " << n;
    EXPECT_EQ(Dump(), before) << "write " << n;
    ASSERT_LT(n, 200) << "no end to the writes";
  }
  RecordProperty("failedWrites", n - 1);
  EXPECT_GE(n - 1, op.minWrites) << "failed writes before the operation went through";
}

// test/sys/klist set to three instances through the host API: a reboot
// impact, so the instances and the boot mode are staged in one transaction.
std::string SetInstances() {
  rapidjson::Document value, desired, current, relevant;
  std::vector<ValidationErrorInfo> errors;
  if (!ValidateInputSet("test", "sys", "klist", R"([{"name": "b0", "v": 2}, {"name": "b1"}, {"name": "b2", "v": 3}])",
                        value, errors))
    return "invalid value";
  GenerateSetDocuments("test", "sys", "klist", value, desired, current, relevant);
  const ImpactResult impact = CheckImpact(desired, current, TaskHandle::Dummy());
  if (impact.impact != REBOOT_REQUIRED) return "impact " + std::to_string(impact.impact);
  return Outcome([&] { return SetConfig(desired, current, value, impact, "test", "sys", "klist", TaskHandle::Dummy()); });
}

std::string DeleteKey() {
  rapidjson::Document current, relevant;
  GenerateDeleteDocuments("test", "sys", "k", current, relevant);
  rapidjson::Document nothing(rapidjson::kObjectType);
  const ImpactResult impact = CheckImpact(nothing, current, TaskHandle::Dummy());
  if (impact.impact != REBOOT_REQUIRED) return "impact " + std::to_string(impact.impact);
  return Outcome([&] { return DeleteConfig(current, impact, "test", "sys", "k", TaskHandle::Dummy()); });
}

std::string StageDocument() {
  rapidjson::Document doc;
  doc.Parse(R"({"profile": {"test": {"net": {"a": {"name": "a", "v": 3}, "list": [{"name": "l3"}, {"name": "l4"}]},
                                     "sys": {"k": {"name": "k", "v": 3}}}}})");
  return Outcome([&] {
    QenConfigStore::SetDesiredUserConfig(doc);
    return ErrorInfo();
  });
}

std::string RestoreAtBoot() {
  return Outcome([] {
    QenConfigStore::RestoreDesiredConfigAtBoot();
    return ErrorInfo();
  });
}

const char* kBootDocument = R"({"profile": {"test": {
    "net": {"a": {"name": "a", "v": 1}, "list": [{"name": "l0", "v": 1}, {"name": "l1", "v": 1}]},
    "sys": {"k": {"name": "k", "v": 5}, "klist": [{"name": "b0", "v": 1}]}}}})";

void Nothing(StoreFaultTest&) {}
void NothingStaged(StoreFaultTest& t) { t.ResetStore(kStoreNothingStaged); }

const Operation kOperations[] = {
    {"StageDocument", 6, "2002 " + kWriteFailed, Nothing, [](StoreFaultTest&) { return StageDocument(); }},
    {"HostApiSetWithRebootImpact", 4, "2002 " + kWriteFailed, NothingStaged,
     [](StoreFaultTest&) { return SetInstances(); }},
    {"HostApiDeleteWithRebootImpact", 1, "2002 " + kWriteFailed, NothingStaged,
     [](StoreFaultTest&) { return DeleteKey(); }},
    {"BootStaging", 3, "1 Failed to bootstrap host error=" + kWriteFailed,
     [](StoreFaultTest& t) { t.WriteAutoDeployFiles(); },
     [](StoreFaultTest& t) { return t.Returned(ApplyBootDocument(t.DocumentFile(kBootDocument))); }},
    {"StoreBootRestore", 4, "2002 " + kWriteFailed, Nothing, [](StoreFaultTest&) { return RestoreAtBoot(); }},
    {"BootApplyRecord", 1, "1 Failed to apply boot-time configuration. " + kWriteFailed, Nothing,
     [](StoreFaultTest& t) { return t.Returned(ExecuteBootPlugins()); }},
};

INSTANTIATE_TEST_SUITE_P(Store, StoreFaultTest, ::testing::ValuesIn(kOperations),
                         [](const ::testing::TestParamInfo<Operation>& info) { return std::string(info.param.name); });

}  // namespace
