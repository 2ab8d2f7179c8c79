// The generated schema of a whole configuration document:
//   {"type": "object", "properties": {
//      "profile": {"type": "object", "properties": {<component>: {... <group>: {... <key>: schema}}}},
//      "host-specific": {"type": "object", "additionalProperties": <the profile node>},
//      "host-override": {"type": "object", "additionalProperties": <the profile node>}}}
// The per-host sections map a host identifier to a profile-shaped object, so
// they repeat the profile node; they are refreshed after every addition.
#include "QenSchemaStore.h"

namespace QenSchemaStore {
namespace {

using rapidjson::Value;
typedef rapidjson::Document::AllocatorType Allocator;

Value ObjectNode(Allocator& alloc) {
  Value node(rapidjson::kObjectType);
  node.AddMember("type", "object", alloc);
  node.AddMember("properties", Value(rapidjson::kObjectType), alloc);
  return node;
}

// The "properties" object of child `name` of `properties`, created as an
// object node when absent.
Value& ChildProperties(Value& properties, const Value& name, Allocator& alloc) {
  auto it = properties.FindMember(name);
  if (it == properties.MemberEnd()) {
    properties.AddMember(Value(name, alloc), ObjectNode(alloc), alloc);
    it = properties.FindMember(name);
  }
  return it->value["properties"];
}

void AddError(rapidjson::Document& errors, const std::string& field, int errId,
              const std::string& text, const std::string& arg) {
  Allocator& alloc = errors.GetAllocator();
  Value error(rapidjson::kObjectType);
  error.AddMember("field", Value(field, alloc), alloc);
  error.AddMember("errId", errId, alloc);
  error.AddMember("error", Value(text, alloc), alloc);
  Value args(rapidjson::kArrayType);
  args.PushBack(Value(arg, alloc), alloc);
  error.AddMember("errArgs", args, alloc);
  errors.PushBack(error, alloc);
}

std::string Name(const Value& name) { return std::string(name.GetString(), name.GetStringLength()); }

// A member name as a JSON Pointer token, the form the validator's fields use.
std::string Token(const std::string& name) { return QenPlatform::JsonPointerToken(name.data(), name.size()); }

void SetHostSection(rapidjson::Document& schemaDoc, const char* section) {
  Allocator& alloc = schemaDoc.GetAllocator();
  Value& root = schemaDoc["properties"];
  Value node(rapidjson::kObjectType);
  node.AddMember("type", "object", alloc);
  node.AddMember("additionalProperties", Value(root["profile"], alloc), alloc);
  auto it = root.FindMember(section);
  if (it == root.MemberEnd())
    root.AddMember(rapidjson::StringRef(section), node, alloc);
  else
    it->value = node;
}

}  // namespace

void GenerateSchemaDocument(const Value& value, const std::shared_ptr<SchemaCache>& cache,
                            rapidjson::Document& schemaDoc, rapidjson::Document& errorsDoc) {
  Allocator& alloc = schemaDoc.GetAllocator();
  if (!schemaDoc.IsObject() || !schemaDoc.HasMember("properties")) {
    schemaDoc.SetObject();
    schemaDoc.AddMember("type", "object", alloc);
    Value root(rapidjson::kObjectType);
    root.AddMember("profile", ObjectNode(alloc), alloc);
    schemaDoc.AddMember("properties", root, alloc);
  }
  if (!errorsDoc.IsArray()) errorsDoc.SetArray();

  if (!value.IsObject()) {
    AddError(errorsDoc, "", kNotAnObjectErrId, "The configuration is not an object", "");
    return;
  }
  Value& components = schemaDoc["properties"]["profile"]["properties"];
  for (const auto& component : value.GetObject()) {
    const std::string c = Name(component.name);
    // A misspelt component or group is one error, also when it is empty
    // (it would otherwise pass and leave the host's keys undesired).
    if (cache && !cache->HasComponent(c)) {
      AddError(errorsDoc, "/" + Token(c), kUnknownKeyErrId, "No schema found for configuration component", c);
      continue;
    }
    if (!component.value.IsObject()) {
      AddError(errorsDoc, "/" + Token(c), kNotAnObjectErrId, "Component is not an object", c);
      continue;
    }
    for (const auto& group : component.value.GetObject()) {
      const std::string g = Name(group.name);
      if (cache && !cache->HasGroup(c, g)) {
        AddError(errorsDoc, "/" + Token(c) + "/" + Token(g), kUnknownKeyErrId,
                 "No schema found for configuration group", c + "." + g);
        continue;
      }
      if (!group.value.IsObject()) {
        AddError(errorsDoc, "/" + Token(c) + "/" + Token(g), kNotAnObjectErrId, "Group is not an object",
                 c + "." + g);
        continue;
      }
      for (const auto& key : group.value.GetObject()) {
        const std::string k = Name(key.name);
        std::shared_ptr<SchemaObject> schema = cache ? cache->GetSchema(c, g, k) : nullptr;
        if (!schema) {
          AddError(errorsDoc, "/" + Token(c) + "/" + Token(g) + "/" + Token(k), kUnknownKeyErrId,
                   "No schema found for configuration key", c + "." + g + "." + k);
          continue;
        }
        Value& keys = ChildProperties(ChildProperties(components, component.name, alloc),
                                      group.name, alloc);
        if (!keys.HasMember(key.name))
          keys.AddMember(Value(key.name, alloc), Value(schema->GetSchemaJson(), alloc), alloc);
      }
    }
  }
  SetHostSection(schemaDoc, "host-specific");
  SetHostSection(schemaDoc, "host-override");
}

}  // namespace QenSchemaStore
