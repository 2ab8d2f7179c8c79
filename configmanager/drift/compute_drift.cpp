// ComputeDrift: the walk's entry point. Kept apart from the walk itself so
// that code testing the walk does not pull in the extraction.
#include "CSLogger.h"
#include "QenConfigStore.h"
#include "QenSchemaStore.h"
#include "configmanager/extract.h"
#include "drift/drift_engine.h"

namespace QenConfigManager {

void ComputeDrift(rapidjson::Value& desired, rapidjson::Document::AllocatorType& allocator,
                  DriftHandler& handler) {
  std::shared_ptr<QenConfigStore::JsonDoc> current =
      handler.currentDocument ? std::move(handler.currentDocument) : ExtractCurrentConfiguration();
  std::shared_ptr<QenSchemaStore::SchemaStore> schemaStore = QenSchemaStore::SchemaStore::GetStore();
  if (!schemaStore) ThrowException<ConfigManagerException>(SCHEMA_STORE_ERROR);
  CSLogger::Log(2, "DriftHandler: consolidated action required - %d",
                handler.consolidatedAction ? 1 : 0);
  CSLogger::Log(2, "DriftHandler: create drift object - %d", handler.createDriftObject ? 1 : 0);
  (void)desired.GetObject();
  auto profile = desired.FindMember("profile");
  rapidjson::Value& root = profile != desired.MemberEnd() ? profile->value : desired;
  rapidjson::Value& host = current->GetDocument();

  // The store connection is opened when the walk first needs it (a default
  // user configuration lookup); most walks never do.
  drift::WalkContext ctx(allocator, handler, nullptr, drift::IndexedMatchers());
  drift::walkComponents(ctx, root, host, schemaStore, false);
  drift::walkComponents(ctx, host, root, schemaStore, true);
}

}  // namespace QenConfigManager
