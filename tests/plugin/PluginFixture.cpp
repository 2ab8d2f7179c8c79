#include "PluginFixture.h"

#include <fstream>
#include <sstream>

namespace QenTest {

void PluginTest::SetUp() {
  HostRootTest::SetUp();
  QenConfigManager::ResetManifestSchemaTable();
  InstallManifestSchemas();
}

void PluginTest::TearDown() {
  QenConfigManager::ResetManifestSchemaTable();
  HostRootTest::TearDown();
}

void PluginTest::InstallManifestSchemas() {
  const std::string source =
      std::string(QEN_SOURCE_DIR) + "/host/root/usr/lib/corvane/configmanager/plugin_schemas";
  for (int v = 1; v <= 3; ++v) {
    std::string name = "plugin_version_" + std::to_string(v) + "_schema.json";
    std::ifstream in(source + "/" + name);
    std::stringstream ss;
    ss << in.rdbuf();
    WriteFile(std::string(kSchemas) + name, ss.str());
  }
}

std::string PluginTest::WriteManifest(const std::string& relative, const std::string& json) {
  std::string logical = std::string(kModules) + relative;
  WriteFile(logical, json);
  return logical;
}

std::string PluginTest::V1(const std::string& group, const std::string& provides,
                           const std::string& depends, const std::string& type) {
  return R"({"type": ")" + type + R"(", "apply_group": ")" + group +
         R"(", "boot": false, "operations": {"op": {"provides": ")" + provides +
         R"(", "depends": [)" + depends + "]}}}";
}

Thrown Catch(const std::function<void()>& f) {
  Thrown t;
  try {
    f();
  } catch (const QenConfigManager::ConfigManagerException& e) {
    t.code = e.GetErrorCode();
    t.message = e.what();
    t.isConfigManager = true;
  } catch (const QenConfigStore::ConfigStoreException& e) {
    t.code = e.GetErrorCode();
    t.message = e.what();
  }
  return t;
}

}  // namespace QenTest
