#include <gtest/gtest.h>

#include <algorithm>

#include "CommonTest.h"
#include "HostRootTest.h"
#include "QenConfigStore.h"
#include "configmanager/common.h"

using namespace QenConfigManager;
using namespace QenTest;

namespace {

class HostIdentity : public QenTest::HostRootTest {
 protected:
  void Hardware(const std::string& uuid) {
    WriteFile("/etc/corvane/hardware.json", "{\"biosUuid\": \"" + uuid + "\"}");
  }
};

Failure InstanceIdFailure(const std::string& value, const std::string& field) {
  auto schema = std::make_shared<FakeSchema>(true, field, std::vector<std::string>{});
  return FailureOf<ConfigManagerException>([&] { GetInstanceIdFromValue(Parse(value), schema); });
}

}  // namespace

TEST_F(HostIdentity, BiosUuidIsNormalised) {
  Hardware(" {4C4C4544-0042-3510-8052-B4C04F4A4B32} ");
  EXPECT_EQ(GetBIOSUUID(), "4c4c4544-0042-3510-8052-b4c04f4a4b32");
}

TEST_F(HostIdentity, HostControlFailuresPassThrough) {
  try {
    GetBIOSUUID();
    FAIL() << "no throw";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    FAIL() << "a host control failure must not be translated: " << e.what();
  } catch (const HostCtl::Lib::HostCtlException& e) {
    EXPECT_EQ(std::string(e.what()).rfind("cannot read host file \"/etc/corvane/hardware.json\"", 0), 0u) << e.what();
  }
}

TEST_F(HostIdentity, MergedDocumentTakesOnlyThisHostsSection) {
  Hardware("{4C4C4544-0042-3510-8052-B4C04F4A4B32}");
  rapidjson::Document schema = Parse(R"({"type": "object", "properties": {"profile": {"type": "object", "properties": {
      "system": {"type": "object", "properties": {"time": {"type": "object", "properties": {
        "ntp": {"type": "object", "properties": {"enabled": {"type": "boolean"}}}}}}}}}}})");
  rapidjson::Document doc = Parse(R"({"profile": {"system": {"time": {"ntp": {"enabled": false}}}},
      "host-specific": {
        "4C4C4544-0042-3510-8052-B4C04F4A4B32": {"system": {"time": {"ntp": {"enabled": true}}}},
        "00000000-0000-0000-0000-000000000000": {"system": {"time": {"ntp": {"servers": ["x"]}}}}}})");
  CreateMergedDocument(schema, doc);
  EXPECT_EQ(Compact(doc), R"({"profile":{"system":{"time":{"ntp":{"enabled":true}}}}})");
}

TEST(GetInstanceIdFromValue, ReadsTheSchemasInstanceField) {
  auto byName = std::make_shared<FakeSchema>(true, "name", std::vector<std::string>{});
  EXPECT_EQ(GetInstanceIdFromValue(Parse(R"({"uid": 0, "name": "root"})"), byName), "root");
  auto generated = std::make_shared<FakeSchema>(true, "cs_generated_id", std::vector<std::string>{});
  EXPECT_EQ(GetInstanceIdFromValue(Parse(R"({"cs_generated_id": "6f1c"})"), generated), "6f1c");
  // A singleton key has no instance field: any value, even a non-object, has no identifier.
  auto singleton = std::make_shared<FakeSchema>(false, "", std::vector<std::string>{});
  EXPECT_EQ(GetInstanceIdFromValue(Parse("[1]"), singleton), "");
}

TEST(GetInstanceIdFromValue, MissingOrNonStringIdentifierIsAnInvalidValue) {
  const auto invalid = std::make_tuple(2084, std::string("Invalid value for key name"), Args{"name"});
  EXPECT_EQ(InstanceIdFailure(R"({"uid": 0})", "name"), invalid);
  EXPECT_EQ(InstanceIdFailure(R"({"name": 7})", "name"), invalid);
  EXPECT_EQ(InstanceIdFailure(R"({"name": null})", "name"), invalid);
  EXPECT_EQ(InstanceIdFailure(R"([{"name": "root"}])", "name"), invalid);
  EXPECT_EQ(InstanceIdFailure(R"("root")", "name"), invalid);
}

TEST_F(HostIdentity, ExternalDefaultsLeaveOutSolutionUsers) {
  InstallSampleHost();
  auto description = CreateDocumentFromString(R"({"host": {"defaults": {"system": {"users": {"user": [
      {"name": "root", "role": "admin"}, {"name": "solution-agent", "role": "read"}, {"name": "admin", "role": "admin"}]}}}}})");
  QenConfigStore::LoadStoreDescription(description->GetDocument());
  auto store = QenSchemaStore::SchemaStore::GetStore();
  ASSERT_TRUE(store);
  auto schema = QenSchemaStore::GetSchema("system", "users", "user", store);
  ASSERT_TRUE(schema);

  const ConfigStoreObjectId id("user", "users", "system");
  auto connection = QenConfigStore::GetDBStore(0, false);
  auto text = [](const ConfigMapVector& maps) {
    std::vector<std::string> seen;
    for (const auto& m : maps) seen.push_back(m->at("Identifier") + "=" + m->at("Value"));
    return seen;
  };
  // The store's own order, less the solution user.
  std::vector<std::string> expected = text(QenConfigStore::GetDefaultUserConfigMapList(id, connection));
  const std::string agent = R"(solution-agent={"name":"solution-agent","role":"read"})";
  ASSERT_EQ(expected.size(), 3u);
  ASSERT_EQ(std::count(expected.begin(), expected.end(), agent), 1);
  expected.erase(std::find(expected.begin(), expected.end(), agent));
  EXPECT_EQ(text(GetExternalDefaultUserConfig(id, connection, schema)), expected);
}
