// The compliance check's entries, their member orders and the result's life.
#include <gmock/gmock.h>

#include <boost/filesystem.hpp>

#include "ConfigStoreDocument.h"
#include "DriftFixture.h"
#include "drift/compliance.h"

using namespace QenConfigManager;
using DriftTest::DriftFixture;
using ::testing::ElementsAre;

namespace {

class RecordingTask : public TaskHandle {
 public:
  void UpdateProgress(float percent) override { progress.push_back(percent); }
  std::vector<float> progress;
};

class ComplianceTest : public DriftFixture {
 protected:
  // The compliance handler over `result`, set up as CheckCompliance sets it
  // up, walked against `host`; returns the details as compact text.
  std::string Check(const std::string& desired, const std::string& host, bool propertyLevel = false) {
    auto doc = DriftTest::Parse(desired);
    CheckComplianceHandler compliance(&result);
    compliance.propertyLevelDrift = propertyLevel;
    compliance.checkDefaultUserConfig = false;
    compliance.currentDocument = DriftTest::Parse(host);
    ComputeDrift(doc->GetDocument(), doc->GetDocument().GetAllocator(), compliance);
    return DriftTest::Text(result.details);
  }

  ComplianceResult result;
  std::shared_ptr<RecordingTask> task = std::make_shared<RecordingTask>();
};

// CheckCompliance against the host's stored configuration.
TEST_F(ComplianceTest, CheckComplianceComparesWithTheHostAndFinishesTheTask) {
  // A host without plugins: its configuration is what the store holds.
  WriteFile("/etc/corvane/features.json", R"({"features": {}})");
  boost::filesystem::create_directories(Path("/usr/lib/corvane/configmanager/apply_modules"));
  auto stored = DriftTest::Parse(R"({"host": {"current": {"c": {"g": {"other": {"a": "x"}}}}}})");
  QenConfigStore::LoadStoreDescription(stored->GetDocument());
  auto desired = DriftTest::Parse(R"({"profile": {"c": {"g": {"other": {"a": "x"}}}}})");
  CheckCompliance(desired->GetDocument(), false, result, task);
  EXPECT_TRUE(result.compliant);
  EXPECT_EQ(DriftTest::Text(result.details), R"({"ADDS":[],"DELETES":[],"SETS":[]})");
  EXPECT_THAT(task->progress, ElementsAre(100.0f));

  desired = DriftTest::Parse(R"({"c": {"g": {"other": {"a": "y"}}}})");
  CheckCompliance(desired->GetDocument(), false, result, task);
  EXPECT_FALSE(result.compliant);
  EXPECT_EQ(DriftTest::Text(result.details),
            R"({"ADDS":[],"DELETES":[],"SETS":[{"path":"/c/g/other/a","desiredValue":"\"y\"","hostValue":"\"x\""}]})");
}

TEST_F(ComplianceTest, EqualDocumentsAreCompliant) {
  const std::string host = R"({"c": {"g": {"single": {"a": "x"}, "nat": [{"name": "n"}]}}})";
  EXPECT_EQ(Check(host, host), R"({"ADDS":[],"DELETES":[],"SETS":[]})");
  EXPECT_TRUE(result.compliant);
}

TEST_F(ComplianceTest, EntriesCarryPathAndRedactedValuesInTheirMemberOrder) {
  EXPECT_EQ(
      Check(R"({"c": {"g": {"single": {"a": "new", "b": 2, "secret": "pw1",
                                       "list": [{"name": "p", "v": 1}]},
                            "other": {"a": "o"},
                            "nat": [{"name": "n2"}]}}})",
            R"({"c": {"g": {"single": {"a": "old", "secret": "pw2", "tags": ["t"]},
                            "other": {},
                            "nat": [{"name": "n1", "v": 1}]}}})"),
      std::string(R"({"ADDS":[)") +
          // An array-of-objects instance the host lacks; a key whose host
          // value is empty, recorded with its host value first.
          R"({"path":"/c/g/single/list","desiredValue":"[{\"name\":\"p\",\"v\":1}]"},)" +
          R"({"path":"/c/g/other","hostValue":"{}","desiredValue":"{\"a\":\"o\"}"},)" +
          R"({"path":"/c/g/nat/0","desiredValue":"{\"name\":\"n2\"}"}],)" +
          R"("DELETES":[{"path":"/c/g/nat/1","hostValue":"{\"name\":\"n1\",\"v\":1}"}],)" +
          // Scalars are changes whichever side lacks them.
          R"("SETS":[{"path":"/c/g/single/a","desiredValue":"\"new\"","hostValue":"\"old\""},)" +
          R"({"path":"/c/g/single/b","desiredValue":"2"},)" +
          R"({"path":"/c/g/single/secret","desiredValue":"\"(redacted)\"","hostValue":"\"(redacted)\""},)" +
          R"({"path":"/c/g/single/tags","hostValue":"[\"t\"]"}]})");
  EXPECT_FALSE(result.compliant);
  EXPECT_TRUE(log_.Contains(3, "Property-level drift detected at /c/g/single/a"));
  EXPECT_TRUE(log_.Contains(3, "SET drift detected at /c/g/other"));
  EXPECT_TRUE(log_.Contains(3, "ADD drift detected at /c/g/nat/0"));
  EXPECT_TRUE(log_.Contains(3, "DELETE drift detected at /c/g/nat/1"));
}

