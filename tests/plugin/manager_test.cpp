// The plugin manager: loading, the object index and the apply order.
#include "PluginFixture.h"

namespace QenTest {
namespace {

using QenConfigManager::PluginManager;
using QenConfigStore::ConfigStoreObjectId;
using Order = std::vector<std::string>;

class ManagerTest : public PluginTest {
 protected:
  Thrown Construct(QenConfigManager::PluginType type) {
    return Catch([type] { PluginManager m(type); });
  }
  void ExpectDependencyError(QenConfigManager::PluginType type, const std::string& logged) {
    Thrown t = Construct(type);
    EXPECT_EQ(t.code, 2083);
    EXPECT_EQ(t.message, "Failed to create dependency graph from plugin JSON files.");
    EXPECT_TRUE(log_.Contains(0, "Failed to process dependencies " + logged)) << logged;
  }
  void MakeModulesDir() { WriteFile(std::string(kModules) + "README", ""); }
};

TEST_F(ManagerTest, EmptyDirectoryGivesTheGroupOrder) {
  MakeModulesDir();
  PluginManager apply(QenConfigManager::PLUGIN_APPLY);
  EXPECT_TRUE(apply.GetPlugins().empty());
  EXPECT_EQ(apply.GetDependencies(), (Order{"system-early", "network", "storage", "system"}));
  PluginManager extract(QenConfigManager::PLUGIN_EXTRACT);
  EXPECT_TRUE(extract.GetDependencies().empty());
}

TEST_F(ManagerTest, MissingDirectoryIsAnIterationFailure) {
  Thrown t = Construct(QenConfigManager::PLUGIN_EXTRACT);
  EXPECT_EQ(t.code, 3000);
  EXPECT_EQ(t.message.rfind("Failed to iterate over /usr/lib/corvane/configmanager/apply_modules/, "
                            "error message: ", 0),
            0u)
      << t.message;
}

TEST_F(ManagerTest, ServicesInterleaveWithTheirGroups) {
  WriteManifest("net/a/k/m.json", V1("network", "A"));
  WriteManifest("sto/b/k/m.json", V1("storage", "B", R"("A")"));
  PluginManager m(QenConfigManager::PLUGIN_APPLY);
  EXPECT_EQ(m.GetDependencies(), (Order{"system-early", "A", "network", "B", "storage", "system"}));
  EXPECT_EQ(m.GetPlugins().size(), 2u);
  EXPECT_TRUE(log_.Contains(3, "Processing operations in " + std::string(kModules) + "net/a/k/m.json"));
}

TEST_F(ManagerTest, ServiceDependingOnALaterGroupIsACycle) {
  // The system service runs after storage, storage after network, network
  // after its own services: a network service cannot wait for it.
  WriteManifest("a/a/a/m.json", V1("network", "early-net", R"("late-sys")"));
  WriteManifest("b/b/b/m.json", V1("system", "late-sys"));
  ExpectDependencyError(QenConfigManager::PLUGIN_APPLY, "The graph must be a DAG.");
}

TEST_F(ManagerTest, SameServiceTwiceTakesTheLaterDependencies) {
  // Two operations of one plugin provide "S": the second's dependencies replace
  // the first's, so the order does not need "X", which nobody provides.
  WriteManifest("c/g/k/m.json", R"({"type": "python", "apply_group": "storage", "boot": false,
      "operations": {"one": {"provides": "S", "depends": ["X"]},
                     "two": {"provides": "S", "depends": []}}})");
  PluginManager m(QenConfigManager::PLUGIN_APPLY);
  EXPECT_EQ(m.GetDependencies(), (Order{"system-early", "network", "S", "storage", "system"}));
}

TEST_F(ManagerTest, DependencyFailuresAreCode2083) {
  WriteManifest("c/g/k/m.json", V1("network", "A", R"("nobody")"));
  ExpectDependencyError(QenConfigManager::PLUGIN_APPLY, "map::at");

  WriteManifest("c/g/k/m.json", V1("network", "A", R"("A")"));
  ExpectDependencyError(QenConfigManager::PLUGIN_APPLY, "The graph must be a DAG.");

  WriteManifest("c/g/k/m.json", V1("network", "A", R"("B")"));
  WriteManifest("c/g/j/m.json", V1("network", "B", R"("A")"));
  ExpectDependencyError(QenConfigManager::PLUGIN_APPLY, "The graph must be a DAG.");
}

TEST_F(ManagerTest, UnknownApplyGroupFailsApplyKindsOnly) {
  const std::string json = R"({"version": 2, "type": "python",
      "apply": {"apply_group": "late", "boot": true,
                "operations": {"op": {"provides": "P", "depends": []}}},
      "extract": {"supports": true, "accepts": ["E:F:G"]}})";
  WriteManifest("c/g/k/m.json", json);
  ExpectDependencyError(QenConfigManager::PLUGIN_APPLY, "map::at");
  ExpectDependencyError(QenConfigManager::PLUGIN_APPLY_BOOT, "map::at");

  PluginManager extract(QenConfigManager::PLUGIN_EXTRACT);
  ASSERT_EQ(extract.GetPlugins().size(), 1u);
  // Registered under the extract section's objects, not the path's.
  EXPECT_EQ(extract.Find(ConfigStoreObjectId("G", "F", "E")).size(), 1u);
  EXPECT_TRUE(extract.Find(ConfigStoreObjectId("k", "g", "c")).empty());
  EXPECT_EQ(extract.List(), (Order{"E/F/G:" + std::string(kModules) + "c/g/k/m.json"}));
}

