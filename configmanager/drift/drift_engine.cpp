// The drift walk: key-by-key comparison of a desired document with a host
// document under the keys' schemas. ComputeDrift (compute_drift.cpp) supplies
// the host document; this file never extracts anything.
#include "drift/drift_engine.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "CSLogger.h"
#include "ConfigStoreDocument.h"
#include "QenConfigStore.h"

namespace QenConfigManager {

const char* const kActionNames[3] = {"SET", "ADD", "DELETE"};
// A default-constructed value is null, and all-zero before its constructor
// runs, so it is usable during other units' static initialisation.
const rapidjson::Value kEmptyVal;

DriftHandler::DriftHandler() = default;
DriftHandler::~DriftHandler() = default;
void DriftHandler::Add(const rapidjson::Value&, const ConfigStoreObjectId&,
                       const std::shared_ptr<SchemaObject>&, const std::string&) {}
void DriftHandler::Set(const rapidjson::Value&, const rapidjson::Value&, const ConfigStoreObjectId&,
                       const std::shared_ptr<SchemaObject>&, const std::string&,
                       const rapidjson::Value&) {}
void DriftHandler::Delete(const rapidjson::Value&, const ConfigStoreObjectId&,
                          const std::shared_ptr<SchemaObject>&, const std::string&) {}
void DriftHandler::PropertyDrift(const rapidjson::Value&, const rapidjson::Value&,
                                 const rapidjson::Value&, const std::string&, ACTION) {}

void computeComponents(rapidjson::Value& first, const rapidjson::Value& second,
                       rapidjson::Document::AllocatorType& allocator,
                       const std::shared_ptr<QenSchemaStore::SchemaStore>& schemaStore,
                       DriftHandler& handler,
                       const std::shared_ptr<DBStore::StoreConnection>& connection, bool reverse) {
  drift::WalkContext ctx(allocator, handler, connection, drift::IndexedMatchers());
  drift::walkComponents(ctx, first, second, schemaStore, reverse);
}

namespace drift {
namespace {

constexpr const char* kGeneratedId = "cs_generated_id";
constexpr const char* kOpAdd = "ADD";
constexpr const char* kOpSet = "SET";
constexpr const char* kOpDelete = "DELETE";

// Nesting of compareValue below a key beyond which the walk refuses the
// value, so that a hostile document cannot exhaust the stack. The document
// library refuses the same depth.
constexpr int kMaxCompareDepth = ConfigStoreDocument::kMaxDepth;

const rapidjson::Value& InstanceNode(const rapidjson::Value& keySchema) {
  if (keySchema.IsObject() && !keySchema.HasMember("properties")) {
    auto items = keySchema.FindMember("items");
    if (items != keySchema.MemberEnd()) return items->value;
  }
  return keySchema;
}

// Unpaired host instances are reported from the highest index down, the
// order in which the pairing searches them.
rapidjson::SizeType HostSize(const rapidjson::Value& host) { return host.IsArray() ? host.Size() : 0; }

rapidjson::Value Text(const char* op) { return rapidjson::Value(rapidjson::StringRef(op)); }

// Member lookup by name that stays linear for wide objects: objects with few
// members are scanned through a compact table of name lengths and prefixes
// (no call per member), wide ones through a NameIndex built once. Like
// FindMember, the first of duplicate names wins.
class MemberLookup {
 public:
  explicit MemberLookup(const rapidjson::Value& object) {
    const size_t count = object.MemberCount();
    if (count < kIndexThreshold) {
      for (auto it = object.MemberBegin(); it != object.MemberEnd(); ++it)
        few_[fewCount_++] = Entry{Prefix(it->name), it->name.GetStringLength(), &*it};
      return;
    }
    index_.reset(new NameIndex(object));
  }
  const rapidjson::Value* Find(const rapidjson::Value& name) const {
    const rapidjson::SizeType length = name.GetStringLength();
    if (!index_) {
      const uint64_t prefix = Prefix(name);
      for (size_t i = 0; i < fewCount_; ++i) {
        const Entry& e = few_[i];
        if (e.length != length || e.prefix != prefix) continue;
        if (length <= sizeof(uint64_t) ||
            std::memcmp(e.member->name.GetString() + sizeof(uint64_t), name.GetString() + sizeof(uint64_t),
                        length - sizeof(uint64_t)) == 0)
          return &e.member->value;
      }
      return nullptr;
    }
    return index_->Find(name);
  }

