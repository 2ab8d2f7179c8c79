#include "ErrorTable.h"

#include "JsonValidator.h"

namespace QenValidator {

namespace {

// Indexed by code; the enumeration is dense from 0.
const CodeInfo kCodes[JsonValidator::kCodeCount] = {
    {"format-not-checked", "format \"%s\" is not checked"},
    {"unknown-keyword", "schema keyword \"%s\" is not supported"},
    {"invalid-schema", "invalid schema at %s: %s"},
    {"instance-id-missing", "instance has no identifier member \"%s\""},
    {"additional-property", "property \"%s\" is not allowed"},
    {"type-mismatch", "expected %s, found %s"},
    {"enum-mismatch", "value %s is not one of %s"},
    {"read-only-property", "property \"%s\" is read-only"},
    {"deprecated-property", "property \"%s\" is deprecated"},
    {"required-property-missing", "required property \"%s\" is missing"},
    {"dependency-missing", "property \"%s\" requires property \"%s\""},
    {"no-schema", "no schema for \"%s\""},
    {"minimum", "value %s is less than the minimum %s"},
    {"exclusive-minimum", "value %s is not greater than %s"},
    {"maximum", "value %s is greater than the maximum %s"},
    {"exclusive-maximum", "value %s is not less than %s"},
    {"multiple-of", "value %s is not a multiple of %s"},
    {"min-length", "string of %s characters is shorter than %s"},
    {"max-length", "string of %s characters is longer than %s"},
    {"pattern-mismatch", "string %s does not match the pattern \"%s\""},
    {"min-items", "array of %s items has fewer than %s"},
    {"max-items", "array of %s items has more than %s"},
    {"unique-items", "items %s and %s are equal"},
    {"additional-items", "item %s is not allowed"},
    {"min-properties", "object with %s properties has fewer than %s"},
    {"max-properties", "object with %s properties has more than %s"},
    {"any-of-no-match", "value matches none of the %s schemas of \"anyOf\""},
    {"one-of-no-match", "value matches none of the %s schemas of \"oneOf\""},
    {"one-of-multiple-match", "value matches schemas %s and %s of \"oneOf\""},
    {"not-matched", "value matches the schema of \"not\""},
    {"nesting-too-deep", "value nested deeper than %s levels"},
    {"union-tag-unknown", "union tag \"%s\" has the unknown value %s; expected one of %s"},
    {"union-tag-missing", "union tag \"%s\" is missing"},
    {"duplicate-name", "member name \"%s\" appears more than once"},
    {"duplicate-instance-id", "instance identifier %s is also used by instance %s"},
};

}  // namespace

const CodeInfo* InfoOf(int code) {
  if (code < 0 || code >= JsonValidator::kCodeCount) return nullptr;
  return &kCodes[code];
}

std::string FormatText(const char* text, const std::vector<std::string>& args) {
  std::string out;
  size_t next = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (p[0] == '%' && p[1] == 's') {
      if (next < args.size()) out += args[next];
      ++next;
      ++p;
    } else {
      out += *p;
    }
  }
  return out;
}

}  // namespace QenValidator
