// GCC 12 reports a false -Wmaybe-uninitialized inside libstdc++'s regex
// compiler when it is built with sanitizers; the warning is in the library's
// own code, instantiated here.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include "SchemaCompiler.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <vector>

#include "JsonValidator.h"

namespace QenValidator {

namespace {

constexpr unsigned long kMaxRepeatedElements = 100000;

// Why std::regex must not be given a pattern, or "": libstdc++ builds one
// automaton state per repeated element, so counted repetitions ("{n}",
// "{n,m}") are bounded by what they expand to, nesting multiplied; and it
// reads counts and back-reference numbers into a long without checking for
// overflow.
std::string TooLargeForRegex(std::string_view text) {
  const unsigned long over = kMaxRepeatedElements + 1;
  auto times = [&](unsigned long a, unsigned long b) { return b && a > over / b ? over : std::min(a * b, over); };
  std::vector<unsigned long> sums(1, 0);  // elements of each open group
  unsigned long last = 0;                 // elements of the atom a quantifier applies to
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '(') {
      sums.push_back(0);
      last = 0;
    } else if (c == ')' && sums.size() > 1) {
      last = std::max<unsigned long>(sums.back(), 1);
      sums.pop_back();
      sums.back() = std::min(sums.back() + last, over);
    } else if (c == '{' && i + 1 < text.size() && std::isdigit(static_cast<unsigned char>(text[i + 1]))) {
      // Both bounds are read (and "{n,}" copies the element n times): the
      // larger one counts.
      unsigned long most = 0, count = 0;
      for (++i; i < text.size() && text[i] != '}'; ++i) {
        if (text[i] == ',') count = 0;
        else if (std::isdigit(static_cast<unsigned char>(text[i]))) count = std::min(count * 10 + (text[i] - '0'), over);
        else break;
        most = std::max(most, count);
      }
      const unsigned long grown = times(last, most);
      sums.back() = std::min(sums.back() + (grown > last ? grown - last : 0), over);
      last = grown;
    } else if (c != '|' && c != '*' && c != '+' && c != '?' && c != '^' && c != '$') {
      if (c == '\\' && i + 1 < text.size() && std::isdigit(static_cast<unsigned char>(text[i + 1]))) {
        size_t digits = 0;
        while (i + 1 < text.size() && std::isdigit(static_cast<unsigned char>(text[i + 1]))) ++i, ++digits;
        if (digits > 3) return "back-reference number above 999";
      } else if (c == '\\') {
        ++i;
      }
      if (c == '[') {
        // A class is one element, whatever it holds.
        for (++i; i < text.size() && text[i] != ']'; ++i)
          if (text[i] == '\\') ++i;
      }
      last = 1;
      sums.back() = std::min(sums.back() + 1, over);
    }
    if (sums.back() >= over) break;
  }
  if (sums.back() < over) return "";
  return "repetitions expand to more than " + std::to_string(kMaxRepeatedElements) + " elements";
}

std::string_view View(const rapidjson::Value& s) {
  return std::string_view(s.GetString(), s.GetStringLength());
}

bool IsNonNegativeInteger(const rapidjson::Value& v) {
  return v.IsUint64() || (v.IsInt64() && v.GetInt64() >= 0);
}

int64_t AsCount(const rapidjson::Value& v) {
  // Counts beyond int64 cannot be reached by any real value; clamp them.
  return v.IsInt64() ? v.GetInt64() : INT64_MAX;
}

const rapidjson::Value* Member(const rapidjson::Value& object, const char* name) {
  if (!object.IsObject()) return nullptr;
  auto it = object.FindMember(name);
  return it == object.MemberEnd() ? nullptr : &it->value;
}

unsigned TypeBitOf(std::string_view name) {
  if (name == "null") return kNull;
  if (name == "boolean") return kBoolean;
  if (name == "object") return kObject;
  if (name == "array") return kArray;
  if (name == "string") return kString;
  if (name == "number") return kNumber;
  if (name == "integer") return kInteger;
  return 0;
}

