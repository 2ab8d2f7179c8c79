// Schema store client: one key schema file per configuration key below the
// host's schema directory, loaded once per process and cached.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "QenJson.h"

namespace QenSchemaStore {

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
  bool operator<(const SchemaObjectId& o) const;
};

struct SchemaObjectIdHash {
  size_t operator()(const SchemaObjectId& id) const;
};

// One key's schema. Immutable after loading; safe to share across threads.
class SchemaObject {
 public:
  virtual ~SchemaObject() = default;
  virtual const SchemaObjectId& GetId() const = 0;
  // Whether the key holds an array of instances rather than one object.
  virtual bool IsNonSingleton() const = 0;
  // Member naming an instance ("cs_generated_id" when instances have no
  // natural identifier); empty for a singleton key.
  virtual const std::string& GetInstanceIdField() const = 0;
  // The key's JSON schema node ("properties", "items", "type", "instanceId").
  virtual const rapidjson::Value& GetSchemaJson() const = 0;
  // Instance identifiers that belong to solution users.
  virtual std::vector<std::string> GetSolutionUserInstances() const = 0;
  // The key's user-configuration text; empty when it is not user configuration.
  virtual std::string GetUserConfigText() const = 0;
};

class SchemaStore;

// The schema of component/group/key, or null when the key has no schema.
std::shared_ptr<SchemaObject> GetSchema(const std::string& component, const std::string& group,
                                        const std::string& key,
                                        const std::shared_ptr<SchemaStore>& store);
std::shared_ptr<SchemaObject> GetSchema(const SchemaObjectId& id,
                                        const std::shared_ptr<SchemaStore>& store);

}  // namespace QenSchemaStore
