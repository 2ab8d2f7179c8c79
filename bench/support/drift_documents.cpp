#include "drift_documents.h"

#include <boost/filesystem.hpp>

#include <fstream>
#include <map>

namespace QenBench {
namespace {

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

const char* kSingletonSchema =
    R"({"type": "object", "properties": {"name": {"type": "string"}, "count": {"type": "integer"},
        "enabled": {"type": "boolean"}, "tags": {"type": "array", "items": {"type": "string"}},
        "limits": {"type": "object", "properties": {"soft": {"type": "integer"},
                                                    "hard": {"type": "integer"}}}}})";
const char* kInstanceSchema =
    R"({"type": "array", "items": {"type": "object", "properties": {"name": {"type": "string"},
        "cs_generated_id": {"type": "string"}, "v": {"type": "integer"},
        "tags": {"type": "array", "items": {"type": "string"}}}}})";

// Layout of a document of n keys: 10 components, groups of 10 keys; every
// fifth key holds three instances.
struct KeyName {
  std::string component, group, key;
  bool instances;
};
KeyName NameOf(int i) {
  return {"comp" + std::to_string(i % 10), "grp" + std::to_string(i / 100),
          "key" + std::to_string((i / 10) % 10), (i / 10) % 10 == 4};
}

// Schema files of every key the documents use: 100k files, so they are
// written once into a cache directory beside the temporary host root and
// linked into each run's root.
std::string SchemaCacheDir() {
  const std::string dir = boost::filesystem::temp_directory_path().string() + "/qen-bench-drift-schemas-1";
  const std::string marker = dir + "/.complete";
  if (boost::filesystem::exists(marker)) return dir;
  boost::filesystem::create_directories(dir);
  for (int i = 0; i < kKeyCounts[2]; i += 10) {
    const KeyName k = NameOf(i);  // one file per (component, group, key)
    for (int c = 0; c < 10; ++c) {
      const std::string comp = "comp" + std::to_string(c);
      std::string text = "{\"component\": \"" + comp + "\", \"group\": \"" + k.group +
                         "\", \"key\": \"" + k.key + "\", ";
      text += k.instances ? std::string("\"singleton\": false, \"instanceId\": \"name\", \"schema\": ") +
                                kInstanceSchema
                          : std::string("\"singleton\": true, \"schema\": ") + kSingletonSchema;
      WriteText(dir + "/" + comp + "." + k.group + "." + k.key + ".json", text + "}");
    }
  }
  WriteText(dir + "/bench.nat.json",
            std::string(R"({"component": "bench", "group": "inst", "key": "nat", "singleton": false,
                             "instanceId": "name", "schema": )") + kInstanceSchema + "}");
  WriteText(dir + "/bench.gen.json",
            std::string(R"({"component": "bench", "group": "inst", "key": "gen", "singleton": false,
                             "instanceId": "cs_generated_id", "schema": )") + kInstanceSchema + "}");
  WriteText(marker, "");
  return dir;
}

}  // namespace

const int kKeyCounts[3] = {1000, 10000, 100000};
const int kInstanceCounts[3] = {100, 10000, 100000};

void LinkSchemas(const std::string& root) {
  const std::string parent = root + "/usr/lib/corvane/configstore";
  boost::filesystem::create_directories(parent);
  boost::filesystem::create_directory_symlink(SchemaCacheDir(), parent + "/schemas");
}

// Text of a document of `keys` keys; with `drift`, one key in a hundred
// differs in one property.
std::string KeysDocument(int keys, bool drift) {
  std::map<std::string, std::map<std::string, std::string>> tree;
  for (int i = 0; i < keys; ++i) {
    const KeyName k = NameOf(i);
    const int count = i + (drift && i % 100 == 50 ? 1 : 0);
    std::string value;
    if (k.instances) {
      value = "[";
      for (int j = 0; j < 3; ++j)
        value += std::string(j ? "," : "") + "{\"name\": \"i" + std::to_string(j) + "\", \"v\": " +
                 std::to_string(j ? i : count) + ", \"tags\": [\"a\", \"b\"]}";
      value += "]";
    } else {
      value = "{\"name\": \"key " + std::to_string(i) + "\", \"count\": " + std::to_string(count) +
              ", \"enabled\": true, \"tags\": [\"x\", \"y\", \"z\"], \"limits\": {\"soft\": 10, "
              "\"hard\": 20}}";
    }
    std::string& group = tree[k.component][k.group];
    group += (group.empty() ? "" : ", ") + ("\"" + k.key + "\": " + value);
  }
  std::string text = "{";
  for (auto& c : tree) {
    text += (text.size() > 1 ? ", \"" : "\"") + c.first + "\": {";
    bool first = true;
    for (auto& g : c.second) {
      text += (first ? "\"" : ", \"") + g.first + "\": {" + g.second + "}";
      first = false;
    }
    text += "}";
  }
  return text + "}";
}

std::string InstancesDocument(const char* key, int n, bool drift) {
  const bool generated = std::string(key) == "gen";
  std::string text = std::string("{\"bench\": {\"inst\": {\"") + key + "\": [";
  for (int j = 0; j < n; ++j) {
    const int v = j + (drift && j % 100 == 50 ? n : 0);
    text += std::string(j ? "," : "") + "{\"" + (generated ? "cs_generated_id" : "name") +
            "\": \"i" + std::to_string(j) + "\", \"v\": " + std::to_string(v) +
            ", \"tags\": [\"a\", \"b\"]}";
  }
  return text + "]}}}";
}

}  // namespace QenBench
