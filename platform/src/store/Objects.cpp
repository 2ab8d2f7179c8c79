// Object identifiers, configuration and drift objects, and their factories.
#include <random>
#include <tuple>

#include "HostFiles.h"
#include "QenConfigStore.h"
#include "QenSchemaStore.h"
#include "StoreDb.h"

namespace QenConfigStore {

using detail::Fail;
using QenPlatform::CompactJson;

namespace {

// The document of one object value. Its first allocations come from an
// inline buffer, so that the many small values of a request or a drift walk
// share pages instead of taking a pool chunk each (RapidJSON's first chunk is
// 64 KiB: one page fault and a heap extension per object); larger values
// grow in 4 KiB chunks.
struct InlinePool {
  InlinePool() : allocator(buffer, sizeof buffer, 4096) {}
  InlinePool(const InlinePool&) = delete;
  InlinePool& operator=(const InlinePool&) = delete;
  alignas(8) char buffer[512];
  rapidjson::Document::AllocatorType allocator;
};

class ObjectDoc : private InlinePool, public JsonDoc {
 public:
  ObjectDoc() : InlinePool(), JsonDoc(&allocator) {}
};

// Parses `text` into `doc`; the failure names `what` and the object.
void ParseInto(rapidjson::Document& doc, const std::string& text, const char* what,
               const ConfigStoreObjectId& id) {
  const QenPlatform::JsonParseResult parsed = QenPlatform::ParseJson(text, doc);
  if (!parsed) Fail(STORE_BAD_VALUE, what + id.toString() + " is not valid JSON: " + parsed.reason);
}

}  // namespace

std::string ConfigStoreObjectId::toString() const {
  std::string text = "comp " + component_ + " grp " + group_ + " key " + key_;
  if (!instance_.empty()) text += " id " + instance_;
  return text;
}

bool ConfigStoreObjectId::operator<(const ConfigStoreObjectId& o) const {
  return std::tie(component_, group_, key_, instance_) <
         std::tie(o.component_, o.group_, o.key_, o.instance_);
}

size_t CsoIdHash::operator()(const ConfigStoreObjectId& id) const {
  std::hash<std::string> h;
  size_t seed = h(id.GetComponent());
  for (const std::string* part : {&id.GetGroup(), &id.GetKey(), &id.GetInstanceId()})
    seed ^= h(*part) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
  return seed;
}

StoreObject::StoreObject(ConfigStoreObjectId id)
    : id_(std::move(id)), doc_(std::make_shared<ObjectDoc>()) {
  doc_->GetDocument().SetObject();
}

StoreObject::StoreObject(ConfigStoreObjectId id, const rapidjson::Value& value)
    : id_(std::move(id)), doc_(std::make_shared<ObjectDoc>()) {
  doc_->GetDocument().CopyFrom(value, doc_->GetAllocator());
}

StoreObject::StoreObject(ConfigStoreObjectId id, std::shared_ptr<JsonDoc> doc)
    : id_(std::move(id)), doc_(std::move(doc)) {}

StoreObject::~StoreObject() = default;

bool StoreObject::GetValue(const std::string& name, std::string& out) const {
  const rapidjson::Value& value = GetJson();
  if (!value.IsObject()) return false;
  auto it = value.FindMember(name);
  if (it == value.MemberEnd()) return false;
  out = it->value.IsString() ? std::string(it->value.GetString(), it->value.GetStringLength())
                             : CompactJson(it->value);
  return true;
}

void StoreObject::SetValue(const std::string& name, const std::string& text) {
  rapidjson::Document& doc = doc_->GetDocument();
  if (!doc.IsObject()) doc.SetObject();
  rapidjson::Value v(text, doc.GetAllocator());
  auto it = doc.FindMember(name);
  if (it != doc.MemberEnd()) {
    it->value = v;
  } else {
    doc.AddMember(rapidjson::Value(name, doc.GetAllocator()), v, doc.GetAllocator());
  }
}

std::string ConfigStoreObjectImpl::GetSerializedData() const { return CompactJson(GetJson()); }

DriftObject::DriftObject(ConfigStoreObjectId id, std::string operation,
                         const rapidjson::Value& drift)
    : id_(std::move(id)), operation_(std::move(operation)) {
  doc_.GetDocument().CopyFrom(drift, doc_.GetAllocator());
}

std::string DriftObject::GetSerializedDrift() const { return CompactJson(doc_.GetDocument()); }

std::shared_ptr<ConfigStoreObject> CreateObject(const ConfigStoreObjectId& id,
                                                const std::string& text, uint64_t ordinal) {
  auto doc = std::make_shared<ObjectDoc>();
  ParseInto(doc->GetDocument(), text, "The value of ", id);
  auto object = std::make_shared<ConfigStoreObject>(id, std::move(doc));
  object->SetOrdinal(ordinal);
  return object;
}

std::shared_ptr<ConfigStoreObject> CreateObject(
    const ConfigStoreObjectId& id, const rapidjson::Value& value,
    const std::shared_ptr<QenSchemaStore::SchemaObject>& schema, uint64_t index, bool isInstance) {
  auto object = std::make_shared<ConfigStoreObject>(id, value);
  object->SetOrdinal(index);
  if (isInstance && schema && schema->IsNonSingleton() && id.GetInstanceId().empty() &&
      value.IsObject()) {
    auto it = value.FindMember(schema->GetInstanceIdField());
    if (it != value.MemberEnd() && it->value.IsString()) {
      ConfigStoreObjectId withInstance = id;
      withInstance.SetInstanceId(it->value.GetString());
      object->SetConfigStoreObjectId(withInstance);
    }
  }
  return object;
}

std::shared_ptr<DriftObject> CreateDriftObject(const ConfigStoreObjectId& id,
                                               const std::string& driftText,
                                               const std::string& operation) {
  rapidjson::Document doc;
  ParseInto(doc, driftText, "The drift of ", id);
  return std::make_shared<DriftObject>(id, operation, doc);
}

std::string GenerateInstanceId() {
  static thread_local std::mt19937_64 engine{std::random_device{}()};
  uint64_t hi = engine(), lo = engine();
  hi = (hi & 0xffffffffffff0fffULL) | 0x0000000000004000ULL;  // version 4
  lo = (lo & 0x3fffffffffffffffULL) | 0x8000000000000000ULL;  // RFC 4122 variant
  char text[37];
  std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%012llx",
                static_cast<unsigned>(hi >> 32), static_cast<unsigned>((hi >> 16) & 0xffff),
                static_cast<unsigned>(hi & 0xffff), static_cast<unsigned>(lo >> 48),
                static_cast<unsigned long long>(lo & 0xffffffffffffULL));
  return text;
}

std::shared_ptr<JsonDoc> CreateDocumentFromFile(const std::string& path) {
  std::string text;
  if (!QenPlatform::ReadWholeFile(path, text))
    Fail(STORE_READ_FAILED, "Cannot read JSON file \"" + path + "\"");
  auto doc = std::make_shared<JsonDoc>();
  const QenPlatform::JsonParseResult parsed = QenPlatform::ParseJson(text, doc->GetDocument());
  if (!parsed) Fail(STORE_READ_FAILED, "JSON file \"" + path + "\" is not valid JSON: " + parsed.reason);
  return doc;
}

}  // namespace QenConfigStore
