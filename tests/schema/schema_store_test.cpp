#include <algorithm>

#include "ConfigStoreException.h"
#include "HostRootTest.h"
#include "QenSchemaStore.h"

using QenConfigStore::ConfigStoreException;
using namespace QenSchemaStore;

namespace {

const std::string kDir = "/usr/lib/corvane/configstore/schemas/";

class SchemaStoreTest : public QenTest::HostRootTest {
 protected:
  void SetUp() override {
    HostRootTest::SetUp();
    SchemaStore::Invalidate();
  }
  void TearDown() override {
    SchemaStore::Invalidate();
    HostRootTest::TearDown();
  }

  // A minimal valid singleton schema file with `extra` members spliced in.
  void WriteKey(const std::string& file, const std::string& c, const std::string& g,
                const std::string& k, const std::string& extra = "") {
    WriteFile(kDir + file, "{\"component\": \"" + c + "\", \"group\": \"" + g + "\", \"key\": \"" +
                               k + "\", \"singleton\": true, " + extra +
                               "\"schema\": {\"type\": \"object\", \"properties\": {}}}");
  }

  // The exception GetStore() throws for the current files.
  ConfigStoreException LoadFailure() {
    try {
      SchemaStore::GetStore();
    } catch (const ConfigStoreException& e) {
      return e;
    }
    ADD_FAILURE() << "GetStore() did not throw";
    return ConfigStoreException(0, "");
  }
};

std::vector<SchemaObjectId> Sorted(const SchemaObjectIdSet& set) {
  std::vector<SchemaObjectId> ids(set.begin(), set.end());
  std::sort(ids.begin(), ids.end());
  return ids;
}

TEST_F(SchemaStoreTest, SampleHostKeysAnswerTheirQueries) {
  InstallSampleHost();
  auto store = SchemaStore::GetStore();
  ASSERT_TRUE(store);
  EXPECT_EQ(store->GetSchemaCache()->GetSchemas().size(), 18u);

  auto resolver = GetSchema("network", "dns", "resolver", store);
  ASSERT_TRUE(resolver);
  EXPECT_FALSE(resolver->IsNonSingleton());
  EXPECT_EQ(resolver->GetInstanceIdField(), "");
  EXPECT_STREQ(resolver->GetSchemaJson()["type"].GetString(), "object");
  EXPECT_EQ(resolver->GetLabel(), "DNS resolver");
  EXPECT_EQ(resolver->GetSourceFile(), kDir + "network/dns/resolver.json");

  auto user = GetSchema(SchemaObjectId("system", "users", "user"), store);
  ASSERT_TRUE(user);
  EXPECT_TRUE(user->IsNonSingleton());
  EXPECT_TRUE(user->IsMultipleInstance());
  EXPECT_EQ(user->GetInstanceIdField(), "name");
  const rapidjson::Value& json = user->GetSchemaJson();
  EXPECT_STREQ(json["instanceId"].GetString(), "name");
  EXPECT_TRUE(json["telemetryDisabled"].GetBool());
  EXPECT_TRUE(json["items"]["properties"]["password"]["sensitive"].GetBool());
  EXPECT_EQ(user->GetSolutionUserInstances(), std::vector<std::string>{"solution-agent"});
  EXPECT_EQ(user->GetUserConfigText(), "Local user accounts of the host");

  EXPECT_EQ(store->GetSchema("network", "hosts", "entry")->GetInstanceIdField(), "cs_generated_id");
  EXPECT_EQ(store->GetSchema("podlet", "system", "podlet_daemon")->GetUserConfigText(), "");
  EXPECT_EQ(store->GetSchema("network", "dns", "nothing"), nullptr);
  EXPECT_EQ(store->GetSchemaLabel("network", "dns", "resolver"), "DNS resolver");
  EXPECT_EQ(store->GetSchemaLabel("network", "dns", "nothing"), "");

  EXPECT_EQ(Sorted(store->GetMutableDefaultConfigSchemas(false)),
            std::vector<SchemaObjectId>{SchemaObjectId("system", "time", "timezone")});
  EXPECT_EQ(Sorted(store->GetMutableDefaultConfigSchemas(true)),
            std::vector<SchemaObjectId>{SchemaObjectId("system", "smartnic", "offload")});
  EXPECT_EQ(Sorted(store->GetDspNonIntegratedSchemas()),
            std::vector<SchemaObjectId>{SchemaObjectId("podlet", "system", "podlet_daemon")});
}

TEST_F(SchemaStoreTest, RebootAndMaintenanceOperationsComeFromTheFile) {
  InstallSampleHost();
  auto store = SchemaStore::GetStore();
  std::vector<std::string> ops;
  bool perProperty = false;

  auto kernel = store->GetSchema("system", "boot", "kernel");
  EXPECT_EQ(kernel->GetRebootOperations(ops, perProperty), 0);
  EXPECT_EQ(ops, (std::vector<std::string>{"SET", "ADD", "DELETE"}));
  EXPECT_TRUE(perProperty);
  EXPECT_EQ(kernel->GetMaintenanceModeOperations(ops, perProperty), 0);
  EXPECT_TRUE(ops.empty());
  EXPECT_FALSE(perProperty);
  const rapidjson::Value& iommu = kernel->GetSchemaJson()["properties"]["iommu"];
  ASSERT_TRUE(iommu["rebootRequired"]["SET"].IsArray());
  EXPECT_TRUE(iommu["rebootRequired"]["SET"][0].GetBool());

  auto nfs = store->GetSchema("storage", "nfs", "mount");
  EXPECT_EQ(nfs->GetMaintenanceModeOperations(ops, perProperty), 0);
  EXPECT_EQ(ops, (std::vector<std::string>{"ADD", "DELETE"}));
  EXPECT_FALSE(perProperty);

  auto nic = store->GetSchema("network", "interfaces", "nic");
  nic->GetMaintenanceModeOperations(ops, perProperty);
  EXPECT_EQ(ops, std::vector<std::string>{"SET"});
  EXPECT_TRUE(perProperty);
  EXPECT_TRUE(nic->GetSchemaJson()["items"]["properties"]["mtu"]["maintenanceModeRequired"]["SET"]
                  .Empty());
}

TEST_F(SchemaStoreTest, LoadedOncePerRootUntilInvalidated) {
  WriteKey("a/one.json", "c", "g", "one", "\"label\": \"first\", ");
  auto store = SchemaStore::GetStore();
  ASSERT_TRUE(store);
  EXPECT_EQ(SchemaStore::GetCache(), store->GetSchemaCache());

  WriteKey("a/one.json", "c", "g", "one", "\"label\": \"second\", ");
  WriteKey("b/two.json", "c", "g", "two");
  EXPECT_EQ(SchemaStore::GetStore(), store);
  EXPECT_EQ(store->GetSchemaLabel("c", "g", "one"), "first");

  SchemaStore::Invalidate();
  auto reloaded = SchemaStore::GetStore();
  EXPECT_NE(reloaded, store);
  EXPECT_EQ(reloaded->GetSchemaLabel("c", "g", "one"), "second");
  EXPECT_EQ(reloaded->GetSchemaLabel("c", "g", "two"), "c.g.two");
  EXPECT_TRUE(log_.Contains(3, "Loaded 2 key schemas from " + kDir));
}

// Keys are found by an 8-byte prefix and length (small groups) or by
// bisection (large ones); names that share a prefix or a length must not
// be confused, and every lookup must agree with GetSchema.
TEST_F(SchemaStoreTest, GroupAndKeyLookupAgreesWithGetSchema) {
  std::vector<std::string> wide;
  for (int i = 0; i < 40; ++i) wide.push_back("interface_eth" + std::to_string(i));
  for (const std::string& k : wide) WriteKey("wide/" + k + ".json", "net", "ifaces", k);
  const std::vector<std::string> narrow = {"a", "ab", "abcdefgh", "abcdefghi", "abcdefgi"};
  for (const std::string& k : narrow) WriteKey("narrow/" + k + ".json", "net", "misc", k);
  WriteFile(kDir + "narrow/users.json",
            R"({"component": "net", "group": "misc", "key": "users", "singleton": false,
                "instanceId": "cs_generated_id", "schema": {"type": "array",
                "items": {"type": "object", "properties": {}}}})");
  auto store = SchemaStore::GetStore();
  ASSERT_TRUE(store);
  const SchemaCache& cache = *store->GetSchemaCache();

