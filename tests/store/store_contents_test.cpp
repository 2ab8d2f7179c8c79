// Reads and staging: defaults vs current vs desired, DELETE_DEFAULT, SmartNIC,
// objects and identifiers.
#include <set>
#include <unordered_set>

#include "StoreTestSupport.h"

using namespace QenConfigStore;
using QenTest::Failure;

namespace {

const char* const kHostDescription = R"({
  "host": {
    "defaults": {
      "net": {"dns": {"resolver": {"servers": ["1.1.1.1"]}},
              "hosts": {"entry": [{"cs_generated_id": "b", "address": "10.0.0.2"},
                                  {"cs_generated_id": "a", "address": "10.0.0.1"}]}},
      "sys": {"time": {"zone": {"zone": "UTC"}}}
    },
    "current": {
      "net": {"dns": {"resolver": {"servers": ["10.0.0.53"]}},
              "hosts": {"entry": [{"cs_generated_id": "b", "address": "10.0.0.2"},
                                  {"cs_generated_id": "c", "address": "10.0.0.3"}]}},
      "sys": {"time": {"zone": "DELETE_DEFAULT"}}
    },
    "vital": {"qen": {"bootstrap": {"autodeploy": {"waiter_notify": "{}", "firewall": "<x/>"}}}},
    "autoconf": {"net": {"dns": {"resolver": {"servers": ["9.9.9.9"]}}}}
  },
  "smartnic": {
    "current": {"sys": {"nic": {"offload": {"firewall": true}}}}
  }
})";

class StoreContentsTest : public QenTest::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    Load(kHostDescription);
  }
};

TEST_F(StoreContentsTest, UserContentsListCurrentValuesInKeyThenStoredInstanceOrder) {
  EXPECT_EQ(Lines(GetUserConfigContents(Connect())),
            (std::vector<std::string>{
                R"(net/dns/resolver/={"servers":["10.0.0.53"]} auto={"servers":["9.9.9.9"]})",
                R"(net/hosts/entry/b={"cs_generated_id":"b","address":"10.0.0.2"})",
                R"(net/hosts/entry/c={"cs_generated_id":"c","address":"10.0.0.3"})",
                "sys/time/zone/=DELETE_DEFAULT"}));
  EXPECT_EQ(Lines(GetSmartnicConfiguration(Connect())),
            (std::vector<std::string>{R"(sys/nic/offload/={"firewall":true})"}));
}

TEST_F(StoreContentsTest, DefaultsAreKeptApartFromCurrentValues) {
  auto conn = Connect();
  EXPECT_EQ(Lines(GetDefaultUserConfigMapList(ConfigStoreObjectId("entry", "hosts", "net"), conn)),
            (std::vector<std::string>{R"(net/hosts/entry/b={"cs_generated_id":"b","address":"10.0.0.2"})",
                                      R"(net/hosts/entry/a={"cs_generated_id":"a","address":"10.0.0.1"})"}));
  EXPECT_EQ(Lines(GetDefaultUserConfigMapList(ConfigStoreObjectId("entry", "hosts", "net", "a"), conn)),
            (std::vector<std::string>{R"(net/hosts/entry/a={"cs_generated_id":"a","address":"10.0.0.1"})"}));
  EXPECT_TRUE(GetDefaultUserConfigMapList(ConfigStoreObjectId("nic", "if", "net"), conn).empty());

  auto def = GetDefaultUserConfigInternal(ConfigStoreObjectId("zone", "time", "sys"), conn, nullptr);
  ASSERT_TRUE(def);
  EXPECT_EQ(def->GetSerializedData(), R"({"zone":"UTC"})");
  // The user deleted the default: no current object.
  EXPECT_EQ(GetCurrentConfigInternal(ConfigStoreObjectId("zone", "time", "sys"), conn, nullptr), nullptr);

  auto current = GetCurrentConfigInstancesInternal(ConfigStoreObjectId("entry", "hosts", "net"), conn, nullptr);
  ASSERT_EQ(current.size(), 2u);
  EXPECT_EQ(current[0]->GetConfigStoreObjectId().toString(), "comp net grp hosts key entry id b");
  EXPECT_EQ(current[1]->GetConfigStoreObjectId().toString(), "comp net grp hosts key entry id c");
  EXPECT_EQ(current[1]->GetOrdinal(), 2u);
  EXPECT_EQ(GetDefaultUserConfigInstancesInternal(ConfigStoreObjectId("entry", "hosts", "net"), conn, nullptr).size(), 2u);
}

