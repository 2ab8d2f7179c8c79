#include "HostRootTest.h"
#include "QenSchemaStore.h"

using namespace QenSchemaStore;

namespace {

class SchemaDocumentTest : public QenTest::HostRootTest {
 protected:
  void SetUp() override {
    HostRootTest::SetUp();
    InstallSampleHost();
    SchemaStore::Invalidate();
    cache_ = SchemaStore::GetCache();
    ASSERT_TRUE(cache_);
  }
  void TearDown() override {
    SchemaStore::Invalidate();
    HostRootTest::TearDown();
  }

  void Generate(const char* profile) {
    rapidjson::Document value;
    value.Parse(profile);
    ASSERT_FALSE(value.HasParseError()) << profile;
    GenerateSchemaDocument(value, cache_, schemaDoc_, errors_);
  }
  std::string Errors() const {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    errors_.Accept(writer);
    return buffer.GetString();
  }
  const rapidjson::Value& Profile() const { return schemaDoc_["properties"]["profile"]; }

  std::shared_ptr<SchemaCache> cache_;
  rapidjson::Document schemaDoc_;
  rapidjson::Document errors_;
};

TEST_F(SchemaDocumentTest, KeysLandUnderProfileAndHostSections) {
  Generate(R"({"network": {"dns": {"resolver": {}}}, "system": {"users": {"user": []}}})");
  EXPECT_EQ(Errors(), "[]");
  EXPECT_STREQ(schemaDoc_["type"].GetString(), "object");
  const rapidjson::Value& network = Profile()["properties"]["network"];
  EXPECT_STREQ(network["type"].GetString(), "object");
  EXPECT_EQ(network["properties"]["dns"]["properties"]["resolver"],
            cache_->GetSchema("network", "dns", "resolver")->GetSchemaJson());
  const rapidjson::Value& user =
      Profile()["properties"]["system"]["properties"]["users"]["properties"]["user"];
  EXPECT_STREQ(user["type"].GetString(), "array");
  EXPECT_STREQ(user["instanceId"].GetString(), "name");
  for (const char* section : {"host-specific", "host-override"}) {
    const rapidjson::Value& node = schemaDoc_["properties"][section];
    EXPECT_STREQ(node["type"].GetString(), "object");
    EXPECT_EQ(node["additionalProperties"], Profile()) << section;
  }
}

TEST_F(SchemaDocumentTest, LaterCallsAddToTheSameDocument) {
  Generate(R"({"network": {"dns": {"resolver": {}}}})");
  Generate(R"({"network": {"dns": {"resolver": {}}, "hosts": {"entry": []}}})");
  const rapidjson::Value& network = Profile()["properties"]["network"]["properties"];
  EXPECT_EQ(network["dns"]["properties"].MemberCount(), 1u);
  EXPECT_TRUE(network["hosts"]["properties"].HasMember("entry"));
  EXPECT_TRUE(schemaDoc_["properties"]["host-specific"]["additionalProperties"]["properties"]
                  ["network"]["properties"]["hosts"]["properties"]
                      .HasMember("entry"));
  EXPECT_EQ(Errors(), "[]");
}

// A misspelt component or group is one error, also when it holds nothing;
// known ones of the wrong type are shape errors.
TEST_F(SchemaDocumentTest, UnknownComponentsAndGroupsEvenEmptyOnesAreReportedOnce) {
  Generate(R"({"profle": {}, "network": {"dnss": {}, "dns": {}}, "system": {"time": []}})");
  Generate(R"({"network": 3})");
  EXPECT_EQ(Errors(),
            R"([{"field":"/profle","errId":11,"error":"No schema found for configuration component","errArgs":["profle"]},)"
            R"({"field":"/network/dnss","errId":11,"error":"No schema found for configuration group","errArgs":["network.dnss"]},)"
            R"({"field":"/system/time","errId":5,"error":"Group is not an object","errArgs":["system.time"]},)"
            R"({"field":"/network","errId":5,"error":"Component is not an object","errArgs":["network"]}])");
}

TEST_F(SchemaDocumentTest, UnknownKeysAndNonObjectsAreReported) {
  Generate(R"({"network": {"dns": {"resolver": {}, "cache": {}}, "a/b": 3},
               "bogus": [], "system": {"time": {"ntp": {}}}})");
  EXPECT_EQ(Errors(),
            R"([{"field":"/network/dns/cache","errId":11,"error":"No schema found for configuration key","errArgs":["network.dns.cache"]},)"
            R"({"field":"/network/a~1b","errId":11,"error":"No schema found for configuration group","errArgs":["network.a/b"]},)"
            R"({"field":"/bogus","errId":11,"error":"No schema found for configuration component","errArgs":["bogus"]}])");
  EXPECT_TRUE(Profile()["properties"]["system"]["properties"]["time"]["properties"].HasMember("ntp"));
  EXPECT_FALSE(Profile()["properties"]["network"]["properties"]["dns"]["properties"].HasMember("cache"));
}

TEST_F(SchemaDocumentTest, NullCacheReportsEveryKey) {
  rapidjson::Document value;
  value.Parse(R"({"network": {"dns": {"resolver": {}}}})");
  GenerateSchemaDocument(value, nullptr, schemaDoc_, errors_);
  ASSERT_EQ(errors_.Size(), 1u);
  EXPECT_STREQ(errors_[0]["field"].GetString(), "/network/dns/resolver");
  EXPECT_EQ(Profile()["properties"].MemberCount(), 0u);
}

}  // namespace
