// The SmartNIC's configuration: read as a document, staged from one.
#include "CSLogger.h"
#include "ConfigStoreDocument.h"
#include "QenConfigStore.h"
#include "extract/extraction_internal.h"

namespace QenConfigManager {

std::string ExtractSmartnicConfiguration() {
  CSLogger::Log(3, "%s invoked", "ExtractSmartnicConfiguration");
  std::shared_ptr<DBStore::StoreConnection> connection = QenConfigStore::GetDBStore(0, true);
  ConfigMapList list = QenConfigStore::GetSmartnicConfiguration(connection);
  ProcessMutableDefaultConfig(list, connection, RequireSchemaStore(), true);

  rapidjson::Document doc(rapidjson::kObjectType);
  for (const std::shared_ptr<ConfigMap>& map : *list) {
    StoredObject object(*map);
    object.Log(2, "was found.");
    object.RejectDeletedDefault();
    rapidjson::Document value(&doc.GetAllocator());
    ParseDocument(object.value, value);
    ConfigStoreDocument::AddObject(doc, object.component, object.group, object.name,
                                   object.identifier, value, doc.GetAllocator());
  }
  return ConfigStoreDocument::NormalizeValue(doc);
}

void SetSmartnicConfiguration(const std::string& documentText) {
  CSLogger::Log(3, "%s invoked", "SetSmartnicConfiguration");
  rapidjson::Document doc;
  ParseDocument(documentText, doc);
  QenConfigStore::SetDesiredSmartnicConfiguration(doc);
}

}  // namespace QenConfigManager
