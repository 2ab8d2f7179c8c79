// Plugin manifests: identity from the path, versions, schema checks, accessors.
#include "PluginFixture.h"

#include <thread>

#include "JsonErrors.h"
#include "QenSchemaStore.h"

namespace QenTest {
namespace {

using QenConfigManager::Plugin;
using QenConfigManager::PluginApplyOperation;
using QenConfigManager::PluginType;
using QenConfigStore::ConfigStoreObjectId;

const char* kV3 = R"({"version": 3, "type": "%TYPE%", "accepts": ["C:G:K1", "C::G:K2:extra"],
  "apply": {"apply_group": "network", "boot": true,
            "REMEDIATE": {"provides": "svc", "depends": ["a", "b"]}},
  "extract": {"supports": true}})";

std::string V3(const std::string& type) {
  std::string s = kV3;
  return s.replace(s.find("%TYPE%"), 6, type);
}

class ManifestTest : public PluginTest {};

TEST_F(ManifestTest, VersionOneIdentityComesFromThePath) {
  auto p = std::make_shared<Plugin>(WriteManifest("C/G/K/F.json", V1("network", "s", "", "c++")).c_str());
  EXPECT_EQ(p->GetId(), "C:G:K");
  EXPECT_EQ(p->GetModule(), "libC_G_K.so");
  EXPECT_EQ(p->GetVersion(), 1);
  EXPECT_EQ(p->GetCSOIdList(), (std::vector<ConfigStoreObjectId>{{"K", "G", "C"}}));
  EXPECT_TRUE(log_.Contains(2, "Processing file /usr/lib/corvane/configmanager/apply_modules/C/G/K/F.json"));

  // Runs of "/" count as one; the variant takes part in id and module only.
  Plugin variant(WriteManifest("C/G/K/V/F.json", V1("network", "s", "", "c++")).insert(5, "/").c_str());
  EXPECT_EQ(variant.GetId(), "C:G:K:V");
  EXPECT_EQ(variant.GetModule(), "libC_G_K_V.so");
  EXPECT_EQ(variant.GetCSOIdList(), (std::vector<ConfigStoreObjectId>{{"K", "G", "C"}}));

  Plugin python(WriteManifest("C/G/K/P.json", V1("network", "s")).c_str());
  EXPECT_EQ(python.GetModule(), "");
  EXPECT_EQ(python.GetType(), "python");
}

TEST_F(ManifestTest, VersionThreeIdentityAndAcceptedObjects) {
  Plugin python(WriteManifest("N/F.json", V3("python")).c_str());
  EXPECT_EQ(python.GetId(), "N");
  EXPECT_EQ(python.GetModule(), "");
  EXPECT_EQ(python.GetCSOIdList(), (std::vector<ConfigStoreObjectId>{{"K1", "G", "C"}, {"K2", "G", "C"}}));

  Plugin cpp(WriteManifest("N/F.json", V3("c++")).c_str());
  EXPECT_EQ(cpp.GetModule(), "libN.so");
  Plugin sub(WriteManifest("N/S/F.json", V3("c++")).c_str());
  EXPECT_EQ(sub.GetId(), "N:S");
  EXPECT_EQ(sub.GetModule(), "libN_S.so");
  // Any other type runs the shared-object runner but gets no module name.
  Plugin other(WriteManifest("N/O.json", V3("cpp")).c_str());
  EXPECT_EQ(other.GetModule(), "");
}

TEST_F(ManifestTest, PathLengthMustFitTheVersion) {
  const std::string v3 = WriteManifest("A/B/C/F.json", V3("python"));
  Thrown t = Catch([&] { Plugin p(v3.c_str()); });
  EXPECT_EQ(t.code, 2081);
  EXPECT_EQ(t.message, "The plugin JSON does not validate against schema: " + v3);
  EXPECT_TRUE(log_.Contains(0, "Invalid filepath " + v3 + " for this version 3"));

  const std::string v1 = WriteManifest("N/F.json", V1("network", "s"));
  t = Catch([&] { Plugin p(v1.c_str()); });
  EXPECT_EQ(t.code, 2081);
  EXPECT_TRUE(log_.Contains(0, "Invalid filepath " + v1 + " for this version 1"));

  t = Catch([&] { Plugin p(WriteManifest("A/B/C/D/E/F.json", V1("network", "s")).c_str()); });
  EXPECT_EQ(t.code, 2081);
}

