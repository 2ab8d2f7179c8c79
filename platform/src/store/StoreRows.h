// Internal: turning configuration documents into store rows and back.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "QenConfigStore.h"
#include "StoreDb.h"

namespace QenConfigStore {
namespace detail {

constexpr const char* kHost = "host";
constexpr const char* kSmartnic = "smartnic";

// One object value of a document: where it goes and its text.
struct DocObject {
  std::string component, group, key, identifier, text;
  int64_t ordinal = 0;
};

// Resolves instance identifiers through the schema store (cached per key for
// one walk). Keys without a schema use "cs_generated_id".
class InstanceResolver {
 public:
  // The identifier of `element` (instance `index` of the key); a missing
  // "cs_generated_id" is generated and added to the returned text.
  DocObject Resolve(const std::string& component, const std::string& group,
                    const std::string& key, const rapidjson::Value& element, size_t index);
  // The key's instance field ("cs_generated_id" without a schema).
  const std::string& Field(const std::string& component, const std::string& group,
                           const std::string& key);

 private:
  std::map<std::string, std::string> fields_;
};

// Calls `visit` for every object of a configuration document (root "profile"
// or components at the root): a singleton value (also the string
// "DELETE_DEFAULT") once with an empty identifier, an array once per element.
// `what` names the document in STORE_BAD_VALUE messages.
void ForEachObject(const rapidjson::Value& document, const std::string& what,
                   InstanceResolver& resolver, const std::function<void(DocObject&)>& visit);

// Replaces the staged desired rows of `scope` with the document's objects.
void StageDocument(Impl& impl, const char* scope, const rapidjson::Value& document,
                   const std::string& what);

// Reads rows (component, grp, name, identifier, value, autoconf) into maps.
ConfigMapList ReadMaps(Cursor& cursor);

}  // namespace detail
}  // namespace QenConfigStore
