// qenconfig get, set and delete against the sample host: its store, its
// plugins and the host files they write.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include "QenConfigTest.h"

namespace {

using QenTest::Outcome;
using QenTest::QenConfigTest;

class HostApiCliTest : public QenConfigTest {
 protected:
  void SetUp() override {
    QenConfigTest::SetUp();
    LoadSampleStore();
  }

  // What a change must leave alone when it is refused.
  std::string HostState() {
    return Run({"store", "dump"}).out + "\n" + ReadFile("/etc/resolv.conf") + "\n" +
           (Exists("/etc/kernel/cmdline") ? ReadFile("/etc/kernel/cmdline") : "(no cmdline)");
  }

  std::string BootMode() {
    const std::string stats = Run({"store", "stats"}).out;
    const size_t at = stats.find("bootMode=");
    return at == std::string::npos ? "" : stats.substr(at, stats.find('\n', at) - at);
  }
};

TEST_F(HostApiCliTest, GetPrintsDefaultAndCurrentAsTextOrJson) {
  Outcome text = Run({"get", "network", "dns", "resolver"});
  EXPECT_EQ(text.exit, 0) << text.err;
  EXPECT_EQ(text.out,
            "network/dns/resolver: DNS servers and search domains of the host\n"
            "default: (none)\n"
            "current: {\n   \"servers\": [\n      \"10.0.0.53\"\n   ],\n   \"search\": [\n      \"lab.example\"\n   ]\n}\n");
  Outcome json = Run({"get", "system", "time", "timezone", "--json"});
  EXPECT_EQ(json.exit, 0) << json.err;
  EXPECT_EQ(json.out, "{\n   \"component\": \"system\",\n   \"group\": \"time\",\n   \"key\": \"timezone\",\n"
                      "   \"userConfig\": \"The host's time zone\",\n   \"default\": {\n      \"zone\": \"UTC\"\n   },\n"
                      "   \"current\": {\n      \"zone\": \"UTC\"\n   }\n}\n");
  // No default: null.
  json = Run({"get", "network", "dns", "resolver", "--json"});
  EXPECT_NE(json.out.find("\"default\": null,\n"), std::string::npos) << json.out;
}

TEST_F(HostApiCliTest, BadInputChangesNothing) {
  const std::string before = HostState();
  const std::string file = UserFile("value.json", R"({"servers": ["10.0.0.1", "not an address"]})");
  const struct {
    std::vector<std::string> args;
    std::string err;
  } cases[] = {
      {{"set", "network", "dns", "resolver", "{\"servers\": "}, "error 2080: Failed to parse JSON String\n"},
      {{"set", "network", "dns", "nope", "{}"}, "error 2021: Schema object not found: comp network grp dns key nope\n"},
      {{"delete", "network", "dns", "nope"}, "error 2021: Schema object not found: comp network grp dns key nope\n"},
      {{"set", "podlet", "system", "podlet_daemon", R"({"enabled": true})"},
       "error 2181: Cannot use HostAPIs as Configuration is not user configuration\n"},
      {{"delete", "podlet", "system", "podlet_daemon"},
       "error 2181: Cannot use HostAPIs as Configuration is not user configuration\n"},
      {{"set", "network", "dns", "resolver", R"({"servers": [53], "search": "lab"})"},
       "invalid: /servers/0: expected string, found integer\n"
       "invalid: /search: expected array, found string\n"},
      // Valid for the schema, refused by the resolver's validation plugin.
      {{"set", "network", "dns", "resolver", "@" + file},
       "invalid: /network/dns/resolver/servers/1: corvane.qen.settings.resolver.invalid-server: not an address (DNS "
       "resolver)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args.back());
    std::vector<std::string> args = c.args;
    args.push_back("--yes");
    Outcome outcome = Run(args);
    EXPECT_EQ(outcome.exit, 1);
    EXPECT_EQ(outcome.err, c.err);
    EXPECT_EQ(HostState(), before);
  }
}

TEST_F(HostApiCliTest, NoImpactSetAndDeleteApplyAtOnce) {
  Outcome set = Run({"set", "network", "dns", "resolver", R"({"servers": ["192.0.2.7"]})"});
  EXPECT_EQ(set.exit, 0) << set.err;
  EXPECT_EQ(set.out, "impact: none\n"
                     "  set     network/dns/resolver\n"
                     "applied: network/dns/resolver\n");
  EXPECT_EQ(ReadFile("/etc/resolv.conf"),
            "# Written by the configuration manager; edits are replaced.\nnameserver 192.0.2.7\n");
  Outcome again = Run({"set", "network", "dns", "resolver", R"({"servers": ["192.0.2.7"]})"});
  EXPECT_EQ(again.exit, 0);
  EXPECT_NE(again.out.find("Nothing to change: network/dns/resolver already has this value.\n"), std::string::npos);

  Outcome del = Run({"delete", "network", "dns", "resolver"});
  EXPECT_EQ(del.exit, 0) << del.err;
  EXPECT_NE(del.out.find("deleted: network/dns/resolver\n"), std::string::npos) << del.out;
  EXPECT_EQ(ReadFile("/etc/resolv.conf"), "# Written by the configuration manager; edits are replaced.\n");
  EXPECT_EQ(BootMode(), "bootMode=0");
}

TEST_F(HostApiCliTest, RebootChangeNeedsConfirmationAndIsStaged) {
  const std::string value = R"({"iommu": true, "consoleLogLevel": 4})";
  const std::string before = HostState();
  Outcome refused = Run({"set", "system", "boot", "kernel", value});
  EXPECT_EQ(refused.exit, 2);
  EXPECT_EQ(refused.err, "error: this change takes effect only after a reboot; standard input is not a "
                         "terminal, so confirm it with --yes\n");
  EXPECT_EQ(HostState(), before);

  // Outside maintenance mode a change that needs it is refused without asking.
  Outcome maintenance = Run({"set", "network", "interfaces", "nic", R"([{"name": "nic0", "mtu": 9000}])"});
  EXPECT_EQ(maintenance.exit, 1);
  EXPECT_EQ(maintenance.err, "error 2026: The host must be in maintenance mode for apply to proceed.\n");
  EXPECT_EQ(HostState(), before);

  // Answered "n" on a terminal: nothing changes.
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(grantpt(master), 0);
  ASSERT_EQ(unlockpt(master), 0);
  Running running = Start({"set", "system", "boot", "kernel", value}, "tty", ptsname(master));
  ASSERT_EQ(write(master, "n\n", 2), 2);
  Outcome declined = Finish(running);
  close(master);
  EXPECT_EQ(declined.exit, 1);
  EXPECT_EQ(declined.err, "This change takes effect only after a reboot. Proceed? [y/N] ");
  EXPECT_NE(declined.out.find("impact: reboot required\n"), std::string::npos) << declined.out;
  EXPECT_NE(declined.out.find("Nothing changed.\n"), std::string::npos);
  EXPECT_EQ(HostState(), before);

  Outcome staged = Run({"set", "system", "boot", "kernel", value, "--yes"});
  EXPECT_EQ(staged.exit, 0) << staged.err;
  EXPECT_NE(staged.out.find("staged for the next boot: system/boot/kernel (reboot the host to apply it)\n"),
            std::string::npos) << staged.out;
  EXPECT_EQ(BootMode(), "bootMode=4");
  EXPECT_NE(Run({"extract", "desired"}).out.find("\"iommu\": true"), std::string::npos);
  // The staged change waits for the reboot: the kernel's file is untouched.
  EXPECT_FALSE(Exists("/etc/kernel/cmdline"));
}

TEST_F(HostApiCliTest, TimeoutAbortsTheRemediation) {
  // The resolver's apply hangs; everything else it does still works.
  const std::string plugin = "/usr/lib/corvane/configmanager/apply_modules/resolver/plugin.py";
  WriteFile(plugin, ReadFile(plugin) +
                        "\nimport os\nimport time\n"
                        "def apply(call):\n"
                        "    with open(qenplugin.HostPath('/tmp/slow.pid'), 'w') as f:\n"
                        "        f.write(str(os.getpid()))\n"
                        "    time.sleep(60)\n");
  WriteFile("/tmp/.keep", "");
  const std::string before = ReadFile("/etc/resolv.conf");
  Outcome outcome = Run({"set", "network", "dns", "resolver", R"({"servers": ["192.0.2.7"]})", "--timeout", "1"});
  EXPECT_EQ(outcome.exit, 1);
  EXPECT_EQ(outcome.err, "error: stopped after --timeout 1 s\n"
                         "error: apply plugin resolver aborted\n");
  const pid_t runner = std::stoi(ReadFile("/tmp/slow.pid"));
  EXPECT_NE(kill(runner, 0), 0);
  EXPECT_FALSE(Exists("/var/corvane/lifecycle/cm-plugin-input.json"));
  EXPECT_FALSE(Exists("/var/corvane/lifecycle/cm-plugin-output.json"));
  EXPECT_EQ(ReadFile("/etc/resolv.conf"), before);
}

}  // namespace