TEST_F(ManifestTest, VersionsWithoutSchemaAreRejectedBeforeAnythingElse) {
  for (const char* version : {"0", "4", "-1"}) {
    const std::string path = WriteManifest("N/F.json", std::string(R"({"version": )") + version + "}");
    Thrown t = Catch([&] { Plugin p(path.c_str()); });
    EXPECT_EQ(t.code, 3000);
    EXPECT_TRUE(t.isConfigManager);
    EXPECT_EQ(t.message, "The version of the plugin defined in '" + path + "' which is " + version +
                             " does not have a matching hardcoded schema to use for validation");
  }
  Thrown t = Catch([] { Plugin p(nullptr); });
  EXPECT_EQ(t.code, 3000);
  EXPECT_EQ(t.message, "Cannot create Plugin from NULL filename");
}

TEST_F(ManifestTest, SchemaViolationsCarryOnlyErrorTextAndArguments) {
  const std::string path =
      WriteManifest("N/F.json", R"({"version": 3, "type": 5, "accepts": ["C:G:K"]})");
  Thrown t = Catch([&] { Plugin p(path.c_str()); });
  EXPECT_EQ(t.code, 3000);
  const std::string prefix = "Failed to validate the plugin defined in '" + path + "' , version 3, errors: ";
  ASSERT_EQ(t.message.rfind(prefix, 0), 0u) << t.message;
  rapidjson::Document errors;
  errors.Parse(t.message.c_str() + prefix.size());
  ASSERT_TRUE(errors.IsArray()) << t.message;
  ASSERT_EQ(errors.Size(), 1u);
  std::vector<std::string> members;
  for (const auto& m : errors[0].GetObject()) members.emplace_back(m.name.GetString());
  EXPECT_EQ(members, (std::vector<std::string>{"error", "errArgs"}));
  // Compact form: no blank after a separator.
  EXPECT_EQ(t.message.find("\", \""), std::string::npos);
}

TEST_F(ManifestTest, SchemaTableFailureIsRetriedOnTheNextManifest) {
  WriteFile(std::string(kSchemas) + "plugin_version_3_schema.json", R"({"properties": {}})");
  const std::string path = WriteManifest("N/F.json", V3("python"));
  Thrown t = Catch([&] { Plugin p(path.c_str()); });
  EXPECT_EQ(t.code, 3000);
  EXPECT_EQ(t.message, R"(The property "version" of the property "properties" from  the schema )" +
                           Path(kSchemas) + "plugin_version_3_schema.json does not exist");
  InstallManifestSchemas();
  EXPECT_EQ(Plugin(path.c_str()).GetId(), "N");
  // Built once: later damage to the files does not matter any more.
  WriteFile(std::string(kSchemas) + "plugin_version_3_schema.json", "{");
  EXPECT_EQ(Plugin(path.c_str()).GetId(), "N");
}

TEST_F(ManifestTest, ConcurrentFirstManifestsShareOneSchemaTable) {
  const std::string path = WriteManifest("N/F.json", V3("python"));
  std::vector<std::string> ids(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < ids.size(); ++i)
    threads.emplace_back([&, i] { ids[i] = Plugin(path.c_str()).GetId(); });
  for (auto& t : threads) t.join();
  EXPECT_EQ(ids, std::vector<std::string>(8, "N"));
}

TEST_F(ManifestTest, ShortObjectStringsRejectTheManifest) {
  const std::string v3 = R"({"version": 3, "type": "python", "accepts": ["C:G:K", "C::G"]})";
  const std::string v2 = R"({"version": 2, "type": "python",
      "impact": {"supports": true, "cache_drift": ["C:G"]}})";
  for (const auto& [rel, json, bad] : {std::make_tuple("N/a.json", v3, "C::G"),
                                       std::make_tuple("C/G/K/b.json", v2, "C:G")}) {
    // The schema already rejects them; check the construction's own guard
    // with a permissive schema.
    WriteFile(std::string(kSchemas) + "plugin_version_" + json.substr(12, 1) + "_schema.json",
              R"({"properties": {"version": {"minimum": )" + json.substr(12, 1) +
                  R"(, "maximum": 3}}})");
    QenConfigManager::ResetManifestSchemaTable();
    const std::string path = WriteManifest(rel, json);
    Thrown t = Catch([&] { Plugin p(path.c_str()); });
    EXPECT_EQ(t.code, 2081);
    EXPECT_TRUE(log_.Contains(0, std::string("Invalid object ") + bad + " in " + path));
  }
}

