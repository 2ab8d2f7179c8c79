// Internals of extraction, shared with the export and telemetry documents
// and with the tests.
#pragma once

#include <memory>
#include <vector>

#include "ConfigStoreDocument.h"
#include "QenSchemaStore.h"
#include "configmanager/extract.h"

namespace QenConfigManager {

// The podlet daemon's schema id, left out of documents when it is not
// integrated with the data-services platform.
extern const QenSchemaStore::SchemaObjectId podlet;

// The clean-up actions each kind of document gets, in order.
const std::vector<ConfigStoreDocument::CLEANUP_ACTIONS>& CleanupActionsFor(DocumentType type);

// Synchronises the SSH files into the store; failures are logged, not thrown.
void SyncSshConfiguration();

// Runs every extract plugin and collects their valid objects.
std::shared_ptr<ExtractionData> ExtractPluginConfigurations();

// Replaces what the store listed for every plugin-served object with what
// the plugins returned.
void MergePluginConfigurations(ConfigMapList& list, const std::shared_ptr<ExtractionData>& data);

// Throws 2027 when a mutable-default key has no configuration in `list`.
void ProcessMutableDefaultDeletes(const ConfigMapList& list,
                                  const std::shared_ptr<QenSchemaStore::SchemaStore>& store);

// Adds every stored object of `list` to `doc`, shaped for `type`.
void ProcessConfigMapList(rapidjson::Document& doc, const ConfigMapList& list,
                          const std::shared_ptr<QenSchemaStore::SchemaStore>& store,
                          DocumentType type, const std::shared_ptr<ExtractionData>& pluginData);

}  // namespace QenConfigManager
