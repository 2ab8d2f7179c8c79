// Loading a plugin directory of a thousand manifests: the plugin manager for
// the apply kind (manifests, schema checks, object index, apply order) and
// for the extract kind, against reading and parsing the same files alone.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <boost/filesystem.hpp>

#include "HostRoot.h"
#include "HostRootTest.h"
#include "configmanager/plugin.h"

namespace fs = boost::filesystem;

namespace {

constexpr int kManifests = 1000;
const char* const kGroups[] = {"system-early", "network", "storage", "system"};

void Write(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path.string()) << content;
}

// A host root with the shipped manifest schemas and kManifests manifests:
// half version 1 (one per key), half version 3; each service depends on the
// one before it, whose group is never later than its own.
class PluginDirectory {
 public:
  PluginDirectory() {
    std::string tmpl = (fs::temp_directory_path() / "qen-bench-XXXXXX").string();
    root_ = mkdtemp(&tmpl[0]);
    const fs::path schemas =
        fs::path(QEN_SOURCE_DIR) / "host/root/usr/lib/corvane/configmanager/plugin_schemas";
    const fs::path base = fs::path(root_) / "usr/lib/corvane/configmanager";
    for (int v = 1; v <= 3; ++v) {
      const std::string name = "plugin_version_" + std::to_string(v) + "_schema.json";
      fs::create_directories(base / "plugin_schemas");
      fs::copy_file(schemas / name, base / "plugin_schemas" / name, fs::copy_options::overwrite_existing);
    }
    for (int i = 0; i < kManifests; ++i) {
      const std::string group = kGroups[i * 4 / kManifests];
      const std::string depends = i == 0 ? "" : "\"svc" + std::to_string(i - 1) + "\"";
      const std::string service = "\"svc" + std::to_string(i) + "\"";
      const std::string n = std::to_string(i);
      if (i % 2 == 0) {
        Write(base / "apply_modules" / ("comp" + std::to_string(i % 10)) / ("grp" + n) / "key" / "m.json",
              R"({"type": "python", "apply_group": ")" + group + R"(", "boot": true,
                 "operations": {"op": {"provides": )" + service + R"(, "depends": [)" + depends + "]}}}");
      } else {
        Write(base / "apply_modules" / ("plugin" + n) / "m.json",
              R"({"version": 3, "type": "c++", "accepts": ["comp:grp)" + n + R"(:key", "comp:grp:k)" + n + R"("],
                 "apply": {"apply_group": ")" + group + R"(", "boot": false,
                           "REMEDIATE": {"provides": )" + service + R"(, "depends": [)" + depends + R"(]}},
                 "extract": {"supports": true}, "impact": {"supports": true, "cache_drift": ["a:b:c"]}})");
      }
    }
    QenPlatform::SetHostRoot(root_);
  }
  ~PluginDirectory() {
    QenPlatform::SetHostRoot("");
    boost::system::error_code ec;
    fs::remove_all(root_, ec);
  }
  std::string Modules() const { return root_ + "/usr/lib/corvane/configmanager/apply_modules"; }

 private:
  std::string root_;
};

PluginDirectory& Directory() {
  static PluginDirectory directory;
  return directory;
}

// Baseline: walk the directory, read and parse every manifest.
void BM_ReadAndParseManifests(benchmark::State& state) {
  const std::string modules = Directory().Modules();
  for (auto _ : state) {
    size_t members = 0;
    for (fs::recursive_directory_iterator it(modules), end; it != end; ++it) {
      if (it->path().extension() != ".json") continue;
      std::ifstream in(it->path().string());
      std::stringstream ss;
      ss << in.rdbuf();
      rapidjson::Document d;
      d.Parse(ss.str().c_str());
      members += d.MemberCount();
    }
    benchmark::DoNotOptimize(members);
  }
  state.counters["manifests"] = kManifests;
}
BENCHMARK(BM_ReadAndParseManifests)->Unit(benchmark::kMillisecond);

void BM_LoadApplyManager(benchmark::State& state) {
  Directory();
  size_t order = 0;
  for (auto _ : state) {
    QenConfigManager::PluginManager manager(QenConfigManager::PLUGIN_APPLY);
    order = manager.GetDependencies().size();
    benchmark::DoNotOptimize(order);
  }
  state.counters["manifests"] = kManifests;
  state.counters["order"] = static_cast<double>(order);
}
BENCHMARK(BM_LoadApplyManager)->Unit(benchmark::kMillisecond);

void BM_LoadExtractManager(benchmark::State& state) {
  Directory();
  size_t plugins = 0;
  for (auto _ : state) {
    QenConfigManager::PluginManager manager(QenConfigManager::PLUGIN_EXTRACT);
    plugins = manager.GetPlugins().size();
    benchmark::DoNotOptimize(plugins);
  }
  state.counters["plugins"] = static_cast<double>(plugins);
}
BENCHMARK(BM_LoadExtractManager)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