  auto expectFound = [&](const GroupFacts& group, const std::string& c, const std::string& g,
                         const std::string& k) {
    SCOPED_TRACE(k);
    const KeyFacts* facts = cache.FindKey(group, k);
    ASSERT_NE(facts, nullptr);
    EXPECT_EQ(cache.KeyName(*facts), k);
    EXPECT_EQ(cache.Schema(*facts), store->GetSchema(c, g, k));
    EXPECT_EQ(cache.Schema(*facts)->GetId(), SchemaObjectId(c, g, k));
  };
  const GroupFacts ifaces = cache.FindGroup("net", "ifaces");
  EXPECT_EQ(ifaces.end - ifaces.begin, 40);
  for (const std::string& k : wide) expectFound(ifaces, "net", "ifaces", k);
  const GroupFacts misc = cache.FindGroup("net", "misc");
  for (const std::string& k : narrow) expectFound(misc, "net", "misc", k);
  expectFound(misc, "net", "misc", "users");

  for (const char* missing : {"interface_eth40", "interface_eth", "interface_eth4x", "", "a"}) {
    SCOPED_TRACE(missing);
    EXPECT_EQ(cache.FindKey(ifaces, missing), nullptr);
    EXPECT_EQ(store->GetSchema("net", "ifaces", missing), nullptr);
  }
  for (const char* missing : {"abcdefg", "abcdefghj", "b", ""}) {
    SCOPED_TRACE(missing);
    EXPECT_EQ(cache.FindKey(misc, missing), nullptr);
  }
  const GroupFacts none = cache.FindGroup("net", "nothing");
  EXPECT_EQ(none.begin, none.end);
  EXPECT_EQ(cache.FindKey(none, "a"), nullptr);
  EXPECT_EQ(cache.FindGroup("ne", "tmisc").begin, nullptr);

