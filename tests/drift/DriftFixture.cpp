#include "DriftFixture.h"

#include <algorithm>

#include "ConfigStoreDocument.h"
#include "QenSchemaStore.h"

using namespace QenConfigManager;

namespace DriftTest {

std::string Text(const rapidjson::Value& value) {
  if (&value == &kEmptyVal) return "-";
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return buffer.GetString();
}

void RecordingHandler::Add(const rapidjson::Value& desired, const ConfigStoreObjectId& id,
                           const std::shared_ptr<SchemaObject>&, const std::string& path) {
  events.push_back("ADD " + path + " " + id.GetInstanceId() + " " + Text(desired));
}

void RecordingHandler::Set(const rapidjson::Value& desired, const rapidjson::Value& host,
                           const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>&,
                           const std::string& path, const rapidjson::Value& drift) {
  events.push_back("SET " + path + " " + id.GetInstanceId() + " " + Text(desired) + " " +
                   Text(host) + " " + Text(drift));
}

void RecordingHandler::Delete(const rapidjson::Value& host, const ConfigStoreObjectId& id,
                              const std::shared_ptr<SchemaObject>&, const std::string& path) {
  events.push_back("DELETE " + path + " " + id.GetInstanceId() + " " + Text(host));
}

void RecordingHandler::PropertyDrift(const rapidjson::Value& desired, const rapidjson::Value& host,
                                     const rapidjson::Value&, const std::string& path,
                                     ACTION action) {
  events.push_back(std::string("PROP ") + kActionNames[action] + " " + path + " " + Text(desired) +
                   " " + Text(host));
}

namespace {

// The remaining host indices, searched from the highest down.
class LiteralMatcher : public drift::InstanceMatcher {
 public:
  LiteralMatcher(const rapidjson::Value& host, std::function<bool(const rapidjson::Value&,
                                                                  const rapidjson::Value&)> pairs)
      : host_(host), pairs_(std::move(pairs)) {
    if (host.IsArray())
      for (size_t j = host.Size(); j-- > 0;) remaining_.push_back(j);
  }
  long Take(const rapidjson::Value& desired, size_t) override {
    for (auto it = remaining_.begin(); it != remaining_.end(); ++it) {
      if (!pairs_(desired, host_[static_cast<rapidjson::SizeType>(*it)])) continue;
      const long j = static_cast<long>(*it);
      remaining_.erase(it);
      return j;
    }
    return -1;
  }
  bool Taken(size_t j) const override {
    return std::find(remaining_.begin(), remaining_.end(), j) == remaining_.end();
  }

 private:
  const rapidjson::Value& host_;
  std::function<bool(const rapidjson::Value&, const rapidjson::Value&)> pairs_;
  std::vector<size_t> remaining_;
};

std::unique_ptr<drift::InstanceMatcher> LiteralById(const rapidjson::Value& host,
                                                    std::string_view idView) {
  return std::make_unique<LiteralMatcher>(
      host, [idField = std::string(idView)](const rapidjson::Value& d, const rapidjson::Value& h) {
        return std::string(d[idField].GetString()) == h[idField].GetString();
      });
}

std::unique_ptr<drift::InstanceMatcher> LiteralByValue(const rapidjson::Value& host,
                                                       const rapidjson::Value& schemaNode) {
  return std::make_unique<LiteralMatcher>(
      host, [&schemaNode](const rapidjson::Value& d, const rapidjson::Value& h) {
        return ConfigStoreDocument::IsEqualValue(d, h, schemaNode);
      });
}

}  // namespace

const drift::MatcherFactory& LiteralMatchers() {
  static const drift::MatcherFactory factory{&LiteralById, &LiteralByValue};
  return factory;
}

std::shared_ptr<QenConfigStore::JsonDoc> Parse(const std::string& text) {
  auto doc = std::make_shared<QenConfigStore::JsonDoc>();
  doc->GetDocument().Parse(text.c_str(), text.size());
  if (doc->GetDocument().HasParseError()) ADD_FAILURE() << "test JSON does not parse: " << text;
  return doc;
}

void DriftFixture::WriteSchema(const std::string& component, const std::string& group,
                               const std::string& key, const std::string& instanceId,
                               const std::string& schema) {
  std::string file = "{\"component\": \"" + component + "\", \"group\": \"" + group +
                     "\", \"key\": \"" + key + "\", \"singleton\": " +
                     (instanceId.empty() ? "true" : "false");
  if (!instanceId.empty()) file += ", \"instanceId\": \"" + instanceId + "\"";
  file += ", \"schema\": " + schema + "}";
  WriteFile("/usr/lib/corvane/configstore/schemas/" + component + "/" + group + "/" + key + ".json",
            file);
}

void DriftFixture::SetUp() {
  HostRootTest::SetUp();
  const std::string sub =
      R"({"type": "object", "properties": {"x": {"type": "string"}, "y": {"type": "integer"}}})";
  const std::string list =
      R"({"type": "array", "instanceId": "name", "items": {"type": "object", "properties": {
           "name": {"type": "string"}, "v": {"type": "integer"}, "sub": )" + sub + "}}}";
  const std::string gen =
      R"({"type": "array", "instanceId": "cs_generated_id", "items": {"type": "object",
           "properties": {"cs_generated_id": {"type": "string"}, "v": {"type": "integer"}}}})";
  const std::string tags = R"({"type": "array", "items": {"type": "string"}})";
  WriteSchema("c", "g", "single", "",
              R"({"type": "object", "properties": {"a": {"type": "string"}, "b": {"type": "integer"},
                  "tags": )" + tags + R"(, "sub": )" + sub + R"(, "list": )" + list +
                  R"(, "gen": )" + gen + R"(, "secret": {"type": "string", "sensitive": true},
                  "cs_generated_id": {"type": "string"}}})");
  WriteSchema("c", "g", "nat", "name",
              R"({"type": "array", "items": {"type": "object", "properties": {
                  "name": {"type": "string"}, "v": {"type": "integer"}, "tags": )" + tags +
                  R"(, "nested": {"type": "array", "instanceId": "id", "items": {"type": "object",
                  "properties": {"id": {"type": "string"}, "w": {"type": "integer"}, "gen": )" +
                  gen + "}}}}}}");
  WriteSchema("c", "g", "genk", "cs_generated_id",
              R"({"type": "array", "items": {"type": "object", "properties": {
                  "cs_generated_id": {"type": "string"}, "v": {"type": "integer"}, "tags": )" +
                  tags + R"(, "list": )" + list + "}}}");
  WriteSchema("c", "g", "other", "", R"({"type": "object", "properties": {"a": {"type": "string"}}})");
  WriteSchema("qen", "system", "installer", "",
              R"({"type": "object", "properties": {"a": {"type": "string"}}})");
}

std::vector<std::string> DriftFixture::Drift(rapidjson::Document& desired, const std::string& host) {
  handler.events.clear();
  handler.currentDocument = Parse(host);
  ComputeDrift(desired, desired.GetAllocator(), handler);
  return handler.events;
}

std::vector<std::string> DriftFixture::Drift(const std::string& desired, const std::string& host) {
  auto doc = Parse(desired);
  return Drift(doc->GetDocument(), host);
}

}  // namespace DriftTest
