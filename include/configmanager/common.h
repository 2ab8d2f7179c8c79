// The foundation of the configuration manager: error codes and exceptions,
// the caller's task handle and plugin monitors, the configuration document
// functions and the host status queries.
//
// Ownership: task handles, notification sinks, monitors and documents handed
// out are held by std::shared_ptr; documents passed in are borrowed for the
// call. Nothing here keeps state between calls except the constant tables.
#pragma once

#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ConfigStoreException.h"
#include "ErrorInfo.h"
#include "QenConfigStore.h"
#include "QenJson.h"
#include "QenSchemaStore.h"
#include "configmanager/export.h"

namespace DBStore {
class StoreConnection;
}

namespace QenConfigManager {

using QenConfigStore::ConfigMap;
using QenConfigStore::ConfigMapList;
using QenConfigStore::ConfigMapVector;
using QenConfigStore::ConfigStoreObjectId;
using QenSchemaStore::SchemaObject;

// ---------------------------------------------------------------------------
// Error codes and exceptions

enum CMErrorCodes : int32_t {
  DB_CONNECT_ERROR = 2001,
  SCHEMA_NOT_FOUND = 2021,
  NOT_SINGLETON = 2022,
  EMPTY_DOCUMENT = 2023,
  APPLY_EMPTY_INPUT = 2024,
  IMPACT_INVALID = 2025,
  HOST_NOT_IN_MM = 2026,
  DELETE_DEFAULT_NOT_SUPPORTED = 2027,
  NOT_NON_SINGLETON = 2028,
  HOST_IN_DBM = 2029,
  CONFIG_NOT_FOUND = 2030,
  EXTRACT_FAILED = 2031,
  EXTRACT_INVALID_CONFIG = 2032,
  EXTRACT_MULTIPLE_PLUGINS = 2033,
  PARSE_ERROR = 2080,
  SCHEMA_STORE_ERROR = 2180,
  INVALID_PLUGIN = 2081,
  UNSUPPORTED_PLUGIN_VERSION = 2082,
  DEPENDENCY_ERROR = 2083,
  INVALID_KEY_VALUE = 2084,
  HOSTAPI_UNSUPPORTED_CONFIG = 2181,
  UNEXPECTED_ERROR = 3000,
  APPLY_PLUGIN_ABSENT = 2085,
  // Raised with a message of the raiser's own, never from the tables.
  JSON_ERROR = 1082,
  READ_FAILED = 2000,
};

struct CMErrorCodesHash {
  size_t operator()(CMErrorCodes c) const { return std::hash<int32_t>()(c); }
};
typedef std::unordered_map<CMErrorCodes, const char*, CMErrorCodesHash> CMErrorTable;

// Code -> message template (22 entries; 3000 has none).
QCM_EXPORT const CMErrorTable& ErrorMessageTable();
// Code -> message identifier (23 entries), published for the library's users.
QCM_EXPORT const CMErrorTable& ErrorIdTable();

class QCM_EXPORT ConfigManagerException : public QenConfigStore::ConfigStoreException {
 public:
  using QenConfigStore::ConfigStoreException::ConfigStoreException;
  explicit ConfigManagerException(const QenConfigStore::ConfigStoreException& base)
      : QenConfigStore::ConfigStoreException(base) {}
};
#define QCM_DERIVED_EXCEPTION(Name)                                                  \
  class QCM_EXPORT Name : public ConfigManagerException {                            \
   public:                                                                           \
    using ConfigManagerException::ConfigManagerException;                            \
    explicit Name(const QenConfigStore::ConfigStoreException& base)                  \
        : ConfigManagerException(base) {}                                           \
  };
QCM_DERIVED_EXCEPTION(InvalidImpact)
QCM_DERIVED_EXCEPTION(HostNotInMM)
QCM_DERIVED_EXCEPTION(HostInDBM)
QCM_DERIVED_EXCEPTION(InvalidArgumentException)
QCM_DERIVED_EXCEPTION(SchemaNotFound)
#undef QCM_DERIVED_EXCEPTION

// Formats the code's message template with the argument and throws E.
// Instantiated for the combinations the library uses (see common/errors.cpp).
template <typename E>
[[noreturn]] QCM_EXPORT void ThrowException(CMErrorCodes code);
template <typename E, typename A>
[[noreturn]] QCM_EXPORT void ThrowException(CMErrorCodes code, A argument);

// ErrorInfo (ErrorInfo.h, declared with the platform that serialises it).

// ---------------------------------------------------------------------------
// Task handle and plugin monitors. Base operations do nothing; callers derive
// what they need and pass default objects otherwise.

class QCM_EXPORT TaskHandle {
 public:
  class QCM_EXPORT Notifications {
   public:
    virtual ~Notifications();
    virtual void PluginInfo(const std::string& messageId, const std::list<std::string>& args);
    virtual void PluginWarning(const std::string& messageId, const std::list<std::string>& args);
    virtual void PluginError(ErrorInfo error);
  };

