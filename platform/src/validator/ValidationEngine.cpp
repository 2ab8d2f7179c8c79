#include "ValidationEngine.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

#include "ErrorTable.h"
#include "JsonValidator.h"

namespace QenValidator {

namespace {

constexpr size_t kMaxValueText = 80;

// A RapidJSON output stream that keeps only the first bytes it is given, so
// that quoting a huge value in a message costs little memory.
struct BoundedStream {
  using Ch = char;
  std::string text;
  bool truncated = false;
  void Put(char c) {
    if (text.size() < kMaxValueText) {
      text += c;
    } else {
      truncated = true;
    }
  }
  void Flush() {}
};

// Compact JSON of a schema part (never redacted: it is not configuration).
std::string SchemaText(const rapidjson::Value& value) {
  BoundedStream out;
  rapidjson::Writer<BoundedStream> writer(out);
  value.Accept(writer);
  if (out.truncated) out.text += "...";
  return out.text;
}

std::string_view View(const rapidjson::Value& s) {
  return std::string_view(s.GetString(), s.GetStringLength());
}

bool IsIntegral(const rapidjson::Value& v) {
  if (v.IsInt64() || v.IsUint64()) return true;
  if (!v.IsDouble()) return false;
  // A double inside the 64-bit range was written with a fraction or an
  // exponent; beyond it, the text was an integer too large to keep exactly.
  double d = v.GetDouble();
  return std::isfinite(d) && std::trunc(d) == d && (d >= 18446744073709551616.0 || d < -9223372036854775808.0);
}

unsigned TypeBitsOf(const rapidjson::Value& v) {
  switch (v.GetType()) {
    case rapidjson::kNullType: return kNull;
    case rapidjson::kFalseType:
    case rapidjson::kTrueType: return kBoolean;
    case rapidjson::kObjectType: return kObject;
    case rapidjson::kArrayType: return kArray;
    case rapidjson::kStringType: return kString;
    case rapidjson::kNumberType: return kNumber | (IsIntegral(v) ? kInteger : 0u);
  }
  return 0;
}

}  // namespace

const char* JsonTypeName(const rapidjson::Value& v) {
  switch (v.GetType()) {
    case rapidjson::kNullType: return "null";
    case rapidjson::kFalseType:
    case rapidjson::kTrueType: return "boolean";
    case rapidjson::kObjectType: return "object";
    case rapidjson::kArrayType: return "array";
    case rapidjson::kStringType: return "string";
    case rapidjson::kNumberType: return IsIntegral(v) ? "integer" : "number";
  }
  return "unknown";
}

namespace {

std::string ExpectedTypes(unsigned mask) {
  static const std::pair<unsigned, const char*> kNames[] = {
      {kNull, "null"},     {kBoolean, "boolean"}, {kObject, "object"}, {kArray, "array"},
      {kString, "string"}, {kNumber, "number"},   {kInteger, "integer"}};
  std::string out;
  for (auto& [bit, name] : kNames) {
    if ((mask & bit) == 0) continue;
    if (!out.empty()) out += " or ";
    out += name;
  }
  return out;
}

// <0, 0, >0. Integers compare exactly; anything else as doubles.
int CompareNumbers(const rapidjson::Value& a, const rapidjson::Value& b) {
  bool aInt = a.IsInt64() || a.IsUint64();
  bool bInt = b.IsInt64() || b.IsUint64();
  if (aInt && bInt) {
    if (a.IsInt64() && b.IsInt64()) {
      return a.GetInt64() < b.GetInt64() ? -1 : a.GetInt64() > b.GetInt64() ? 1 : 0;
    }
    if (a.IsUint64() && b.IsUint64()) {
      return a.GetUint64() < b.GetUint64() ? -1 : a.GetUint64() > b.GetUint64() ? 1 : 0;
    }
    // One is negative, the other above the int64 range.
    return a.IsInt64() ? -1 : 1;
  }
  double x = a.GetDouble();
  double y = b.GetDouble();
  return x < y ? -1 : x > y ? 1 : 0;
}

bool IsMultipleOf(const rapidjson::Value& v, const rapidjson::Value& m) {
  if (v.IsInt64() && m.IsInt64()) return v.GetInt64() % m.GetInt64() == 0;
  if (v.IsUint64() && m.IsUint64()) return v.GetUint64() % m.GetUint64() == 0;
  double q = v.GetDouble() / m.GetDouble();
  if (!std::isfinite(q)) return false;
  return std::fabs(q - std::nearbyint(q)) <= 1e-9 * std::max(1.0, std::fabs(q));
}

size_t CodePoints(const rapidjson::Value& s) {
  size_t n = 0;
  const char* p = s.GetString();
  for (rapidjson::SizeType i = 0; i < s.GetStringLength(); ++i) {
    if ((static_cast<unsigned char>(p[i]) & 0xC0) != 0x80) ++n;
  }
  return n;
}

// Deep hash consistent with RapidJSON's operator== (numbers by value, object
// members in any order).
size_t HashValue(const rapidjson::Value& v) {
  switch (v.GetType()) {
    case rapidjson::kNullType: return 0x9e37;
    case rapidjson::kFalseType: return 0x51ed;
    case rapidjson::kTrueType: return 0x7f4a;
    case rapidjson::kNumberType: {
      double d = v.GetDouble();
      return std::hash<double>()(d == 0 ? 0.0 : d);
    }
    case rapidjson::kStringType: return std::hash<std::string_view>()(View(v));
    case rapidjson::kArrayType: {
      size_t h = 0xa77a;
      for (auto& e : v.GetArray()) h = h * 1000003u ^ HashValue(e);
      return h;
    }
    case rapidjson::kObjectType: {
      size_t h = 0x0b1e;
      for (auto& m : v.GetObject()) h += HashValue(m.name) * 31u + HashValue(m.value);
      return h;
    }
  }
  return 0;
}

// Pairs (first equal index, duplicate index), ordered by the duplicate.
// Values count as equal when their hashes are and RapidJSON's == says so.
std::vector<std::pair<size_t, size_t>> Duplicates(const rapidjson::Value& array) {
  // Short arrays: every pair, hashed only when == holds.
  if (array.Size() <= 16) {
    std::vector<std::pair<size_t, size_t>> out;
    for (rapidjson::SizeType j = 1; j < array.Size(); ++j) {
      for (rapidjson::SizeType i = 0; i < j; ++i) {
        if (array[i] == array[j] && HashValue(array[i]) == HashValue(array[j])) {
          out.emplace_back(i, j);
          break;
        }
      }
    }
    return out;
  }
  std::vector<std::pair<size_t, size_t>> hashed;
  hashed.reserve(array.Size());
  for (rapidjson::SizeType i = 0; i < array.Size(); ++i) hashed.emplace_back(HashValue(array[i]), i);
  std::sort(hashed.begin(), hashed.end());
  std::vector<std::pair<size_t, size_t>> out;
  for (size_t start = 0; start < hashed.size();) {
    size_t end = start + 1;
    while (end < hashed.size() && hashed[end].first == hashed[start].first) ++end;
    for (size_t j = start + 1; j < end; ++j) {
      for (size_t i = start; i < j; ++i) {
        auto a = static_cast<rapidjson::SizeType>(hashed[i].second);
        auto b = static_cast<rapidjson::SizeType>(hashed[j].second);
        if (array[a] == array[b]) {
          out.emplace_back(hashed[i].second, hashed[j].second);
          break;
        }
      }
    }
    start = end;
  }
  std::sort(out.begin(), out.end(),
            [](const auto& x, const auto& y) { return x.second < y.second; });
  return out;
}

class DepthGuard {
 public:
  explicit DepthGuard(int& depth) : depth_(depth) { ++depth_; }
  ~DepthGuard() { --depth_; }
  DepthGuard(const DepthGuard&) = delete;
  DepthGuard& operator=(const DepthGuard&) = delete;