// Keywords that carry no constraint: accepted silently.
bool IsAnnotation(std::string_view k) {
  return k == "$schema" || k == "id" || k == "title" || k == "description" || k == "default" ||
         k == "examples" || k == "$comment" || k == "rebootRequired" ||
         k == "maintenanceModeRequired" || k == "telemetryDisabled";
}

}  // namespace

bool Pattern::MatchesRegex(std::string_view subject) const {
  try {
    if (subject.size() <= kShortSubject) return std::regex_search(subject.begin(), subject.end(), fast);
    // Without a flat matcher a long subject fails closed: it is not shown to match.
    return flat && std::regex_search(subject.begin(), subject.end(), *flat);
  } catch (const std::regex_error&) {
    return false;  // the matcher gave up (complexity); not shown to match
  }
}

void AppendToken(std::string& pointer, std::string_view token) {
  pointer += '/';
  for (char c : token) {
    if (c == '~') {
      pointer += "~0";
    } else if (c == '/') {
      pointer += "~1";
    } else {
      pointer += c;
    }
  }
}

std::string AppendPointer(const std::string& location, std::string_view token) {
  std::string out;
  out.reserve(location.size() + token.size() + 1);
  out += location;
  AppendToken(out, token);
  return out;
}

CompiledSchema::CompiledSchema(const rapidjson::Value& root) : CompiledSchema(root, root, "#") {}

CompiledSchema::CompiledSchema(const rapidjson::Value& root, const rapidjson::Value& start,
                               const std::string& location)
    : doc_(root) {
  root_ = Compile(start, location, 0);
  CheckRefCycles();
}

const Node* CompiledSchema::NodeFor(const rapidjson::Value* schema) const {
  auto it = byValue_.find(schema);
  return it == byValue_.end() ? nullptr : it->second;
}

void CompiledSchema::Fail(const std::string& location, std::string reason) {
  errors_.push_back({location, std::move(reason)});
}

const Pattern* CompiledSchema::PatternFor(std::string_view text, const std::string& location) {
  std::string key(text);
  auto known = patterns_.find(key);
  if (known != patterns_.end()) return known->second.get();
  auto bad = badPatterns_.find(key);
  if (bad != badPatterns_.end()) {
    Fail(location, bad->second);
    return nullptr;
  }
  auto p = std::make_unique<Pattern>();
  p->text = key;
  const std::string tooLarge = TooLargeForRegex(text);
  if (!tooLarge.empty()) {
    std::string reason = "invalid regular expression \"" + p->text + "\": " + tooLarge;
    Fail(location, reason);
    badPatterns_.emplace(std::move(key), std::move(reason));
    return nullptr;
  }
  // The automaton accepts only patterns std::regex compiles, so a pattern it
  // takes needs no regex at all.
  p->dfa = PatternDfa::Build(text);
  if (!p->dfa) {
    try {
      p->fast = std::regex(p->text, std::regex::ECMAScript);
    } catch (const std::regex_error& e) {
      std::string reason = "invalid regular expression \"" + p->text + "\": " + e.what();
      Fail(location, reason);
      badPatterns_.emplace(std::move(key), std::move(reason));
      return nullptr;
    }
    try {
      p->flat = std::make_unique<std::regex>(
          p->text, std::regex::ECMAScript | std::regex_constants::__polynomial);
    } catch (const std::regex_error&) {
      // Back-references: long subjects cannot be matched safely (see Matches).
    }
  }
  return patterns_.emplace(std::move(key), std::move(p)).first->second.get();
}

const Node* CompiledSchema::Compile(const rapidjson::Value& schema, const std::string& location,
                                    int depth) {
  auto found = byValue_.find(&schema);
  if (found != byValue_.end()) return found->second;
  Node& node = nodes_.emplace_back();
  node.source = &schema;
  byValue_.emplace(&schema, &node);
  if (depth > JsonValidator::kMaxDepth) {
    Fail(location, "schema nested deeper than " + std::to_string(JsonValidator::kMaxDepth) +
                       " levels");
  } else if (!schema.IsObject()) {
    Fail(location, "a schema must be a JSON object");
  } else {
    CompileKeywords(node, schema, location, depth);
  }
  return &node;
}

