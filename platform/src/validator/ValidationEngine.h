// Walks a value against a compiled schema and appends error objects to the
// caller's result. One engine per call; not thread-safe.
//
// Alternatives ("anyOf", "oneOf", "not") are tried in probe mode: findings
// only mark the attempt as failed and nothing is emitted, so a failed branch
// does not leak its errors into the result. Suppressed codes never count as
// failures, in probes either.
#pragma once

#include <bitset>
#include <initializer_list>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "QenJson.h"
#include "SchemaCompiler.h"

namespace QenValidator {

// "integer" for integral numbers (see TypeBit), else the JSON type's name.
const char* JsonTypeName(const rapidjson::Value& value);

class Engine {
 public:
  Engine(const std::set<int>& suppressed, rapidjson::Document& errors, std::string prefix);

  // Validates `value` at the current path.
  void Check(const Node* node, const rapidjson::Value& value);
  // Reports a schema that could not be compiled, at the current path.
  void ReportSchemaErrors(const std::vector<SchemaError>& errors);
  // Emits a deferred NESTING_TOO_DEEP found only inside probes; call once at the end.
  void Finish();

  void PushName(std::string_view name) { path_.push_back({name, kNoIndex}); }
  void PushIndex(size_t index) { path_.push_back({{}, index}); }
  void Pop() { path_.pop_back(); }

  // Whether `code` is reported and must be built (false when suppressed or
  // while probing). Marks the current attempt failed unless suppressed.
  bool Fails(int code);
  // Appends an error at the current path (plus `member`, when not empty).
  void Emit(int code, std::vector<std::string> args, std::string_view member = {});

 private:
  static constexpr size_t kNoIndex = static_cast<size_t>(-1);
  struct Segment {
    std::string_view name;
    size_t index;
  };

  bool Probe(const Node* node, const rapidjson::Value& value);
  void CheckAdvisories(const Node& node, const rapidjson::Value& value);
  void CheckNumber(const Node& node, const rapidjson::Value& value);
  void CheckString(const Node& node, const rapidjson::Value& value);
  void CheckArray(const Node& node, const rapidjson::Value& value);
  void CheckObject(const Node& node, const rapidjson::Value& value);
  void CheckCombinations(const Node& node, const rapidjson::Value& value);
  void CheckUnion(const Node& node, const rapidjson::Value& value);
  std::string ValueText(const rapidjson::Value& value) const;
  std::string LastName() const;
  bool Stop() const { return probing_ > 0 && failed_; }

  std::bitset<64> suppressed_;
  rapidjson::Document& errors_;
  std::string prefix_;
  std::vector<Segment> path_;
  int depth_ = 0;
  int probing_ = 0;
  bool failed_ = false;
  bool sensitive_ = false;
  bool deepHit_ = false;
  bool deepReported_ = false;
};

}  // namespace QenValidator
