// Key schemas and store lists shared by the extraction and export tests.
#pragma once

#include <memory>
#include <string>

#include "configmanager/common.h"

// sys/time/zone: a singleton whose default is mutable on the host.
inline const char* kZoneSchema = R"({
  "component": "sys", "group": "time", "key": "zone", "singleton": true, "userConfig": "zone",
  "mutableDefault": {"host": true},
  "schema": {"type": "object", "properties": {"zone": {"type": "string"}}}})";

// The list a store gives for one singleton value. The store refuses bad
// JSON, so tests of damaged values hand such a list over themselves.
inline QenConfigManager::ConfigMapList SingletonList(const std::string& component,
                                                     const std::string& group,
                                                     const std::string& key,
                                                     const std::string& value) {
  auto list = std::make_shared<QenConfigManager::ConfigMapVector>();
  list->push_back(std::make_shared<QenConfigManager::ConfigMap>(QenConfigManager::ConfigMap{
      {"Component", component}, {"ConfigGroup", group}, {"Name", key}, {"Identifier", ""},
      {"Value", value}}));
  return list;
}
