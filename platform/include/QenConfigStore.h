// Configuration store client over the host's SQLite database
// ("/var/lib/corvane/configstore/configstore.db", logical; WAL mode, 0600).
//
// The store keeps, per configuration object (scope, component, group, key,
// instance identifier), its default, current and automatic configuration
// values, the staged desired values, plus the boot mode, the boot apply state,
// the boot-time restore failures and size statistics. Table layout and the
// load/dump format: platform/src/store/README.md.
//
// Ownership: connections, objects and documents are handed out by shared_ptr.
// Thread-safety: a StoreConnection may be shared between threads (every call
// locks it; a live transaction holds the lock until it ends). Separate
// connections, also in separate processes, may read while one writes.
// Failures are ConfigStoreException with one of the StoreErrorCode codes (or
// 1082 for a structurally malformed JSON value); every write runs in one
// transaction, so a failed write changes nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ConfigStoreException.h"
#include "QenJson.h"

namespace QenSchemaStore {
class SchemaObject;
}

namespace QenConfigStore {

// A JSON document with its own pool allocator, handed around by shared_ptr.
class JsonDoc {
 public:
  JsonDoc() = default;
  JsonDoc(const JsonDoc&) = delete;
  JsonDoc& operator=(const JsonDoc&) = delete;

  rapidjson::Document& GetDocument() { return doc_; }
  const rapidjson::Document& GetDocument() const { return doc_; }
  rapidjson::Document::AllocatorType& GetAllocator() { return doc_.GetAllocator(); }

 protected:
  // A document that allocates from `allocator`, which the derived class owns
  // and constructs before this base (it must outlive the document).
  explicit JsonDoc(rapidjson::Document::AllocatorType* allocator) : doc_(allocator) {}

 private:
  rapidjson::Document doc_;
};

// Error codes of the store's own failures.
enum StoreErrorCode : int {
  STORE_READ_FAILED = 2000,   // a read statement failed, or a file could not be read
  STORE_OPEN_FAILED = 2001,   // database missing, corrupt, not a database, or unopenable
  STORE_WRITE_FAILED = 2002,  // a write statement failed; the transaction was rolled back
  STORE_BAD_VALUE = 2003,     // a value or description that is not what the store accepts
};

// Identity of one configuration object: key, component, group and instance
// identifier (empty for a singleton key and for a whole non-singleton key).
class ConfigStoreObjectId {
 public:
  ConfigStoreObjectId() = default;
  ConfigStoreObjectId(std::string key, std::string group, std::string component,
                      std::string instance = std::string())
      : key_(std::move(key)), component_(std::move(component)), group_(std::move(group)),
        instance_(std::move(instance)) {}

  const std::string& GetKey() const { return key_; }
  const std::string& GetComponent() const { return component_; }
  const std::string& GetGroup() const { return group_; }
  const std::string& GetInstanceId() const { return instance_; }
  void SetInstanceId(std::string id) { instance_ = std::move(id); }

  // "comp C grp G key K" plus " id I" when the instance identifier is set.
  std::string toString() const;

  bool operator==(const ConfigStoreObjectId& o) const {
    return key_ == o.key_ && component_ == o.component_ && group_ == o.group_ &&
           instance_ == o.instance_;
  }
  bool operator!=(const ConfigStoreObjectId& o) const { return !(*this == o); }
  // Orders by component, group, key, instance.
  bool operator<(const ConfigStoreObjectId& o) const;

 private:
  std::string key_;
  std::string component_;
  std::string group_;
  std::string instance_;
};

struct CsoIdHash {
  size_t operator()(const ConfigStoreObjectId& id) const;
};

// One stored object as string members: "Component", "ConfigGroup", "Name",
// "Identifier" (instance id, "" for a singleton), "Value" (JSON text or
// "DELETE_DEFAULT"), "AutoConfValue" (JSON text, may be empty).
typedef std::unordered_map<std::string, std::string> ConfigMap;
typedef std::vector<std::shared_ptr<ConfigMap>> ConfigMapVector;
// What the store's list reads return: shared, in the store's order
// (component, group, key, then the order in which instances were stored).
typedef std::shared_ptr<ConfigMapVector> ConfigMapList;

// The value of a user-deleted default object.
constexpr const char* kDeleteDefault = "DELETE_DEFAULT";

// A configuration object: its identifier and its JSON value (an empty object
// until set). Not thread-safe; one owner at a time.
class StoreObject {
 public:
  explicit StoreObject(ConfigStoreObjectId id);
  StoreObject(ConfigStoreObjectId id, const rapidjson::Value& value);  // deep copy
  // Takes over a document that already holds the value.
  StoreObject(ConfigStoreObjectId id, std::shared_ptr<JsonDoc> doc);
  virtual ~StoreObject();
  StoreObject(const StoreObject&) = delete;
  StoreObject& operator=(const StoreObject&) = delete;

