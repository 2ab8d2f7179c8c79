// The qenconfig command line against a sample host: exit codes, the
// compliance table and its JSON, and how failures reach the user.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <string>

#include "QenConfigTest.h"
#include "QenJson.h"

namespace {

using QenTest::Outcome;
using QenTest::QenConfigTest;

TEST_F(QenConfigTest, ExtractedConfigurationCompliesWithItself) {
  LoadSampleStore();
  Outcome extract = Run({"extract", "current", "--show-sensitive"});
  ASSERT_EQ(extract.exit, 0) << extract.err;
  Outcome check = Run({"compliance", UserFile("current.json", extract.out)});
  EXPECT_EQ(check.exit, 0) << check.err;
  EXPECT_EQ(check.out, "Compliant: the host matches the desired document.\n");
}

TEST_F(QenConfigTest, DriftIsATableOrJsonWithRedactedValuesAndExitThree) {
  LoadSampleStore();
  const std::string desired = std::string(kDocs) + "desired-compliance.json";

  Outcome table = Run({"compliance", desired, "--property-level"});
  EXPECT_EQ(table.exit, 3) << table.err;
  EXPECT_EQ(table.out.rfind("Not compliant: ", 0), 0u) << table.out;
  EXPECT_NE(table.out.find("\nACTION  PATH"), std::string::npos) << table.out;
  // The sample's changed password is sensitive: only its redaction shows.
  EXPECT_NE(table.out.find("SET     /system/users/user/1/password  \"(redacted)\""), std::string::npos)
      << table.out;
  EXPECT_EQ(table.out.find("$6$rotated$hash"), std::string::npos);

  Outcome json = Run({"compliance", desired, "--property-level", "--json"});
  EXPECT_EQ(json.exit, 3);
  rapidjson::Document result;
  result.Parse(json.out.c_str());
  ASSERT_FALSE(result.HasParseError()) << json.out;
  EXPECT_FALSE(result["compliant"].GetBool());
  size_t rows = 0;
  for (const char* array : {"ADDS", "DELETES", "SETS"}) rows += result["details"][array].Size();
  EXPECT_GT(rows, 0u);
  // The table announces exactly the rows the JSON holds.
  EXPECT_NE(table.out.find(std::to_string(result["details"]["ADDS"].Size()) + " to add, " +
                           std::to_string(result["details"]["DELETES"].Size()) + " to delete, " +
                           std::to_string(result["details"]["SETS"].Size()) + " to set."),
            std::string::npos)
      << table.out;
  EXPECT_EQ(json.out.find("$6$rotated$hash"), std::string::npos);
}

TEST_F(QenConfigTest, FailuresAreUsageOrCodedErrors) {
  Outcome usage = Run({"compliance"});
  EXPECT_EQ(usage.exit, 2);
  EXPECT_NE(usage.err.find("FILE is required"), std::string::npos) << usage.err;

  Outcome missing = Run({"compliance", Root() + "/absent.json"});
  EXPECT_EQ(missing.exit, 1);
  EXPECT_EQ(missing.err, "error: cannot read file \"" + Root() + "/absent.json\": No such file or directory\n");
  EXPECT_TRUE(missing.out.empty());

  const std::string bad = UserFile("bad.json", "{\"profile\": ");
  Outcome garbage = Run({"compliance", bad});
  EXPECT_EQ(garbage.exit, 1);
  EXPECT_EQ(garbage.err, "error 2080: Failed to parse JSON String \"" + bad + "\": Invalid value. at offset 12\n");
}

TEST_F(QenConfigTest, ExportPrintsOrWritesTheDocumentAndItsTelemetryForm) {
  LoadSampleStore();
  Outcome printed = Run({"export"});
  ASSERT_EQ(printed.exit, 0) << printed.err;
  EXPECT_NE(printed.out.find("\n   \"metadata\": {\n      \"reference_host\": {\n         \"build\": \"24585383\","),
            std::string::npos)
      << printed.out;

  const std::string file = Path("/exported.json");
  Outcome written = Run({"export", "-o", file});
  ASSERT_EQ(written.exit, 0) << written.err;
  EXPECT_EQ(written.out, "Exported to " + file + ".\n");
  const std::string text = ReadFile("/exported.json");
  rapidjson::Document fromFile, fromPrint;
  fromFile.Parse(text.c_str());
  fromPrint.Parse(printed.out.c_str());
  ASSERT_FALSE(fromFile.HasParseError()) << text;
  EXPECT_TRUE(fromFile == fromPrint);
  EXPECT_EQ(text.find("\n"), text.size() - 1);  // the normalised text, one line
  struct stat st;
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  Outcome telemetry = Run({"export", "--telemetry"});
  ASSERT_EQ(telemetry.exit, 0) << telemetry.err;
  EXPECT_EQ(telemetry.out.find("s3cret-community"), std::string::npos);
  EXPECT_NE(telemetry.out.find("\"community\": \"(redacted)\""), std::string::npos) << telemetry.out;
  EXPECT_NE(telemetry.out.find("\"telemetry_data\": \"Configuration value cannot be exported"),
            std::string::npos);

  Outcome unwritable = Run({"export", "-o", Path("/absent/dir/out.json")});
  EXPECT_EQ(unwritable.exit, 1);
  EXPECT_EQ(unwritable.err, "error: cannot write file \"" + Path("/absent/dir/out.json") +
                                "\": No such file or directory\n");
}

TEST_F(QenConfigTest, SmartnicGetAndSet) {
  LoadSampleStore();
  Outcome get = Run({"smartnic", "get"});
  ASSERT_EQ(get.exit, 0) << get.err;
  EXPECT_EQ(get.out, "{\n   \"system\": {\n      \"smartnic\": {\n         \"offload\": {\n"
                     "            \"encryption\": true,\n            \"firewall\": true\n"
                     "         }\n      }\n   }\n}\n");

  Outcome set = Run({"smartnic", "set", UserFile("nic.json", R"({"system": {"smartnic": {"offload": {"firewall": false}}}})")});
  EXPECT_EQ(set.exit, 0) << set.err;
  EXPECT_EQ(set.out, "SmartNIC configuration staged for the next boot.\n");

  Outcome bad = Run({"smartnic", "set", UserFile("bad.json", "{\"system\": ")});
  EXPECT_EQ(bad.exit, 1);
  EXPECT_EQ(bad.err, "error 2080: Failed to parse JSON String\n");
  Outcome usage = Run({"smartnic"});
  EXPECT_EQ(usage.exit, 2);
}

TEST_F(QenConfigTest, TelemetryItemsAsTextOrJsonWithTheReturnedIndex) {
  LoadSampleStore();
  Outcome text = Run({"telemetry", "--exclude", "configManagerQenConfig,configManagerConfigStoreMetrics",
                      "--start", "1", "--index", "0"});
  ASSERT_EQ(text.exit, 0) << text.err;
  EXPECT_NE(text.out.find("configManagerQenBiosUuid: 4c4c4544-0042-3510-8052-b4c04f4a4b32\n"),
            std::string::npos)
      << text.out;
  EXPECT_EQ(text.out.find("configManagerRowCount"), std::string::npos);  // below the start index
  EXPECT_EQ(text.out.substr(text.out.size() - 14), "next index: 7\n");

  Outcome json = Run({"telemetry", "--include", "configManagerQenBiosUuid,configManagerConfigStoreMetrics",
                      "--index", "5", "--max", "1", "--json"});
  ASSERT_EQ(json.exit, 0) << json.err;
  EXPECT_EQ(json.out, "{\n   \"items\": {\n      \"configManagerQenBiosUuid\": "
                      "\"4c4c4544-0042-3510-8052-b4c04f4a4b32\"\n   },\n   \"index\": 6\n}\n");

  Outcome lists = Run({"telemetry", "--include", "configManagerConfigStoreMetrics"});
  ASSERT_EQ(lists.exit, 0) << lists.err;
  EXPECT_EQ(lists.out.rfind("configManagerConfigStoreMetrics:\n  objectRows=", 0), 0u) << lists.out;
}

}  // namespace