TEST_F(StoreContentsTest, DesiredOverlaysHostApiStagingOnCurrentConfiguration) {
  auto conn = Connect();
  // Nothing staged: the desired configuration is the current one.
  EXPECT_EQ(Lines(GetDesiredUserConfigContents(conn)), Lines(GetUserConfigContents(conn)));
  EXPECT_FALSE(CheckDesiredObjectExists(ConfigStoreObjectId("resolver", "dns", "net"), conn));

  rapidjson::Document value;
  value.Parse(R"({"servers":["8.8.8.8"]})");
  ProcessDesiredObject(value.GetAllocator(), conn, "DNS resolver", "net", "dns", "resolver", nullptr, value);
  DeleteHostAPIConfiguration("net", "hosts", "entry");

  EXPECT_TRUE(CheckDesiredObjectExists(ConfigStoreObjectId("resolver", "dns", "net"), conn));
  EXPECT_TRUE(CheckDesiredObjectExists(ConfigStoreObjectId("entry", "hosts", "net", "b"), conn));
  EXPECT_EQ(Lines(GetDesiredUserConfigContents(conn)),
            (std::vector<std::string>{
                R"(net/dns/resolver/={"servers":["8.8.8.8"]} auto={"servers":["9.9.9.9"]})",
                "sys/time/zone/=DELETE_DEFAULT"}));
  // Current configuration is untouched by staging.
  EXPECT_EQ(Lines(GetUserConfigContents(conn)).size(), 4u);

  EXPECT_EQ(Failure([&] {
              ProcessDesiredObject(value.GetAllocator(), conn, "", "sys", "time", "zone", nullptr, value);
            }),
            "2003: Cannot stage comp sys grp time key zone: it is not user configuration");
}

TEST_F(StoreContentsTest, WholeDesiredDocumentReplacesStagingAndSetsBootMode) {
  auto conn = Connect();
  DeleteHostAPIConfiguration("net", "hosts", "entry");
  rapidjson::Document doc;
  doc.Parse(R"({"profile": {"net": {"hosts": {"entry": [{"address": "10.9.9.9"}]},
                                   "dns": {"resolver": {"servers": []}}}}})");
  SetDesiredUserConfig(doc);

  EXPECT_EQ(GetBootMode(), BOOTMODE_DESIRED_STAGED);
  auto desired = GetDesiredUserConfigContents(conn);
  ASSERT_EQ(desired->size(), 2u);
  EXPECT_EQ(Lines(desired)[0], R"(net/dns/resolver/={"servers":[]} auto={"servers":["9.9.9.9"]})");
  // A missing generated identifier is generated into the stored value.
  const std::string id = desired->at(1)->at("Identifier");
  EXPECT_EQ(id.size(), 36u);
  EXPECT_EQ(desired->at(1)->at("Value"), R"({"address":"10.9.9.9","cs_generated_id":")" + id + "\"}");

  ClearDesiredConfig();
  EXPECT_EQ(GetBootMode(), BOOTMODE_NORMAL);
  EXPECT_EQ(Lines(GetDesiredUserConfigContents(conn)), Lines(GetUserConfigContents(conn)));
}

TEST_F(StoreContentsTest, MalformedDesiredDocumentIsRejectedWithoutChange) {
  rapidjson::Document doc;
  doc.Parse(R"({"net": {"dns": {"resolver": 7}}})");
  EXPECT_EQ(Failure([&] { SetDesiredUserConfig(doc); }),
            "2003: The desired configuration document: the value of comp net grp dns key resolver "
            "is neither an object nor an array");
  doc.Parse(R"({"net": {"hosts": {"entry": ["x"]}}})");
  EXPECT_EQ(Failure([&] { SetDesiredUserConfig(doc); }),
            "2003: Instance 0 of comp net grp hosts key entry is not an object with a string member "
            "\"cs_generated_id\"");
  EXPECT_EQ(GetBootMode(), BOOTMODE_NORMAL);
  EXPECT_EQ(Lines(GetDesiredUserConfigContents(Connect())).size(), 4u);
}