 private:
  static constexpr size_t kIndexThreshold = 16;
  struct Entry {
    uint64_t prefix;
    rapidjson::SizeType length;
    const rapidjson::Value::Member* member;
  };
  // The first eight bytes of a name, zero-padded.
  static uint64_t Prefix(const rapidjson::Value& name) {
    uint64_t prefix = 0;
    std::memcpy(&prefix, name.GetString(), std::min<size_t>(name.GetStringLength(), sizeof prefix));
    return prefix;
  }
  Entry few_[kIndexThreshold];
  size_t fewCount_ = 0;
  std::unique_ptr<NameIndex> index_;
};

// Finds members of one object by name, trying first the member at the
// position the caller names: objects of the same shape list their members
// in the same order. As with FindMember the first of duplicate names wins,
// so a member found in place counts only when the names are distinct.
class MemberFinder {
 public:
  explicit MemberFinder(const rapidjson::Value& object)
      : object_(object), members_(object.MemberCount() ? &*object.MemberBegin() : nullptr),
        count_(object.MemberCount()) {}
  const rapidjson::Value* Find(const rapidjson::Value& name, rapidjson::SizeType position) {
    if (InPlace(name, position) && Distinct()) return &members_[position].value;
    if (!lookup_) lookup_.reset(new MemberLookup(object_));
    return lookup_->Find(name);
  }
  // Whether the member at `position` has this name.
  bool InPlace(const rapidjson::Value& name, rapidjson::SizeType position) const {
    return position < count_ && SameText(members_[position].name, name);
  }
  rapidjson::SizeType Count() const { return count_; }

 private:
  bool Distinct() {
    if (distinct_ < 0) distinct_ = DistinctNames(object_) ? 1 : 0;
    return distinct_ == 1;
  }

  const rapidjson::Value& object_;
  const rapidjson::Value::Member* members_;
  rapidjson::SizeType count_;
  int distinct_ = -1;
  std::unique_ptr<MemberLookup> lookup_;
};

// Tracks compareValue's nesting for the depth limit.
class DepthGuard {
 public:
  explicit DepthGuard(int& depth) : depth_(depth) {
    if (depth_ >= kMaxCompareDepth) ConfigStoreDocument::ThrowTooDeep();
    ++depth_;
  }
  ~DepthGuard() { --depth_; }