TEST_F(ManagerTest, FindReturnsTheLastAddedFirst) {
  const std::string v3 = R"({"version": 3, "type": "python", "accepts": ["C:G:K"],
      "apply": {"apply_group": "system", "boot": false,
                "REMEDIATE": {"provides": "%", "depends": []}}})";
  std::string first = v3, second = v3;
  WriteManifest("one/m.json", first.replace(first.find('%'), 1, "s1"));
  WriteManifest("two/m.json", second.replace(second.find('%'), 1, "s2"));
  PluginManager m(QenConfigManager::PLUGIN_APPLY);
  m.ProcessJson((std::string(kModules) + "one/m.json").c_str(), QenConfigManager::PLUGIN_APPLY);
  auto found = m.Find(ConfigStoreObjectId("K", "G", "C", "instance-is-ignored"));
  ASSERT_EQ(found.size(), 3u);
  // Loaded in path order (one, two), then one again.
  EXPECT_EQ(found[0]->GetId(), "one");
  EXPECT_EQ(found[1]->GetId(), "two");
  EXPECT_EQ(found[2]->GetId(), "one");
  EXPECT_TRUE(log_.Contains(3, "Plugin found=" + std::string(kModules) +
                                   "one/m.json for cso=comp C grp G key K id instance-is-ignored"));
  EXPECT_TRUE(m.Find(ConfigStoreObjectId("K", "G", "c")).empty());
  EXPECT_TRUE(log_.Contains(3, "Adding cso comp C grp G key K to extension table " +
                                   std::string(kModules) + "two/m.json"));
}

