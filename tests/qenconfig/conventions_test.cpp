// The conventions every qenconfig command shares: the command words and
// --root, --output json, exit codes of checks, --quiet, errors that name the
// user's paths and failed plugins, and the bash completion.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "QenConfigTest.h"
#include "QenJson.h"

namespace {

using QenTest::Outcome;
using QenTest::QenConfigTest;

constexpr const char* kCommands =
    "apply, boot, compliance, delete, doc, export, extract, get, host, impact, plan, plugins, set, smartnic, store, "
    "telemetry, validate";

class ConventionsTest : public QenConfigTest {
 protected:
  static rapidjson::Document Json(const Outcome& outcome) {
    rapidjson::Document doc;
    EXPECT_TRUE(QenPlatform::ParseJson(outcome.out, doc)) << outcome.out;
    return doc;
  }
};

TEST_F(ConventionsTest, CommandWordsVersionAndRoot) {
  Outcome version = Run({"--version"});
  EXPECT_EQ(version.exit, 0);
  EXPECT_EQ(version.out, "qenconfig " QEN_PROJECT_VERSION "\n");

  Outcome unknown = Run({"frobnicate", "x.json"});
  EXPECT_EQ(unknown.exit, 2);
  EXPECT_EQ(unknown.err, std::string("error: qenconfig: unknown command \"frobnicate\"; the commands are: ") +
                             kCommands + "\nRun with --help for more information.\n");

  // Below a group, after global options with values.
  Outcome unknownSub = Run({"--output", "json", "store", "lod", "x.json"});
  EXPECT_EQ(unknownSub.exit, 2);
  EXPECT_EQ(unknownSub.err, "error: qenconfig store: unknown command \"lod\"; the commands are: boot, dump, load, "
                            "stats\nRun with --help for more information.\n");

  Outcome none = Run({"plugins"});
  EXPECT_EQ(none.exit, 2);
  EXPECT_EQ(none.err, "error: qenconfig plugins: a command is required: check, list\n"
                      "Run with --help for more information.\n");

  // An unknown option stays the parser's usage error.
  Outcome option = Run({"compliance", "x.json", "--frob"});
  EXPECT_EQ(option.exit, 2);
  EXPECT_NE(option.err.find("--frob"), std::string::npos) << option.err;

  passRoot_ = false;
  const std::string typo = Root() + "/no-such-root";
  Outcome root = Run({"--root", typo, "store", "stats"});
  EXPECT_EQ(root.exit, 2);
  EXPECT_EQ(root.err, "error: --root: host root \"" + typo + "\" does not exist\nRun with --help for more information.\n");
  EXPECT_FALSE(Exists("/no-such-root"));
  const std::string plain = UserFile("plain", "");
  Outcome file = Run({"--root", plain, "store", "stats"});
  EXPECT_EQ(file.exit, 2);
  EXPECT_EQ(file.err, "error: --root: host root \"" + plain +
                          "\" is not a directory\nRun with --help for more information.\n");
}

TEST_F(ConventionsTest, HelpListsTheExitCodesAndEachJsonForm) {
  Outcome help = Run({"--help"});
  EXPECT_EQ(help.exit, 0);
  for (const char* line : {"  0    ok (compliant, valid, applied)\n", "  2    usage: unknown command or option",
                           "  3    the check says no: not compliant (compliance), document invalid (validate),\n",
                           "  4-9  apply's outcomes"})
    EXPECT_NE(help.out.find(line), std::string::npos) << line;
  for (const char* command : {"validate", "compliance", "get", "set", "impact", "plan", "apply", "telemetry"}) {
    Outcome sub = Run({command, "--help"});
    EXPECT_NE(sub.out.find("\nJSON"), std::string::npos) << command << ":\n" << sub.out;
    EXPECT_NE(sub.out.find("{\""), std::string::npos) << command << ":\n" << sub.out;
  }
}

TEST_F(ConventionsTest, StatusListsAndStatsHaveAJsonForm) {
  LoadSampleStore();
  Outcome status = Run({"host", "status", "--output", "json"});
  EXPECT_EQ(status.exit, 0) << status.err;
  EXPECT_EQ(status.out, "{\n   \"maintenanceMode\": false,\n   \"quickBoot\": \"QUICKBOOT_SUPPORTED\",\n"
                        "   \"biosUuid\": \"4c4c4544-0042-3510-8052-b4c04f4a4b32\"\n}\n");
  // --json is the same, before or after the command.
  EXPECT_EQ(Run({"--json", "host", "status"}).out, status.out);

  rapidjson::Document stats = Json(Run({"store", "stats", "--json"}));
  ASSERT_TRUE(stats.IsObject());
  EXPECT_TRUE(stats["rowCount"].IsInt64());
  EXPECT_EQ(stats["bootMode"].GetInt64(), 0);
  EXPECT_TRUE(stats["metrics"].IsObject());
  EXPECT_TRUE(stats["metrics"]["objectRows"].IsInt64());

  rapidjson::Document plugins = Json(Run({"plugins", "list", "--type", "apply", "--json"}));
  ASSERT_TRUE(plugins.IsObject());
  std::string ids;
  for (const auto& p : plugins["plugins"].GetArray()) ids += std::string(p["id"].GetString()) + " ";
  EXPECT_NE(ids.find("resolver "), std::string::npos) << ids;
  ASSERT_TRUE(plugins["order"].IsArray());
  EXPECT_GT(plugins["order"].Size(), 0u);
  EXPECT_TRUE(Json(Run({"plugins", "list", "--type", "extract", "--json"}))["order"].IsNull());
}

TEST_F(ConventionsTest, ValidateReportsReadablyAndSeparatesInvalidFromFailed) {
  LoadSampleStore();
  const std::string good = std::string(kDocs) + "desired-good.json";
  Outcome valid = Run({"validate", good});
  EXPECT_EQ(valid.exit, 0) << valid.err;
  EXPECT_EQ(valid.out, "Valid: " + good + "\n");
  EXPECT_EQ(Run({"validate", good, "--json"}).out,
            "{\n   \"valid\": true,\n   \"errors\": [],\n   \"pluginError\": null\n}\n");

  const std::string bad = std::string(kDocs) + "desired-bad.json";
  Outcome invalid = Run({"validate", bad});
  EXPECT_EQ(invalid.exit, 3) << invalid.err;
  EXPECT_EQ(invalid.out.rfind("Invalid: " + bad + ": ", 0), 0u) << invalid.out;
  std::istringstream lines(invalid.out);
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line)) {
    // "  PATH: MESSAGE", never an empty message.
    const size_t colon = line.find(": ");
    ASSERT_EQ(line.rfind("  /", 0), 0u) << line;
    ASSERT_NE(colon, std::string::npos) << line;
    EXPECT_GT(line.size(), colon + 2) << line;
  }
  rapidjson::Document json = Json(Run({"validate", bad, "--output", "json"}));
  ASSERT_TRUE(json.IsObject());
  EXPECT_FALSE(json["valid"].GetBool());
  ASSERT_GT(json["errors"].Size(), 0u);
  for (const auto& e : json["errors"].GetArray()) EXPECT_GT(e["message"].GetStringLength(), 0u);

  Outcome unreadable = Run({"validate", Root()});
  EXPECT_EQ(unreadable.exit, 1);
  EXPECT_EQ(unreadable.err, "error: cannot read file \"" + Root() + "\": Is a directory\n");
}