const Node* CompiledSchema::ResolveRef(const rapidjson::Value& ref, const std::string& location,
                                       int depth) {
  if (!ref.IsString()) {
    Fail(location, "\"$ref\" must be a string");
    return nullptr;
  }
  std::string_view text = View(ref);
  if (text.empty() || text[0] != '#') {
    Fail(location, "remote $ref \"" + std::string(text) + "\" is not supported");
    return nullptr;
  }
  rapidjson::Pointer pointer(text.data(), text.size());
  if (!pointer.IsValid()) {
    Fail(location, "$ref \"" + std::string(text) + "\" is not a valid JSON Pointer");
    return nullptr;
  }
  const rapidjson::Value* target = pointer.Get(doc_);
  if (target == nullptr) {
    Fail(location, "$ref \"" + std::string(text) + "\" does not resolve");
    return nullptr;
  }
  return Compile(*target, std::string(text), depth + 1);
}

void CompiledSchema::CheckRefCycles() {
  for (Node& node : nodes_) {
    const Node* target = node.ref;
    size_t steps = 0;
    while (target != nullptr && target->ref != nullptr && steps <= nodes_.size()) {
      target = target->ref;
      ++steps;
    }
    if (steps > nodes_.size()) {
      Fail("#", "circular $ref chain");
      node.ref = nullptr;
    } else if (target != nullptr) {
      node.ref = target;  // jump straight to the schema that does the work
    }
  }
}