 private:
  int& depth_;
};

}  // namespace

Engine::Engine(const std::set<int>& suppressed, rapidjson::Document& errors, std::string prefix)
    : errors_(errors), prefix_(std::move(prefix)) {
  for (int code : suppressed) {
    if (code >= 0 && code < static_cast<int>(suppressed_.size())) suppressed_.set(code);
  }
  // A broken schema must never pass as valid, so its errors cannot be muted.
  suppressed_.reset(JsonValidator::SCHEMA_INVALID);
  if (!errors_.IsArray()) errors_.SetArray();
}

bool Engine::Fails(int code) {
  if (suppressed_.test(code)) return false;
  failed_ = true;
  return probing_ == 0;
}

void Engine::Emit(int code, std::vector<std::string> args, std::string_view member) {
  std::string field = prefix_;
  for (const Segment& s : path_) {
    if (s.index == kNoIndex) {
      AppendToken(field, s.name);
    } else {
      field += '/';
      field += std::to_string(s.index);
    }
  }
  if (!member.empty()) AppendToken(field, member);

  auto& alloc = errors_.GetAllocator();
  rapidjson::Value error(rapidjson::kObjectType);
  error.AddMember("field", rapidjson::Value(field.c_str(), static_cast<rapidjson::SizeType>(field.size()), alloc), alloc);
  error.AddMember("errId", code, alloc);
  std::string text = FormatText(InfoOf(code)->text, args);
  error.AddMember("error", rapidjson::Value(text.c_str(), static_cast<rapidjson::SizeType>(text.size()), alloc), alloc);
  rapidjson::Value list(rapidjson::kArrayType);
  for (const std::string& a : args) {
    list.PushBack(rapidjson::Value(a.c_str(), static_cast<rapidjson::SizeType>(a.size()), alloc), alloc);
  }
  error.AddMember("errArgs", list, alloc);
  errors_.PushBack(error, alloc);
}

void Engine::ReportSchemaErrors(const std::vector<SchemaError>& errors) {
  for (const SchemaError& e : errors) {
    if (Fails(JsonValidator::SCHEMA_INVALID)) {
      Emit(JsonValidator::SCHEMA_INVALID, {e.location, e.reason});
    }
  }
}

void Engine::Finish() {
  if (deepHit_ && !deepReported_ && Fails(JsonValidator::NESTING_TOO_DEEP)) {
    deepReported_ = true;
    Emit(JsonValidator::NESTING_TOO_DEEP, {std::to_string(JsonValidator::kMaxDepth)});
  }
}

std::string Engine::ValueText(const rapidjson::Value& value) const {
  return sensitive_ ? "(sensitive)" : SchemaText(value);
}

std::string Engine::LastName() const {
  if (path_.empty()) return "";
  const Segment& s = path_.back();
  return s.index == kNoIndex ? std::string(s.name) : std::to_string(s.index);
}

bool Engine::Probe(const Node* node, const rapidjson::Value& value) {
  bool outer = failed_;
  failed_ = false;
  ++probing_;
  Check(node, value);
  --probing_;
  bool ok = !failed_;
  failed_ = outer;
  return ok;
}

void Engine::Check(const Node* node, const rapidjson::Value& value) {
  if (node->ref != nullptr) node = node->ref;
  if (depth_ >= JsonValidator::kMaxDepth) {
    deepHit_ = true;
    if (Fails(JsonValidator::NESTING_TOO_DEEP) && !deepReported_) {
      deepReported_ = true;
      Emit(JsonValidator::NESTING_TOO_DEEP, {std::to_string(JsonValidator::kMaxDepth)});
    }
    return;
  }
  DepthGuard depth(depth_);
  bool outerSensitive = sensitive_;
  sensitive_ = sensitive_ || node->sensitive;

  if (node->hasAdvisories) CheckAdvisories(*node, value);

  if (node->types != 0 && (node->types & TypeBitsOf(value)) == 0 &&
      Fails(JsonValidator::TYPE_MISMATCH)) {
    Emit(JsonValidator::TYPE_MISMATCH, {ExpectedTypes(node->types), JsonTypeName(value)});
  }
  if (node->enumValues != nullptr) {
    bool found = false;
    for (auto& candidate : node->enumValues->GetArray()) {
      if (candidate == value) {
        found = true;
        break;
      }
    }
    if (!found && Fails(JsonValidator::ENUM_MISMATCH)) {
      Emit(JsonValidator::ENUM_MISMATCH, {ValueText(value), SchemaText(*node->enumValues)});
    }
  }
  if (!Stop()) {
    switch (value.GetType()) {
      case rapidjson::kNumberType:
        if (node->hasNumberChecks) CheckNumber(*node, value);
        break;
      case rapidjson::kStringType:
        if (node->hasStringChecks) CheckString(*node, value);
        break;
      case rapidjson::kArrayType:
        if (node->hasArrayChecks) CheckArray(*node, value);
        break;
      case rapidjson::kObjectType:
        if (node->hasObjectChecks) CheckObject(*node, value);
        break;
      default:
        break;
    }
  }
  if (node->hasCombinations && !Stop()) CheckCombinations(*node, value);
  sensitive_ = outerSensitive;
}

void Engine::CheckAdvisories(const Node& node, const rapidjson::Value& value) {
  for (std::string_view keyword : node.unknownKeywords) {
    if (Fails(JsonValidator::UNKNOWN_KEYWORD)) {
      Emit(JsonValidator::UNKNOWN_KEYWORD, {std::string(keyword)});
    }
  }
  if (!node.format.empty() && value.IsString() && Fails(JsonValidator::FORMAT_NOT_CHECKED)) {
    Emit(JsonValidator::FORMAT_NOT_CHECKED, {std::string(node.format)});
  }
  if (node.readOnly && Fails(JsonValidator::READ_ONLY_PROPERTY)) {
    Emit(JsonValidator::READ_ONLY_PROPERTY, {LastName()});
  }
  if (node.deprecated && Fails(JsonValidator::DEPRECATED_PROPERTY)) {
    Emit(JsonValidator::DEPRECATED_PROPERTY, {LastName()});
  }

}

void Engine::CheckNumber(const Node& node, const rapidjson::Value& value) {
  if (node.minimum != nullptr) {
    int c = CompareNumbers(value, *node.minimum);
    if (node.exclusiveMinimum ? c <= 0 : c < 0) {
      int code = node.exclusiveMinimum ? JsonValidator::EXCLUSIVE_MINIMUM : JsonValidator::MINIMUM;
      if (Fails(code)) Emit(code, {ValueText(value), SchemaText(*node.minimum)});
    }
  }
  if (node.maximum != nullptr) {
    int c = CompareNumbers(value, *node.maximum);
    if (node.exclusiveMaximum ? c >= 0 : c > 0) {
      int code = node.exclusiveMaximum ? JsonValidator::EXCLUSIVE_MAXIMUM : JsonValidator::MAXIMUM;
      if (Fails(code)) Emit(code, {ValueText(value), SchemaText(*node.maximum)});
    }
  }
  if (node.multipleOf != nullptr && !IsMultipleOf(value, *node.multipleOf) &&
      Fails(JsonValidator::MULTIPLE_OF)) {
    Emit(JsonValidator::MULTIPLE_OF, {ValueText(value), SchemaText(*node.multipleOf)});
  }
}

void Engine::CheckString(const Node& node, const rapidjson::Value& value) {
  // Code points are at most bytes, so a string within maxLength bytes needs
  // no count for it.
  if (node.minLength > 0 || (node.maxLength >= 0 && value.GetStringLength() > node.maxLength)) {
    auto length = static_cast<int64_t>(CodePoints(value));
    if (node.minLength >= 0 && length < node.minLength && Fails(JsonValidator::MIN_LENGTH)) {
      Emit(JsonValidator::MIN_LENGTH, {std::to_string(length), std::to_string(node.minLength)});
    }
    if (node.maxLength >= 0 && length > node.maxLength && Fails(JsonValidator::MAX_LENGTH)) {
      Emit(JsonValidator::MAX_LENGTH, {std::to_string(length), std::to_string(node.maxLength)});
    }
  }
  if (node.pattern && !node.pattern->Matches(View(value)) &&
      Fails(JsonValidator::PATTERN_MISMATCH)) {
    Emit(JsonValidator::PATTERN_MISMATCH, {ValueText(value), node.pattern->text});
  }
}

void Engine::CheckArray(const Node& node, const rapidjson::Value& value) {
  auto size = static_cast<int64_t>(value.Size());
  if (node.minItems >= 0 && size < node.minItems && Fails(JsonValidator::MIN_ITEMS)) {
    Emit(JsonValidator::MIN_ITEMS, {std::to_string(size), std::to_string(node.minItems)});
  }
  if (node.maxItems >= 0 && size > node.maxItems && Fails(JsonValidator::MAX_ITEMS)) {
    Emit(JsonValidator::MAX_ITEMS, {std::to_string(size), std::to_string(node.maxItems)});
  }
  if (node.uniqueItems && size > 1) {
    for (auto& [first, again] : Duplicates(value)) {
      if (!Fails(JsonValidator::UNIQUE_ITEMS)) break;
      PushIndex(again);
      Emit(JsonValidator::UNIQUE_ITEMS, {std::to_string(first), std::to_string(again)});
      Pop();
    }
  }
  for (rapidjson::SizeType i = 0; i < value.Size() && !Stop(); ++i) {
    const Node* item = node.items;
    if (node.tupleForm) {
      if (i < node.tupleItems.size()) {
        item = node.tupleItems[i];
      } else if (!node.additionalItemsAllowed) {
        PushIndex(i);
        if (Fails(JsonValidator::ADDITIONAL_ITEMS)) Emit(JsonValidator::ADDITIONAL_ITEMS, {std::to_string(i)});
        Pop();
        continue;
      } else {
        item = node.additionalItems;
      }
    }
    const rapidjson::Value& element = value[i];
    bool idMissing = !node.instanceId.empty() && element.IsObject() &&
                     !element.HasMember(rapidjson::Value(rapidjson::StringRef(
                         node.instanceId.data(), static_cast<rapidjson::SizeType>(node.instanceId.size()))));
    if (item == nullptr && !idMissing) continue;
    PushIndex(i);
    if (idMissing && Fails(JsonValidator::INSTANCE_ID_MISSING)) {
      Emit(JsonValidator::INSTANCE_ID_MISSING, {std::string(node.instanceId)}, node.instanceId);
    }
    if (item != nullptr) Check(item, element);
    Pop();
  }
}

void Engine::CheckObject(const Node& node, const rapidjson::Value& value) {
  auto count = static_cast<int64_t>(value.MemberCount());
  if (node.minProperties >= 0 && count < node.minProperties && Fails(JsonValidator::MIN_PROPERTIES)) {
    Emit(JsonValidator::MIN_PROPERTIES, {std::to_string(count), std::to_string(node.minProperties)});
  }
  if (node.maxProperties >= 0 && count > node.maxProperties && Fails(JsonValidator::MAX_PROPERTIES)) {
    Emit(JsonValidator::MAX_PROPERTIES, {std::to_string(count), std::to_string(node.maxProperties)});
  }
  // Every member's "properties" schema is found first, so that a required
  // name that is a property is known present without a search. Values
  // usually list their members in the schema's order: each is looked for
  // first where the previous one was found.
  constexpr size_t kInline = 32;
  const Node* inlineSchemas[kInline];
  std::vector<const Node*> manySchemas;
  const Node** schemaOf = inlineSchemas;
  uint64_t present = 0;  // bit i: properties[i] (i < 64) is a member
  const bool byName = !node.properties.empty();
  if (byName) {
    if (value.MemberCount() > kInline) {
      manySchemas.resize(value.MemberCount());
      schemaOf = manySchemas.data();
    }
    size_t next = 0;
    const Node** out = schemaOf;
    for (auto& member : value.GetObject()) {
      const std::string_view name = View(member.name);
      size_t at = kNoProperty;
      if (next < node.properties.size() && node.properties[next].name == name) {
        at = next;
      } else if (auto it = node.propertyIndex.find(name); it != node.propertyIndex.end()) {
        at = it->second;
      }
      *out++ = at == kNoProperty ? nullptr : node.properties[at].node;
      if (at != kNoProperty) {
        next = at + 1;
        if (at < 64) present |= uint64_t(1) << at;
      }
    }
  }
  auto has = [&value](std::string_view name) {
    return value.HasMember(rapidjson::Value(
        rapidjson::StringRef(name.data(), static_cast<rapidjson::SizeType>(name.size()))));
  };
  for (size_t r = 0; r < node.required.size(); ++r) {
    const std::string_view name = node.required[r];
    const size_t at = node.requiredProperty[r];
    const bool found = byName && at < 64 ? ((present >> at) & 1) != 0 : has(name);
    if (!found && Fails(JsonValidator::REQUIRED_PROPERTY_MISSING)) {
      Emit(JsonValidator::REQUIRED_PROPERTY_MISSING, {std::string(name)}, name);
    }
  }
  for (const Dependency& dep : node.dependencies) {
    if (Stop()) return;
    if (!has(dep.name)) continue;
    for (std::string_view needed : dep.required) {
      if (!has(needed) && Fails(JsonValidator::DEPENDENCY_MISSING)) {
        Emit(JsonValidator::DEPENDENCY_MISSING, {std::string(dep.name), std::string(needed)}, needed);
      }
    }
    if (dep.schema != nullptr) Check(dep.schema, value);
  }
  bool checksMembers = byName || !node.patternProperties.empty() ||
                       !node.additionalPropertiesAllowed || node.additionalProperties != nullptr;
  if (!checksMembers) return;
  size_t index = 0;
  for (auto& member : value.GetObject()) {
    if (Stop()) return;
    std::string_view name = View(member.name);
    bool matched = false;
    PushName(name);
    if (const Node* schema = byName ? schemaOf[index] : nullptr) {
      matched = true;
      Check(schema, member.value);
    }
    ++index;
    for (auto& [pattern, schema] : node.patternProperties) {
      if (pattern->Matches(name)) {
        matched = true;
        Check(schema, member.value);
      }
    }
    if (!matched) {
      if (!node.additionalPropertiesAllowed) {
        if (Fails(JsonValidator::ADDITIONAL_PROPERTY)) {
          Emit(JsonValidator::ADDITIONAL_PROPERTY, {std::string(name)});
        }
      } else if (node.additionalProperties != nullptr) {
        Check(node.additionalProperties, member.value);
      }
    }
    Pop();
  }
}

void Engine::CheckUnion(const Node& node, const rapidjson::Value& value) {
  const std::string_view member = node.discriminator;
  auto tag = value.FindMember(
      rapidjson::Value(rapidjson::StringRef(member.data(), static_cast<rapidjson::SizeType>(member.size()))));
  if (tag == value.MemberEnd()) {
    if (Fails(JsonValidator::UNION_TAG_MISSING)) {
      Emit(JsonValidator::UNION_TAG_MISSING, {std::string(member)}, node.discriminator);
    }
    return;
  }
  for (const Variant& variant : node.variants) {
    for (auto& candidate : variant.tags->GetArray()) {
      if (candidate == tag->value) {
        Check(variant.node, value);
        return;
      }
    }
  }
  if (Fails(JsonValidator::UNION_TAG_UNKNOWN)) {
    BoundedStream list;
    rapidjson::Writer<BoundedStream> writer(list);
    writer.StartArray();
    for (const Variant& variant : node.variants) {
      for (auto& candidate : variant.tags->GetArray()) candidate.Accept(writer);
    }
    writer.EndArray();
    Emit(JsonValidator::UNION_TAG_UNKNOWN,
         {std::string(member), ValueText(tag->value), list.text + (list.truncated ? "..." : "")},
         node.discriminator);
  }
}

void Engine::CheckCombinations(const Node& node, const rapidjson::Value& value) {
  for (const Node* part : node.allOf) {
    if (Stop()) return;
    Check(part, value);
  }
  if (!node.anyOf.empty()) {
    bool any = false;
    for (const Node* option : node.anyOf) {
      if (Probe(option, value)) {
        any = true;
        break;
      }
    }
    if (!any && Fails(JsonValidator::ANY_OF_NO_MATCH)) {
      Emit(JsonValidator::ANY_OF_NO_MATCH, {std::to_string(node.anyOf.size())});
    }
  }
  if (!node.variants.empty() && value.IsObject()) {
    CheckUnion(node, value);
  } else if (!node.oneOf.empty()) {
    std::vector<size_t> matching;
    for (size_t i = 0; i < node.oneOf.size() && matching.size() < 2; ++i) {
      if (Probe(node.oneOf[i], value)) matching.push_back(i);
    }
    if (matching.empty() && Fails(JsonValidator::ONE_OF_NO_MATCH)) {
      Emit(JsonValidator::ONE_OF_NO_MATCH, {std::to_string(node.oneOf.size())});
    } else if (matching.size() > 1 && Fails(JsonValidator::ONE_OF_MULTIPLE_MATCH)) {
      Emit(JsonValidator::ONE_OF_MULTIPLE_MATCH,
           {std::to_string(matching[0]), std::to_string(matching[1])});
    }
  }
  if (node.notNode != nullptr && !Stop() && Probe(node.notNode, value) &&
      Fails(JsonValidator::NOT_MATCHED)) {
    Emit(JsonValidator::NOT_MATCHED, {});
  }
}

}  // namespace QenValidator
