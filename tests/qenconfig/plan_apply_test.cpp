// qenconfig impact, plan and apply against the sample host, and the plan
// file reader on bytes.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>

#include "PlanFile.h"
#include "QenConfigTest.h"

namespace {

using QenTest::Outcome;
using QenTest::QenConfigTest;
using Clock = std::chrono::steady_clock;

const std::string kApplyDoc = std::string(QEN_SOURCE_DIR) + "/host/documents/desired-apply.json";
const std::string kRebootDoc = std::string(QEN_SOURCE_DIR) + "/host/documents/desired-reboot.json";
constexpr const char* kResolverPlugin = "/usr/lib/corvane/configmanager/apply_modules/resolver/plugin.py";

std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

const char* kImpactLines =
    "impact plugin ntp started\nimpact plugin ntp finished\n"
    "impact plugin resolver started\nimpact plugin resolver finished\n";

class PlanApplyTest : public QenConfigTest {
 protected:
  void SetUp() override {
    QenConfigTest::SetUp();
    LoadSampleStore();
    plan_ = Path("/my.plan");
  }

  // The store and every file the sample apply plugins write.
  std::string Snapshot() {
    std::string all = Run({"store", "dump"}).out;
    for (const char* file : {"/etc/resolv.conf", "/etc/ntp.conf", "/etc/network/interfaces.d/nic2",
                             "/etc/kernel/cmdline", "/etc/fstab"})
      all += std::string("\n== ") + file + "\n" + ReadFile(file);
    return all;
  }

  Outcome Plan(const std::string& doc) { return Run({"plan", doc, "-o", plan_}); }

  // Replaces the resolver's apply operation.
  void ResolverApplies(const std::string& body) {
    WriteFile(kResolverPlugin, ReadFile(kResolverPlugin) + "\n\ndef apply(call):\n" + body);
  }

