// Helpers of the foundation tests: parsing and printing through the library,
// the (code, message, arguments) of a thrown failure, and a key schema that
// answers only what the document functions ask (non-singleton, instance
// field, solution users).
#pragma once

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <tuple>
#include <vector>

#include "QenSchemaStore.h"
#include "configmanager/common.h"

namespace QenTest {

using Args = std::list<std::string>;
using Failure = std::tuple<int, std::string, Args>;

inline rapidjson::Document Parse(const std::string& text) {
  rapidjson::Document d;
  QenConfigManager::ParseDocument(text, d);
  return d;
}

inline std::string Compact(const rapidjson::Value& v) {
  std::string out;
  QenConfigManager::SerializeValue(v, out);
  return out;
}

// Runs `raise`, expects an E, and returns its (code, message, arguments).
template <typename E, typename F>
Failure FailureOf(F raise) {
  try {
    raise();
  } catch (const E& e) {
    return std::make_tuple(e.GetErrorCode(), std::string(e.what()), e.GetArgs());
  } catch (const std::exception& e) {
    ADD_FAILURE() << "wrong exception type: " << e.what();
    return {};
  }
  ADD_FAILURE() << "nothing thrown";
  return {};
}

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
