// The platform's JSON Schema validator (draft-04 plus the schema vocabulary
// of platform/README.md: "discriminator", "readOnly", "instanceId", ...).
//
// It reports every violation, not the first, as an error object
//   {"field": "/a/0/b", "errId": <VALIDATION_ERR_CODES>, "error": "<text>",
//    "errArgs": ["..."]}
// appended to `errors` (which becomes an array if it is not one yet, so
// several calls can accumulate into one result). "field" is `prefix`
// followed by the JSON Pointer (RFC 6901) of the offending value; for a
// missing property it points at where the property should be.
//
// `codeSet` lists the codes the caller does NOT want reported. Type, enum,
// range, length, pattern, required and schema errors are hard errors; the
// tolerable codes (0, 1, 3, 4, 7, 8, 11) describe advisory findings. The
// table and the reasoning behind each caller's set are in
// platform/src/validator/README.md.
//
// A malformed schema (wrong keyword types, dangling or remote $ref, bad
// regex) is reported as SCHEMA_INVALID errors naming the schema location, and
// the value is then not validated. Nesting beyond kMaxDepth levels is
// reported as NESTING_TOO_DEEP instead of recursing further.
//
// Stateless: every call compiles its schema afresh; safe to call from any
// number of threads as long as each call's `errors` is its own.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "QenJson.h"

class JsonValidator {
 public:
  enum VALIDATION_ERR_CODES {
    FORMAT_NOT_CHECKED = 0,     // "format" is an annotation here, not checked
    UNKNOWN_KEYWORD = 1,        // schema keyword this validator does not know
    SCHEMA_INVALID = 2,         // the schema itself is malformed
    INSTANCE_ID_MISSING = 3,    // instance array element without its "instanceId" member
    ADDITIONAL_PROPERTY = 4,    // property not allowed by "additionalProperties": false
    TYPE_MISMATCH = 5,
    ENUM_MISMATCH = 6,
    READ_ONLY_PROPERTY = 7,     // value given for a "readOnly" property
    DEPRECATED_PROPERTY = 8,    // value given for a "deprecated" property
    REQUIRED_PROPERTY_MISSING = 9,
    DEPENDENCY_MISSING = 10,
    NO_SCHEMA = 11,             // ValidateCMDocument: component/group/key without a schema
    MINIMUM = 12,
    EXCLUSIVE_MINIMUM = 13,
    MAXIMUM = 14,
    EXCLUSIVE_MAXIMUM = 15,
    MULTIPLE_OF = 16,
    MIN_LENGTH = 17,
    MAX_LENGTH = 18,
    PATTERN_MISMATCH = 19,
    MIN_ITEMS = 20,
    MAX_ITEMS = 21,
    UNIQUE_ITEMS = 22,
    ADDITIONAL_ITEMS = 23,
    MIN_PROPERTIES = 24,
    MAX_PROPERTIES = 25,
    ANY_OF_NO_MATCH = 26,
    ONE_OF_NO_MATCH = 27,
    ONE_OF_MULTIPLE_MATCH = 28,
    NOT_MATCHED = 29,
    NESTING_TOO_DEEP = 30,
    UNION_TAG_UNKNOWN = 31,     // discriminator value names no variant
    UNION_TAG_MISSING = 32,     // discriminator member absent
    DUPLICATE_NAME = 33,        // ValidateCMDocument: an object names this member more than once
    DUPLICATE_INSTANCE_ID = 34, // two instances of one array share their "instanceId" value
  };
  static constexpr int kCodeCount = 35;
  // Deepest nesting of schema applications followed before NESTING_TOO_DEEP.
  static constexpr int kMaxDepth = 1000;

  // Validates `value` against `schema` ("$ref"s resolve within `schema`).
  static void Validate(const rapidjson::Value& schema, const rapidjson::Value& value,
                       rapidjson::Document& errors, const std::set<int>& codeSet,
                       const std::string& prefix);

  // Validates a configuration document against a generated schema document
  // (platform/README.md). `value` is either the whole document (with
  // "profile") or the profile's content (components); fields are relative to
  // the components. A key whose value is "DELETE_DEFAULT" is not validated;
  // a component, group or key that the schema document lacks is NO_SCHEMA.
  // Every repeated member name anywhere in `value` is DUPLICATE_NAME at the
  // path of the member (its later copies would otherwise pass unseen).
  static void ValidateCMDocument(const rapidjson::Value& schemaDoc, const rapidjson::Value& value,
                                 rapidjson::Document& errors, const std::set<int>& codeSet,
                                 const std::string& prefix);

  // "corvane.qen.settings.schema.<event>" for a code; an unknown code gives
  // "corvane.qen.settings.schema.unknown-error".
  static std::string ConvertErrorCodeToMsgId(int code);

  // The readable text of a message identifier of ConvertErrorCodeToMsgId
  // with its arguments ("expected string, found integer"); "" for any other
  // identifier. Validation results carry identifiers only.
  static std::string MessageText(const std::string& msgId, const std::vector<std::string>& args);
};
