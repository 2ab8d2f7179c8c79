// The JSON Schema validator with a fuzzed schema and a fuzzed value
// ("<schema>\0<value>"): a malformed schema is reported as errors, never
// thrown, and every error names a field, a code and its text.
#include "JsonValidator.h"
#include "support/Fuzz.h"

namespace QenFuzz {
namespace {

void CheckErrors(const rapidjson::Document& errors) {
  Check(errors.IsArray(), "errors are a list");
  for (const auto& error : errors.GetArray()) {
    Check(error.IsObject() && error.HasMember("field") && error["field"].IsString() &&
              error.HasMember("errId") && error["errId"].IsInt() && error.HasMember("error") &&
              error["error"].IsString(),
          "each error has a field, an errId and a text");
    const int code = error["errId"].GetInt();
    Check(code >= 0 && code < JsonValidator::kCodeCount, "an error code is one of the validator's");
  }
}

}  // namespace

int Validator(const uint8_t* data, size_t size) {
  const auto [schemaText, valueText] = SplitAtNul(data, size);
  rapidjson::Document schema, value;
  if (!Parse(schemaText, schema) || !Parse(valueText, value)) return 0;

  rapidjson::Document errors;
  JsonValidator::Validate(schema, value, errors, {}, "");
  CheckErrors(errors);
  // The same schema as a whole document's generated schema.
  rapidjson::Document documentErrors;
  JsonValidator::ValidateCMDocument(schema, value, documentErrors, {0, 1, 3, 7, 8}, "/profile");
  CheckErrors(documentErrors);
  return 0;
}

}  // namespace QenFuzz
