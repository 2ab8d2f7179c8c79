#include "QenSchemaStore.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <mutex>
#include <string_view>

#include <boost/filesystem.hpp>

#include "CSLogger.h"
#include "ConfigStoreException.h"
#include "HostFiles.h"
#include "HostRoot.h"

namespace fs = boost::filesystem;

namespace QenSchemaStore {

bool SchemaObjectId::operator<(const SchemaObjectId& o) const {
  if (component != o.component) return component < o.component;
  if (group != o.group) return group < o.group;
  return key < o.key;
}

std::string SchemaObjectId::toString() const {
  return "comp " + component + " grp " + group + " key " + key;
}

size_t SchemaObjectIdHash::operator()(const SchemaObjectId& id) const {
  std::hash<std::string> h;
  size_t seed = h(id.component);
  for (const std::string* part : {&id.group, &id.key})
    seed ^= h(*part) + 0x9e3779b9 + (seed << 6) + (seed >> 2);
  return seed;
}

namespace {

[[noreturn]] void Fail(const std::string& file, const std::string& what) {
  throw QenConfigStore::ConfigStoreException(
      kSchemaStoreErrorCode, ("schema file \"" + file + "\": " + what).c_str());
}

struct Operations {
  std::vector<std::string> names;
  bool perProperty = false;
};

class FileSchemaObject : public SchemaObject {
 public:
  const SchemaObjectId& GetId() const override { return id_; }
  bool IsNonSingleton() const override { return nonSingleton_; }
  const std::string& GetInstanceIdField() const override { return instanceId_; }
  const rapidjson::Value& GetSchemaJson() const override { return schema_; }
  std::vector<std::string> GetSolutionUserInstances() const override { return solutionUsers_; }
  std::string GetUserConfigText() const override { return userConfig_; }
  const std::string& GetLabel() const override { return label_; }
  bool IsTelemetryDisabled() const override { return telemetryDisabled_; }
  bool IsDspIntegrated() const override { return dspIntegrated_; }
  bool IsMutableDefault(bool smartnic) const override {
    return smartnic ? mutableDefaultSmartnic_ : mutableDefaultHost_;
  }
  const std::string& GetSourceFile() const override { return file_; }
  int GetRebootOperations(std::vector<std::string>& operations, bool& perProperty) const override {
    operations = reboot_.names;
    perProperty = reboot_.perProperty;
    return 0;
  }
  int GetMaintenanceModeOperations(std::vector<std::string>& operations,
                                   bool& perProperty) const override {
    operations = maintenance_.names;
    perProperty = maintenance_.perProperty;
    return 0;
  }

  // Reads one key schema file; throws ConfigStoreException 2180 naming it.
  static std::shared_ptr<FileSchemaObject> Read(const std::string& logical);

 private:
  std::string String(const rapidjson::Value& file, const char* name, bool required) const;
  bool Bool(const rapidjson::Value& file, const char* name, bool fallback) const;
  Operations ReadOperations(const rapidjson::Value& file, const char* name) const;