  std::string plan_;
};

TEST_F(PlanApplyTest, ImpactAsTextAndJson) {
  Outcome text = Run({"impact", kApplyDoc});
  EXPECT_EQ(text.exit, 0) << text.err;
  EXPECT_EQ(text.out,
            "Impact: none\nQuick boot: supported\n  add     network/interfaces/nic\n"
            "  set     system/time/ntp\n  set     network/dns/resolver\n");

  Outcome json = Run({"impact", kRebootDoc, "--json"});
  EXPECT_EQ(json.exit, 0) << json.err;
  rapidjson::Document parsed;
  parsed.Parse(json.out.c_str());
  ASSERT_FALSE(parsed.HasParseError()) << json.out;
  EXPECT_EQ(QenPlatform::CompactJson(parsed),
            R"({"compliant":false,"impact":"REBOOT_REQUIRED","quickBootStatus":"QUICKBOOT_SUPPORTED","messages":[)"
            R"({"id":"corvane.settings.impact.info.add","args":["nic","interfaces","network"],)"
            R"("text":"add     network/interfaces/nic"},)"
            R"({"id":"corvane.settings.impact.info.set","args":["kernel","boot","system"],)"
            R"("text":"set     system/boot/kernel"},)"
            R"({"id":"corvane.settings.impact.info.set","args":["ntp","time","system"],"text":"set     system/time/ntp"},)"
            R"({"id":"corvane.settings.impact.info.set","args":["resolver","dns","network"],)"
            R"("text":"set     network/dns/resolver"},)"
            R"({"id":"corvane.settings.impact.info.reboot","args":[],"text":"reboot required"}]})");

  const std::string current = UserFile("current.json", Run({"extract", "current", "--show-sensitive"}).out);
  EXPECT_EQ(Run({"impact", current}).out, "Compliant: applying the document changes nothing.\n");
  EXPECT_EQ(Run({"impact", current, "--json"}).out,
            "{\n   \"compliant\": true,\n   \"impact\": \"NO_IMPACT\",\n"
            "   \"quickBootStatus\": \"QUICKBOOT_UNSUPPORTED\",\n   \"messages\": []\n}\n");
}

TEST_F(PlanApplyTest, PlanOnACompliantHostWritesNoFile) {
  Outcome plan = Plan(UserFile("current.json", Run({"extract", "current", "--show-sensitive"}).out));
  EXPECT_EQ(plan.exit, 0) << plan.err;
  EXPECT_EQ(plan.out, "Compliant: the host matches the desired document; no plan written.\n");
  EXPECT_FALSE(Exists("/my.plan"));
}

TEST_F(PlanApplyTest, PlanThenApplyChangesTheHostFilesAndComplies) {
  const mode_t previous = umask(0);
  Outcome plan = Plan(kApplyDoc);
  umask(previous);
  ASSERT_EQ(plan.exit, 0) << plan.err;
  EXPECT_EQ(plan.out,
            "Impact: none\nQuick boot: supported\n  ADD     network/interfaces/nic/nic2\n"
            "  SET     network/dns/resolver\n  SET     system/time/ntp\n"
            "Plan written to " + plan_ + " (3 drifted objects).\n");
  EXPECT_EQ(Mode("/my.plan"), 0600);

  Outcome apply = Run({"apply", plan_});
  EXPECT_EQ(apply.exit, 0) << apply.err;
  EXPECT_EQ(apply.out,
            "Applied:\n  done     ADD:network:interfaces:nic [1 input]\n"
            "  done     REMEDIATE:resolver [1 input]\n  done     REMEDIATE:ntp [1 input]\n");
  EXPECT_EQ(apply.err, std::string(kImpactLines) +
                           "apply plugin network:interfaces:nic started\napply plugin network:interfaces:nic finished\n"
                           "apply plugin resolver started\napply plugin resolver finished\n"
                           "apply plugin ntp started\napply plugin ntp finished\n");
  EXPECT_EQ(ReadFile("/etc/resolv.conf"),
            "# Written by the configuration manager; edits are replaced.\n"
            "nameserver 10.0.0.53\nnameserver 10.0.0.54\nsearch lab.example\n");
  EXPECT_NE(ReadFile("/etc/network/interfaces.d/nic2").find("auto nic2\n"), std::string::npos);

  Outcome compliance = Run({"compliance", kApplyDoc});
  EXPECT_EQ(compliance.exit, 0) << compliance.out;
  Outcome again = Run({"apply", plan_});
  EXPECT_EQ(again.exit, 0);
  EXPECT_EQ(again.out, "Nothing left to apply: the host matches the plan's document.\n");
}

// --quiet leaves errors only on stderr; --json makes the plan and the apply
// report one document each.
TEST_F(PlanApplyTest, QuietJsonPlanAndApply) {
  Outcome plan = Run({"plan", kApplyDoc, "-o", plan_, "--output", "json"});
  EXPECT_EQ(plan.exit, 0) << plan.err;
  EXPECT_EQ(plan.out, "{\n   \"compliant\": false,\n   \"file\": \"" + plan_ +
                          "\",\n   \"impact\": \"NO_IMPACT\",\n   \"quickBootStatus\": \"QUICKBOOT_SUPPORTED\",\n"
                          "   \"drift\": [\n      {\n         \"operation\": \"ADD\",\n"
                          "         \"object\": \"network/interfaces/nic/nic2\"\n      },\n"
                          "      {\n         \"operation\": \"SET\",\n         \"object\": \"network/dns/resolver\"\n      },\n"
                          "      {\n         \"operation\": \"SET\",\n         \"object\": \"system/time/ntp\"\n      }\n"
                          "   ]\n}\n");

  Outcome apply = Run({"--quiet", "apply", plan_, "--json"});
  EXPECT_EQ(apply.exit, 0);
  EXPECT_EQ(apply.err, "");
  rapidjson::Document report;
  ASSERT_TRUE(QenPlatform::ParseJson(apply.out, report)) << apply.out;
  EXPECT_EQ(QenPlatform::CompactJson(report),
            R"({"outcome":"applied","error":null,"tasks":[)"
            R"({"key":"ADD:network:interfaces:nic","plugin":"network:interfaces:nic","state":"done","inputs":1,"error":null},)"
            R"({"key":"REMEDIATE:resolver","plugin":"resolver","state":"done","inputs":1,"error":null},)"
            R"({"key":"REMEDIATE:ntp","plugin":"ntp","state":"done","inputs":1,"error":null}]})");
}

TEST_F(PlanApplyTest, RebootImpactIsStagedWithoutRunningAPlugin) {
  ASSERT_EQ(Plan(kRebootDoc).exit, 0);
  Outcome apply = Run({"apply", plan_});
  EXPECT_EQ(apply.exit, 4) << apply.err;
  EXPECT_EQ(apply.out,
            "Staged for the next boot: the host must be rebooted for the document to take effect; no plugin ran.\n");
  EXPECT_EQ(apply.err.find("apply plugin"), std::string::npos) << apply.err;
  EXPECT_FALSE(Exists("/etc/kernel/cmdline"));
  EXPECT_NE(Run({"extract", "desired"}).out.find("\"iommu\": true"), std::string::npos);
}

TEST_F(PlanApplyTest, StalePlanIsExplainedAndNothingApplied) {
  ASSERT_EQ(Plan(kApplyDoc).exit, 0);
  // Since the plan: a kernel option that needs a reboot to undo, another
  // resolver, and the planned time server already there.
  WriteFile("/etc/kernel/cmdline", "loglevel=4 quiet\n");
  WriteFile("/etc/resolv.conf", "nameserver 10.0.0.99\n");
  WriteFile("/etc/ntp.conf", "server 10.0.0.123 iburst\n");
  const std::string before = Snapshot();

  Outcome apply = Run({"apply", plan_});
  EXPECT_EQ(apply.exit, 7);
  // ntp no longer drifts, so only the resolver's impact plugin runs.
  EXPECT_EQ(apply.err, "impact plugin resolver started\nimpact plugin resolver finished\n"
                       "error 2025: The impact result is not applicable anymore.\n");
  EXPECT_EQ(apply.out,
            "The plan is stale: planned impact: none; impact now: reboot required.\n"
            "Keys whose drift differs from the plan's:\n"
            "  network/dns/resolver: drift changed (plan: SET, now: SET)\n"
            "  system/boot/kernel: drifts now (SET), did not in the plan\n"
            "  system/time/ntp: no drift now (plan: SET)\n"
            "Nothing was applied. Make a new plan to apply the document.\n");
  EXPECT_EQ(Snapshot(), before);
}

TEST_F(PlanApplyTest, DamagedEditedOrForeignPlansAreRefused) {
  ASSERT_EQ(Plan(kApplyDoc).exit, 0);
  const std::string text = ReadFile("/my.plan");
  const size_t cut = text.find("\"desired\"");
  const struct {
    std::string name, content, reason;
  } cases[] = {
      {"edited", std::string(text).replace(text.find("10.0.0.54"), 9, "10.0.0.55"),
       "it was changed after it was written (checksum mismatch)"},
      {"truncated", text.substr(0, cut),
       "it is not JSON or was cut short (Missing a name for object member. at offset " + std::to_string(cut) + ")"},
      {"not a plan", Slurp(kApplyDoc), "it is not a plan file (no format version)"},
  };
  const std::string before = Snapshot();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = UserFile("bad.plan", c.content);
    Outcome apply = Run({"apply", file});
    EXPECT_EQ(apply.exit, 9);
    EXPECT_EQ(apply.err, "error: plan file \"" + file + "\" refused: " + c.reason + "; nothing was applied\n");
    EXPECT_EQ(apply.out, "");
  }
  const std::string hardware = ReadFile("/etc/corvane/hardware.json");
  WriteFile("/etc/corvane/hardware.json", R"({"biosUuid": "{00000000-0000-0000-0000-0000000000AB}"})");
  Outcome foreign = Run({"apply", plan_});
  EXPECT_EQ(foreign.exit, 9);
  EXPECT_EQ(foreign.err, "error: plan file \"" + plan_ +
                             "\" refused: it was written for host 4c4c4544-0042-3510-8052-b4c04f4a4b32, not for "
                             "this host (00000000-0000-0000-0000-0000000000ab); nothing was applied\n");
  EXPECT_EQ(Snapshot(), before);