  const ConfigStoreObjectId& GetConfigStoreObjectId() const { return id_; }
  void SetConfigStoreObjectId(ConfigStoreObjectId id) { id_ = std::move(id); }

  // Property `name` of the value: a string member as is, any other member as
  // compact JSON. False (and `out` untouched) when there is no such member.
  bool GetValue(const std::string& name, std::string& out) const;
  // Sets property `name` to the string `text` (the value becomes an object
  // when it is not one).
  void SetValue(const std::string& name, const std::string& text);

  rapidjson::Value& GetJson() { return doc_->GetDocument(); }
  const rapidjson::Value& GetJson() const { return doc_->GetDocument(); }
  rapidjson::Document::AllocatorType& GetAllocator() { return doc_->GetAllocator(); }

 protected:
  ConfigStoreObjectId id_;
  std::shared_ptr<JsonDoc> doc_;
};

class ConfigStoreObjectImpl : public StoreObject {
 public:
  using StoreObject::StoreObject;

  // The value as compact JSON text.
  std::string GetSerializedData() const;
  // Position of the object among its key's instances (0 when unknown).
  uint64_t GetOrdinal() const { return ordinal_; }
  void SetOrdinal(uint64_t ordinal) { ordinal_ = ordinal; }

 private:
  uint64_t ordinal_ = 0;
};

class ConfigStoreObject : public ConfigStoreObjectImpl {
 public:
  using ConfigStoreObjectImpl::ConfigStoreObjectImpl;
};

// The difference found for one object: identifier, operation name ("SET",
// "ADD", "DELETE") and a JSON description of what differs.
class DriftObject {
 public:
  DriftObject(ConfigStoreObjectId id, std::string operation, const rapidjson::Value& drift);
  const ConfigStoreObjectId& GetConfigStoreObjectId() const { return id_; }
  const std::string& GetOperation() const { return operation_; }
  const rapidjson::Value& GetDrift() const { return doc_.GetDocument(); }
  // The drift as compact JSON text.
  std::string GetSerializedDrift() const;

 private:
  ConfigStoreObjectId id_;
  std::string operation_;
  JsonDoc doc_;
};

// Rebuilds an object from its data text (STORE_BAD_VALUE when it is not JSON).
std::shared_ptr<ConfigStoreObject> CreateObject(const ConfigStoreObjectId& id,
                                                const std::string& text, uint64_t ordinal = 0);
// An object holding a deep copy of `value`. With `isInstance` and a
// non-singleton schema, an id without instance identifier takes the value's
// instance-identifier member (when it is a string).
std::shared_ptr<ConfigStoreObject> CreateObject(
    const ConfigStoreObjectId& id, const rapidjson::Value& value,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema, uint64_t index = 0,
    bool isInstance = false);
// Rebuilds a drift object from its text (STORE_BAD_VALUE when it is not JSON).
std::shared_ptr<DriftObject> CreateDriftObject(const ConfigStoreObjectId& id,
                                               const std::string& driftText,
                                               const std::string& operation);

// A new unique instance identifier (random UUID text, lower case).
std::string GenerateInstanceId();

// Parses the JSON file at `path` (a file-system path as given: map logical
// host paths with QenPlatform::HostPath). STORE_READ_FAILED naming the file
// when it cannot be read or is not JSON.
std::shared_ptr<JsonDoc> CreateDocumentFromFile(const std::string& path);

// Boot modes.
enum BOOTMODE : int {
  BOOTMODE_NORMAL = 0,          // nothing staged for the next boot
  BOOTMODE_DESIRED_STAGED = 1,  // a whole desired document waits for a reboot
  BOOTMODE_HOSTAPI_STAGED = 4,  // single-key changes wait for a reboot
};

// Logical path of the database.
constexpr const char* kDatabasePath = "/var/lib/corvane/configstore/configstore.db";

}  // namespace QenConfigStore

namespace DBStore {

enum Type : int { USER = 0 };

// One SQLite connection to the store. Thread-safe (serialised by a recursive
// mutex). Obtain with QenConfigStore::GetDBStore.
class StoreConnection {
 public:
  struct Impl;
  explicit StoreConnection(std::unique_ptr<Impl> impl);
  ~StoreConnection();
  StoreConnection(const StoreConnection&) = delete;
  StoreConnection& operator=(const StoreConnection&) = delete;

