// Schema store client: one key schema file per configuration key below the
// host's schema directory ("/usr/lib/corvane/configstore/schemas/", logical,
// any depth), loaded once per process and host root and cached. The file
// format is documented in the README beside the sample schemas
// (host/root/usr/lib/corvane/configstore/schemas/README.md).
//
// Everything handed out is immutable after loading and safe to share across
// threads; GetStore()/GetCache()/Invalidate() are thread-safe.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "QenJson.h"

namespace QenSchemaStore {

// Logical directory of the key schema files.
constexpr const char* kSchemaDir = "/usr/lib/corvane/configstore/schemas/";
// Error code of a malformed or conflicting schema file (ConfigStoreException).
constexpr int kSchemaStoreErrorCode = 2180;
// Instance identifier field of keys whose instances have no natural name.
constexpr const char* kGeneratedInstanceId = "cs_generated_id";

// Identity of a key schema: component, group, key.
struct SchemaObjectId {
  std::string component;
  std::string group;
  std::string key;

  SchemaObjectId() = default;
  SchemaObjectId(std::string c, std::string g, std::string k)
      : component(std::move(c)), group(std::move(g)), key(std::move(k)) {}
  bool operator==(const SchemaObjectId& o) const {
    return component == o.component && group == o.group && key == o.key;
  }
  bool operator!=(const SchemaObjectId& o) const { return !(*this == o); }
  bool operator<(const SchemaObjectId& o) const;
  // "comp C grp G key K", the same text a store object id without instance gives.
  std::string toString() const;
};

struct SchemaObjectIdHash {
  size_t operator()(const SchemaObjectId& id) const;
};

typedef std::unordered_set<SchemaObjectId, SchemaObjectIdHash> SchemaObjectIdSet;

// One key's schema. Immutable after loading; safe to share across threads.
class SchemaObject {
 public:
  virtual ~SchemaObject() = default;
  virtual const SchemaObjectId& GetId() const = 0;
  // Whether the key holds an array of instances rather than one object.
  virtual bool IsNonSingleton() const = 0;
  // The multiple-instance query of the impact computation; same answer as
  // IsNonSingleton().
  bool IsMultipleInstance() const { return IsNonSingleton(); }
  // Member naming an instance ("cs_generated_id" when instances have no
  // natural identifier); empty for a singleton key.
  virtual const std::string& GetInstanceIdField() const = 0;
  // The key's JSON schema node ("properties", "items", "type", "instanceId").
  virtual const rapidjson::Value& GetSchemaJson() const = 0;
  // Instance identifiers that belong to solution users.
  virtual std::vector<std::string> GetSolutionUserInstances() const = 0;
  // The key's user-configuration text; empty when it is not user configuration.
  virtual std::string GetUserConfigText() const = 0;

  // Text naming the key to users ("<component>.<group>.<key>" when the file
  // declares none).
  virtual const std::string& GetLabel() const = 0;
  virtual bool IsTelemetryDisabled() const = 0;
  virtual bool IsDspIntegrated() const = 0;
  // Whether the key's default configuration is mutable on the host
  // (smartnic false) or on the SmartNIC (smartnic true).
  virtual bool IsMutableDefault(bool smartnic) const = 0;
  // Logical path of the file the schema came from.
  virtual const std::string& GetSourceFile() const = 0;

  // Operations ("SET", "ADD", "DELETE") whose application needs a reboot,
  // and whether a SET decides it per property value ("rebootRequired"
  // annotations of the properties). Returns 0.
  virtual int GetRebootOperations(std::vector<std::string>& operations, bool& perProperty) const = 0;
  // The same for maintenance mode.
  virtual int GetMaintenanceModeOperations(std::vector<std::string>& operations,
                                           bool& perProperty) const = 0;
};

// What a walk over many keys needs of one key schema, kept in a compact
// table beside the schemas so that a lookup reads a few bytes per key instead
// of the schema object. The rest comes from the cache (SchemaCache::KeyName
// and the like).
struct KeyFacts {
  // The key's first eight bytes, zero-padded, and its length: most probes
  // compare these alone.
  uint64_t prefix = 0;
  uint32_t keyLength = 0;
  bool nonSingleton = false;
  // The instance identifier field is "cs_generated_id".
  bool generatedId = false;
};

// The keys of one component and group, sorted by key (empty when the pair
// has none).
struct GroupFacts {
  const KeyFacts* begin = nullptr;
  const KeyFacts* end = nullptr;
  // Position among the cache's groups (meaningless when empty).
  uint32_t position = 0;
};

// The loaded key schemas of one host root.
class SchemaCache {
 public:
  explicit SchemaCache(std::vector<std::shared_ptr<SchemaObject>> schemas);

  // The key's schema, or null when it has none.
  std::shared_ptr<SchemaObject> GetSchema(const std::string& component, const std::string& group,
                                          const std::string& key) const;
  std::shared_ptr<SchemaObject> GetSchema(const SchemaObjectId& id) const;
  // Every schema, ordered by id.
  const std::vector<std::shared_ptr<SchemaObject>>& GetSchemas() const { return schemas_; }

  // Whether any key has a schema in this component (or group of it).
  bool HasComponent(std::string_view component) const;
  bool HasGroup(std::string_view component, std::string_view group) const {
    return FindGroup(component, group).begin != nullptr;
  }

