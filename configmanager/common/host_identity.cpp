// This host's identity in documents: the normalised BIOS UUID, the host's
// view of a desired document, instance identifiers of values.
#include "ConfigStoreDocument.h"
#include "HostCtl.h"
#include "configmanager/common.h"

namespace QenConfigManager {

std::string GetBIOSUUID() {
  std::unique_ptr<HostCtl::Host::HardwareInfo> hardware = HostCtl::Host::GetHardwareInfo();
  if (!hardware) throw HostCtl::Lib::HostCtlException("no hardware information");
  return ConfigStoreDocument::NormalizeHostId(hardware->GetBiosUuid());
}

void CreateMergedDocument(const rapidjson::Document& schema, rapidjson::Document& doc) {
  const std::string uuid = GetBIOSUUID();
  ConfigStoreDocument::SchemaMergeMetadataProvider provider(schema);
  ConfigStoreDocument::GetDocumentForHost(doc, uuid, provider);
}

std::string GetInstanceIdFromValue(const rapidjson::Value& value,
                                   const std::shared_ptr<SchemaObject>& schema) {
  if (!schema) ThrowException<ConfigManagerException>(SCHEMA_NOT_FOUND, std::string());
  const std::string& field = schema->GetInstanceIdField();
  if (field.empty()) return std::string();
  if (!ConfigStoreDocument::ValueExists(value, field) || !value.IsObject())
    ThrowException<ConfigManagerException>(INVALID_KEY_VALUE, field);
  auto it = value.FindMember(rapidjson::StringRef(field.c_str(), field.size()));
  if (it == value.MemberEnd() || !it->value.IsString())
    ThrowException<ConfigManagerException>(INVALID_KEY_VALUE, field);
  return std::string(it->value.GetString(), it->value.GetStringLength());
}

}  // namespace QenConfigManager