  // Hints: the entry after the previous one is tried first, and a wrong hint
  // changes nothing.
  std::vector<std::string> sorted = wide;
  std::sort(sorted.begin(), sorted.end());
  const KeyFacts* previous = nullptr;
  for (const std::string& k : sorted) {
    const KeyFacts* facts = cache.FindKey(ifaces, k, previous);
    ASSERT_EQ(facts, cache.FindKey(ifaces, k));
    previous = facts;
  }
  EXPECT_EQ(cache.FindKey(ifaces, "interface_eth0", ifaces.begin + 5), cache.FindKey(ifaces, "interface_eth0"));
  EXPECT_EQ(cache.FindKey(ifaces, "interface_eth40", ifaces.begin), nullptr);
  EXPECT_EQ(cache.FindGroup("net", "misc", &ifaces).begin, misc.begin);
  EXPECT_EQ(cache.FindGroup("net", "ifaces", &misc).begin, ifaces.begin);
  EXPECT_EQ(cache.FindGroup("net", "other", &ifaces).begin, nullptr);

  const KeyFacts* users = cache.FindKey(misc, "users");
  ASSERT_NE(users, nullptr);
  EXPECT_TRUE(users->nonSingleton);
  EXPECT_TRUE(users->generatedId);
  EXPECT_EQ(cache.InstanceIdField(*users), "cs_generated_id");
  const KeyFacts* a = cache.FindKey(misc, "a");
  EXPECT_FALSE(a->nonSingleton);
  EXPECT_FALSE(a->generatedId);
  EXPECT_EQ(cache.InstanceIdField(*a), "");
}

