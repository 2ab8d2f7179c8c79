#include "JsonValidator.h"

#include "ErrorTable.h"
#include "SchemaCompiler.h"
#include "ValidationEngine.h"

using QenValidator::CompiledSchema;
using QenValidator::Engine;

namespace {

const rapidjson::Value* Member(const rapidjson::Value& object, const char* name) {
  if (!object.IsObject()) return nullptr;
  auto it = object.FindMember(name);
  return it == object.MemberEnd() ? nullptr : &it->value;
}

const rapidjson::Value* Member(const rapidjson::Value* object, const rapidjson::Value& name) {
  if (object == nullptr || !object->IsObject()) return nullptr;
  auto it = object->FindMember(name);
  return it == object->MemberEnd() ? nullptr : &it->value;
}

// Splits "#/a/b~1c" into unescaped tokens.
std::vector<std::string> PointerTokens(const std::string& location) {
  std::vector<std::string> tokens;
  for (size_t i = 0; i < location.size(); ++i) {
    if (location[i] == '/') {
      tokens.emplace_back();
    } else if (!tokens.empty()) {
      if (location[i] == '~' && i + 1 < location.size()) {
        tokens.back() += location[i + 1] == '1' ? '/' : '~';
        ++i;
      } else {
        tokens.back() += location[i];
      }
    }
  }
  return tokens;
}

// Places the engine at the component/group/key whose schema holds a broken
// keyword, so that document callers can tell which key it concerns.
size_t PushKeyOfLocation(Engine& engine, const std::string& location, bool profileWrapped,
                         std::vector<std::string>& names) {
  std::vector<std::string> tokens = PointerTokens(location);
  size_t at = 0;
  if (profileWrapped) {
    if (tokens.size() < 2 || tokens[0] != "properties" || tokens[1] != "profile") return 0;
    at = 2;
  }
  names.clear();
  while (names.size() < 3 && at + 1 < tokens.size() && tokens[at] == "properties") {
    names.push_back(tokens[at + 1]);
    at += 2;
  }
  for (const std::string& n : names) engine.PushName(n);
  return names.size();
}

}  // namespace

void JsonValidator::Validate(const rapidjson::Value& schema, const rapidjson::Value& value,
                             rapidjson::Document& errors, const std::set<int>& codeSet,
                             const std::string& prefix) {
  Engine engine(codeSet, errors, prefix);
  CompiledSchema compiled(schema);
  if (!compiled.Errors().empty()) {
    engine.ReportSchemaErrors(compiled.Errors());
    return;
  }
  engine.Check(compiled.Root(), value);
  engine.Finish();
}

void JsonValidator::ValidateCMDocument(const rapidjson::Value& schemaDoc,
                                       const rapidjson::Value& value, rapidjson::Document& errors,
                                       const std::set<int>& codeSet, const std::string& prefix) {
  Engine engine(codeSet, errors, prefix);
  const rapidjson::Value* rootProps = Member(schemaDoc, "properties");
  const rapidjson::Value* profileSchema = rootProps ? Member(*rootProps, "profile") : nullptr;
  bool wrapped = profileSchema != nullptr;
  // The per-host sections repeat the profile's schema; only the profile is
  // needed (and a broken key is then reported once).
  CompiledSchema compiled = wrapped ? CompiledSchema(schemaDoc, *profileSchema, "#/properties/profile")
                                    : CompiledSchema(schemaDoc);
  if (!compiled.Errors().empty()) {
    std::vector<std::string> names;
    for (const QenValidator::SchemaError& e : compiled.Errors()) {
      size_t pushed = PushKeyOfLocation(engine, e.location, wrapped, names);
      engine.ReportSchemaErrors({e});
      for (size_t i = 0; i < pushed; ++i) engine.Pop();
    }
    return;
  }

  const rapidjson::Value* components = &value;
  if (const rapidjson::Value* profile = Member(value, "profile")) components = profile;
  const rapidjson::Value& componentsSchema = wrapped ? *profileSchema : schemaDoc;

  // Components and groups are plain containers; each key's value is judged
  // by its own schema.
  auto container = [&engine](const rapidjson::Value& v) {
    if (v.IsObject()) return true;
    if (engine.Fails(TYPE_MISMATCH)) {
      engine.Emit(TYPE_MISMATCH, {"object", QenValidator::JsonTypeName(v)});
    }
    return false;
  };
  // Named "component.group.key" like the schema generator's own report.
  std::string dotted;
  auto noSchema = [&engine, &dotted](const rapidjson::Value& name) {
    if (engine.Fails(NO_SCHEMA)) {
      engine.Emit(NO_SCHEMA, {dotted + (dotted.empty() ? "" : ".") + name.GetString()});
    }
  };
  if (!container(*components)) return;
  QenPlatform::FindDuplicateNames(*components, [&engine](const std::string& path, const std::string& name) {
    if (engine.Fails(DUPLICATE_NAME))
      engine.EmitAt(path + "/" + QenPlatform::JsonPointerToken(name.data(), name.size()), DUPLICATE_NAME, {name});
  });
  const rapidjson::Value* componentProps = Member(componentsSchema, "properties");
  for (auto& component : components->GetObject()) {
    engine.PushName({component.name.GetString(), component.name.GetStringLength()});
    const rapidjson::Value* componentSchema = Member(componentProps, component.name);
    if (componentSchema == nullptr) {
      noSchema(component.name);
    } else if (container(component.value)) {
      dotted = component.name.GetString();
      const rapidjson::Value* groupProps = Member(*componentSchema, "properties");
      for (auto& group : component.value.GetObject()) {
        engine.PushName({group.name.GetString(), group.name.GetStringLength()});
        const rapidjson::Value* groupSchema = Member(groupProps, group.name);
        if (groupSchema == nullptr) {
          noSchema(group.name);
        } else if (container(group.value)) {
          dotted = std::string(component.name.GetString()) + "." + group.name.GetString();
          const rapidjson::Value* keyProps = Member(*groupSchema, "properties");
          for (auto& key : group.value.GetObject()) {
            engine.PushName({key.name.GetString(), key.name.GetStringLength()});
            const rapidjson::Value* keySchema = Member(keyProps, key.name);
            if (keySchema == nullptr) {
              noSchema(key.name);
            } else if (!(key.value.IsString() && key.value == "DELETE_DEFAULT")) {
              if (const QenValidator::Node* node = compiled.NodeFor(keySchema)) {
                engine.Check(node, key.value);
              }
            }
            engine.Pop();
          }
        }
        engine.Pop();
        dotted = component.name.GetString();
      }
    }
    dotted.clear();
    engine.Pop();
  }
  engine.Finish();
}

std::string JsonValidator::ConvertErrorCodeToMsgId(int code) {
  const QenValidator::CodeInfo* info = QenValidator::InfoOf(code);
  return std::string("corvane.qen.settings.schema.") + (info ? info->event : "unknown-error");
}

std::string JsonValidator::MessageText(const std::string& msgId, const std::vector<std::string>& args) {
  static const std::string kPrefix = "corvane.qen.settings.schema.";
  if (msgId.compare(0, kPrefix.size(), kPrefix) != 0) return "";
  const std::string event = msgId.substr(kPrefix.size());
  for (int code = 0; code < kCodeCount; ++code)
    if (event == QenValidator::InfoOf(code)->event) return QenValidator::FormatText(QenValidator::InfoOf(code)->text, args);
  return "";
}
