// Configuration store throughput: loading a host of N objects (one
// transaction) and reading them back as the user configuration list, in
// objects per second. Baseline in the same run: serialising and re-parsing
// the same N values with RapidJSON, the least any JSON-holding store does.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include <boost/filesystem.hpp>

#include "QenConfigStore.h"

namespace {

// Half singleton keys, half instances of keys with 100 instances each.
rapidjson::Document MakeDescription(int objects) {
  rapidjson::Document doc;
  auto& a = doc.GetAllocator();
  doc.SetObject();
  rapidjson::Value current(rapidjson::kObjectType);
  int made = 0;
  for (int c = 0; made < objects; ++c) {
    rapidjson::Value comp(rapidjson::kObjectType);
    for (int g = 0; g < 10 && made < objects; ++g) {
      rapidjson::Value grp(rapidjson::kObjectType);
      for (int k = 0; k < 100 && made < objects; ++k) {
        std::string key = "key" + std::to_string(k);
        if (k % 2 == 0) {
          rapidjson::Value v(rapidjson::kObjectType);
          v.AddMember("enabled", true, a);
          v.AddMember("servers", rapidjson::Value(rapidjson::kArrayType).PushBack("10.0.0.1", a), a);
          v.AddMember("count", made, a);
          grp.AddMember(rapidjson::Value(key, a), v, a);
          ++made;
        } else {
          rapidjson::Value list(rapidjson::kArrayType);
          for (int i = 0; i < 100 && made < objects; ++i, ++made) {
            rapidjson::Value v(rapidjson::kObjectType);
            v.AddMember("cs_generated_id", rapidjson::Value("id-" + std::to_string(made), a), a);
            v.AddMember("address", "192.168.0.1", a);
            v.AddMember("port", i, a);
            list.PushBack(v, a);
          }
          grp.AddMember(rapidjson::Value(key, a), list, a);
        }
      }
      comp.AddMember(rapidjson::Value("group" + std::to_string(g), a), grp, a);
    }
    current.AddMember(rapidjson::Value("component" + std::to_string(c), a), comp, a);
  }
  rapidjson::Value host(rapidjson::kObjectType);
  host.AddMember("current", current, a);
  doc.AddMember("host", host, a);
  return doc;
}

// A private host root for the whole run.
void UseTemporaryRoot() {
  static std::string root;
  if (!root.empty()) return;
  std::string tmpl = (boost::filesystem::temp_directory_path() / "qen-bench-store-XXXXXX").string();
  root = mkdtemp(&tmpl[0]);
  setenv("QEN_HOST_ROOT", root.c_str(), 1);
  std::atexit([] { boost::filesystem::remove_all(root); });
}

void BM_StoreLoad(benchmark::State& state) {
  UseTemporaryRoot();
  const int n = static_cast<int>(state.range(0));
  rapidjson::Document doc = MakeDescription(n);
  for (auto _ : state) QenConfigStore::LoadStoreDescription(doc);
  state.SetItemsProcessed(state.iterations() * n);
  state.counters["objects/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_StoreReadBack(benchmark::State& state) {
  UseTemporaryRoot();
  const int n = static_cast<int>(state.range(0));
  QenConfigStore::LoadStoreDescription(MakeDescription(n));
  auto conn = QenConfigStore::GetDBStore(0, true);
  for (auto _ : state) {
    auto list = QenConfigStore::GetUserConfigContents(conn);
    if (static_cast<int>(list->size()) != n) state.SkipWithError("wrong object count");
    benchmark::DoNotOptimize(list);
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.counters["objects/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_JsonBaseline(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  rapidjson::Document doc = MakeDescription(n);
  for (auto _ : state) {
    size_t bytes = 0;
    for (auto& comp : doc["host"]["current"].GetObject())
      for (auto& grp : comp.value.GetObject())
        for (auto& key : grp.value.GetObject()) {
          auto one = [&](const rapidjson::Value& v) {
            rapidjson::StringBuffer buffer;
            rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
            v.Accept(writer);
            rapidjson::Document back;
            back.Parse(buffer.GetString(), buffer.GetSize());
            bytes += buffer.GetSize();
          };
          if (key.value.IsArray()) {
            for (auto& v : key.value.GetArray()) one(v);
          } else {
            one(key.value);
          }
        }
    benchmark::DoNotOptimize(bytes);
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.counters["objects/s"] = benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(BM_JsonBaseline)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StoreLoad)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StoreReadBack)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