TEST_F(ConventionsTest, ComplianceJsonHoldsValuesNotTexts) {
  LoadSampleStore();
  Outcome json = Run({"compliance", std::string(kDocs) + "desired-compliance.json", "--property-level", "--json"});
  EXPECT_EQ(json.exit, 3) << json.err;
  rapidjson::Document result = Json(json);
  ASSERT_TRUE(result.IsObject());
  bool sawPassword = false;
  for (const char* array : {"ADDS", "DELETES", "SETS"})
    for (const auto& entry : result["details"][array].GetArray()) {
      const std::string path = entry["path"].GetString();
      if (path == "/system/users/user/1/password") {
        sawPassword = true;
        EXPECT_EQ(QenPlatform::CompactJson(entry["desiredValue"]), "\"(redacted)\"");
      }
      // A value that is itself a JSON text would be a string starting with
      // a JSON token; the values are the values.
      for (const char* side : {"desiredValue", "hostValue"}) {
        if (entry.HasMember(side) && entry[side].IsString()) {
          EXPECT_EQ(std::string(entry[side].GetString()).find('"'), std::string::npos) << path;
        }
      }
    }
  EXPECT_TRUE(sawPassword);
}

TEST_F(ConventionsTest, ErrorsNameTheUsersPathsAndHowAPluginEnded) {
  // No store below this root yet.
  Outcome dump = Run({"store", "dump"});
  EXPECT_EQ(dump.exit, 1);
  EXPECT_EQ(dump.err, "error 2001: Configuration store \"" + Path("/var/lib/corvane/configstore/configstore.db") +
                          "\" does not exist: it is not initialised (load a store description first)\n");

  // The user's own absolute paths stay as given, whatever they look like.
  Outcome missing = Run({"compliance", "/var/no-such-document.json"});
  EXPECT_EQ(missing.err, "error: cannot read file \"/var/no-such-document.json\": No such file or directory\n");
  Outcome load = Run({"store", "load", "/etc/no-such-store.json"});
  EXPECT_EQ(load.err, "error: cannot read file \"/etc/no-such-store.json\": No such file or directory\n");

  LoadSampleStore();
  const std::string plugin = "/usr/lib/corvane/configmanager/apply_modules/resolver/plugin.py";
  WriteFile(plugin, ReadFile(plugin) + "\n\ndef extract(call):\n    import os\n    os._exit(3)\n");
  Outcome extract = Run({"extract", "current"});
  EXPECT_EQ(extract.exit, 1);
  EXPECT_EQ(extract.err, "error 2031: Extract plugin failed: resolver\n"
                         "  plugin resolver exited with status 3; its log lines are in " +
                             Path("/var/log/corvane/configmanager.log") + "\n");
  EXPECT_EQ(extract.out, "");
}

