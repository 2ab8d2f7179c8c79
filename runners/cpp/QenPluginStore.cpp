// Store access, apart from the rest of the SDK: only plugins that use the
// store carry the store code and load SQLite.
#include "QenPlugin.h"

namespace QenPlugin {

QenConfigStore::ConfigStore& Call::Store() {
  if (!store_) {
    store_ = QenConfigStore::ConfigStore::GetStore();
    if (!store_) throw std::runtime_error("the configuration store is not available");
  }
  return *store_;
}

void Call::RecordApplied(const ConfigStoreObjectId& id, const rapidjson::Value& value) {
  QenConfigStore::StoreObject object(id, value);
  Store().SetObject(object);
}

}  // namespace QenPlugin