TEST_F(ManifestTest, SupportFlagsPerVersion) {
  Plugin v1(WriteManifest("C/G/K/F.json", V1("network", "s")).c_str());
  EXPECT_TRUE(v1.HasApplySupport());
  EXPECT_FALSE(v1.HasApplyBootSupport());
  EXPECT_FALSE(v1.HasExtractSupport());
  EXPECT_FALSE(v1.HasImpactSupport());
  EXPECT_EQ(v1.GetApplyGroup(), "network");
  EXPECT_TRUE(log_.Contains(3, "Processing apply_group in version=1, module=,"));

  Plugin bare(WriteManifest("C/G/K/B.json", R"({"version": 2, "type": "python",
      "validation": {"supports": false}})").c_str());
  EXPECT_FALSE(bare.HasApplySupport());
  EXPECT_FALSE(bare.HasExtractSupport());
  EXPECT_FALSE(bare.HasValidateSupport());
  EXPECT_FALSE(bare.CheckType(QenConfigManager::PLUGIN_APPLY));
  EXPECT_FALSE(bare.CheckType(static_cast<PluginType>(5)));
  EXPECT_FALSE(bare.CheckType(static_cast<PluginType>(-1)));
  // Read by the accessor, not at construction: absent, it is a JSON error.
  Thrown t = Catch([&] { bare.GetApplyGroup(); });
  EXPECT_EQ(t.code, 1082);

  Plugin v3(WriteManifest("N/F.json", V3("python")).c_str());
  EXPECT_TRUE(v3.CheckType(QenConfigManager::PLUGIN_APPLY_BOOT));
  EXPECT_TRUE(v3.CheckType(QenConfigManager::PLUGIN_EXTRACT));
  EXPECT_FALSE(v3.CheckType(QenConfigManager::PLUGIN_IMPACT));
  EXPECT_EQ(v3.GetApplyGroup(), "network");
}

TEST_F(ManifestTest, AccessorsOfMissingOrMistypedKeysThrowJsonErrors) {
  // A permissive version 2 schema lets the accessors meet what the shipped
  // schema would have refused.
  WriteFile(std::string(kSchemas) + "plugin_version_2_schema.json",
            R"({"properties": {"version": {"minimum": 2, "maximum": 2}}})");
  const std::string path = WriteManifest("C/G/K/F.json", R"({"version": 2, "type": "python",
      "extract": {}, "impact": {"supports": "yes"},
      "apply": {"apply_group": "network", "boot": 1, "operations": []}})");
  Plugin p(path.c_str());
  ExpectJsonLibraryError([&] { p.HasExtractSupport(); }, "false");
  ExpectJsonLibraryError([&] { p.HasImpactSupport(); }, "IsBool()");
  ExpectJsonLibraryError([&] { p.HasApplyBootSupport(); }, "IsBool()");
  ExpectJsonLibraryError([&] { p.GetOperations(); }, "IsObject()");

  // A version 3 manifest's "accepts" is read at construction.
  WriteFile(std::string(kSchemas) + "plugin_version_3_schema.json",
            R"({"properties": {"version": {"minimum": 3, "maximum": 3}}})");
  QenConfigManager::ResetManifestSchemaTable();
  const std::string v3 = WriteManifest("N/F.json", R"({"version": 3, "type": "python", "accepts": "c:g:k"})");
  ExpectJsonLibraryError([&] { Plugin bad(v3.c_str()); }, "IsArray()");
}

