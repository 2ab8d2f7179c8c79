// The store against the sample host's key schemas: instance identifiers come
// from each key's instance field, and the shipped store description loads.
#include <fstream>
#include <sstream>

#include "QenSchemaStore.h"
#include "StoreTestSupport.h"

using namespace QenConfigStore;
using QenTest::Failure;

namespace {

class StoreSampleTest : public QenTest::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    InstallSampleHost();
  }
  static std::string SampleDescription() {
    std::ifstream in(std::string(QEN_SOURCE_DIR) + "/host/documents/store-sample.json");
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
};

TEST_F(StoreSampleTest, SampleDescriptionLoadsWithSchemaInstanceFields) {
  Load(SampleDescription());
  auto conn = Connect();
  std::vector<std::string> ids;
  ConfigMapList list = GetUserConfigContents(conn);
  for (const auto& m : *list)
    ids.push_back(m->at("Component") + "/" + m->at("ConfigGroup") + "/" + m->at("Name") + "/" +
                  m->at("Identifier"));
  EXPECT_EQ(ids, (std::vector<std::string>{
                     "network/dns/resolver/", "network/hosts/entry/6f1c2a9e-3b47-4d2a-9c55-0e8a4f1b7d21",
                     "network/interfaces/nic/nic0", "network/interfaces/nic/nic1",
                     "podlet/system/podlet_daemon/", "storage/nfs/mount/images",
                     "system/boot/kernel/", "system/snmp/agent/", "system/time/ntp/",
                     "system/time/timezone/",
                     "system/users/user/root", "system/users/user/solution-agent",
                     "system/users/user/ops"}));
  EXPECT_EQ(Lines(GetDefaultUserConfigMapList(ConfigStoreObjectId("user", "users", "system"), conn)),
            (std::vector<std::string>{
                R"(system/users/user/root={"name":"root","description":"Administrator","role":"admin","shell":true})"}));
  EXPECT_EQ(GetBootMode(), BOOTMODE_NORMAL);
  EXPECT_TRUE(getBootApplyRecord()->GetDocument()["isBootComplete"].GetBool());
  // Round trip of the sample itself.
  const std::string dumped = Json(DumpStoreDescription()->GetDocument());
  Load(dumped);
  EXPECT_EQ(Json(DumpStoreDescription()->GetDocument()), dumped);
}

TEST_F(StoreSampleTest, InstanceWithoutItsSchemaFieldIsRejected) {
  EXPECT_EQ(Failure([] { Load(R"({"host": {"current": {"network": {"interfaces": {"nic": [{"mtu": 1500}]}}}}})"); }),
            "2003: Instance 0 of comp network grp interfaces key nic is not an object with a string "
            "member \"name\"");
}

TEST_F(StoreSampleTest, ObjectsWrittenThroughTheStoreFollowTheirSchemaCategory) {
  Load("{}");
  auto store = ConfigStore::GetStore();
  ConfigStoreObject keys(ConfigStoreObjectId("authorized_keys", "ssh", "system", "root"));
  keys.SetValue("user", "root");
  store->SetObject(keys);
  ConfigStoreObject autodeploy(ConfigStoreObjectId("autodeploy", "bootstrap", "qen"));
  autodeploy.SetValue("firewall", "<rules/>");
  store->SetObject(autodeploy);

  EXPECT_EQ(Lines(GetUserConfigContents(Connect())),
            (std::vector<std::string>{R"(system/ssh/authorized_keys/root={"user":"root"})"}));
  store->DeleteObject(ConfigStoreObjectId("authorized_keys", "ssh", "system", "root"));
  EXPECT_TRUE(GetUserConfigContents(Connect())->empty());
  EXPECT_EQ(store->GetObject(ConfigStoreObjectId("authorized_keys", "ssh", "system", "root")), nullptr);
  EXPECT_EQ(GetConfigRowCount(), 1);

  rapidjson::Document value;
  value.Parse(R"({"address": "10.1.1.1", "names": ["a"]})");
  auto schema = QenSchemaStore::SchemaStore::GetStore()->GetSchema("network", "hosts", "entry");
  ASSERT_TRUE(schema);
  ProcessDesiredObject(value.GetAllocator(), Connect(), schema->GetUserConfigText(), "network",
                       "hosts", "entry", schema, value);
  ASSERT_TRUE(value.HasMember("cs_generated_id"));
  const std::string id = value["cs_generated_id"].GetString();
  EXPECT_TRUE(CheckDesiredObjectExists(ConfigStoreObjectId("entry", "hosts", "network", id), Connect()));
  EXPECT_FALSE(CheckDesiredObjectExists(ConfigStoreObjectId("entry", "hosts", "network", "other"), Connect()));
}

}  // namespace