  // The same plan on its own host applies.
  WriteFile("/etc/corvane/hardware.json", hardware);
  EXPECT_EQ(Run({"apply", plan_}).exit, 0);
}

TEST_F(PlanApplyTest, AFailingPluginIsNamedAndTheRestDoNotRun) {
  ASSERT_EQ(Plan(kApplyDoc).exit, 0);
  ResolverApplies("    raise qenplugin.PluginError('corvane.qen.settings.resolver.unreachable', ['10.0.0.54'])\n");
  Outcome apply = Run({"apply", plan_});
  EXPECT_EQ(apply.exit, 5);
  EXPECT_EQ(apply.out,
            "Failed; tasks that ran stay applied:\n"
            "  done     ADD:network:interfaces:nic [1 input]\n"
            "  failed   REMEDIATE:resolver [1 input]: corvane.qen.settings.resolver.unreachable: 10.0.0.54"
            " (DNS resolver)\n"
            "  not run  REMEDIATE:ntp [1 input] (an earlier task failed)\n");
  EXPECT_NE(apply.err.find("\napply plugin resolver started\nerror: corvane.qen.settings.resolver.unreachable: "
                           "10.0.0.54 (DNS resolver)\n"),
            std::string::npos)
      << apply.err;
  EXPECT_EQ(ReadFile("/etc/ntp.conf").find("10.0.0.123"), std::string::npos);
}