TEST_F(ManifestTest, OperationsAndRemediation) {
  Plugin v1(WriteManifest("C/G/K/F.json", R"({"type": "python", "apply_group": "storage", "boot": true,
      "operations": {"first": {"provides": "x", "depends": ["a", "b"]},
                     "second": {"provides": "y", "depends": []}}})").c_str());
  auto ops = v1.GetOperations();
  ASSERT_EQ(ops.size(), 2u);
  EXPECT_EQ(ops[0].name, "first");
  EXPECT_EQ(ops[0].provides, "x");
  EXPECT_EQ(ops[0].depends, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(ops[1].name, "second");
  EXPECT_TRUE(ops[1].depends.empty());
  EXPECT_TRUE(log_.Contains(3, "Processing apply_operations in version=1, module=,"));

  PluginApplyOperation untouched("keep", "p", {"d"});
  v1.GetRemediateOperation(untouched);
  EXPECT_EQ(untouched.name, "keep");
  EXPECT_EQ(untouched.depends, (std::vector<std::string>{"d"}));

  Plugin v3(WriteManifest("N/F.json", V3("python")).c_str());
  PluginApplyOperation remediate;
  v3.GetRemediateOperation(remediate);
  EXPECT_EQ(remediate.name, "REMEDIATE");
  EXPECT_EQ(remediate.provides, "svc");
  EXPECT_EQ(remediate.depends, (std::vector<std::string>{"a", "b"}));
}

TEST_F(ManifestTest, SectionObjectLists) {
  Plugin v3(WriteManifest("N/F.json", V3("python")).c_str());
  // No "accepts" in "extract": the top-level objects.
  EXPECT_EQ(v3.GetExtractConfigIds(), v3.GetCSOIdList());
  EXPECT_TRUE(v3.GetImpactCacheDetails().empty());
  EXPECT_TRUE(v3.GetReferences().empty());

  Plugin v2(WriteManifest("C/G/K/F.json", R"({"version": 2, "type": "python",
      "extract": {"supports": true, "accepts": ["X:Y:Z"]},
      "impact": {"supports": true, "cache_drift": ["I:J:K", "I:J:L"]},
      "validation": {"supports": true, "references": ["R:S:T"]}})").c_str());
  EXPECT_EQ(v2.GetExtractConfigIds(), (std::vector<ConfigStoreObjectId>{{"Z", "Y", "X"}}));
  EXPECT_EQ(v2.GetImpactCacheDetails(),
            (std::vector<ConfigStoreObjectId>{{"K", "J", "I"}, {"L", "J", "I"}}));
  EXPECT_EQ(v2.GetReferences(), (std::vector<ConfigStoreObjectId>{{"T", "S", "R"}}));

  Plugin off(WriteManifest("C/G/K/O.json", R"({"version": 2, "type": "python",
      "extract": {"supports": false, "accepts": ["X:Y:Z"]},
      "impact": {"supports": false, "cache_drift": ["I:J:K"]}})").c_str());
  EXPECT_TRUE(off.GetExtractConfigIds().empty());
  EXPECT_TRUE(off.GetImpactCacheDetails().empty());
}

TEST_F(ManifestTest, SchemaLabelOfTheFirstAcceptedObject) {
  WriteFile("/usr/lib/corvane/configstore/schemas/net/dns/resolver.json",
            R"({"component": "net", "group": "dns", "key": "resolver", "label": "DNS resolver",
                "singleton": true, "schema": {"type": "object", "properties": {}}})");
  QenSchemaStore::SchemaStore::Invalidate();
  std::string json = V3("python");
  json.replace(json.find("C:G:K1"), 6, "net:dns:resolver");
  Plugin p(WriteManifest("N/F.json", json).c_str());
  EXPECT_EQ(p.GetSchemaLabel(), "DNS resolver");
  Plugin unknown(WriteManifest("C/G/K/F.json", V1("network", "s")).c_str());
  EXPECT_EQ(unknown.GetSchemaLabel(), "");
  QenSchemaStore::SchemaStore::Invalidate();
}

TEST_F(ManifestTest, UnreadableOrMalformedManifestsAreParseErrors) {
  const std::string missing = std::string(kModules) + "C/G/K/none.json";
  const std::string bad = WriteManifest("C/G/K/bad.json", "{\"type\":");
  for (const std::string& path : {missing, bad}) {
    Thrown t = Catch([&] { Plugin p(path.c_str()); });
    EXPECT_EQ(t.code, 2080) << path;
    EXPECT_EQ(t.message, "Failed to parse JSON String") << path;
  }
}

}  // namespace
}  // namespace QenTest
