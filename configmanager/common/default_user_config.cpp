// Default user configuration of an object, as the store holds it, without
// the instances that belong to solution users.
#include "configmanager/common.h"

namespace QenConfigManager {

ConfigMapVector GetExternalDefaultUserConfig(const ConfigStoreObjectId& id,
                                             const std::shared_ptr<DBStore::StoreConnection>& connection,
                                             std::shared_ptr<SchemaObject> schema) {
  ConfigMapVector maps = QenConfigStore::GetDefaultUserConfigMapList(id, connection);
  FilterSolutionUserInstances(maps, std::move(schema));
  return maps;
}

}  // namespace QenConfigManager