TEST_F(SchemaStoreTest, MissingDirectoryGivesNoStore) {
  EXPECT_EQ(SchemaStore::GetStore(), nullptr);
  EXPECT_EQ(SchemaStore::GetCache(), nullptr);
  EXPECT_EQ(GetSchema("c", "g", "k", nullptr), nullptr);
  // Creating the directory later is seen: a missing store is not cached.
  WriteKey("k.json", "c", "g", "k");
  ASSERT_TRUE(SchemaStore::GetStore());
}

TEST_F(SchemaStoreTest, MalformedFilesAreNamedInTheError) {
  struct Case {
    std::string content;
    std::string message;
  };
  const std::string file = kDir + "bad/key.json";
  const std::string prefix = "schema file \"" + file + "\": ";
  const std::string id = "\"component\": \"c\", \"group\": \"g\", \"key\": \"k\", ";
  const std::vector<Case> cases = {
      {"{\"component\": ", "host file \"" + file + "\" is not valid JSON: Invalid value. at offset 14"},
      {"[]", "host file \"" + file + "\" is not a JSON object"},
      {"{\"group\": \"g\"}", prefix + "missing member \"component\""},
      {"{\"component\": \"c\", \"group\": 3}", prefix + "member \"group\" is not a string"},
      {"{" + id + "\"schema\": {}}", prefix + "member \"singleton\" must be a boolean"},
      {"{" + id + "\"singleton\": true}", prefix + "member \"schema\" must be an object"},
      {"{" + id + "\"singleton\": true, \"schema\": {\"type\": \"array\"}}",
       prefix + "a singleton key's schema must have \"type\": \"object\""},
      {"{" + id + "\"singleton\": false, \"schema\": {\"type\": \"array\", \"items\": {}}}",
       prefix + "missing member \"instanceId\""},
      {"{" + id + "\"singleton\": false, \"instanceId\": \"name\", \"schema\": {\"type\": \"array\"}}",
       prefix + "a non-singleton key's schema must have an \"items\" object"},
      {"{" + id + "\"singleton\": false, \"instanceId\": \"name\", \"schema\": {\"type\": \"array\", "
                  "\"items\": {}, \"instanceId\": \"id\"}}",
       prefix + "schema \"instanceId\" differs from the key's \"instanceId\""},
      {"{" + id + "\"singleton\": true, \"rebootRequired\": {\"operations\": [\"PATCH\"]}, "
                  "\"schema\": {\"type\": \"object\"}}",
       prefix + "member \"rebootRequired\": operations are \"SET\", \"ADD\" or \"DELETE\""},
      {"{" + id + "\"singleton\": true, \"mutableDefault\": {\"host\": 1}, "
                  "\"schema\": {\"type\": \"object\"}}",
       prefix + "member \"host\" is not a boolean"},
  };
  for (const Case& c : cases) {
    WriteFile(file, c.content);
    ConfigStoreException e = LoadFailure();
    EXPECT_EQ(e.GetErrorCode(), 2180) << c.content;
    EXPECT_EQ(std::string(e.what()), c.message) << c.content;
  }
}

TEST_F(SchemaStoreTest, DuplicateKeyNamesBothFiles) {
  WriteKey("a.json", "c", "g", "k");
  WriteKey("z/b.json", "c", "g", "k");
  ConfigStoreException e = LoadFailure();
  EXPECT_EQ(e.GetErrorCode(), 2180);
  EXPECT_EQ(std::string(e.what()), "schema file \"" + kDir + "z/b.json\": key comp c grp g key k " +
                                       "is already defined by \"" + kDir + "a.json\"");
  // Nothing was cached: fixing the files is enough.
  WriteKey("z/b.json", "c", "g", "other");
  EXPECT_TRUE(SchemaStore::GetStore());
}

}  // namespace
