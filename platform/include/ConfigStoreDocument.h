// The configuration document library: building, comparing, splitting,
// cleaning, normalising, redacting and serialising document values.
#pragma once

#include <string>

#include "QenJson.h"

namespace ConfigStoreDocument {

// The host identifier in the form documents use: lower case, no braces or
// surrounding white space.
std::string NormalizeHostId(const std::string& hostId);

// Whether `value` is an object that has member `name`.
bool ValueExists(const rapidjson::Value& value, const std::string& name);

// Decides how "host-specific" / "host-override" sections merge into the
// profile, per key.
class MergeMetadataProvider {
 public:
  virtual ~MergeMetadataProvider() = default;
  // Whether component/group/key holds instances (an array merged per
  // instance identifier) rather than one object.
  virtual bool IsNonSingleton(const std::string& component, const std::string& group,
                              const std::string& key) const = 0;
  // The instance identifier member of a non-singleton key ("" if unknown).
  virtual std::string GetInstanceIdField(const std::string& component, const std::string& group,
                                         const std::string& key) const = 0;
};

// Merge metadata read from a schema document (the schema store's generated
// document or a key-schema map). The document must outlive the provider.
class SchemaMergeMetadataProvider : public MergeMetadataProvider {
 public:
  explicit SchemaMergeMetadataProvider(const rapidjson::Value& schemaDoc) : schema_(schemaDoc) {}
  bool IsNonSingleton(const std::string& component, const std::string& group,
                      const std::string& key) const override;
  std::string GetInstanceIdField(const std::string& component, const std::string& group,
                                 const std::string& key) const override;

 private:
  const rapidjson::Value& schema_;
};

// Rewrites `doc` in place into the document that applies to host `hostId`.
void GetDocumentForHost(rapidjson::Document& doc, const std::string& hostId,
                        const MergeMetadataProvider& provider);

}  // namespace ConfigStoreDocument
