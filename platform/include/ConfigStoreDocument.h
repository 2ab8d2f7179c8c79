// The configuration document library: building, comparing, splitting,
// cleaning, normalising, redacting and serialising document values.
//
// Owner: the platform layer (platform/src/document/, where README.md records
// every rule decided here: host sections, merge rules, clean-up actions,
// redaction text, normal form).
//
// Thread safety: every function is reentrant and keeps no state; a value and
// its allocator must not be used by another thread during a call. Schema
// nodes are only read, so one schema may be shared by concurrent calls.
//
// Failures are QenConfigStore::ConfigStoreException: code 1082 ("JSON
// error: ...") for a value of the wrong shape or nested deeper than
// kMaxDepth, code 2080 for text that is not JSON. A schema node of the wrong
// shape is never an error: the part of it that cannot be read is ignored.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "QenJson.h"

namespace ConfigStoreDocument {

typedef rapidjson::Document::AllocatorType Allocator;

// Values nested deeper than this (the root is level 1) are refused with code
// 1082, so that no walk, copy or write of a hostile document can exhaust the
// stack.
constexpr int kMaxDepth = 512;

// Throws code 1082 "JSON error: value nested deeper than 512 levels": what
// the walks here raise past kMaxDepth, for other walks over the same values.
[[noreturn]] void ThrowTooDeep();

// What RedactAndSerializeValue and CLEANUP_ACTIONS' REDACT_SENSITIVE write in
// place of a value that the schema marks "sensitive".
constexpr const char* kRedactedText = "(redacted)";

// Error code of a text that is not JSON.
constexpr int kParseErrorCode = 2080;

// ---- host identifiers and host sections ---------------------------------

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
  // The key's value schema, when known: lets nested arrays of objects merge
  // per instance too. Null means "merge nested arrays by replacing them".
  virtual const rapidjson::Value* GetKeySchema(const std::string& /*component*/,
                                               const std::string& /*group*/,
                                               const std::string& /*key*/) const {
    return nullptr;
  }
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
  const rapidjson::Value* GetKeySchema(const std::string& component, const std::string& group,
                                       const std::string& key) const override;

 private:
  const rapidjson::Value& schema_;
};

// Rewrites `doc` in place into the document that applies to host `hostId`:
// this host's "host-specific" sections merge into "profile", then its
// "host-override" sections replace; both section members are removed.
void GetDocumentForHost(rapidjson::Document& doc, const std::string& hostId,
                        const MergeMetadataProvider& provider);

// The inverse for export: moves what the schema marks "hostSpecific" out of
// doc["profile"] into doc["host-specific"][NormalizeHostId(hostId)].
void SplitDocument(const rapidjson::Value& schemaDoc, const std::string& hostId,
                   rapidjson::Document& doc);

// ---- building ----------------------------------------------------------

// Parses `text` (one JSON value, nothing but white space after it; any
// depth up to kMaxDepth) into `doc`. Code 2080 when it is not JSON.
void CreateDocument(const std::string& text, rapidjson::Document& doc);
std::unique_ptr<rapidjson::Document> CreateDocument(const std::string& text);

// Adds an empty "profile" object to `doc` unless it has one (a null `doc`
// becomes an object first).
void AddProfile(rapidjson::Document& doc);

// target[component] as an object, created when missing.
rapidjson::Value& AddComponent(rapidjson::Value& target, const std::string& component,
                               Allocator& allocator);
// target[component][group] as an object, both created when missing.
rapidjson::Value& AddGroup(rapidjson::Value& target, const std::string& component,
                           const std::string& group, Allocator& allocator);
// Moves `value` into `object` as member `name`, replacing a member of that
// name; `value` is left null.
void AddMember(rapidjson::Value& object, const std::string& name, rapidjson::Value& value,
               Allocator& allocator);
// Adds one stored object below `target` (the document root or its
// "profile"): an empty `identifier` sets target[c][g][k] to `value`; a
// non-empty one appends `value` to the array target[c][g][k]. `value` is
// moved (left null).
void AddObject(rapidjson::Value& target, const std::string& component, const std::string& group,
               const std::string& key, const std::string& identifier, rapidjson::Value& value,
               Allocator& allocator);