// How a plugin ended is told after the error: its exit status or signal, and
// the log that has the rest.
TEST_F(PlanApplyTest, AFailedPluginsExitOrSignalIsShownWithItsLog) {
  ASSERT_EQ(Plan(kApplyDoc).exit, 0);
  const std::string original = ReadFile(kResolverPlugin);
  const std::string log = Path("/var/log/corvane/configmanager.log");
  const struct {
    const char* body;
    std::string how;
  } cases[] = {
      {"    import os\n    os._exit(3)\n", "exited with status 3"},
      {"    import os, signal\n    os.kill(os.getpid(), signal.SIGKILL)\n", "was killed by signal 9 (SIGKILL)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.how);
    WriteFile(kResolverPlugin, original);
    ResolverApplies(c.body);
    Outcome apply = Run({"apply", plan_});
    EXPECT_EQ(apply.exit, 5);
    EXPECT_NE(apply.err.find("\n  plugin resolver " + c.how + "; its log lines are in " + log + "\n"),
              std::string::npos)
        << apply.err;
  }
}

// --timeout stops the running plugin through the task handle: its runner
// ends, the request and result files are gone, and the report says what ran.
// The deadline leaves the first plugin time to finish on a loaded machine.
TEST_F(PlanApplyTest, TimeoutStopsASlowPluginAndLeavesNothingBehind) {
  ASSERT_EQ(Plan(kApplyDoc).exit, 0);
  ResolverApplies("    import os, time\n"
                  "    with open(qenplugin.HostPath('/tmp/slow.pid'), 'w') as f:\n"
                  "        f.write(str(os.getpid()))\n"
                  "    time.sleep(60)\n");
  WriteFile("/tmp/.keep", "");
  const auto started = Clock::now();
  Outcome apply = Run({"apply", plan_, "--timeout", "8"});
  EXPECT_LT(Clock::now() - started, std::chrono::seconds(30));
  EXPECT_EQ(apply.exit, 6) << apply.err;
  EXPECT_EQ(apply.out,
            "Stopped by the timeout of 8 s; tasks that ran stay applied:\n"
            "  done     ADD:network:interfaces:nic [1 input]\n"
            "  failed   REMEDIATE:resolver [1 input]: apply plugin resolver aborted\n"
            "  not run  REMEDIATE:ntp [1 input] (the apply was stopped)\n");
  const std::string pid = ReadFile("/tmp/slow.pid");
  ASSERT_FALSE(pid.empty());
  EXPECT_FALSE(std::ifstream("/proc/" + pid + "/stat").good()) << "runner " << pid << " is still there";
  EXPECT_FALSE(Exists("/var/corvane/lifecycle/cm-plugin-input.json"));
  EXPECT_FALSE(Exists("/var/corvane/lifecycle/cm-plugin-output.json"));
}

TEST(PlanFile, RoundTripAndRefusals) {
  qenconfig::Plan plan;
  plan.host = "h-1";
  plan.impact = 1;
  plan.quickBootStatus = 2;
  plan.timestamp = "1700000000";
  plan.context = "ctx";
  plan.driftCache = R"({"a:b:c:":{"operation":"SET","drift":{"x":"SET"}}})";
  plan.desired.Parse(R"({"profile": {"a": {"b": {"c": {"x": 0.1, "s": "\u00e9\"}"}}}}})");
  plan.drift = {{"a/b/c", "SET", qenconfig::DriftDigest("SET", plan.desired["profile"], rapidjson::Value())}};
  const std::string text = qenconfig::WritePlan(plan);

  qenconfig::Plan read;
  qenconfig::ReadPlan(text, "h-1", read);
  EXPECT_EQ(read.impact, 1);
  EXPECT_EQ(read.quickBootStatus, 2);
  EXPECT_EQ(read.timestamp + read.context + read.driftCache, plan.timestamp + plan.context + plan.driftCache);
  EXPECT_TRUE(read.desired == plan.desired);
  EXPECT_EQ(read.drift, plan.drift);

  auto refusal = [](const std::string& bytes, const char* host = "h-1") {
    qenconfig::Plan ignored;
    try {
      qenconfig::ReadPlan(bytes, host, ignored);
    } catch (const qenconfig::PlanError& e) {
      return std::string(e.what());
    }
    return std::string("accepted");
  };
  // Any change counts, white space too; so does a missing final newline.
  EXPECT_EQ(refusal(std::string(text).insert(1, " ")), "it was changed after it was written (checksum mismatch)");
  EXPECT_EQ(refusal(text.substr(0, text.size() - 1)), "it was changed after it was written (checksum mismatch)");
  EXPECT_EQ(refusal("[1]"), "it is not a plan file (no format version)");
  EXPECT_EQ(refusal(""), "it is not JSON or was cut short (The document is empty. at offset 0)");
  EXPECT_EQ(refusal(std::string(text).replace(text.find("\"format\": 1"), 11, "\"format\": 2")),
            "its format version 2 is not supported (this qenconfig reads version 1)");
  EXPECT_EQ(refusal(std::string(text).replace(text.find("\"format\": 1"), 11, "\"format\": \"1\"")),
            "it is not a plan file (no format version)");
  EXPECT_EQ(refusal(text, "h-2"), "it was written for host h-1, not for this host (h-2)");
  EXPECT_EQ(refusal(text), "accepted");

  // A well-formed checksum over a member of the wrong kind.
  std::string head = text.substr(0, text.rfind("\"checksum\""));
  head.replace(head.find("\"impact\": 1"), 11, "\"impact\": 3");
  EXPECT_EQ(refusal(head + "\"checksum\": \"" + qenconfig::Sha256Hex(head) + "\"\n}\n"),
            "it is malformed (member \"impact\")");
}

}  // namespace
