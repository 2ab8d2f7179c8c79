// Drift engine and compliance check.
//
// ComputeDrift walks a desired configuration document against the host's
// current one, key by key under each key's schema, and reports every
// difference to a DriftHandler. The engine keeps nothing between calls; what a
// difference means is the handler's business (compliance, impact, apply).
//
// Ownership: the handler, both documents and the allocator are borrowed for
// the walk. The engine writes generated instance identifiers into elements of
// the desired document that need one, so it is passed by non-const reference.
// Thread safety: none of these objects may be used by another thread during a
// walk; the engine itself takes no locks.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "QenConfigStore.h"
#include "QenJson.h"
#include "QenSchemaStore.h"
#include "configmanager/common.h"
#include "configmanager/export.h"

namespace QenConfigManager {

// Property-level operation.
enum ACTION : int32_t {
  SET = 0,     // on both sides, with different values
  ADD = 1,     // only in the desired document
  DELETE = 2,  // only on the host
};

// "SET", "ADD", "DELETE", indexed by ACTION.
QCM_EXPORT extern const char* const kActionNames[3];

// The stand-in for a missing side of a comparison (JSON null).
QCM_EXPORT extern const rapidjson::Value kEmptyVal;

// Receives drift events. Every base operation does nothing; handlers override
// what they need. The flags steer the walk (see each one).
class QCM_EXPORT DriftHandler {
 public:
  DriftHandler();
  virtual ~DriftHandler();
  DriftHandler(const DriftHandler&) = delete;
  DriftHandler& operator=(const DriftHandler&) = delete;

  // A non-singleton instance that exists only in the desired document; `id`
  // carries its instance identifier.
  virtual void Add(const rapidjson::Value& desiredValue, const ConfigStoreObjectId& id,
                   const std::shared_ptr<SchemaObject>& schema, const std::string& path);
  // A key or instance to be set: once per differing key/instance when
  // consolidatedAction is set (with the drift document), for a singleton only
  // in the desired document when propertyLevelDrift is clear, and for an
  // instance the host lacks that has exactly one default user configuration
  // (hostValue is kEmptyVal).
  virtual void Set(const rapidjson::Value& desiredValue, const rapidjson::Value& hostValue,
                   const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
                   const std::string& path, const rapidjson::Value& drift);
  // A singleton key (propertyLevelDrift clear) or an instance only on the host.
  virtual void Delete(const rapidjson::Value& hostValue, const ConfigStoreObjectId& id,
                      const std::shared_ptr<SchemaObject>& schema, const std::string& path);
  // One property-level difference; the missing side is kEmptyVal.
  virtual void PropertyDrift(const rapidjson::Value& desiredValue, const rapidjson::Value& hostValue,
                             const rapidjson::Value& propertySchema, const std::string& path,
                             ACTION action);

  // Call Set once per differing key or instance, with its drift document.
  bool consolidatedAction = false;
  // Build drift documents ("ADD"/"SET"/"DELETE" per property; for arrays of
  // objects {"INSTANCEID", "DRIFTOP"[, "DRIFTOBJ"]} entries).
  bool createDriftObject = false;
  // A singleton key on one side only is compared property by property.
  bool propertyLevelDrift = false;
  // Before reporting a missing natural-identifier instance as an addition, ask
  // the store for its default user configuration.
  bool checkDefaultUserConfig = true;
  // When set, used as the host's current configuration instead of extracting
  // it; ComputeDrift takes it (the pointer is left null).
  std::shared_ptr<QenConfigStore::JsonDoc> currentDocument;
  // The handler's own scratch document; the engine never touches it.
  rapidjson::Document driftCache;
};

// Compares `desired` (with or without the "profile" wrapper) with the host's
// current configuration and reports to `handler`: first every key of the
// desired document, then the keys only the host has. `allocator` is the
// desired document's; identifiers added to it are allocated from it.
// Throws ConfigManagerException 2180 (schema store unreachable), 2021 (a key
// without schema), 3000 (an instance without identifier while default user
// configuration is checked), ConfigStoreException 1082 (a document of the
// wrong shape); handler exceptions pass through.
QCM_EXPORT void ComputeDrift(rapidjson::Value& desired, rapidjson::Document::AllocatorType& allocator,
                             DriftHandler& handler);

// One pass over the keys of `first` against `second`. reverse = false: first
// is the desired root; reverse = true: first is the host document and only
// keys that `second` lacks are reported.
QCM_EXPORT void computeComponents(rapidjson::Value& first, const rapidjson::Value& second,
                                  rapidjson::Document::AllocatorType& allocator,
                                  const std::shared_ptr<QenSchemaStore::SchemaStore>& schemaStore,
                                  DriftHandler& handler,
                                  const std::shared_ptr<DBStore::StoreConnection>& connection,
                                  bool reverse);

// ---------------------------------------------------------------------------
// Compliance

// Owned by the caller; overwritten by each CheckCompliance call.
struct QCM_EXPORT ComplianceResult {
  bool compliant = true;
  // {"ADDS": [...], "DELETES": [...], "SETS": [...]}; each entry has "path"
  // and the redacted "desiredValue"/"hostValue" of the sides that are not
  // null.
  rapidjson::Document details;
};

// Records drift events as entries of a ComplianceResult.
class QCM_EXPORT CheckComplianceHandler : public DriftHandler {
 public:
  // Resets *result to compliant with three empty arrays.
  explicit CheckComplianceHandler(ComplianceResult* result);
  void Add(const rapidjson::Value& desiredValue, const ConfigStoreObjectId& id,
           const std::shared_ptr<SchemaObject>& schema, const std::string& path) override;
  void Set(const rapidjson::Value& desiredValue, const rapidjson::Value& hostValue,
           const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>& schema,
           const std::string& path, const rapidjson::Value& drift) override;
  void Delete(const rapidjson::Value& hostValue, const ConfigStoreObjectId& id,
              const std::shared_ptr<SchemaObject>& schema, const std::string& path) override;
  void PropertyDrift(const rapidjson::Value& desiredValue, const rapidjson::Value& hostValue,
                     const rapidjson::Value& propertySchema, const std::string& path,
                     ACTION action) override;
  ~CheckComplianceHandler() override;

 private:
  ComplianceResult* result;
};

// Whether the host complies with `desired`; every difference is listed in
// `result` (overwritten). `propertyLevel` compares keys that exist on one
// side only property by property. Sets the task's progress to 100 on
// success; engine failures pass through (result keeps what was recorded).
QCM_EXPORT void CheckCompliance(rapidjson::Document& desired, bool propertyLevel,
                                ComplianceResult& result, std::shared_ptr<TaskHandle> task);

}  // namespace QenConfigManager
