// The documents that leave the host: the exported user configuration with
// its reference host, and its telemetry form.
#include <cstring>

#include "CSLogger.h"
#include "ConfigStoreDocument.h"
#include "TavCtl.h"
#include "extract/extraction_internal.h"

namespace QenConfigManager {

namespace {

std::string Export(DocumentType type, const char* operation) {
  CSLogger::Log(3, "%s invoked", operation);
  try {
    rapidjson::Document doc = ExtractUserConfiguration(type);
    rapidjson::Document schemaDoc, errorsDoc;
    // Keys without schema cannot reach the document, so the errors say nothing new.
    QenSchemaStore::GenerateSchemaDocument(doc["profile"], QenSchemaStore::SchemaStore::GetCache(),
                                           schemaDoc, errorsDoc);
    const std::string biosUuid = GetBIOSUUID();
    ConfigStoreDocument::SplitDocument(schemaDoc, biosUuid, doc);
    AddReferenceHostMetadata(biosUuid, doc);
    return ConfigStoreDocument::NormalizeValue(doc);
  } catch (const QenConfigStore::ConfigStoreException&) {
    throw;
  } catch (const std::exception& e) {
    const std::string message = std::string(operation) + " failed: " + e.what();
    throw ConfigManagerException(UNEXPECTED_ERROR, message.c_str());
  }
}

}  // namespace

void AddReferenceHostMetadata(const std::string& biosUuid, rapidjson::Document& doc) {
  const TavCtl::System::TavVersion version = TavCtl::System::SystemInfoImpl().GetTavVersion();
  const std::pair<const char*, const char*> members[] = {
      {"uuid", biosUuid.c_str()},        {"build", version.GetBuild()},
      {"version", version.GetVersion()}, {"patch", version.GetPatch()},
      {"update", version.GetUpdate()},
  };
  for (const auto& member : members) {
    // A part the version does not name is null: refused by the JSON
    // library's check (1082) rather than written as an empty text.
    const char* text = member.second;
    rapidjson::Value value(text, text ? static_cast<rapidjson::SizeType>(std::strlen(text)) : 0,
                           doc.GetAllocator());
    rapidjson::Pointer(std::string("/metadata/reference_host/") + member.first).Set(doc, value);
  }
}

std::string ExportDocument() { return Export(DOC_EXPORT, "ExportDocument"); }

std::string ExportDocumentTelemetry() { return Export(DOC_TELEMETRY, "ExportDocumentTelemetry"); }

}  // namespace QenConfigManager