TEST_F(ConventionsTest, ChecksOfManifestsSayNoWithThree) {
  const std::string dir = "/manifests/broken/";
  WriteFile(dir + "manifest.json", R"({"version": 3, "type": "python"})");
  Outcome check = Run({"plugins", "check", Path("/manifests")});
  EXPECT_EQ(check.exit, 3) << check.err;
  EXPECT_EQ(check.out.rfind(Path(dir + "manifest.json") + ": ", 0), 0u) << check.out;
  Outcome clean = Run({"plugins", "check"});
  EXPECT_EQ(clean.exit, 0) << clean.out;
  EXPECT_EQ(clean.out, "Every manifest below " + Path("/usr/lib/corvane/configmanager/apply_modules/") +
                           " is valid.\n");
}

// Completions as bash computes them for the words typed so far.
class CompletionTest : public QenConfigTest {
 protected:
  std::string Complete(const std::string& words) {
    const std::string script = Path("/complete.sh");
    WriteFile("/complete.sh",
              "source '" QEN_SOURCE_DIR "/tools/qenconfig/completion/qenconfig.bash'\n"
              "COMP_WORDS=(" + words + ")\n"
              "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
              "[[ \"" + words + "\" == *' ' ]] && { COMP_WORDS+=(''); COMP_CWORD=$((COMP_CWORD + 1)); }\n"
              "_qenconfig\n"
              "printf '%s\\n' \"${COMPREPLY[@]}\" | sort | tr '\\n' ' '\n");
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(("cd '" + Root() + "' && bash '" + script + "'").c_str(), "r"),
                                              pclose);
    std::string out;
    char buffer[512];
    while (pipe && fgets(buffer, sizeof buffer, pipe.get())) out += buffer;
    return out;
  }
};

TEST_F(CompletionTest, CompletesCommandsOptionsAndValues) {
  EXPECT_EQ(Complete("qenconfig st"), "store ");
  EXPECT_EQ(Complete("qenconfig --root /tmp s"), "set smartnic store ");
  EXPECT_EQ(Complete("qenconfig store "), "--help --json --output --quiet --root --verbose --verbosity --version -q -v "
                                          "boot dump load stats ");
  EXPECT_EQ(Complete("qenconfig compliance --output "), "json text ");
  EXPECT_EQ(Complete("qenconfig plugins list --type b"), "boot ");
  EXPECT_EQ(Complete("qenconfig compliance x.json --pr"), "--property-level ");
  EXPECT_EQ(Complete("qenconfig extract c"), "current ");
}

// Every command and group subcommand that --help lists completes.
TEST_F(CompletionTest, KnowsEveryCommand) {
  for (const std::string command : {"", "boot", "doc", "host", "plugins", "smartnic", "store"}) {
    std::vector<std::string> args = {"--help"};
    if (!command.empty()) args.insert(args.begin(), command);
    std::istringstream help(Run(args).out);
    std::string line;
    bool inSubcommands = false;
    std::set<std::string> listed;
    while (std::getline(help, line)) {
      if (line == "Subcommands:") inSubcommands = true;
      else if (line.empty()) inSubcommands = false;
      else if (inSubcommands) listed.insert(line.substr(2, line.find(' ', 2) - 2));
    }
    ASSERT_FALSE(listed.empty()) << command;
    const std::string completed = Complete("qenconfig " + command + (command.empty() ? "" : " "));
    for (const std::string& name : listed)
      EXPECT_NE(completed.find(name + " "), std::string::npos) << "qenconfig " << command << " " << name;
  }
}

}  // namespace