  virtual ~TaskHandle();
  virtual bool IsAborted();
  virtual void UpdateProgress(float percent);
  virtual std::shared_ptr<Notifications> AddNotification();
  virtual std::shared_ptr<TaskHandle> ChildTask(int n);
  virtual std::string GetTaskId() const;

  static std::shared_ptr<TaskHandle> Dummy();
};

// What the plugin launcher polls while a plugin runs. Implementations must be
// safe to call from the launcher's monitor thread.
class QCM_EXPORT PluginMonitor {
 public:
  virtual ~PluginMonitor();
  virtual bool IsAborted();
  virtual std::string GetTaskId();

  static std::shared_ptr<PluginMonitor> Dummy();
};

// Adapts a task handle to a plugin monitor; keeps the task alive.
class QCM_EXPORT TaskPluginMonitor : public PluginMonitor {
 public:
  explicit TaskPluginMonitor(std::shared_ptr<TaskHandle> task) : task_(std::move(task)) {}
  bool IsAborted() override;
  std::string GetTaskId() override;

 private:
  std::shared_ptr<TaskHandle> task_;
};

// ---------------------------------------------------------------------------
// Configuration documents

QCM_EXPORT std::shared_ptr<QenConfigStore::JsonDoc> CreateDocument();
QCM_EXPORT std::shared_ptr<QenConfigStore::JsonDoc> CreateDocumentFromString(const std::string& text);
QCM_EXPORT void ParseDocument(const std::string& text, rapidjson::Document& doc);
QCM_EXPORT void CreateDocumentFromFile(const char* path, rapidjson::Document& doc);
QCM_EXPORT void CreateFileFromDocument(const char* path, const rapidjson::Document& doc);
QCM_EXPORT void SerializeValue(const rapidjson::Value& value, std::string& out);
// Moves `value` into `object` as its last member `name` (a copy), with
// `doc`'s allocator; `value` is left null, a null `value` adds null. A
// missing `doc`, a missing or non-object `object`: the JSON library's 1082.
QCM_EXPORT void AddMember(rapidjson::Document* doc, rapidjson::Value* object, const std::string& name,
                          rapidjson::Value* value);
QCM_EXPORT bool IsEqualArray(const rapidjson::Value& a, const rapidjson::Value& b);
QCM_EXPORT void CreateMergedDocument(const rapidjson::Document& schema, rapidjson::Document& doc);
QCM_EXPORT std::shared_ptr<QenConfigStore::JsonDoc> CreateDocumentFromMap(const ConfigMapVector& maps);
QCM_EXPORT std::string GetInstanceIdFromValue(const rapidjson::Value& value,
                                              const std::shared_ptr<SchemaObject>& schema);
QCM_EXPORT void FilterSolutionUserInstances(ConfigMapVector& maps, std::shared_ptr<SchemaObject> schema);
QCM_EXPORT ConfigMapVector GetExternalDefaultUserConfig(
    const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& connection,
    std::shared_ptr<SchemaObject> schema);
QCM_EXPORT bool fileExists(const std::string& path);

// ---------------------------------------------------------------------------
// Host status

enum QUICK_BOOT_STATUS : int32_t {
  QUICKBOOT_UNSUPPORTED = 0,
  QUICKBOOT_SUPPORTED = 1,
  QUICKBOOT_STM_SUPPORTED = 2,
};

QCM_EXPORT bool IsMaintenanceModeEnabled();
QCM_EXPORT QUICK_BOOT_STATUS FetchQuickBootStatus();
QCM_EXPORT std::string GetBIOSUUID();

}  // namespace QenConfigManager

// Pretty-printed JSON text (three-space indent).
QCM_EXPORT std::string JsonToString(const rapidjson::Value& value);