 private:
  int& depth_;
};

std::string_view StringMemberView(const rapidjson::Value& object, std::string_view name) {
  const rapidjson::Value& member = MemberOf(object, name);
  return std::string_view(member.GetString(), member.GetStringLength());
}

std::string GetStringMember(const rapidjson::Value& object, std::string_view name) {
  return std::string(StringMemberView(object, name));
}

bool CompareByValue(WalkContext& ctx, rapidjson::Value& desired, const rapidjson::Value& host,
                    const rapidjson::Value& items, rapidjson::Value& driftDoc) {
  DriftHandler& handler = ctx.handler;
  bool drift = false;
  auto matcher = ctx.matchers.byValue(host, items);
  const rapidjson::SizeType n = desired.Size();
  for (rapidjson::SizeType i = 0; i < n; ++i) {
    rapidjson::Value& element = desired[i];
    if (matcher->Take(element, i) >= 0) continue;
    drift = true;
    PathScope scope(ctx.path, i);
    if (handler.createDriftObject) {
      if (element.IsObject() && !element.HasMember(kGeneratedId)) {
        // Written into the caller's desired document: the drift document
        // must name the instance that apply will create.
        rapidjson::Value generated(QenConfigStore::GenerateInstanceId(), ctx.allocator);
        element.AddMember(rapidjson::StringRef(kGeneratedId), generated, ctx.allocator);
      }
      appendInstanceDrift(element[kGeneratedId], kOpAdd, driftDoc, ctx.allocator);
    }
    handler.PropertyDrift(element, kEmptyVal, items, ctx.path, ADD);
  }
  size_t k = n;
  for (rapidjson::SizeType j = HostSize(host); j-- > 0;) {
    if (matcher->Taken(j)) continue;
    drift = true;
    PathScope scope(ctx.path, k++);
    const rapidjson::Value& element = host[j];
    if (handler.createDriftObject)
      appendInstanceDrift(element[kGeneratedId], kOpDelete, driftDoc, ctx.allocator);
    handler.PropertyDrift(kEmptyVal, element, items, ctx.path, DELETE);
  }
  return drift;
}

}  // namespace

bool IsEmptyValue(const rapidjson::Value& value) {
  if (value.IsNull()) return true;
  if (value.IsObject()) return value.MemberCount() == 0;
  if (value.IsArray()) return value.Empty();
  return false;
}

namespace {

// "/<component>/<group>/<key>", built only for keys that report.
void EnterKey(WalkContext& ctx, std::string_view c, std::string_view g, std::string_view k) {
  ctx.path.clear();
  for (std::string_view part : {c, g, k}) {
    ctx.path.push_back('/');
    ctx.path.append(part.data(), part.size());
  }
}

[[noreturn]] void SchemaNotFound(WalkContext& ctx, std::string_view c, std::string_view g,
                                 std::string_view k) {
  EnterKey(ctx, c, g, k);
  const std::string cName(c), gName(g), kName(k);
  CSLogger::Log(0, "Schema not found for %s:%s:%s", cName.c_str(), gName.c_str(), kName.c_str());
  ThrowException<ConfigManagerException>(SCHEMA_NOT_FOUND, ctx.path);
}

}  // namespace

void walkComponents(WalkContext& ctx, rapidjson::Value& first, const rapidjson::Value& second,
                    const std::shared_ptr<QenSchemaStore::SchemaStore>& schemaStore, bool reverse) {
  if (first.MemberCount() == 0) return;
  const bool reverseAfterForward =
      reverse && ctx.forwardFirst == &second && ctx.forwardSecond == &first;
  if (!reverse) {
    ctx.forwardFirst = ctx.forwardSecond = nullptr;
    ctx.coveredGroups.clear();
  }
  const QenSchemaStore::SchemaCache* cache = schemaStore ? schemaStore->GetSchemaCache().get() : nullptr;
  // The other side is looked up lazily, once per component and group, and
  // only where `first` has keys: its shape is checked where it is used.
  std::unique_ptr<MemberFinder> secondComponents;
  // The group looked up last, a hint for the next.
  QenSchemaStore::GroupFacts lastFacts;
  rapidjson::SizeType cPos = 0;
  for (auto c = first.MemberBegin(); c != first.MemberEnd(); ++c, ++cPos) {
    const std::string_view cName = View(c->name);
    std::unique_ptr<MemberFinder> secondGroups;
    bool componentLooked = false;
    rapidjson::SizeType gPos = 0;
    for (auto g = c->value.MemberBegin(); g != c->value.MemberEnd(); ++g, ++gPos) {
      // The forward pass found a namesake for every key of this group.
      if (reverseAfterForward && ctx.coveredGroups.count(&g->value)) continue;
      const std::string_view gName = View(g->name);
      const rapidjson::Value* secondGroup = nullptr;
      std::unique_ptr<MemberFinder> secondKeys;
      bool groupLooked = false;
      QenSchemaStore::GroupFacts facts;
      bool factsLooked = false;
      const QenSchemaStore::KeyFacts* lastKey = nullptr;
      // Every key so far has its namesake at its own position.
      bool aligned = true;
      rapidjson::SizeType kPos = 0;
      for (auto k = g->value.MemberBegin(); k != g->value.MemberEnd(); ++k, ++kPos) {
        auto lookSecond = [&]() -> const rapidjson::Value* {
          if (!componentLooked) {
            componentLooked = true;
            if (!secondComponents) secondComponents.reset(new MemberFinder(second));
            if (const rapidjson::Value* sc = secondComponents->Find(c->name, cPos)) {
              (void)sc->GetObject();
              secondGroups.reset(new MemberFinder(*sc));
            }
          }
          if (!groupLooked) {
            groupLooked = true;
            secondGroup = secondGroups ? secondGroups->Find(g->name, gPos) : nullptr;
            if (secondGroup) {
              (void)secondGroup->GetObject();
              secondKeys.reset(new MemberFinder(*secondGroup));
            }
          }
          if (!secondKeys) return nullptr;
          aligned = aligned && secondKeys->InPlace(k->name, kPos);
          return secondKeys->Find(k->name, kPos);
        };
        // `second` was walked forward, so its shape checks passed already and
        // these lookups may come before the schema's.
        if (reverseAfterForward && lookSecond()) continue;
        const std::string_view kName = View(k->name);
        if (!factsLooked) {
          factsLooked = true;
          if (cache) facts = lastFacts = cache->FindGroup(cName, gName, &lastFacts);
        }
        const QenSchemaStore::KeyFacts* key = cache ? cache->FindKey(facts, kName, lastKey) : nullptr;
        if (!key) SchemaNotFound(ctx, cName, gName, kName);
        lastKey = key;

        const rapidjson::Value* other = lookSecond();
        // Keys on both sides were compared by the forward pass.
        if (other && reverse) continue;

        rapidjson::Value absent;
        rapidjson::Value& desired = reverse ? absent : k->value;
        const rapidjson::Value& host = reverse ? k->value : (other ? *other : kEmptyVal);
        // Equal singleton values report nothing (compareSingleton would
        // find the same), so they need no path or id.
        if (!key->nonSingleton && SameValue(desired, host)) continue;
        EnterKey(ctx, cName, gName, kName);
        ConfigStoreObjectId id{std::string(kName), std::string(gName), std::string(cName)};
        if (key->nonSingleton) {
          compareInstances(ctx, desired, host, id, cache->Schema(*key), cache->InstanceIdField(*key));
        } else {
          rapidjson::Value driftDoc(rapidjson::kObjectType);
          compareSingleton(ctx, desired, host, id, cache->Schema(*key), driftDoc);
        }
      }
      if (!reverse && aligned && secondKeys && kPos == secondKeys->Count())
        ctx.coveredGroups.insert(secondGroup);
    }
  }
  if (!reverse) {
    ctx.forwardFirst = &first;
    ctx.forwardSecond = &second;
  }
}

void compareSingleton(WalkContext& ctx, const rapidjson::Value& desired, const rapidjson::Value& host,
                      const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
                      rapidjson::Value& driftDoc) {
  DriftHandler& handler = ctx.handler;
  const bool desiredEmpty = IsEmptyValue(desired);
  const bool hostEmpty = IsEmptyValue(host);
  if (desiredEmpty && hostEmpty) return;
  if (desiredEmpty) {
    if (!handler.propertyLevelDrift) {
      handler.Delete(host, id, schema, ctx.path);
      return;
    }
    if (reportRemovedProperties(ctx, desired, host, schema->GetSchemaJson(), driftDoc) &&
        handler.consolidatedAction)
      handler.Set(desired, host, id, schema, ctx.path, driftDoc);
    return;
  }
  if (hostEmpty && !handler.propertyLevelDrift) {
    handler.Set(desired, host, id, schema, ctx.path, driftDoc);
    return;
  }
  // compareValue may add generated identifiers to desired array elements;
  // the desired side of a singleton belongs to the caller's document.
  rapidjson::Value& mutableDesired = const_cast<rapidjson::Value&>(desired);
  if (compareValue(ctx, mutableDesired, host, schema->GetSchemaJson(), driftDoc) &&
      handler.consolidatedAction)
    handler.Set(desired, host, id, schema, ctx.path, driftDoc);
}

void compareInstances(WalkContext& ctx, rapidjson::Value& desired, const rapidjson::Value& host,
                      ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
                      std::string_view idField) {
  DriftHandler& handler = ctx.handler;
  const bool generated = idField == kGeneratedId;
  // The schema object is read only when an instance differs or instances
  // pair by value.
  auto instanceSchema = [&schema]() -> const rapidjson::Value& {
    // A non-singleton key's schema is an array node; its instances are
    // described by the node's "items".
    return InstanceNode(schema->GetSchemaJson());
  };
  std::unique_ptr<InstanceMatcher> matcher = generated
                                                 ? ctx.matchers.byValue(host, schema->GetSchemaJson())
                                                 : ctx.matchers.byIdentifier(host, idField);

  rapidjson::SizeType n = 0;
  if (!IsEmptyValue(desired)) {
    n = desired.Size();
    matcher->Expect(desired);
    for (rapidjson::SizeType i = 0; i < n; ++i) {
      // An identical partner reports nothing, and its identifier was
      // checked with the host's.
      if (matcher->TakeIdentical(i)) continue;
      rapidjson::Value& element = desired[i];
      if (generated) {
        if (matcher->Take(element, i) >= 0) continue;
        PathScope scope(ctx.path, i);
        assignGeneratedInstanceId(element, id);
        handler.Add(element, id, schema, ctx.path);
        continue;
      }
      const std::string_view instanceId = StringMemberView(element, idField);
      const long j = matcher->Take(element, i);
      const rapidjson::Value* partner =
          j >= 0 ? &host[static_cast<rapidjson::SizeType>(j)] : nullptr;
      // An equal partner reports nothing (compareValue's first test).
      if (partner && SameValue(element, *partner)) continue;
      PathScope scope(ctx.path, i);
      id.SetInstanceId(std::string(instanceId));
      // A fresh drift document per instance: nothing of an earlier instance
      // leaks into this one's events.
      rapidjson::Value driftDoc(rapidjson::kObjectType);
      if (partner) {
        if (compareValue(ctx, element, *partner, instanceSchema(), driftDoc) &&
            handler.consolidatedAction)
          handler.Set(element, *partner, id, schema, ctx.path, driftDoc);
      } else if (handler.checkDefaultUserConfig) {
        if (id.GetInstanceId().empty())
          throw ConfigManagerException(UNEXPECTED_ERROR,
                                       "InstanceId is not set for non-singleton configuration");
        if (!ctx.connection) ctx.connection = QenConfigStore::GetDBStore(0, true);
        ConfigMapVector defaults = QenConfigStore::GetDefaultUserConfigMapList(id, ctx.connection);
        if (defaults.size() == 1)
          handler.Set(element, kEmptyVal, id, schema, ctx.path, driftDoc);
        else
          handler.Add(element, id, schema, ctx.path);
      } else {
        handler.Add(element, id, schema, ctx.path);
      }
    }
  }
  size_t k = n;
  for (rapidjson::SizeType j = HostSize(host); j-- > 0;) {
    if (matcher->Taken(j)) continue;
    const rapidjson::Value& element = host[j];
    if (generated)
      assignGeneratedInstanceId(element, id);
    else
      id.SetInstanceId(GetStringMember(element, idField));
    PathScope scope(ctx.path, k++);
    handler.Delete(element, id, schema, ctx.path);
  }
}

bool compareValue(WalkContext& ctx, rapidjson::Value& desired, const rapidjson::Value& host,
                  const rapidjson::Value& schemaNode, rapidjson::Value& driftDoc) {
  if (SameValue(desired, host)) return false;
  DepthGuard depth(ctx.depth);
  DriftHandler& handler = ctx.handler;

  if (desired.IsObject()) {
    driftDoc.SetObject();
    bool drift = false;
    const bool hostIsObject = host.IsObject();
    std::unique_ptr<MemberLookup> hostMembers;
    if (hostIsObject) hostMembers.reset(new MemberLookup(host));
    for (auto m = desired.MemberBegin(); m != desired.MemberEnd(); ++m) {
      const rapidjson::Value* hostValue = hostIsObject ? hostMembers->Find(m->name) : nullptr;
      if (hostValue && IsGeneratedIdName(m->name)) continue;
      const rapidjson::Value& propSchema = schemaNode["properties"][m->name];
      PathScope scope(ctx.path, m->name.GetString(), m->name.GetStringLength());
      if (hostValue) {
        rapidjson::Value sub;
        if (!compareValue(ctx, m->value, *hostValue, propSchema, sub)) continue;
        drift = true;
        if (handler.createDriftObject) {
          rapidjson::Value name(m->name, ctx.allocator);
          rapidjson::Value entry = IsEmptyValue(sub) ? Text(kOpSet) : std::move(sub);
          driftDoc.AddMember(name, entry, ctx.allocator);
        }
      } else {
        drift = true;
        if (handler.createDriftObject) {
          rapidjson::Value name(m->name, ctx.allocator);
          driftDoc.AddMember(name, Text(kOpAdd), ctx.allocator);
        }
        handler.PropertyDrift(m->value, kEmptyVal, propSchema, ctx.path, ADD);
      }
    }
    return reportRemovedProperties(ctx, desired, host, schemaNode, driftDoc) || drift;
  }

  if (desired.IsArray()) {
    const rapidjson::Value& items = schemaNode["items"];
    const rapidjson::Value& itemType = items["type"];
    if (std::string_view(itemType.GetString(), itemType.GetStringLength()) != "object") {
      if (ConfigStoreDocument::IsEqualPrimitiveArray(desired, host)) return false;
      handler.PropertyDrift(desired, host, schemaNode, ctx.path, SET);
      return true;
    }
    driftDoc.SetArray();
    const rapidjson::Value& idMember = schemaNode["instanceId"];
    const std::string idField(idMember.GetString(), idMember.GetStringLength());
    if (idField == kGeneratedId) return CompareByValue(ctx, desired, host, items, driftDoc);
    return compareInstanceArray(ctx, desired, host, schemaNode, idField, driftDoc);
  }

  if (host.IsNull())
    handler.PropertyDrift(desired, host, schemaNode, ctx.path, ADD);
  else if (desired.IsNull())
    handler.PropertyDrift(desired, host, schemaNode, ctx.path, DELETE);
  else
    handler.PropertyDrift(desired, host, schemaNode, ctx.path, SET);
  return true;
}

bool compareInstanceArray(WalkContext& ctx, rapidjson::Value& desired, const rapidjson::Value& host,
                          const rapidjson::Value& schemaNode, const std::string& idField,
                          rapidjson::Value& driftDoc) {
  DriftHandler& handler = ctx.handler;
  const rapidjson::Value& items = schemaNode["items"];
  auto matcher = ctx.matchers.byIdentifier(host, idField);
  bool drift = false;

  auto appendEntry = [&](const rapidjson::Value& instanceId, const char* op, rapidjson::Value* sub) {
    appendInstanceDrift(instanceId, op, driftDoc, ctx.allocator);
    if (sub && !IsEmptyValue(*sub))
      driftDoc[driftDoc.Size() - 1].AddMember(rapidjson::StringRef("DRIFTOBJ"), *sub, ctx.allocator);
  };

  const rapidjson::SizeType n = desired.Size();
  for (rapidjson::SizeType i = 0; i < n; ++i) {
    rapidjson::Value& element = desired[i];
    const rapidjson::Value& instanceId = element[idField];
    (void)instanceId.GetString();
    PathScope scope(ctx.path, i);
    const long j = matcher->Take(element, i);
    if (j >= 0) {
      rapidjson::Value sub;
      if (!compareValue(ctx, element, host[static_cast<rapidjson::SizeType>(j)], items, sub)) continue;
      drift = true;
      if (handler.createDriftObject) appendEntry(instanceId, kOpSet, &sub);
    } else {
      drift = true;
      if (handler.createDriftObject) appendEntry(instanceId, kOpAdd, nullptr);
      handler.PropertyDrift(element, kEmptyVal, items, ctx.path, ADD);
    }
  }
  size_t k = n;
  for (rapidjson::SizeType j = HostSize(host); j-- > 0;) {
    if (matcher->Taken(j)) continue;
    drift = true;
    const rapidjson::Value& element = host[j];
    PathScope scope(ctx.path, k++);
    if (handler.createDriftObject) appendEntry(element[idField], kOpDelete, nullptr);
    handler.PropertyDrift(kEmptyVal, element, items, ctx.path, DELETE);
  }
  return drift;
}

bool reportRemovedProperties(WalkContext& ctx, const rapidjson::Value& desired,
                             const rapidjson::Value& host, const rapidjson::Value& schemaNode,
                             rapidjson::Value& driftDoc) {
  if (!host.IsObject()) return false;
  bool reported = false;
  std::unique_ptr<MemberLookup> desiredMembers;
  if (desired.IsObject()) desiredMembers.reset(new MemberLookup(desired));
  for (auto m = host.MemberBegin(); m != host.MemberEnd(); ++m) {
    if (IsGeneratedIdName(m->name)) continue;
    if (desiredMembers && desiredMembers->Find(m->name)) continue;
    PathScope scope(ctx.path, m->name.GetString(), m->name.GetStringLength());
    if (ctx.handler.createDriftObject) {
      rapidjson::Value name(m->name, ctx.allocator);
      driftDoc.AddMember(name, Text(kOpDelete), ctx.allocator);
    }
    ctx.handler.PropertyDrift(kEmptyVal, m->value, schemaNode["properties"][m->name], ctx.path,
                              DELETE);
    reported = true;
  }
  return reported;
}

void assignGeneratedInstanceId(const rapidjson::Value& value, ConfigStoreObjectId& id) {
  auto member = value.FindMember(kGeneratedId);
  if (member != value.MemberEnd())
    id.SetInstanceId(std::string(member->value.GetString(), member->value.GetStringLength()));
  else
    id.SetInstanceId(QenConfigStore::GenerateInstanceId());
}

void appendInstanceDrift(const rapidjson::Value& instanceId, const char* op,
                         rapidjson::Value& driftDoc, rapidjson::Document::AllocatorType& allocator) {
  rapidjson::Value entry(rapidjson::kObjectType);
  entry.AddMember(rapidjson::StringRef("INSTANCEID"),
                  rapidjson::Value(instanceId.GetString(), instanceId.GetStringLength(), allocator),
                  allocator);
  entry.AddMember(rapidjson::StringRef("DRIFTOP"), rapidjson::Value(op, allocator), allocator);
  driftDoc.PushBack(entry, allocator);
}

}  // namespace drift
}  // namespace QenConfigManager
