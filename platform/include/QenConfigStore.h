// Configuration store client over the host's SQLite database.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ConfigStoreException.h"
#include "QenJson.h"

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

 private:
  rapidjson::Document doc_;
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
// What the store's list reads return: shared, in the store's order.
typedef std::shared_ptr<ConfigMapVector> ConfigMapList;

}  // namespace QenConfigStore

namespace DBStore {
enum Type : int { USER = 0 };
class StoreConnection;
}  // namespace DBStore

namespace QenConfigStore {

// Opens a connection to the host's store (type 0: the user store).
std::shared_ptr<DBStore::StoreConnection> GetDBStore(DBStore::Type type, bool create);
inline std::shared_ptr<DBStore::StoreConnection> GetDBStore(int type, bool create) {
  return GetDBStore(static_cast<DBStore::Type>(type), create);
}

// Default user configuration entries stored for an object id (all instances
// when the id has no instance identifier), ordered by instance identifier.
ConfigMapVector GetDefaultUserConfigMapList(const ConfigStoreObjectId& id,
                                          const std::shared_ptr<DBStore::StoreConnection>& conn);

}  // namespace QenConfigStore
