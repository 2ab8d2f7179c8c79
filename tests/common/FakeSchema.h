// A key schema that answers only what the document functions ask: whether
// the key is non-singleton, its instance field and its solution users.
#pragma once

#include <string>
#include <vector>

#include "QenSchemaStore.h"

namespace QenTest {

class FakeSchema : public QenSchemaStore::SchemaObject {
 public:
  FakeSchema(bool nonSingleton, std::string field, std::vector<std::string> solution)
      : nonSingleton_(nonSingleton), field_(std::move(field)), solution_(std::move(solution)) {}
  const QenSchemaStore::SchemaObjectId& GetId() const override { return id_; }
  bool IsNonSingleton() const override { return nonSingleton_; }
  const std::string& GetInstanceIdField() const override { return field_; }
  const rapidjson::Value& GetSchemaJson() const override { return json_; }
  std::vector<std::string> GetSolutionUserInstances() const override {
    ++solutionQueries;
    return solution_;
  }
  std::string GetUserConfigText() const override { return "Users"; }
  const std::string& GetLabel() const override { return field_; }
  bool IsTelemetryDisabled() const override { return false; }
  bool IsDspIntegrated() const override { return true; }
  bool IsMutableDefault(bool) const override { return false; }
  const std::string& GetSourceFile() const override { return field_; }
  int GetRebootOperations(std::vector<std::string>&, bool&) const override { return 0; }
  int GetMaintenanceModeOperations(std::vector<std::string>&, bool&) const override { return 0; }

  mutable int solutionQueries = 0;

 private:
  QenSchemaStore::SchemaObjectId id_{"system", "users", "user"};
  bool nonSingleton_;
  std::string field_;
  std::vector<std::string> solution_;
  rapidjson::Value json_;
};

}  // namespace QenTest
