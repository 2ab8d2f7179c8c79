// Shared by the drift tests: key schemas in a temporary host root, a handler
// that records every event as one line of text, and the literal pairing
// search that the indexed matchers must reproduce.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "HostRootTest.h"
#include "configmanager/drift.h"
#include "drift/drift_engine.h"

namespace DriftTest {

// Compact JSON text; kEmptyVal itself is written as "-" so tests see which
// side the engine reported as missing.
std::string Text(const rapidjson::Value& value);

// One line per event:
//   ADD <path> <instance id> <desired>
//   SET <path> <instance id> <desired> <host> <drift document>
//   DELETE <path> <instance id> <host>
//   PROP <SET|ADD|DELETE> <path> <desired> <host>
class RecordingHandler : public QenConfigManager::DriftHandler {
 public:
  void Add(const rapidjson::Value& desired, const QenConfigManager::ConfigStoreObjectId& id,
           const std::shared_ptr<QenConfigManager::SchemaObject>& schema,
           const std::string& path) override;
  void Set(const rapidjson::Value& desired, const rapidjson::Value& host,
           const QenConfigManager::ConfigStoreObjectId& id,
           const std::shared_ptr<QenConfigManager::SchemaObject>& schema, const std::string& path,
           const rapidjson::Value& drift) override;
  void Delete(const rapidjson::Value& host, const QenConfigManager::ConfigStoreObjectId& id,
              const std::shared_ptr<QenConfigManager::SchemaObject>& schema,
              const std::string& path) override;
  void PropertyDrift(const rapidjson::Value& desired, const rapidjson::Value& host,
                     const rapidjson::Value& propertySchema, const std::string& path,
                     QenConfigManager::ACTION action) override;

  std::vector<std::string> events;
};

// Pairing by a literal search of the remaining host indices, highest first.
const QenConfigManager::drift::MatcherFactory& LiteralMatchers();

// Key schemas of component "c", group "g" (and "qen"/"system"/"installer"):
//   single   singleton: a (string), b (integer), tags (string array),
//            sub {x, y}, list (objects by "name": name, v, sub), gen (objects
//            by generated id: cs_generated_id, v), secret (sensitive)
//   nat      instances by "name": name, v, tags, nested (objects by "id")
//   genk     instances by generated id: cs_generated_id, v, tags
//   other    singleton: a
class DriftFixture : public QenTest::HostRootTest {
 protected:
  void SetUp() override;

  // Runs ComputeDrift of `desired` against `host` (given as the handler's
  // current document) and returns the recorded events.
  std::vector<std::string> Drift(const std::string& desired, const std::string& host);
  std::vector<std::string> Drift(rapidjson::Document& desired, const std::string& host);

  void WriteSchema(const std::string& component, const std::string& group, const std::string& key,
                   const std::string& instanceId, const std::string& schema);

  RecordingHandler handler;
};

std::shared_ptr<QenConfigStore::JsonDoc> Parse(const std::string& text);

}  // namespace DriftTest
