// The plugin manager: loading manifests of one kind of work, the object
// index and the apply order.
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
    for (fs::recursive_directory_iterator it(base), end; it != end; ++it) {
      if (it->path().extension() != ".json") continue;
      const std::string logical = directory + it->path().lexically_relative(base).generic_string();
      ProcessJson(logical.c_str(), pluginType);
    }
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
  for (const auto& [path, plugin] : plugins) {
    CSLogger::Log(3, "Processing operations in %s", path.c_str());
    const std::string group = plugin->GetApplyGroup();
    const int64_t version = plugin->GetVersion();
    if (version >= 0 && version <= 2) {
      for (const auto& operation : plugin->GetOperations()) ProcessOperation(operation, group, graph);
    } else if (version == 3) {
      PluginApplyOperation remediate;
      plugin->GetRemediateOperation(remediate);
      ProcessOperation(remediate, group, graph);
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

std::vector<std::shared_ptr<Plugin>> PluginManager::GetPlugins() const {
  std::vector<std::shared_ptr<Plugin>> all;
  all.reserve(plugins.size());
  for (const auto& entry : plugins) all.push_back(entry.second);
  return all;
}

}  // namespace QenConfigManager
