// The plugin manager: loading manifests of one kind of work, the object
// index and the apply order.
#include <algorithm>
#include <stdexcept>

#include <boost/filesystem.hpp>
#include <boost/graph/adjacency_list.hpp>
#include <boost/graph/topological_sort.hpp>

#include "CSLogger.h"
#include "HostRoot.h"
#include "configmanager/plugin.h"
#include "plugin/paths.h"

namespace fs = boost::filesystem;

namespace QenConfigManager {

namespace {

// Apply group -> the groups that must be complete before it.
const DependencyGraph& ApplyGroupTable() {
  static const DependencyGraph table = {
      {"system-early", {}},
      {"network", {"system-early"}},
      {"storage", {"network"}},
      {"system", {"storage"}},
  };
  return table;
}

std::string ObjectPath(const ConfigStoreObjectId& id) {
  return id.GetComponent() + "/" + id.GetGroup() + "/" + id.GetKey();
}

}  // namespace

PluginManager::PluginManager(PluginType pluginType) : directory(PluginPaths::kPluginDirectory) {
  Load(pluginType);
}

PluginManager::~PluginManager() = default;

void PluginManager::Load(PluginType pluginType) {
  const fs::path base(QenPlatform::HostPath(directory));
  try {
    // In path order, not the file system's: Find's order among plugins of
    // one object follows the load order.
    std::vector<std::string> manifests;
    for (fs::recursive_directory_iterator it(base), end; it != end; ++it) {
      if (it->path().extension() != ".json") continue;
      manifests.push_back(directory + it->path().lexically_relative(base).generic_string());
    }
    std::sort(manifests.begin(), manifests.end());
    for (const std::string& logical : manifests) ProcessJson(logical.c_str(), pluginType);
  } catch (const fs::filesystem_error& e) {
    throw ConfigManagerException(
        UNEXPECTED_ERROR,
        ("Failed to iterate over " + directory + ", error message: " + e.what()).c_str());
  }
  if (pluginType < PLUGIN_EXTRACT) {
    try {
      BuildDependencies();
    } catch (const std::exception& e) {
      CSLogger::Log(0, "Failed to process dependencies %s", e.what());
      ThrowException<ConfigManagerException>(DEPENDENCY_ERROR);
    }
  }
}

void PluginManager::ProcessJson(const char* filename, PluginType pluginType) {
  auto plugin = std::make_shared<Plugin>(filename);
  if (!plugin->CheckType(pluginType)) {
    CSLogger::Log(3, "File %s does not support type:%d", filename, static_cast<int>(pluginType));
    return;
  }
  const std::string path(filename);
  plugins[path] = plugin;
  const ConfigStoreObjectIdList ids =
      pluginType == PLUGIN_EXTRACT ? plugin->GetExtractConfigIds() : plugin->GetCSOIdList();
  for (const auto& id : ids) {
    CSLogger::Log(3, "Adding cso %s to extension table %s", id.toString().c_str(), filename);
    auto& paths = extensionTable[ObjectPath(id)];
    paths.insert(paths.begin(), path);
  }
}

void PluginManager::BuildDependencies() {
  DependencyGraph graph = ApplyGroupTable();
  providers.clear();
  for (const auto& [path, plugin] : ById()) {
    CSLogger::Log(3, "Processing operations in %s", path.c_str());
    const std::string group = plugin->GetApplyGroup();
    const int64_t version = plugin->GetVersion();
    std::vector<PluginApplyOperation> operations;
    if (version >= 0 && version <= 2) {
      operations = plugin->GetOperations();
    } else if (version == 3) {
      operations.emplace_back();
      plugin->GetRemediateOperation(operations.back());
    }
    for (const auto& operation : operations) {
      ProcessOperation(operation, group, graph);
      providers[operation.provides].push_back({plugin, operation.name});
    }
  }

  std::map<std::string, size_t> number;
  std::vector<std::string> names;
  for (const auto& node : graph) {
    number.emplace(node.first, names.size());
    names.push_back(node.first);
  }
  typedef boost::adjacency_list<boost::listS, boost::vecS, boost::directedS> Graph;
  Graph g(names.size());
  for (const auto& [name, dependsOn] : graph) {
    for (const auto& target : dependsOn) boost::add_edge(number.at(name), number.at(target), g);
  }
  std::vector<Graph::vertex_descriptor> order;
  boost::topological_sort(g, std::back_inserter(order));
  dependencies.clear();
  for (auto v : order) dependencies.push_back(names[v]);
}

void PluginManager::ProcessOperation(const PluginApplyOperation& operation, const std::string& group,
                                     DependencyGraph& graph) {
  graph[group].push_back(operation.provides);
  const std::vector<std::string>& predecessors = ApplyGroupTable().at(group);
  std::vector<std::string>& node = graph[operation.provides];
  node = predecessors;
  node.insert(node.end(), operation.depends.begin(), operation.depends.end());
}

std::vector<std::shared_ptr<Plugin>> PluginManager::Find(const ConfigStoreObjectId& id) const {
  std::vector<std::shared_ptr<Plugin>> found;
  auto entry = extensionTable.find(ObjectPath(id));
  if (entry == extensionTable.end()) return found;
  for (const auto& path : entry->second) {
    CSLogger::Log(3, "Plugin found=%s for cso=%s", path.c_str(), id.toString().c_str());
    found.push_back(plugins.at(path));
  }
  return found;
}

std::vector<std::string> PluginManager::List() const {
  std::vector<std::string> list;
  for (const auto& [objectPath, paths] : extensionTable) {
    for (const auto& path : paths) list.push_back(objectPath + ":" + path);
  }
  return list;
}

std::vector<std::pair<std::string, std::shared_ptr<Plugin>>> PluginManager::ById() const {
  std::vector<std::pair<std::string, std::shared_ptr<Plugin>>> all(plugins.begin(), plugins.end());
  // Stable over the path order: plugins of one identifier stay by path.
  std::stable_sort(all.begin(), all.end(),
                   [](const auto& a, const auto& b) { return a.second->GetId() < b.second->GetId(); });
  return all;
}

std::vector<std::shared_ptr<Plugin>> PluginManager::GetPlugins() const {
  std::vector<std::shared_ptr<Plugin>> all;
  all.reserve(plugins.size());
  for (auto& entry : ById()) all.push_back(std::move(entry.second));
  return all;
}

const std::vector<ApplyOperationRef>& PluginManager::GetProviders(const std::string& name) const {
  static const std::vector<ApplyOperationRef> none;
  auto it = providers.find(name);
  return it == providers.end() ? none : it->second;
}

}  // namespace QenConfigManager