TEST_F(ComplianceTest, NestedInstancesAndPropertyLevelKeysKeepTheirActions) {
  EXPECT_EQ(Check(R"({"c": {"g": {"single": {"list": [{"name": "p"}]}}}})",
                  R"({"c": {"g": {"single": {"list": [{"name": "q"}]}, "other": {"a": "h"}}}})", true),
            R"({"ADDS":[{"path":"/c/g/single/list/0","desiredValue":"{\"name\":\"p\"}"}],)"
            R"("DELETES":[{"path":"/c/g/single/list/1","hostValue":"{\"name\":\"q\"}"}],)"
            R"("SETS":[{"path":"/c/g/other/a","hostValue":"\"h\""}]})");
}

TEST_F(ComplianceTest, InstallerDriftIsIgnoredAndASecondCallStartsAfresh) {
  EXPECT_EQ(Check(R"({"qen": {"system": {"installer": {"a": "1"}}}})",
                  R"({"qen": {"system": {"installer": {"a": "2"}}}})"),
            R"({"ADDS":[],"DELETES":[],"SETS":[]})");
  EXPECT_TRUE(result.compliant);
  EXPECT_FALSE(log_.Contains(3, "Property-level drift detected at /qen/system/installer/a"));

  Check(R"({"c": {"g": {"other": {"a": "1"}}}})", "{}");
  EXPECT_FALSE(result.compliant);
  Check(R"({"c": {"g": {"other": {"a": "1"}}}})", R"({"c": {"g": {"other": {"a": "1"}}}})");
  EXPECT_TRUE(result.compliant);
  EXPECT_EQ(DriftTest::Text(result.details), R"({"ADDS":[],"DELETES":[],"SETS":[]})");
}

TEST_F(ComplianceTest, EngineFailureKeepsEarlierEntries) {
  try {
    Check(R"({"c": {"g": {"other": {"a": "1"}, "missing": {}}}})", "{}");
    FAIL() << "no exception";
  } catch (const ConfigManagerException& e) {
    EXPECT_EQ(e.GetErrorCode(), 2021);
  }
  EXPECT_FALSE(result.compliant);
  EXPECT_EQ(result.details["ADDS"].Size(), 1u);
}

TEST_F(ComplianceTest, ValueTooDeepToRedactIsTheJsonError) {
  std::string deep = "1";
  for (int i = 0; i < 10000; ++i) deep = "[" + deep + "]";
  rapidjson::Document desired;
  desired.Parse<rapidjson::kParseIterativeFlag>(
      (R"({"c": {"g": {"single": {"tags": )" + deep + "}}}}").c_str());
  ASSERT_FALSE(desired.HasParseError());
  CheckComplianceHandler compliance(&result);
  compliance.currentDocument = DriftTest::Parse("{}");
  try {
    ComputeDrift(desired, desired.GetAllocator(), compliance);
    FAIL() << "no exception";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), 1082);
    EXPECT_THAT(e.what(), ::testing::StartsWith("JSON error: "));
  }
}

TEST(PopulateResult, AddsACopyOfThePath) {
  rapidjson::Document doc(rapidjson::kObjectType);
  rapidjson::Value entry(rapidjson::kObjectType);
  {
    std::string path = "/c/g/k";
    populateResult(doc, path, entry);
    path.assign("changed");
  }
  EXPECT_EQ(DriftTest::Text(entry), R"({"path":"/c/g/k"})");
}

}  // namespace