// Identifier order and path order differ here ("a0" sorts before "a:g:k",
// "a/g/k/" before "a0/"), and the file system's order is neither.
TEST_F(ManagerTest, PluginsComeByIdentifierAndEachServiceKnowsItsProviders) {
  const std::string v3 = R"({"version": 3, "type": "python", "accepts": ["C:G:%"],
      "apply": {"apply_group": "network", "boot": false, "REMEDIATE": {"provides": "svc", "depends": []}}})";
  for (const char* dir : {"zz", "a0", "m"}) {
    std::string json = v3;
    WriteManifest(std::string(dir) + "/m.json", json.replace(json.find('%'), 1, dir));
  }
  WriteManifest("a/g/k/m.json", R"({"type": "python", "apply_group": "network", "boot": false,
      "operations": {"SET": {"provides": "svc", "depends": []},
                     "DELETE": {"provides": "cleanup", "depends": ["svc"]}}})");
  PluginManager m(QenConfigManager::PLUGIN_APPLY);
  Order ids;
  for (const auto& p : m.GetPlugins()) ids.push_back(p->GetId());
  EXPECT_EQ(ids, (Order{"a0", "a:g:k", "m", "zz"}));
  EXPECT_EQ(m.List(), (Order{"C/G/a0:" + std::string(kModules) + "a0/m.json",
                             "C/G/m:" + std::string(kModules) + "m/m.json",
                             "C/G/zz:" + std::string(kModules) + "zz/m.json",
                             "a/g/k:" + std::string(kModules) + "a/g/k/m.json"}));
  EXPECT_EQ(m.GetDependencies(), (Order{"system-early", "svc", "cleanup", "network", "storage", "system"}));

  auto providers = [&m](const std::string& name) {
    Order keys;
    for (const auto& p : m.GetProviders(name)) keys.push_back(p.operation + ":" + p.plugin->GetId());
    return keys;
  };
  EXPECT_EQ(providers("svc"), (Order{"REMEDIATE:a0", "SET:a:g:k", "REMEDIATE:m", "REMEDIATE:zz"}));
  EXPECT_EQ(providers("cleanup"), (Order{"DELETE:a:g:k"}));
  EXPECT_EQ(providers("network"), Order{});
  EXPECT_EQ(providers("unknown"), Order{});
  // Only the apply kinds have an apply order.
  PluginManager extract(QenConfigManager::PLUGIN_EXTRACT);
  EXPECT_EQ(extract.GetProviders("svc").size(), 0u);
}

TEST_F(ManagerTest, OnlyJsonFilesOfTheRequestedKindAreLoaded) {
  WriteManifest("c/g/k/m.json", V1("network", "A"));
  WriteManifest("c/g/k/m.JSON", "{");
  WriteManifest("c/g/k/m.json.bak", "{");
  WriteManifest("c/g/k/notes.txt", "{");
  PluginManager apply(QenConfigManager::PLUGIN_APPLY);
  EXPECT_EQ(apply.GetPlugins().size(), 1u);
  PluginManager impact(QenConfigManager::PLUGIN_IMPACT);
  EXPECT_TRUE(impact.GetPlugins().empty());
  EXPECT_TRUE(log_.Contains(3, "File " + std::string(kModules) + "c/g/k/m.json does not support type:3"));
}

TEST_F(ManagerTest, OneBadManifestStopsTheLoad) {
  WriteManifest("c/g/k/m.json", V1("network", "A"));
  const std::string bad = WriteManifest("x/m.json", V1("network", "B"));
  Thrown t = Construct(QenConfigManager::PLUGIN_APPLY);
  EXPECT_EQ(t.code, 2081);
  EXPECT_EQ(t.message, "The plugin JSON does not validate against schema: " + bad);
}

TEST_F(ManagerTest, SampleHostOrder) {
  InstallSampleHost();
  PluginManager apply(QenConfigManager::PLUGIN_APPLY);
  EXPECT_EQ(apply.GetDependencies(),
            (Order{"root-login", "system-early", "nic-removal", "nic-creation", "nic-config", "dns-resolver",
                   "virtual-switches", "management-network", "network", "nfs-mounts", "storage",
                   "kernel-options", "time-sync", "system"}));
  PluginManager boot(QenConfigManager::PLUGIN_APPLY_BOOT);
  EXPECT_EQ(boot.GetPlugins().size(), 7u);
  PluginManager extract(QenConfigManager::PLUGIN_EXTRACT);
  EXPECT_EQ(extract.GetPlugins().size(), 4u);
  PluginManager validate(QenConfigManager::PLUGIN_VALIDATE);
  EXPECT_EQ(validate.GetPlugins().size(), 3u);
}

}  // namespace
}  // namespace QenTest
