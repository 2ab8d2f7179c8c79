// A value that a key schema marks sensitive, sent through every command
// that reads, compares, plans, applies, validates or reports configuration
// at the highest verbosity: it must show in no output and no log line, and
// every file that carries configuration is its owner's only.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CSLogger.h"
#include "HostFiles.h"
#include "QenConfigTest.h"

namespace {

using QenTest::Outcome;
using QenTest::QenConfigTest;

constexpr const char* kSecret = "$6$s3cret$Sensitive42";

class SecretsTest : public QenConfigTest {
 protected:
  void SetUp() override {
    QenConfigTest::SetUp();
    LoadSampleStore();
  }

  // The text of the log and its rotated files.
  std::string Logs() {
    std::string all;
    for (const char* suffix : {"", ".1", ".2", ".3"}) {
      const std::string name = std::string(CSLogger::kLogFile) + suffix;
      if (Exists(name)) all += ReadFile(name);
    }
    return all;
  }

  // Runs one step at the highest verbosity and names where the secret leaked.
  std::string Leaks(std::vector<std::string> args) {
    args.insert(args.begin(), {"-v", "3"});
    Outcome o = Run(args);
    std::string where;
    if (o.out.find(kSecret) != std::string::npos) where += " stdout";
    if (o.err.find(kSecret) != std::string::npos) where += " stderr";
    if (Logs().find(kSecret) != std::string::npos) where += " log";
    std::string step;
    for (size_t i = 2; i < args.size(); ++i) step += " " + args[i];
    return where.empty() ? "" : step + ":" + where + "\n";
  }
};

TEST_F(SecretsTest, ASensitiveValueReachesNoOutputAndNoLogLine) {
  std::string desired;
  ASSERT_TRUE(QenPlatform::ReadWholeFile(std::string(kDocs) + "desired-compliance.json", desired));
  const size_t at = desired.find("$6$rotated$hash");
  ASSERT_NE(at, std::string::npos);
  desired.replace(at, 15, kSecret);
  const std::string doc = UserFile("desired.json", desired);
  const std::string plan = Path("/secret.plan");
  // The password has no pattern to fail; a value of the wrong type next to
  // it makes validation report the user instance.
  std::string invalid = desired;
  invalid.replace(invalid.find("\"role\": \"operator\""), 18, "\"role\": 7");
  const std::string bad = UserFile("invalid.json", invalid);

  std::string leaks;
  for (const std::vector<std::string>& step : std::vector<std::vector<std::string>>{
           {"validate", doc},
           {"validate", bad},
           {"compliance", doc, "--property-level"},
           {"compliance", doc, "--json"},
           {"impact", doc, "--json"},
           {"set", "system", "users", "user",
            std::string(R"([{"name": "root", "description": "Administrator", "role": "admin", "shell": true},)") +
                R"({"name": "ops", "description": "Operations", "role": "operator", "password": ")" + kSecret +
                R"("}])",
            "--yes"},
           {"get", "system", "users", "user"},
           {"plan", doc, "-o", plan},
           {"apply", plan},
           {"extract", "current"},
           {"extract", "desired"},
           {"store", "dump"},
           {"export", "--telemetry"},
           {"telemetry", "--json"},
       })
    leaks += Leaks(step);
  EXPECT_EQ(leaks, "");

  // The plan carries the value to apply it: for its owner only, as are the
  // store and the log.
  EXPECT_EQ(Mode("/secret.plan"), 0600);
  EXPECT_EQ(Mode("/var/lib/corvane/configstore/configstore.db"), 0600);
  EXPECT_EQ(Mode(CSLogger::kLogFile), 0600);
}

}  // namespace