void CompiledSchema::CompileKeywords(Node& node, const rapidjson::Value& schema,
                                     const std::string& location, int depth) {
  auto sub = [&](const rapidjson::Value& v, const std::string& where) {
    return Compile(v, where, depth + 1);
  };
  auto schemaList = [&](const rapidjson::Value& v, const std::string& where, const char* name,
                        std::vector<const Node*>& out) {
    if (!v.IsArray() || v.Empty()) {
      Fail(where, std::string("\"") + name + "\" must be a non-empty array of schemas");
      return;
    }
    for (rapidjson::SizeType i = 0; i < v.Size(); ++i) {
      out.push_back(sub(v[i], AppendPointer(where, std::to_string(i))));
    }
  };
  auto count = [&](const rapidjson::Value& v, const std::string& where, const char* name,
                   int64_t& out) {
    if (!IsNonNegativeInteger(v)) {
      Fail(where, std::string("\"") + name + "\" must be a non-negative integer");
      return false;
    }
    out = AsCount(v);
    return true;
  };
  auto flag = [&](const rapidjson::Value& v, const std::string& where, const char* name,
                  bool& out) {
    if (!v.IsBool()) {
      Fail(where, std::string("\"") + name + "\" must be a boolean");
      return;
    }
    out = v.GetBool();
  };
  auto schemaMap = [&](const rapidjson::Value& v, const std::string& where, const char* name) {
    if (!v.IsObject()) {
      Fail(where, std::string("\"") + name + "\" must be an object of schemas");
      return false;
    }
    return true;
  };

  if (auto* ref = Member(schema, "$ref")) {
    // A $ref replaces its siblings; "definitions" is still compiled so that a
    // broken definition is reported even when nothing refers to it.
    node.ref = ResolveRef(*ref, AppendPointer(location, "$ref"), depth);
    if (auto* defs = Member(schema, "definitions")) {
      std::string where = AppendPointer(location, "definitions");
      if (schemaMap(*defs, where, "definitions")) {
        for (auto& m : defs->GetObject()) sub(m.value, AppendPointer(where, View(m.name)));
      }
    }
    return;
  }

  for (auto& member : schema.GetObject()) {
    std::string_view k = View(member.name);
    const rapidjson::Value& v = member.value;
    std::string where = AppendPointer(location, k);
    if (k == "type") {
      auto add = [&](const rapidjson::Value& t) {
        unsigned bit = t.IsString() ? TypeBitOf(View(t)) : 0;
        if (bit == 0) Fail(where, "\"type\" names an unknown type");
        node.types |= bit;
      };
      if (v.IsArray() && !v.Empty()) {
        for (auto& t : v.GetArray()) add(t);
      } else if (v.IsString()) {
        add(v);
      } else {
        Fail(where, "\"type\" must be a type name or a non-empty array of type names");
      }
    } else if (k == "enum") {
      if (!v.IsArray() || v.Empty()) {
        Fail(where, "\"enum\" must be a non-empty array");
      } else {
        node.enumValues = &v;
      }
    } else if (k == "minimum" || k == "maximum" || k == "multipleOf") {
      if (!v.IsNumber()) {
        Fail(where, "\"" + std::string(k) + "\" must be a number");
      } else if (k == "multipleOf" && !(v.GetDouble() > 0)) {
        Fail(where, "\"multipleOf\" must be greater than 0");
      } else {
        (k == "minimum" ? node.minimum : k == "maximum" ? node.maximum : node.multipleOf) = &v;
        node.hasNumberChecks = true;
      }
    } else if (k == "exclusiveMinimum") {
      flag(v, where, "exclusiveMinimum", node.exclusiveMinimum);
    } else if (k == "exclusiveMaximum") {
      flag(v, where, "exclusiveMaximum", node.exclusiveMaximum);
    } else if (k == "minLength" || k == "maxLength") {
      if (count(v, where, k == "minLength" ? "minLength" : "maxLength",
                k == "minLength" ? node.minLength : node.maxLength)) {
        node.hasStringChecks = true;
      }
    } else if (k == "pattern") {
      if (!v.IsString()) {
        Fail(where, "\"pattern\" must be a string");
      } else {
        node.pattern = PatternFor(View(v), where);
        node.hasStringChecks = node.hasStringChecks || node.pattern != nullptr;
      }
    } else if (k == "format") {
      if (!v.IsString()) {
        Fail(where, "\"format\" must be a string");
      } else {
        node.format = View(v);
      }
    } else if (k == "items") {
      node.hasArrayChecks = true;
      if (v.IsArray()) {
        node.tupleForm = true;
        for (rapidjson::SizeType i = 0; i < v.Size(); ++i) {
          node.tupleItems.push_back(sub(v[i], AppendPointer(where, std::to_string(i))));
        }
      } else {
        node.items = sub(v, where);
      }
    } else if (k == "additionalItems") {
      node.hasArrayChecks = true;
      if (v.IsBool()) {
        node.additionalItemsAllowed = v.GetBool();
      } else {
        node.additionalItems = sub(v, where);
      }
    } else if (k == "minItems" || k == "maxItems") {
      if (count(v, where, k == "minItems" ? "minItems" : "maxItems",
                k == "minItems" ? node.minItems : node.maxItems)) {
        node.hasArrayChecks = true;
      }
    } else if (k == "uniqueItems") {
      flag(v, where, "uniqueItems", node.uniqueItems);
      node.hasArrayChecks = node.hasArrayChecks || node.uniqueItems;
    } else if (k == "instanceId") {
      if (!v.IsString()) {
        Fail(where, "\"instanceId\" must be a string");
      } else if (View(v) != "cs_generated_id") {
        // Generated identifiers are assigned by the store, so their absence
        // says nothing.
        node.instanceId = View(v);
        node.hasArrayChecks = true;
      }
    } else if (k == "properties") {
      if (schemaMap(v, where, "properties")) {
        node.hasObjectChecks = true;
        for (auto& m : v.GetObject()) {
          const Node* target = sub(m.value, AppendPointer(where, View(m.name)));
          auto [at, added] = node.propertyIndex.emplace(View(m.name), node.properties.size());
          if (added) {
            node.properties.push_back({View(m.name), target});
          } else {
            node.properties[at->second].node = target;
          }
        }
      }
    } else if (k == "patternProperties") {
      if (schemaMap(v, where, "patternProperties")) {
        node.hasObjectChecks = true;
        for (auto& m : v.GetObject()) {
          std::string at = AppendPointer(where, View(m.name));
          const Pattern* p = PatternFor(View(m.name), at);
          const Node* target = sub(m.value, at);
          if (p) node.patternProperties.emplace_back(p, target);
        }
      }
    } else if (k == "additionalProperties") {
      node.hasObjectChecks = true;
      if (v.IsBool()) {
        node.additionalPropertiesAllowed = v.GetBool();
      } else {
        node.additionalProperties = sub(v, where);
      }
    } else if (k == "required") {
      bool ok = v.IsArray();
      if (ok) {
        for (auto& r : v.GetArray()) ok = ok && r.IsString();
      }
      if (!ok) {
        Fail(where, "\"required\" must be an array of strings");
      } else {
        for (auto& r : v.GetArray()) node.required.push_back(View(r));
        node.hasObjectChecks = node.hasObjectChecks || !node.required.empty();
      }
    } else if (k == "minProperties" || k == "maxProperties") {
      if (count(v, where, k == "minProperties" ? "minProperties" : "maxProperties",
                k == "minProperties" ? node.minProperties : node.maxProperties)) {
        node.hasObjectChecks = true;
      }
    } else if (k == "dependencies") {
      if (!v.IsObject()) {
        Fail(where, "\"dependencies\" must be an object");
        continue;
      }
      node.hasObjectChecks = true;
      for (auto& m : v.GetObject()) {
        Dependency dep;
        dep.name = View(m.name);
        std::string at = AppendPointer(where, dep.name);
        if (m.value.IsArray()) {
          bool ok = true;
          for (auto& r : m.value.GetArray()) {
            if (r.IsString()) {
              dep.required.push_back(View(r));
            } else {
              ok = false;
            }
          }
          if (!ok) Fail(at, "a property dependency must list property names");
        } else {
          dep.schema = sub(m.value, at);
        }
        node.dependencies.push_back(std::move(dep));
      }
    } else if (k == "allOf") {
      schemaList(v, where, "allOf", node.allOf);
    } else if (k == "anyOf") {
      schemaList(v, where, "anyOf", node.anyOf);
    } else if (k == "oneOf") {
      schemaList(v, where, "oneOf", node.oneOf);
    } else if (k == "not") {
      node.notNode = sub(v, where);
    } else if (k == "definitions") {
      if (schemaMap(v, where, "definitions")) {
        for (auto& m : v.GetObject()) sub(m.value, AppendPointer(where, View(m.name)));
      }
    } else if (k == "discriminator") {
      if (!v.IsString() || v.GetStringLength() == 0) {
        Fail(where, "\"discriminator\" must be a non-empty member name");
      } else {
        node.discriminator = View(v);
      }
    } else if (k == "readOnly") {
      flag(v, where, "readOnly", node.readOnly);
    } else if (k == "deprecated") {
      flag(v, where, "deprecated", node.deprecated);
    } else if (k == "sensitive") {
      flag(v, where, "sensitive", node.sensitive);
    } else if (!IsAnnotation(k)) {
      node.unknownKeywords.push_back(k);
    }
  }

  for (std::string_view name : node.required) {
    auto it = node.propertyIndex.find(name);
    node.requiredProperty.push_back(it == node.propertyIndex.end() ? kNoProperty : it->second);
  }
  node.hasAdvisories = !node.unknownKeywords.empty() || !node.format.empty() || node.readOnly ||
                       node.deprecated;
  node.hasCombinations = !node.allOf.empty() || !node.anyOf.empty() || !node.oneOf.empty() ||
                         node.notNode != nullptr;

  if (!node.discriminator.empty()) {
    std::string where = AppendPointer(location, "discriminator");
    if (node.oneOf.empty()) {
      Fail(where, "\"discriminator\" needs a \"oneOf\" list of variants");
      node.discriminator = {};
      return;
    }
    std::string member(node.discriminator);
    for (size_t i = 0; i < node.oneOf.size(); ++i) {
      const Node* variant = node.oneOf[i];
      const Node* body = variant;
      for (size_t hops = 0; body->ref != nullptr && hops <= nodes_.size(); ++hops) body = body->ref;
      const rapidjson::Value* props = Member(*body->source, "properties");
      const rapidjson::Value* tag = props ? Member(*props, member.c_str()) : nullptr;
      const rapidjson::Value* tags = tag ? Member(*tag, "enum") : nullptr;
      if (tags == nullptr || !tags->IsArray() || tags->Empty()) {
        Fail(AppendPointer(AppendPointer(location, "oneOf"), std::to_string(i)),
             "variant does not fix \"" + member + "\" with a non-empty \"enum\"");
        continue;
      }
      node.variants.push_back({tags, variant});
    }
  }
}

}  // namespace QenValidator
