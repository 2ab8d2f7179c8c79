// Configuration documents as a user hands them in: parsed, written back,
// validated against the schemas the document names, resolved for this host,
// split for export, normalised and redacted.
#include <variant>

#include "ConfigStoreDocument.h"
#include "QenSchemaStore.h"
#include "configmanager/common.h"
#include "configmanager/validate.h"
#include "support/Fuzz.h"

using namespace QenConfigManager;

namespace QenFuzz {
namespace {

void RoundTrips(const rapidjson::Document& doc) {
  // Whatever parsed is written back as text that parses to the same value.
  std::string compact;
  SerializeValue(doc, compact);
  rapidjson::Document again;
  ParseDocument(compact, again);
  Check(SameValue(again, doc), "compact text parses back to the same value");
  rapidjson::Document pretty;
  ParseDocument(JsonToString(doc), pretty);
  Check(SameValue(pretty, doc), "pretty text parses back to the same value");
  // The library's comparisons below are value equality, which is exact and
  // finds the first of repeated names only.
  if (RepeatsAName(doc) || compact != QenPlatform::CompactJson(again)) return;
  Check(ConfigStoreDocument::NormalizeValue(doc) == ConfigStoreDocument::NormalizeValue(again),
        "equal values have one normal form");
  if (doc.IsArray()) Check(IsEqualArray(doc, again), "an array equals its copy");
}

}  // namespace

int Document(const uint8_t* data, size_t size) {
  Host();
  rapidjson::Document doc;
  try {
    ParseDocument(Text(data, size), doc);
  } catch (const InvalidArgumentException& e) {
    Check(e.GetErrorCode() == PARSE_ERROR, "a parse failure is 2080");
    return 0;
  }
  RoundTrips(doc);

  // Refusals: 1082 for a document of the wrong shape, 2021 and 2180 from
  // the schema store.
  Guarded([&] {
    auto generated = GenerateHostDocumentSchema(doc);
    if (!std::holds_alternative<rapidjson::Document>(generated)) return;
    const rapidjson::Document& schemaDoc = std::get<rapidjson::Document>(generated);
    ValidationResult result;
    Validate(doc, schemaDoc, "", result, true, TaskHandle::Dummy());
    rapidjson::Document serialized;
    ParseDocument(result.Serialize(), serialized);

    rapidjson::Document merged;
    merged.CopyFrom(doc, merged.GetAllocator());
    CreateMergedDocument(schemaDoc, merged);
    rapidjson::Document exported;
    exported.CopyFrom(doc, exported.GetAllocator());
    ConfigStoreDocument::SplitDocument(schemaDoc, GetBIOSUUID(), exported);
    (void)ConfigStoreDocument::NormalizeValue(exported);
  });
  Guarded([&] {
    // The whole document under a schema that marks everything sensitive.
    rapidjson::Document sensitive;
    sensitive.Parse(R"({"sensitive": true})");
    Check(ConfigStoreDocument::RedactAndSerializeValue(sensitive, doc) == "\"(redacted)\"",
          "a sensitive value is redacted whole");
  });
  return 0;
}

}  // namespace QenFuzz