  Impl& impl() { return *impl_; }

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace DBStore

namespace QenConfigStore {

// Opens a new connection to the host's store (type 0: the user store). With
// `create` a missing database is created (directories too); without it a
// missing database is STORE_OPEN_FAILED. A corrupt file: STORE_OPEN_FAILED.
std::shared_ptr<DBStore::StoreConnection> GetDBStore(DBStore::Type type, bool create);
inline std::shared_ptr<DBStore::StoreConnection> GetDBStore(int type, bool create) {
  return GetDBStore(static_cast<DBStore::Type>(type), create);
}

// ---- the process-wide store and transactions ------------------------------

// The store of a namespace. One per process and host root; the functions
// below without a connection argument use its connection, so a
// ConfigStoreTransaction on it spans them. Each write also has a form that
// takes the connection: a ConfigStoreTransaction on a connection of
// GetDBStore spans the writes made on that same connection (a write on
// another connection would wait for the transaction's lock and fail).
class ConfigStore {
 public:
  static constexpr const char* sGlobalNamespace = "global";

  // The global store, or an empty pointer when it is unavailable (cannot be
  // opened; logged) or the namespace is not the global one.
  static std::shared_ptr<ConfigStore> GetStore(const std::string& ns = sGlobalNamespace);

  // The host object's current value, or null when it has none (also for
  // "DELETE_DEFAULT").
  std::shared_ptr<ConfigStoreObject> GetObject(const ConfigStoreObjectId& id);
  // Writes the object's value as the current value. A new row is "user"
  // configuration when the key's schema has user-configuration text, else
  // "vital".
  void SetObject(const StoreObject& object);
  // The same on the given connection.
  static void SetObject(const StoreObject& object, const std::shared_ptr<DBStore::StoreConnection>& conn);
  // Removes the object's current value (the row goes when it holds nothing
  // else).
  void DeleteObject(const ConfigStoreObjectId& id);

  const std::shared_ptr<DBStore::StoreConnection>& GetConnection() const { return conn_; }

  explicit ConfigStore(std::shared_ptr<DBStore::StoreConnection> conn) : conn_(std::move(conn)) {}

 private:
  std::shared_ptr<DBStore::StoreConnection> conn_;
};
constexpr const char* sGlobalNamespace = ConfigStore::sGlobalNamespace;

// A write transaction (BEGIN IMMEDIATE; nested ones are savepoints). Commit()
// makes it durable; destroying it uncommitted rolls it back. Holds the
// connection's lock for its life: use it on one thread.
class ConfigStoreTransaction {
 public:
  explicit ConfigStoreTransaction(const std::shared_ptr<ConfigStore>& store);
  explicit ConfigStoreTransaction(const std::shared_ptr<DBStore::StoreConnection>& conn);
  ~ConfigStoreTransaction();
  ConfigStoreTransaction(const ConfigStoreTransaction&) = delete;
  ConfigStoreTransaction& operator=(const ConfigStoreTransaction&) = delete;

  void Commit();
  void Rollback();

