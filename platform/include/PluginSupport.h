// Plugin support records: what a plugin runner writes into the plugin result
// file ("/var/corvane/lifecycle/cm-plugin-output.json") and what the
// configuration manager reads back. The runners write with Save() (the Python
// SDK mirrors the same formats); the plugin operations read with Load().
//
// Result file formats (one compact JSON object, mode 0600; "error" is
// required, lists are optional and empty when absent):
//   APPLY     {"error": <ErrorInfo>}
//   IMPACT    {"error": <ErrorInfo>, "impacts": [{"impact": 0|1|2, "component": "", "group": "",
//              "key": "", "instanceId": "", "quickBootSupported": bool}]}
//   EXTRACT   {"error": <ErrorInfo>, "objects": [{"component": "", "group": "", "key": "",
//              "instanceId": "", "value": <the object's JSON value>}]}
//   VALIDATE  {"error": <ErrorInfo>, "results": [{"name": "<path>", "errors": [<ErrorInfo>]}]}
// where <ErrorInfo> is {"msgId": "", "args": [""], "message": ""} ("args" and
// "message" may be absent; an empty "msgId" means success).
//
// Load() takes a physical path and throws QenConfigStore::ConfigStoreException
// (a std::exception) naming the file: code 2000 when it cannot be read, 2003
// when it is not a result of that shape. The records are plain values; not
// shared between threads.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "QenConfigStore.h"
#include "QenJson.h"
#include "ErrorInfo.h"

namespace QenConfigManager {

// One configuration object's impact as an impact plugin reports it.
struct ImpactPluginInfo {
  int32_t impact = 0;  // IMPACT_TYPE: 0 none, 1 maintenance mode, 2 reboot
  // The object's identifier, in ConfigStoreObjectId's order.
  std::string key;
  std::string component;
  std::string group;
  std::string instanceId;
  bool quickBootSupported = false;

  QenConfigStore::ConfigStoreObjectId GetConfigStoreObjectId() const {
    return QenConfigStore::ConfigStoreObjectId(key, group, component, instanceId);
  }
  bool operator==(const ImpactPluginInfo& o) const {
    return impact == o.impact && key == o.key && component == o.component && group == o.group &&
           instanceId == o.instanceId && quickBootSupported == o.quickBootSupported;
  }
};

class ImpactPluginResult {
 public:
  std::vector<ImpactPluginInfo> impacts;
  ErrorInfo errorInfo;

  static ImpactPluginResult Load(const std::string& path);
  void Save(const std::string& path) const;
  std::string Serialize() const;
};

class ExtractPluginResult {
 public:
  std::vector<std::shared_ptr<QenConfigStore::ConfigStoreObject>> objects;
  ErrorInfo errorInfo;

  static ExtractPluginResult Load(const std::string& path);
  void Save(const std::string& path) const;
  std::string Serialize() const;
};

// The validation errors a plugin found for one object (named by its path).
struct ValidationPluginObjectResult {
  std::string name;
  std::vector<ErrorInfo> errors;
};

class ValidationPluginResult {
 public:
  std::vector<ValidationPluginObjectResult> results;
  ErrorInfo errorInfo;

  static ValidationPluginResult Load(const std::string& path);
  void Save(const std::string& path) const;
  std::string Serialize() const;
};

// Writes the APPLY result file ({"error": ...}) that ErrorInfo::Load reads.
void SaveErrorResult(const ErrorInfo& error, const std::string& path);

}  // namespace QenConfigManager