TEST_F(StoreContentsTest, SmartnicDesiredConfigurationIsStagedSeparately) {
  rapidjson::Document doc;
  doc.Parse(R"({"sys": {"nic": {"offload": {"firewall": false}}}})");
  SetDesiredSmartnicConfiguration(doc);
  EXPECT_EQ(Lines(GetDesiredSmartnicConfiguration(Connect())),
            (std::vector<std::string>{R"(sys/nic/offload/={"firewall":false})"}));
  EXPECT_EQ(GetBootMode(), BOOTMODE_NORMAL);
  EXPECT_EQ(Lines(GetSmartnicConfiguration(Connect())),
            (std::vector<std::string>{R"(sys/nic/offload/={"firewall":true})"}));
}

TEST_F(StoreContentsTest, GlobalStoreReadsAndWritesObjectProperties) {
  auto store = ConfigStore::GetStore(sGlobalNamespace);
  ASSERT_TRUE(store);
  const ConfigStoreObjectId id("autodeploy", "bootstrap", "qen");
  auto object = store->GetObject(id);
  ASSERT_TRUE(object);
  std::string text;
  ASSERT_TRUE(object->GetValue("firewall", text));
  EXPECT_EQ(text, "<x/>");
  EXPECT_FALSE(object->GetValue("missing", text));

  ConfigStoreObject update(id);
  update.SetValue("waiter_notify", R"({"a":1})");
  update.SetValue("waiter_notify", R"({"a":2})");
  store->SetObject(update);
  ASSERT_TRUE(store->GetObject(id)->GetValue("waiter_notify", text));
  EXPECT_EQ(text, R"({"a":2})");
  EXPECT_FALSE(store->GetObject(id)->GetValue("firewall", text));
  // Vital objects are not user configuration.
  for (const auto& line : Lines(GetUserConfigContents(Connect()))) EXPECT_EQ(line.find("qen/"), std::string::npos);
  EXPECT_EQ(ConfigStore::GetStore("other"), nullptr);
}

TEST(StoreObjects, IdentifiersPrintOrderAndHash) {
  ConfigStoreObjectId a("key", "grp", "comp"), b("key", "grp", "comp", "i1");
  EXPECT_EQ(a.toString(), "comp comp grp grp key key");
  EXPECT_EQ(b.toString(), "comp comp grp grp key key id i1");
  std::set<ConfigStoreObjectId> ordered{ConfigStoreObjectId("a", "z", "c2"), b, a,
                                        ConfigStoreObjectId("b", "grp", "comp")};
  std::vector<std::string> texts;
  for (const auto& id : ordered) texts.push_back(id.toString());
  EXPECT_EQ(texts, (std::vector<std::string>{"comp c2 grp z key a", "comp comp grp grp key b",
                                             "comp comp grp grp key key",
                                             "comp comp grp grp key key id i1"}));
  std::unordered_set<ConfigStoreObjectId, CsoIdHash> set{a, b, ConfigStoreObjectId("key", "grp", "comp")};
  EXPECT_EQ(set.size(), 2u);
}

TEST(StoreObjects, ObjectsAndDriftRebuildFromText) {
  const ConfigStoreObjectId id("k", "g", "c", "i");
  auto object = CreateObject(id, R"({"b":[1,2],"a":"x"})", 7);
  EXPECT_EQ(object->GetSerializedData(), R"({"b":[1,2],"a":"x"})");
  EXPECT_EQ(object->GetOrdinal(), 7u);
  std::string out;
  ASSERT_TRUE(object->GetValue("b", out));
  EXPECT_EQ(out, "[1,2]");

  auto drift = CreateDriftObject(id, R"({"b":"SET"})", "SET");
  EXPECT_EQ(drift->GetOperation(), "SET");
  EXPECT_EQ(drift->GetSerializedDrift(), R"({"b":"SET"})");
  EXPECT_EQ(drift->GetConfigStoreObjectId(), id);

  EXPECT_EQ(Failure([&] { CreateObject(id, "{\"a\":", 0); }),
            "2003: The value of comp c grp g key k id i is not valid JSON: Invalid value. at offset 5");
  EXPECT_EQ(Failure([&] { CreateDriftObject(id, "", "SET"); }),
            "2003: The drift of comp c grp g key k id i is not valid JSON: The document is empty. at offset 0");

  std::set<std::string> ids;
  for (int i = 0; i < 1000; ++i) {
    std::string generated = GenerateInstanceId();
    ASSERT_EQ(generated.size(), 36u);
    EXPECT_EQ(generated[14], '4');
    ids.insert(generated);
  }
  EXPECT_EQ(ids.size(), 1000u);
}

}  // namespace