 private:
  std::shared_ptr<DBStore::StoreConnection> conn_;
  bool active_ = false;
};

// ---- reads as map lists ----------------------------------------------------

// Current host user configuration (category "user" objects with a current
// value, "DELETE_DEFAULT" markers included).
ConfigMapList GetUserConfigContents(const std::shared_ptr<DBStore::StoreConnection>& conn);
// The desired user configuration for the next boot: with a whole document
// staged (SetDesiredUserConfig), that document; otherwise the current user
// configuration with every key staged by the host API replaced (or removed).
ConfigMapList GetDesiredUserConfigContents(const std::shared_ptr<DBStore::StoreConnection>& conn);
// Current SmartNIC configuration.
ConfigMapList GetSmartnicConfiguration(const std::shared_ptr<DBStore::StoreConnection>& conn);
// Staged desired SmartNIC configuration.
ConfigMapList GetDesiredSmartnicConfiguration(const std::shared_ptr<DBStore::StoreConnection>& conn);

// Default user configuration entries stored for an object id (all instances
// when the id has no instance identifier), in stored order.
ConfigMapVector GetDefaultUserConfigMapList(const ConfigStoreObjectId& id,
                                          const std::shared_ptr<DBStore::StoreConnection>& conn);
// The same for the SmartNIC's defaults.
ConfigMapVector GetDefaultSmartnicConfigMapList(const ConfigStoreObjectId& id,
                                              const std::shared_ptr<DBStore::StoreConnection>& conn);

// ---- reads as objects (host API) ---------------------------------------------

// The singleton's default / current object; null when there is none.
std::shared_ptr<ConfigStoreObject> GetDefaultUserConfigInternal(
    const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& conn,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema);
std::shared_ptr<ConfigStoreObject> GetCurrentConfigInternal(
    const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& conn,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema);
// All default / current instance objects of the key, in stored order.
std::vector<std::shared_ptr<ConfigStoreObject>> GetDefaultUserConfigInstancesInternal(
    const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& conn,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema);
std::vector<std::shared_ptr<ConfigStoreObject>> GetCurrentConfigInstancesInternal(
    const ConfigStoreObjectId& id, const std::shared_ptr<DBStore::StoreConnection>& conn,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema);

// ---- staging desired configuration ------------------------------------------

// Whether anything is staged for the object (for its key when the id has no
// instance identifier): a desired value or a staged deletion.
bool CheckDesiredObjectExists(const ConfigStoreObjectId& id,
                              const std::shared_ptr<DBStore::StoreConnection>& conn);
// Stages one desired object of a key (host API, for the next boot): a
// singleton's value, or one instance of a non-singleton (identified by the
// schema's instance field; a missing "cs_generated_id" is generated and
// added to `value` with `allocator`). `userConfigText` is the key's
// user-configuration text; empty means the key is not user configuration
// (STORE_BAD_VALUE). Clears a staged deletion of the key.
void ProcessDesiredObject(rapidjson::Document::AllocatorType& allocator,
                          const std::shared_ptr<DBStore::StoreConnection>& conn,
                          const std::string& userConfigText, const std::string& component,
                          const std::string& group, const std::string& key,
                          const std::shared_ptr<QenSchemaStore::SchemaObject>& schema,
                          rapidjson::Value& value);
// Stages the deletion of a key for the next boot (drops its staged values).
void DeleteHostAPIConfiguration(const std::string& component, const std::string& group,
                                const std::string& key);
void DeleteHostAPIConfiguration(const std::string& component, const std::string& group,
                                const std::string& key,
                                const std::shared_ptr<DBStore::StoreConnection>& conn);
// Stages a whole desired document (root "profile" or components at the root)
// for the next boot, replacing whatever was staged, and sets boot mode 1.
void SetDesiredUserConfig(const rapidjson::Value& document);
void SetDesiredUserConfig(const rapidjson::Value& document,
                          const std::shared_ptr<DBStore::StoreConnection>& conn);
// The same for the SmartNIC (no boot mode change).
void SetDesiredSmartnicConfiguration(const rapidjson::Value& document);
// Drops everything staged (host and SmartNIC) and sets boot mode 0.
void ClearDesiredConfig();

// ---- boot ------------------------------------------------------------------

// The store's own step early in boot, before the boot-time apply: the staged
// desired configuration (host and SmartNIC) becomes the current one, staging
// is cleared, boot mode 0, the boot is marked incomplete. A staged value that
// is not JSON (written by another client) is not restored: its key is
// recorded as a boot-time restore failure and keeps its current value. The
// previous boot's failures are dropped first.
void RestoreDesiredConfigAtBoot();

int GetBootMode();
void SetBootMode(int mode);
void SetBootMode(int mode, const std::shared_ptr<DBStore::StoreConnection>& conn);

// The boot apply state {"isBootComplete": bool, "bootApplyRecord": "<text>"};
// {"isBootComplete": false, "bootApplyRecord": ""} on a store that has none.
std::shared_ptr<JsonDoc> getBootApplyRecord();
// Stores the record text and marks the boot complete.
void setBootApplyRecord(const std::string& record);
void setBootApplyRecord(const std::string& record, const std::shared_ptr<DBStore::StoreConnection>& conn);
// Sets "isBootComplete" (the record is kept).
void SetBootComplete(bool complete);
// Keys the store could not restore at boot (instance identifiers empty), in
// the order recorded.
std::vector<ConfigStoreObjectId> GetBootTimeRestoreFailures();
void AddBootTimeRestoreFailure(const std::string& component, const std::string& group,
                               const std::string& key);
void ClearBootTimeRestoreFailures();

// ---- statistics ----------------------------------------------------------------

// Rows of configuration objects (stored and staged).
int64_t GetConfigRowCount();
// Bytes of stored value text per object category ("vital", "user", "cached").
int64_t GetVitalConfigSize();
int64_t GetUserConfigSize();
int64_t GetCachedConfigSize();
// "name=value" lines: objectRows, desiredRows, defaultValues, currentValues,
// deleteDefaultMarkers, smartnicObjects, restoreFailures, databaseBytes.
std::vector<std::string> GetConfigMetrics();

// ---- seeding and inspection (qenconfig store load / dump) ----------------------

// Replaces the whole store content by `description` (format in the README);
// STORE_BAD_VALUE naming the offending member when it is malformed, and then
// nothing changes.
void LoadStoreDescription(const rapidjson::Value& description);
// The whole store content in the same form (LoadStoreDescription of it
// reproduces the store).
std::shared_ptr<JsonDoc> DumpStoreDescription();

// ---- test hook -----------------------------------------------------------------

// Makes the Nth write statement from now on (process-wide, 1-based) fail as
// a STORE_WRITE_FAILED; 0 switches the hook off. For tests proving that a
// failed write changes nothing.
void FailNthWrite(int n);

}  // namespace QenConfigStore
