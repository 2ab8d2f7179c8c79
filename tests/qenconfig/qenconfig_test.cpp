// The qenconfig command line against a sample host: exit codes, the
// compliance table and its JSON, and how failures reach the user.
#include <gtest/gtest.h>

#include <string>

#include "QenConfigTest.h"
#include "QenJson.h"

namespace {

using QenTest::Outcome;
using QenTest::QenConfigTest;

TEST_F(QenConfigTest, ExtractedConfigurationCompliesWithItself) {
  ASSERT_EQ(Run({"store", "load", std::string(kDocs) + "store-sample.json"}).exit, 0);
  Outcome extract = Run({"extract", "current"});
  ASSERT_EQ(extract.exit, 0) << extract.err;
  Outcome check = Run({"compliance", UserFile("current.json", extract.out)});
  EXPECT_EQ(check.exit, 0) << check.err;
  EXPECT_EQ(check.out, "Compliant: the host matches the desired document.\n");
}

TEST_F(QenConfigTest, DriftIsATableOrJsonWithRedactedValuesAndExitThree) {
  ASSERT_EQ(Run({"store", "load", std::string(kDocs) + "store-sample.json"}).exit, 0);
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

  Outcome garbage = Run({"compliance", UserFile("bad.json", "{\"profile\": ")});
  EXPECT_EQ(garbage.exit, 1);
  EXPECT_EQ(garbage.err, "error 2080: Failed to parse JSON String\n");
}

}  // namespace