// ---- comparing ---------------------------------------------------------

// Equality of two values under `schemaNode` (a key's value schema or any node
// below it): member order never matters, "cs_generated_id" members are
// ignored at any depth, arrays of objects compare as sets of instances (by
// the node's "instanceId" when it is a natural identifier, else by value),
// arrays of scalars as IsEqualPrimitiveArray. Without schema information an
// array compares element by element in order.
bool IsEqualValue(const rapidjson::Value& a, const rapidjson::Value& b,
                  const rapidjson::Value& schemaNode);

// Whether two arrays hold the same items with the same multiplicities in
// any order ([1, 1, 2] equals [2, 1, 1], not [1, 2, 2]). False unless both
// are arrays.
bool IsEqualPrimitiveArray(const rapidjson::Value& a, const rapidjson::Value& b);

// Null, an object without members or an array without elements.
bool IsDocumentEmpty(const rapidjson::Value& value);

// Whether the key's schema opts out of telemetry ("telemetryDisabled": true
// on the key node or on its "items").
bool IsTelemetryDisabled(const rapidjson::Value& schemaJson);

// ---- cleaning and patching ---------------------------------------------

// Clean-up steps, applied by CleanupObject in the order given. Each acts at
// every depth of the value; README.md beside the code has the full rules.
enum CLEANUP_ACTIONS : int {
  REMOVE_EMPTY_MEMBERS = 0,           // members that are null, {} or []
  REMOVE_UNDESCRIBED_PROPERTIES = 1,  // members the schema does not describe
  REMOVE_NULL_MEMBERS = 2,            // members that are null
  REMOVE_GENERATED_ID = 3,            // "cs_generated_id" members
  REMOVE_DEFAULT_VALUES = 4,          // members equal to their schema "default"
  REMOVE_READONLY_PROPERTIES = 5,     // members the schema marks "readOnly"
  SORT_INSTANCES = 6,                 // arrays of objects by instance identifier
  ADD_DEFAULT_VALUES = 7,             // missing members that have a "default"
  SORT_MEMBERS = 8,                   // object members by name
  REDACT_SENSITIVE = 9,               // "sensitive" values become kRedactedText
};
constexpr int kCleanupActionCount = 10;

// Applies `actions` in order to `value` under its schema `schema`. An action
// outside 0..9 is code 1082 before anything changes.
void CleanupObject(rapidjson::Value& value, const rapidjson::Value& schema,
                   const std::vector<CLEANUP_ACTIONS>& actions, Allocator& allocator);

// Repairs a missing required property reported by the validator at `field`
// (a "/"-separated path, "" for the root) from the automatic configuration
// `autoValue`: when `field` names the missing member, it is copied from
// autoValue; when it names the object that lacks members, every member that
// autoValue has there and `value` lacks is copied. Returns whether anything
// was copied.
bool PatchRequiredProperty(rapidjson::Value& value, const std::string& field,
                           const rapidjson::Value& autoValue, Allocator& allocator);

// Repairs the tag of a tagged union ("discriminator" with "oneOf") at
// `field` (the union object or its tag member): the tag is set to
// autoValue's tag there when that names one of the variants. Returns whether
// the tag was set.
bool PatchUnionTagProperty(rapidjson::Value& value, const std::string& field,
                           const rapidjson::Value& autoValue, const rapidjson::Value& schema,
                           Allocator& allocator);

// ---- writing -----------------------------------------------------------

// Compact JSON text of `value`; `out` is replaced.
void SerializeValue(const rapidjson::Value& value, std::string& out);
std::string SerializeValue(const rapidjson::Value& value);

// Compact JSON text of `value` with every value that `schemaNode` marks
// "sensitive" (and all below it) written as the string kRedactedText.
std::string RedactAndSerializeValue(const rapidjson::Value& schemaNode,
                                    const rapidjson::Value& value);

// The normal form: compact text, object members sorted by name at every
// depth, array order kept, integral floating numbers written as integers.
// Values that are JSON-equal have the same normal form.
std::string NormalizeValue(const rapidjson::Value& value);

}  // namespace ConfigStoreDocument