  std::string file_;
  SchemaObjectId id_;
  bool nonSingleton_ = false;
  std::string instanceId_;
  std::string label_;
  std::string userConfig_;
  bool telemetryDisabled_ = false;
  bool dspIntegrated_ = true;
  bool mutableDefaultHost_ = false;
  bool mutableDefaultSmartnic_ = false;
  std::vector<std::string> solutionUsers_;
  Operations reboot_;
  Operations maintenance_;
  rapidjson::Document schema_;
};

std::string FileSchemaObject::String(const rapidjson::Value& file, const char* name,
                                     bool required) const {
  auto it = file.FindMember(name);
  if (it == file.MemberEnd()) {
    if (required) Fail(file_, std::string("missing member \"") + name + "\"");
    return std::string();
  }
  if (!it->value.IsString()) Fail(file_, std::string("member \"") + name + "\" is not a string");
  std::string text(it->value.GetString(), it->value.GetStringLength());
  if (required && text.empty()) Fail(file_, std::string("member \"") + name + "\" is empty");
  return text;
}

bool FileSchemaObject::Bool(const rapidjson::Value& file, const char* name, bool fallback) const {
  auto it = file.FindMember(name);
  if (it == file.MemberEnd()) return fallback;
  if (!it->value.IsBool()) Fail(file_, std::string("member \"") + name + "\" is not a boolean");
  return it->value.GetBool();
}

Operations FileSchemaObject::ReadOperations(const rapidjson::Value& file, const char* name) const {
  Operations ops;
  auto it = file.FindMember(name);
  if (it == file.MemberEnd()) return ops;
  const std::string where = std::string("member \"") + name + "\"";
  if (!it->value.IsObject()) Fail(file_, where + " is not an object");
  auto list = it->value.FindMember("operations");
  if (list != it->value.MemberEnd()) {
    if (!list->value.IsArray()) Fail(file_, where + ": \"operations\" is not an array");
    for (const auto& op : list->value.GetArray()) {
      std::string text = op.IsString() ? op.GetString() : std::string();
      if (text != "SET" && text != "ADD" && text != "DELETE")
        Fail(file_, where + ": operations are \"SET\", \"ADD\" or \"DELETE\"");
      ops.names.push_back(text);
    }
  }
  ops.perProperty = Bool(it->value, "perProperty", false);
  return ops;
}

std::shared_ptr<FileSchemaObject> FileSchemaObject::Read(const std::string& logical) {
  auto object = std::make_shared<FileSchemaObject>();
  object->file_ = logical;
  rapidjson::Document file;
  std::string error;
  if (!QenPlatform::ReadHostJson(logical, file, &error))
    throw QenConfigStore::ConfigStoreException(kSchemaStoreErrorCode, error.c_str());

  // One member at a time: the first problem in file order is the one reported.
  object->id_.component = object->String(file, "component", true);
  object->id_.group = object->String(file, "group", true);
  object->id_.key = object->String(file, "key", true);
  auto singleton = file.FindMember("singleton");
  if (singleton == file.MemberEnd() || !singleton->value.IsBool())
    Fail(logical, "member \"singleton\" must be a boolean");
  object->nonSingleton_ = !singleton->value.GetBool();
  object->label_ = object->String(file, "label", false);
  if (object->label_.empty())
    object->label_ = object->id_.component + "." + object->id_.group + "." + object->id_.key;
  object->userConfig_ = object->String(file, "userConfig", false);
  object->telemetryDisabled_ = object->Bool(file, "telemetryDisabled", false);
  object->dspIntegrated_ = object->Bool(file, "dspIntegrated", true);

  auto mutableDefault = file.FindMember("mutableDefault");
  if (mutableDefault != file.MemberEnd()) {
    if (!mutableDefault->value.IsObject()) Fail(logical, "member \"mutableDefault\" is not an object");
    object->mutableDefaultHost_ = object->Bool(mutableDefault->value, "host", false);
    object->mutableDefaultSmartnic_ = object->Bool(mutableDefault->value, "smartnic", false);
  }

  auto users = file.FindMember("solutionUserInstances");
  if (users != file.MemberEnd()) {
    if (!users->value.IsArray()) Fail(logical, "member \"solutionUserInstances\" is not an array");
    for (const auto& user : users->value.GetArray()) {
      if (!user.IsString()) Fail(logical, "member \"solutionUserInstances\" holds a non-string");
      object->solutionUsers_.emplace_back(user.GetString(), user.GetStringLength());
    }
  }
  object->reboot_ = object->ReadOperations(file, "rebootRequired");
  object->maintenance_ = object->ReadOperations(file, "maintenanceModeRequired");

  auto schema = file.FindMember("schema");
  if (schema == file.MemberEnd() || !schema->value.IsObject())
    Fail(logical, "member \"schema\" must be an object");
  object->schema_.CopyFrom(schema->value, object->schema_.GetAllocator());
  rapidjson::Document& node = object->schema_;
  auto& alloc = node.GetAllocator();
  auto type = node.FindMember("type");
  const std::string typeName =
      type != node.MemberEnd() && type->value.IsString() ? type->value.GetString() : "";

  if (object->nonSingleton_) {
    object->instanceId_ = object->String(file, "instanceId", true);
    if (typeName != "array") Fail(logical, "a non-singleton key's schema must have \"type\": \"array\"");
    auto items = node.FindMember("items");
    if (items == node.MemberEnd() || !items->value.IsObject())
      Fail(logical, "a non-singleton key's schema must have an \"items\" object");
    auto declared = node.FindMember("instanceId");
    if (declared != node.MemberEnd()) {
      if (!declared->value.IsString() || object->instanceId_ != declared->value.GetString())
        Fail(logical, "schema \"instanceId\" differs from the key's \"instanceId\"");
    } else {
      node.AddMember("instanceId", rapidjson::Value(object->instanceId_, alloc), alloc);
    }
  } else {
    if (file.HasMember("instanceId")) Fail(logical, "a singleton key has no \"instanceId\"");
    if (typeName != "object") Fail(logical, "a singleton key's schema must have \"type\": \"object\"");
  }
  if (object->telemetryDisabled_ && !node.HasMember("telemetryDisabled"))
    node.AddMember("telemetryDisabled", true, alloc);
  return object;
}

bool IdLess(const std::shared_ptr<SchemaObject>& a, const std::shared_ptr<SchemaObject>& b) {
  return a->GetId() < b->GetId();
}

struct CachedStore {
  std::mutex mutex;
  std::string dir;  // physical directory the store was read from
  std::shared_ptr<SchemaStore> store;
};

CachedStore& Cached() {
  static CachedStore cached;
  return cached;
}

}  // namespace

namespace {

constexpr uint64_t kTagMask = 0xffffffff00000000ULL;

uint64_t GroupHash(std::string_view component, std::string_view group) {
  const std::hash<std::string_view> hash;
  size_t h = hash(component);
  h = (h ^ (h >> 29)) * 0x9e3779b97f4a7c15ULL + hash(group);
  return h ^ (h >> 31);
}

uint64_t Prefix(std::string_view text) {
  uint64_t prefix = 0;
  if (!text.empty()) std::memcpy(&prefix, text.data(), std::min(text.size(), sizeof prefix));
  return prefix;
}

// Groups up to this size are scanned by prefix rather than bisected.
constexpr size_t kScanKeys = 16;

}  // namespace

SchemaCache::SchemaCache(std::vector<std::shared_ptr<SchemaObject>> schemas)
    : schemas_(std::move(schemas)) {
  std::sort(schemas_.begin(), schemas_.end(), IdLess);
  // Every name once: keys, instance identifier fields, and component and
  // group of each group.
  size_t bytes = 0;
  for (const auto& schema : schemas_) {
    const SchemaObjectId& id = schema->GetId();
    bytes += id.key.size() + schema->GetInstanceIdField().size() + id.component.size() + id.group.size();
  }
  text_.reset(new char[bytes + 1]);
  char* next = text_.get();
  auto keep = [&next](const std::string& text) {
    std::memcpy(next, text.data(), text.size());
    std::string_view view(next, text.size());
    next += text.size();
    return view;
  };

  facts_.reserve(schemas_.size());
  names_.reserve(schemas_.size());
  for (size_t i = 0; i < schemas_.size(); ++i) {
    const SchemaObject& schema = *schemas_[i];
    const SchemaObjectId& id = schema.GetId();
    if (groups_.empty() || groups_.back().component != id.component || groups_.back().group != id.group)
      groups_.push_back(Group{keep(id.component), keep(id.group), static_cast<uint32_t>(i),
                              static_cast<uint32_t>(i)});
    ++groups_.back().end;
    Names names{keep(id.key), keep(schema.GetInstanceIdField())};
    KeyFacts facts;
    facts.prefix = Prefix(names.key);
    facts.keyLength = static_cast<uint32_t>(names.key.size());
    facts.nonSingleton = schema.IsNonSingleton();
    facts.generatedId = names.instanceIdField == kGeneratedInstanceId;
    facts_.push_back(facts);
    names_.push_back(names);
  }

  size_t capacity = 16;
  while (capacity < 2 * groups_.size()) capacity <<= 1;
  index_.assign(capacity, 0);
  const size_t mask = capacity - 1;
  for (size_t i = 0; i < groups_.size(); ++i) {
    const uint64_t h = GroupHash(groups_[i].component, groups_[i].group);
    size_t s = h & mask;
    while (index_[s] != 0) s = (s + 1) & mask;
    index_[s] = (h & kTagMask) | (i + 1);
  }
}

bool SchemaCache::HasComponent(std::string_view component) const {
  for (const Group& g : groups_)
    if (g.component == component) return true;
  return false;
}

GroupFacts SchemaCache::FindGroup(std::string_view component, std::string_view group,
                                  const GroupFacts* previous) const {
  auto facts = [this](size_t i) {
    const Group& g = groups_[i];
    return GroupFacts{facts_.data() + g.begin, facts_.data() + g.end, static_cast<uint32_t>(i)};
  };
  if (previous && previous->begin != previous->end) {
    const size_t next = previous->position + size_t(1);
    if (next < groups_.size() && groups_[next].group == group && groups_[next].component == component)
      return facts(next);
  }
  const size_t mask = index_.size() - 1;
  const uint64_t h = GroupHash(component, group);
  for (size_t s = h & mask; index_[s] != 0; s = (s + 1) & mask) {
    if ((index_[s] & kTagMask) != (h & kTagMask)) continue;
    const size_t i = (index_[s] & ~kTagMask) - 1;
    if (groups_[i].group == group && groups_[i].component == component) return facts(i);
  }
  return GroupFacts{};
}

const KeyFacts* SchemaCache::FindKey(const GroupFacts& group, std::string_view key,
                                     const KeyFacts* previous) const {
  const uint64_t prefix = Prefix(key);
  auto sameKey = [&](const KeyFacts& f) {
    return f.prefix == prefix && f.keyLength == key.size() &&
           (key.size() <= sizeof prefix || KeyName(f) == key);
  };
  // Keys are sorted, so the one after a different previous key is the first
  // of its name.
  if (previous && previous >= group.begin && previous + 1 < group.end && sameKey(previous[1]) &&
      !sameKey(*previous))
    return previous + 1;
  if (static_cast<size_t>(group.end - group.begin) <= kScanKeys) {
    for (const KeyFacts* f = group.begin; f != group.end; ++f)
      if (sameKey(*f)) return f;
    return nullptr;
  }
  const KeyFacts* f = std::lower_bound(group.begin, group.end, key, [this](const KeyFacts& e, std::string_view k) {
    return KeyName(e) < k;
  });
  return f != group.end && sameKey(*f) ? f : nullptr;
}

const KeyFacts* SchemaCache::Find(std::string_view component, std::string_view group,
                                  std::string_view key) const {
  return FindKey(FindGroup(component, group), key);
}

std::shared_ptr<SchemaObject> SchemaCache::GetSchema(const SchemaObjectId& id) const {
  const KeyFacts* facts = Find(id.component, id.group, id.key);
  return facts ? Schema(*facts) : nullptr;
}

std::shared_ptr<SchemaObject> SchemaCache::GetSchema(const std::string& component,
                                                     const std::string& group,
                                                     const std::string& key) const {
  const KeyFacts* facts = Find(component, group, key);
  return facts ? Schema(*facts) : nullptr;
}

std::shared_ptr<SchemaStore> SchemaStore::Load(const std::string& logicalDir) {
  const fs::path dir(QenPlatform::HostPath(logicalDir));
  boost::system::error_code ec;
  if (!fs::is_directory(dir, ec)) return nullptr;

  std::vector<std::string> files;
  fs::recursive_directory_iterator it(dir, ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    if (fs::is_regular_file(it->status()) && it->path().extension() == ".json")
      files.push_back(QenPlatform::LogicalPath(it->path().string()));
  }
  if (ec)
    throw QenConfigStore::ConfigStoreException(
        kSchemaStoreErrorCode,
        ("cannot read schema directory \"" + logicalDir + "\": " + ec.message()).c_str());
  std::sort(files.begin(), files.end());

  std::vector<std::shared_ptr<SchemaObject>> schemas;
  for (const std::string& file : files) schemas.push_back(FileSchemaObject::Read(file));
  std::sort(schemas.begin(), schemas.end(), IdLess);
  for (size_t i = 1; i < schemas.size(); ++i) {
    if (schemas[i - 1]->GetId() == schemas[i]->GetId())
      Fail(schemas[i]->GetSourceFile(), "key " + schemas[i]->GetId().toString() +
                                            " is already defined by \"" +
                                            schemas[i - 1]->GetSourceFile() + "\"");
  }
  CSLogger::Log(3, "Loaded %zu key schemas from %s", schemas.size(), logicalDir.c_str());
  return std::make_shared<SchemaStore>(std::make_shared<SchemaCache>(std::move(schemas)));
}

std::shared_ptr<SchemaStore> SchemaStore::GetStore() {
  CachedStore& cached = Cached();
  const std::string dir = QenPlatform::HostPath(kSchemaDir);
  std::lock_guard<std::mutex> lock(cached.mutex);
  if (cached.store && cached.dir == dir) return cached.store;
  std::shared_ptr<SchemaStore> store = Load(kSchemaDir);
  if (store) {
    cached.dir = dir;
    cached.store = store;
  }
  return store;
}

std::shared_ptr<SchemaCache> SchemaStore::GetCache() {
  std::shared_ptr<SchemaStore> store = GetStore();
  return store ? store->GetSchemaCache() : nullptr;
}

void SchemaStore::Invalidate() {
  CachedStore& cached = Cached();
  std::lock_guard<std::mutex> lock(cached.mutex);
  cached.store.reset();
  cached.dir.clear();
}

std::string SchemaStore::GetSchemaLabel(const std::string& component, const std::string& group,
                                        const std::string& key) const {
  std::shared_ptr<SchemaObject> schema = GetSchema(component, group, key);
  return schema ? schema->GetLabel() : std::string();
}

SchemaObjectIdSet SchemaStore::GetMutableDefaultConfigSchemas(bool smartnic) const {
  SchemaObjectIdSet ids;
  for (const auto& schema : cache_->GetSchemas())
    if (schema->IsMutableDefault(smartnic)) ids.insert(schema->GetId());
  return ids;
}

SchemaObjectIdSet SchemaStore::GetDspNonIntegratedSchemas() const {
  SchemaObjectIdSet ids;
  for (const auto& schema : cache_->GetSchemas())
    if (!schema->IsDspIntegrated()) ids.insert(schema->GetId());
  return ids;
}

std::shared_ptr<SchemaObject> GetSchema(const std::string& component, const std::string& group,
                                        const std::string& key,
                                        const std::shared_ptr<SchemaStore>& store) {
  return store ? store->GetSchema(component, group, key) : nullptr;
}

std::shared_ptr<SchemaObject> GetSchema(const SchemaObjectId& id,
                                        const std::shared_ptr<SchemaStore>& store) {
  return store ? store->GetSchema(id) : nullptr;
}

}  // namespace QenSchemaStore
