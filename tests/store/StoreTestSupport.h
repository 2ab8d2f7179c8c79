// Helpers shared by the store tests: loading a description from text and
// flattening map lists into comparable lines.
#pragma once

#include <string>
#include <vector>

#include "HostRootTest.h"
#include "QenConfigStore.h"

namespace QenTest {

class StoreTest : public HostRootTest {
 protected:
  // Parses `json` and loads it as the store description.
  static void Load(const std::string& json) {
    rapidjson::Document doc;
    doc.Parse(json.c_str(), json.size());
    ASSERT_FALSE(doc.HasParseError()) << json;
    QenConfigStore::LoadStoreDescription(doc);
  }

  // "C/G/K/I=VALUE" plus " auto=AUTO" when there is an automatic value.
  static std::vector<std::string> Lines(const QenConfigStore::ConfigMapVector& maps) {
    std::vector<std::string> lines;
    for (const auto& m : maps) {
      std::string line = m->at("Component") + "/" + m->at("ConfigGroup") + "/" + m->at("Name") +
                         "/" + m->at("Identifier") + "=" + m->at("Value");
      if (!m->at("AutoConfValue").empty()) line += " auto=" + m->at("AutoConfValue");
      lines.push_back(line);
    }
    return lines;
  }
  static std::vector<std::string> Lines(const QenConfigStore::ConfigMapList& list) {
    return Lines(*list);
  }

  static std::string Json(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return buffer.GetString();
  }

  static std::shared_ptr<DBStore::StoreConnection> Connect() {
    return QenConfigStore::GetDBStore(0, true);
  }
};

// Runs `body` and returns the ConfigStoreException it throws as
// "<code>: <message>" ("no exception" when it returns).
template <typename F>
std::string Failure(F body) {
  try {
    body();
  } catch (const QenConfigStore::ConfigStoreException& e) {
    return std::to_string(e.GetErrorCode()) + ": " + e.what();
  }
  return "no exception";
}

}  // namespace QenTest
