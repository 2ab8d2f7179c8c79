// The steps of the host configuration API, shared by its two units and
// reached by the tests. Same threading rules as configmanager/hostapi.h.
#pragma once

#include <memory>
#include <string>

#include "configmanager/hostapi.h"

namespace QenConfigManager {

// The key's schema. Throws ConfigManagerException 2180 (no schema store) or
// 2021 with the key's id text.
std::shared_ptr<SchemaObject> CheckSchemaExists(const std::string& component,
                                                const std::string& group, const std::string& key);

// A store connection; ConfigManagerException 2001 when there is none.
std::shared_ptr<DBStore::StoreConnection> OpenStore();

// The key's current value text: from its one extract plugin when the plugin
// feature switch is on and a plugin serves the key, else from the store.
// Throws 2033 (several extract plugins), 2031 (the plugin failed), 2032 (it
// returned an object that fails the key's schema), with the plugin's id.
std::string GetCurrentConfig(const std::string& component, const std::string& group,
                             const std::string& key, const std::shared_ptr<SchemaObject>& schema,
                             const std::shared_ptr<DBStore::StoreConnection>& connection,
                             bool presentation);

// The objects' value text (see GetConfig); `presentation` false keeps what a
// document for the drift walk needs (generated identifiers, defaults).
std::string FormatConfigObjects(const std::string& component, const std::string& group,
                                const std::string& key, const std::shared_ptr<SchemaObject>& schema,
                                const ConfigStoreObjectList& objects, bool presentation);

// Adds `value` as doc[component][group][key]; an array's elements are
// appended to the key's array. Nothing for an empty value. `value` is copied.
void InsertKeyValue(rapidjson::Value& doc, const std::string& component, const std::string& group,
                    const std::string& key, const rapidjson::Value& value,
                    rapidjson::Document::AllocatorType& allocator);

// Refuses (HostInDBM 2029) when an object the key's plugins work with has a
// change staged for the next boot, then adds the current values of those
// objects (other than `id`) to `doc`.
void CheckDependentsInDesired(const ConfigStoreObjectId& id,
                              const std::shared_ptr<DBStore::StoreConnection>& connection,
                              rapidjson::Document& doc);

// Turns `current` into `desired` through the apply plugins (the apply
// runner, with an input no apply plugin serves refused as 2085).
ErrorInfo RemediateHostConfig(rapidjson::Document& desired, const rapidjson::Document& current,
                              const std::shared_ptr<TaskHandle>& task);

}  // namespace QenConfigManager
