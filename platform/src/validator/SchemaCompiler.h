// Compiles a JSON Schema document (RapidJSON DOM) into a graph of Nodes that
// the validation engine walks. Compiling once per call keeps the per-value
// work free of keyword lookups and type checks on the schema, and lets every
// malformed keyword be reported before any value is judged.
//
// The Nodes borrow strings and values from the schema document: the document
// must outlive the compiled schema. Not thread-safe; one per call.
#pragma once

#include <deque>
#include <memory>
#include <regex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "PatternDfa.h"
#include "QenJson.h"

namespace QenValidator {

enum TypeBit : unsigned {
  kNull = 1u << 0,
  kBoolean = 1u << 1,
  kObject = 1u << 2,
  kArray = 1u << 3,
  kString = 1u << 4,
  kNumber = 1u << 5,   // any number
  kInteger = 1u << 6,  // integral numbers only
};

struct Node;

// A pattern within PatternDfa's subset is matched by its automaton alone.
// Others use std::regex: libstdc++'s default (backtracking) matcher recurses
// once per subject character and overflows the stack on long strings; its
// polynomial mode keeps the stack flat but is about three times slower.
// Short subjects take the fast matcher, long ones the flat one.
struct Pattern {
  static constexpr size_t kShortSubject = 256;
  std::string text;
  std::unique_ptr<PatternDfa> dfa;
  std::regex fast;                   // unused with an automaton
  std::unique_ptr<std::regex> flat;  // null with an automaton or back-references

  bool Matches(std::string_view subject) const {
    return dfa ? dfa->Matches(subject) : MatchesRegex(subject);
  }
  bool MatchesRegex(std::string_view subject) const;
};

struct Dependency {
  std::string_view name;
  std::vector<std::string_view> required;  // property dependency
  const Node* schema = nullptr;            // schema dependency
};

constexpr size_t kNoProperty = static_cast<size_t>(-1);

struct Property {
  std::string_view name;
  const Node* node;
};

struct Variant {
  const rapidjson::Value* tags;  // the variant's "enum" of the tag member
  const Node* node;
};

struct Node {
  const rapidjson::Value* source = nullptr;
  const Node* ref = nullptr;  // "$ref": the only keyword that applies

  unsigned types = 0;  // TypeBit mask; 0 = any type
  const rapidjson::Value* enumValues = nullptr;

  // numbers
  const rapidjson::Value* minimum = nullptr;
  const rapidjson::Value* maximum = nullptr;
  bool exclusiveMinimum = false;
  bool exclusiveMaximum = false;
  const rapidjson::Value* multipleOf = nullptr;

  // strings
  int64_t minLength = -1;
  int64_t maxLength = -1;
  const Pattern* pattern = nullptr;

  // arrays
  const Node* items = nullptr;            // one schema for every item
  bool tupleForm = false;                 // "items" given as an array
  std::vector<const Node*> tupleItems;
  bool additionalItemsAllowed = true;
  const Node* additionalItems = nullptr;
  int64_t minItems = -1;
  int64_t maxItems = -1;
  bool uniqueItems = false;
  std::string_view instanceId;  // empty, or a member that identifies items

  // objects: "properties" in schema order (a repeated name keeps its first
  // place and its last schema) and by name
  std::vector<Property> properties;
  std::unordered_map<std::string_view, size_t> propertyIndex;
  std::vector<std::pair<const Pattern*, const Node*>> patternProperties;
  bool additionalPropertiesAllowed = true;
  const Node* additionalProperties = nullptr;
  std::vector<std::string_view> required;
  std::vector<size_t> requiredProperty;  // parallel: index in properties, or kNoProperty
  int64_t minProperties = -1;
  int64_t maxProperties = -1;
  std::vector<Dependency> dependencies;

  // combinations
  std::vector<const Node*> allOf;
  std::vector<const Node*> anyOf;
  std::vector<const Node*> oneOf;
  const Node* notNode = nullptr;
  std::string_view discriminator;
  std::vector<Variant> variants;  // parallel to oneOf when discriminated

  // annotations that produce advisory findings
  bool readOnly = false;
  bool deprecated = false;
  bool sensitive = false;
  std::string_view format;
  std::vector<std::string_view> unknownKeywords;

  // Whether any annotation above or any combination applies at all.
  bool hasAdvisories = false;
  bool hasCombinations = false;
  // Whether any keyword beyond the type test needs the value's content.
  bool hasNumberChecks = false;
  bool hasStringChecks = false;
  bool hasArrayChecks = false;
  bool hasObjectChecks = false;
};

struct SchemaError {
  std::string location;  // "#/properties/a/type"
  std::string reason;
};

class CompiledSchema {
 public:
  // Compiles the whole document `root`; problems land in Errors().
  explicit CompiledSchema(const rapidjson::Value& root);
  // Compiles only `start` (at `location`) and what it refers to; "$ref"s
  // still resolve against `root`.
  CompiledSchema(const rapidjson::Value& root, const rapidjson::Value& start,
                 const std::string& location);

  const Node* Root() const { return root_; }
  // The node compiled from a schema value inside the document, or null.
  const Node* NodeFor(const rapidjson::Value* schema) const;
  const std::vector<SchemaError>& Errors() const { return errors_; }

 private:
  const Node* Compile(const rapidjson::Value& schema, const std::string& location, int depth);
  void CompileKeywords(Node& node, const rapidjson::Value& schema, const std::string& location,
                       int depth);
  const Node* ResolveRef(const rapidjson::Value& ref, const std::string& location, int depth);
  void CheckRefCycles();
  void Fail(const std::string& location, std::string reason);
  // The compiled pattern of `text`, compiled once per schema; null (and a
  // failure at `location`) when it is not a valid regular expression.
  const Pattern* PatternFor(std::string_view text, const std::string& location);

  const rapidjson::Value& doc_;
  std::deque<Node> nodes_;
  std::unordered_map<const rapidjson::Value*, Node*> byValue_;
  // By text; a pattern that failed to compile keeps its reason instead.
  std::unordered_map<std::string, std::unique_ptr<Pattern>> patterns_;
  std::unordered_map<std::string, std::string> badPatterns_;
  std::vector<SchemaError> errors_;
  const Node* root_ = nullptr;
};

// Appends "/" and the RFC 6901-escaped token ("~" -> "~0", "/" -> "~1").
void AppendToken(std::string& pointer, std::string_view token);
// `location` followed by the escaped token.
std::string AppendPointer(const std::string& location, std::string_view token);

}  // namespace QenValidator
