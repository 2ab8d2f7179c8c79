// Plugin request documents: building, writing, reading back.
#include <sys/stat.h>

#include "JsonErrors.h"
#include "PluginFixture.h"

namespace QenTest {
namespace {

using QenConfigManager::CachedDriftObject;
using QenConfigManager::ConfigStoreObjectList;
using QenConfigManager::DesiredConfigInput;
using QenConfigManager::DesiredConfigInputList;
using QenConfigManager::PluginRequest;
using QenConfigStore::ConfigStoreObjectId;

std::vector<std::string> Members(const rapidjson::Value& v) {
  std::vector<std::string> names;
  for (const auto& m : v.GetObject()) names.emplace_back(m.name.GetString());
  return names;
}

DesiredConfigInput Input(const std::string& instance, const std::string& config,
                         const std::string& operation = "SET") {
  DesiredConfigInput in;
  ConfigStoreObjectId id("entry", "hosts", "network", instance);
  in.object = QenConfigStore::CreateObject(id, config);
  in.operation = operation;
  return in;
}

class RequestTest : public PluginTest {
 protected:
  const std::string kInput = "/var/corvane/lifecycle/cm-plugin-input.json";

  PluginRequest RoundTrip(PluginRequest& request) {
    WriteFile("/var/corvane/lifecycle/.keep", "");
    request.Dump(kInput, "task-1", "ctx");
    PluginRequest loaded;
    loaded.Load(kInput);
    return loaded;
  }
  PluginRequest FromText(const std::string& text) {
    WriteFile(kInput, text);
    PluginRequest r;
    r.Load(kInput);
    return r;
  }
};

TEST_F(RequestTest, ApplyEntriesHaveTheirMembersInOrder) {
  DesiredConfigInput plain = Input("i1", R"({"address": "10.0.0.1"})");
  DesiredConfigInput drifted = Input("i1", R"({"address": "10.0.0.2"})", "ADD");
  rapidjson::Document d;
  d.Parse(R"({"address": "SET"})");
  drifted.drift = std::make_shared<QenConfigStore::DriftObject>(
      drifted.object->GetConfigStoreObjectId(), "ADD", d);
  drifted.cachedDrift = std::make_shared<CachedDriftObject>(CachedDriftObject{nullptr, "DELETE"});

  PluginRequest python("net", "APPLY", "", 3, {plain, drifted});
  const rapidjson::Document& doc = python.GetDocument();
  EXPECT_EQ(Members(doc), (std::vector<std::string>{"key", "version", "type", "data"}));
  const rapidjson::Value& data = doc["data"];
  // Two inputs of one object and instance: two members of the same name.
  EXPECT_EQ(Members(data), (std::vector<std::string>{"networkhostsentryi1", "networkhostsentryi1"}));
  auto entries = data.MemberBegin();
  EXPECT_EQ(Members(entries[0].value), (std::vector<std::string>{"operation", "config", "component",
                                                                 "group", "key", "instanceId"}));
  EXPECT_EQ(Members(entries[1].value),
            (std::vector<std::string>{"operation", "config", "drift", "cachedDrift", "component",
                                      "group", "key", "instanceId"}));
  EXPECT_STREQ(entries[1].value["drift"].GetString(), R"({"address":"SET"})");
  EXPECT_EQ(Members(entries[1].value["cachedDrift"]), (std::vector<std::string>{"operation"}));

  PluginRequest cpp("ntp", "IMPACT", "libntp.so", 3, {plain});
  EXPECT_EQ(Members(cpp.GetDocument()),
            (std::vector<std::string>{"key", "version", "type", "module", "data"}));
}

TEST_F(RequestTest, DumpWritesCompactOwnerOnlyFile) {
  PluginRequest request("ntp", "EXTRACT", "libntp.so", 3,
                        std::vector<ConfigStoreObjectId>{{"ntp", "time", "system", "ignored"}});
  WriteFile(kInput, "old content that is longer than the request will ever be ............", 0644);
  request.Dump(kInput, "task-7", "cluster");
  EXPECT_EQ(ReadFile(kInput),
            R"({"key":"ntp","version":3,"type":"EXTRACT","module":"libntp.so",)"
            R"("csoIds":[{"component":"system","group":"time","key":"ntp"}],)"
            R"("taskId":"task-7","clusterContext":"cluster"})");
  struct stat st{};
  ASSERT_EQ(stat(Path(kInput).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(RequestTest, GettersReadWhatWasWritten) {
  PluginRequest request("resolver", "VALIDATE", "", 3,
                        {Input("a", "{}").object, Input("b", R"({"x": 1})").object},
                        {Input("r", "[1]").object});
  PluginRequest loaded = RoundTrip(request);
  EXPECT_EQ(loaded.GetId(), "resolver");
  EXPECT_EQ(loaded.GetVersion(), 3);
  EXPECT_EQ(loaded.GetType(), "VALIDATE");
  EXPECT_EQ(loaded.GetTaskId(), "task-1");
  EXPECT_EQ(loaded.GetClusterContext(), "ctx");
  auto refs = loaded.GetReferences();
  ASSERT_EQ(refs.size(), 1u);
  EXPECT_EQ(refs[0]->GetConfigStoreObjectId(), ConfigStoreObjectId("entry", "hosts", "network", "r"));
  EXPECT_EQ(refs[0]->GetSerializedData(), "[1]");
  auto data = loaded.GetData();
  ASSERT_EQ(data.size(), 2u);
  EXPECT_EQ(data[1].object->GetSerializedData(), R"({"x":1})");
  EXPECT_EQ(data[1].operation, "");
  EXPECT_EQ(data[1].drift, nullptr);
}

TEST_F(RequestTest, GetDataRebuildsDriftsAndNumbersEntriesPerKey) {
  PluginRequest r = FromText(R"({"data": {
    "a": {"operation": "SET", "config": "{}", "drift": "{\"p\":\"SET\"}",
          "cachedDrift": {"drift": "{\"q\":\"ADD\"}", "operation": "ADD"},
          "component": "c", "group": "g", "key": "k", "instanceId": "z"},
    "b": {"config": "{}", "component": "c", "group": "g", "key": "other", "instanceId": ""},
    "c": {"config": "{}", "component": "c", "group": "g", "key": "k", "instanceId": "a"},
    "d": {"config": "{}", "cachedDrift": {"operation": "DELETE"},
          "component": "c", "group": "g", "key": "k", "instanceId": "z"}}})");
  auto data = r.GetData();
  ASSERT_EQ(data.size(), 4u);
  std::vector<uint64_t> ordinals;
  for (const auto& in : data) ordinals.push_back(in.object->GetOrdinal());
  EXPECT_EQ(ordinals, (std::vector<uint64_t>{0, 0, 1, 2}));
  ASSERT_NE(data[0].drift, nullptr);
  EXPECT_EQ(data[0].drift->GetOperation(), "SET");
  EXPECT_EQ(data[0].drift->GetSerializedDrift(), R"({"p":"SET"})");
  ASSERT_NE(data[0].cachedDrift, nullptr);
  EXPECT_EQ(data[0].cachedDrift->operation, "ADD");
  EXPECT_EQ(data[0].cachedDrift->drift->GetOperation(), "ADD");
  EXPECT_EQ(data[3].cachedDrift->drift, nullptr);
  EXPECT_EQ(data[3].cachedDrift->operation, "DELETE");
  EXPECT_EQ(data[1].cachedDrift, nullptr);
}

TEST_F(RequestTest, EveryGetterNamesWhatIsMissing) {
  PluginRequest empty = FromText("{}");
  auto message = [](const std::function<void()>& f) {
    try {
      f();
    } catch (const std::runtime_error& e) {
      return std::string(e.what());
    }
    return std::string("<no runtime_error>");
  };
  EXPECT_EQ(message([&] { empty.GetVersion(); }), "The PluginRequest structure does not contain version.");
  EXPECT_EQ(message([&] { empty.GetTaskId(); }), "The PluginRequest structure does not contain taskId");
  EXPECT_EQ(message([&] { empty.GetId(); }), "The PluginRequest structure does not contain key");
  EXPECT_EQ(message([&] { empty.GetModule(); }), "The PluginRequest structure does not contain module");
  EXPECT_EQ(message([&] { empty.GetType(); }), "The PluginRequest structure does not contain type");
  EXPECT_EQ(message([&] { empty.GetClusterContext(); }),
            "The PluginRequest structure does not contain context");
  EXPECT_EQ(message([&] { empty.GetData(); }), "The PluginRequest structure does not contain data");
  EXPECT_EQ(message([&] { empty.GetCSOIdsForExtract(); }),
            "The Extract PluginRequest structure does not contain csoIds.");
  EXPECT_TRUE(empty.GetReferences().empty());

  EXPECT_EQ(message([&] { FromText(R"({"csoIds": {}})").GetCSOIdsForExtract(); }),
            "The Extract PluginRequest's csoIds should be a list.");
  EXPECT_EQ(message([&] {
              FromText(R"({"csoIds": [{"component": "c", "key": "k"}]})").GetCSOIdsForExtract();
            }),
            "The Extract PluginRequest format is invalid");
  EXPECT_EQ(message([&] { FromText(""); }), "Failed to load plugin input json.");
  EXPECT_EQ(message([&] { FromText("{} {}"); }), "Failed to load plugin input json.");
  EXPECT_EQ(message([&] { FromText(std::string(200000, '[')); }), "Failed to load plugin input json.");
  EXPECT_EQ(message([&] {
              PluginRequest r;
              r.Load("/var/corvane/lifecycle/none.json");
            }),
            "Failed to load plugin input json.");

  // Wrong types are JSON errors, not crashes.
  EXPECT_EQ(Catch([&] { FromText(R"({"version": "3"})").GetVersion(); }).code, 1082);
  EXPECT_EQ(Catch([&] { FromText(R"({"taskId": 3})").GetTaskId(); }).code, 1082);
  EXPECT_EQ(Catch([&] { FromText("[]").GetId(); }).code, 1082);
  EXPECT_EQ(Catch([&] { FromText(R"({"data": {"a": {"config": "{}"}}})").GetData(); }).code, 1082);
  EXPECT_EQ(Catch([&] { FromText(R"({"data": []})").GetData(); }).code, 1082);
}

TEST_F(RequestTest, MalformedInputsFailInTheJsonLibrarysOwnChecks) {
  // Building: an input without object has no data text.
  DesiredConfigInput noObject;
  noObject.operation = "SET";
  ExpectJsonLibraryError([&] { PluginRequest("p", "APPLY", "", 3, DesiredConfigInputList{noObject}); }, "s != 0");
  ExpectJsonLibraryError([&] { PluginRequest("p", "VALIDATE", "", 3, ConfigStoreObjectList{nullptr}, {}); },
                         "s != 0");
  // Reading: a cached drift that is not an object.
  ExpectJsonLibraryError(
      [&] {
        FromText(R"({"data": {"cgk": {"config": "{}", "component": "c", "group": "g", "key": "k",
                                      "instanceId": "", "cachedDrift": "SET"}}})")
            .GetData();
      },
      "IsObject()");
}

TEST_F(RequestTest, ExtractIdsComeBackWithoutInstance) {
  PluginRequest r = FromText(
      R"({"csoIds": [{"component": "c", "group": "g", "key": "k", "instanceId": "i"},
                     {"component": "d", "group": "h", "key": "l"}]})");
  EXPECT_EQ(r.GetCSOIdsForExtract(),
            (std::vector<ConfigStoreObjectId>{{"k", "g", "c"}, {"l", "h", "d"}}));
}

}  // namespace
}  // namespace QenTest