  // Two-step lookup for walks that look up many keys of one group: the
  // group once, then each key. Of equal ids the first in sorted order
  // answers, as GetSchema does. Results stay valid while the cache lives.
  // `previous`, when given, is the group or key found last: the one after it
  // is tried first, which is the next one a walk over a document in the
  // cache's (sorted) order asks for.
  GroupFacts FindGroup(std::string_view component, std::string_view group,
                       const GroupFacts* previous = nullptr) const;
  const KeyFacts* FindKey(const GroupFacts& group, std::string_view key,
                          const KeyFacts* previous = nullptr) const;
  // More of a key found by FindKey.
  std::string_view KeyName(const KeyFacts& key) const { return names_[&key - facts_.data()].key; }
  // Empty for a singleton key.
  std::string_view InstanceIdField(const KeyFacts& key) const {
    return names_[&key - facts_.data()].instanceIdField;
  }
  const std::shared_ptr<SchemaObject>& Schema(const KeyFacts& key) const {
    return schemas_[&key - facts_.data()];
  }

 private:
  const KeyFacts* Find(std::string_view component, std::string_view group, std::string_view key) const;

  struct Names {
    std::string_view key;
    std::string_view instanceIdField;
  };

  struct Group {
    std::string_view component;
    std::string_view group;
    uint32_t begin, end;  // range of facts_
  };

  std::vector<std::shared_ptr<SchemaObject>> schemas_;  // sorted by id
  std::vector<KeyFacts> facts_;                          // parallel to schemas_
  std::vector<Names> names_;                             // parallel to schemas_
  std::vector<Group> groups_;
  // The text the views of names_ and groups_ point to.
  std::unique_ptr<char[]> text_;
  // Open-addressed hash index over groups_: the upper half of an entry is the
  // upper half of the pair's hash, the lower half its position + 1 (0 =
  // free), so a probe miss reads no names.
  std::vector<uint64_t> index_;
};

class SchemaStore {
 public:
  explicit SchemaStore(std::shared_ptr<SchemaCache> cache) : cache_(std::move(cache)) {}

  // The store of the current host root, loading it on first use. Null when
  // the schema directory does not exist. A malformed or duplicate schema file
  // throws QenConfigStore::ConfigStoreException (code 2180) naming the file;
  // nothing is cached then, so the next call reads the files again.
  static std::shared_ptr<SchemaStore> GetStore();
  // The cache of GetStore() (null when the store is null).
  static std::shared_ptr<SchemaCache> GetCache();
  // Drops the cached schemas; the next GetStore() reads the files again.
  static void Invalidate();
  // Reads every schema file now, bypassing the cache (same failures as GetStore).
  static std::shared_ptr<SchemaStore> Load(const std::string& logicalDir);

  const std::shared_ptr<SchemaCache>& GetSchemaCache() const { return cache_; }
  std::shared_ptr<SchemaObject> GetSchema(const std::string& component, const std::string& group,
                                          const std::string& key) const {
    return cache_->GetSchema(component, group, key);
  }
  std::shared_ptr<SchemaObject> GetSchema(const SchemaObjectId& id) const {
    return cache_->GetSchema(id);
  }
  // The key's label; "" when the key has no schema.
  std::string GetSchemaLabel(const std::string& component, const std::string& group,
                             const std::string& key) const;
  // Keys whose default configuration is mutable on the host (false) or the
  // SmartNIC (true).
  SchemaObjectIdSet GetMutableDefaultConfigSchemas(bool smartnic) const;
  // Keys whose schema says dspIntegrated false.
  SchemaObjectIdSet GetDspNonIntegratedSchemas() const;

 private:
  std::shared_ptr<SchemaCache> cache_;
};

// The schema of component/group/key, or null when the key has no schema or
// the store is null.
std::shared_ptr<SchemaObject> GetSchema(const std::string& component, const std::string& group,
                                        const std::string& key,
                                        const std::shared_ptr<SchemaStore>& store);
std::shared_ptr<SchemaObject> GetSchema(const SchemaObjectId& id,
                                        const std::shared_ptr<SchemaStore>& store);

// Adds the value schema of every key of `value` (components -> groups ->
// keys, the content of a document's "profile") to `schemaDoc`, in the
// generated document shape of platform/README.md; "host-specific" and
// "host-override" describe per-host sections with the same keys. A fresh
// (non-object) `schemaDoc` is initialised first. Problems (a key without
// schema, a component or group that is not an object) are appended to
// `errorsDoc` (made an array when it is not one) as validator error objects
// with the field "/<component>/<group>/<key>" (names escaped as in a JSON
// Pointer) and the dotted key name as the one argument. A null cache reports
// every key.
void GenerateSchemaDocument(const rapidjson::Value& value,
                            const std::shared_ptr<SchemaCache>& cache,
                            rapidjson::Document& schemaDoc, rapidjson::Document& errorsDoc);

// errIds of generation errors (JsonValidator::VALIDATION_ERR_CODES NO_SCHEMA
// and TYPE_MISMATCH).
constexpr int kUnknownKeyErrId = 11;
constexpr int kNotAnObjectErrId = 5;

}  // namespace QenSchemaStore
