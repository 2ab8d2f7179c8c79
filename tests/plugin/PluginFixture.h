// Shared fixture of the plugin framework tests: a temporary host root with the
// shipped manifest schemas installed and a fresh manifest schema table.
#pragma once

#include <functional>
#include <string>

#include "HostRootTest.h"
#include "configmanager/plugin.h"
#include "plugin/paths.h"

namespace QenTest {

class PluginTest : public HostRootTest {
 protected:
  static constexpr const char* kModules = "/usr/lib/corvane/configmanager/apply_modules/";
  static constexpr const char* kSchemas = "/usr/lib/corvane/configmanager/plugin_schemas/";

  void SetUp() override;
  void TearDown() override;

  // Copies the shipped schema files into the root.
  void InstallManifestSchemas();
  // Writes a manifest below the plugin directory; returns its logical path.
  std::string WriteManifest(const std::string& relative, const std::string& json);
  // A version 1 apply manifest with one operation.
  static std::string V1(const std::string& group, const std::string& provides,
                        const std::string& depends = "", const std::string& type = "python");
};

// The code and message of the ConfigStoreException (or subclass) that `f`
// throws; code -1 when it throws none.
struct Thrown {
  int code = -1;
  std::string message;
  bool isConfigManager = false;
};
Thrown Catch(const std::function<void()>& f);

}  // namespace QenTest
