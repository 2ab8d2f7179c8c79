#include <gtest/gtest.h>

#include <string>

#include "JsonValidator.h"

namespace {

using V = JsonValidator;

rapidjson::Document Parse(const std::string& text) {
  rapidjson::Document d;
  d.Parse(text.c_str());
  EXPECT_FALSE(d.HasParseError()) << text;
  return d;
}

std::string Compact(const rapidjson::Value& v) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  v.Accept(writer);
  return buffer.GetString();
}

std::string Check(const std::string& schema, const std::string& value, const std::set<int>& codes = {},
                const std::string& prefix = "") {
  rapidjson::Document s = Parse(schema);
  rapidjson::Document v = Parse(value);
  rapidjson::Document errors;
  V::Validate(s, v, errors, codes, prefix);
  return Compact(errors);
}

// Just the (field, errId) pairs, for tests about which errors appear.
std::string Brief(const std::string& schema, const std::string& value, const std::set<int>& codes = {}) {
  rapidjson::Document errors = Parse(Check(schema, value, codes));
  std::string out;
  for (auto& e : errors.GetArray()) {
    out += std::string(e["field"].GetString()) + ":" + std::to_string(e["errId"].GetInt()) + " ";
  }
  return out;
}

const std::set<int> kManifestCodes{0, 1, 4, 8};
const std::set<int> kDocumentCodes{0, 11, 1, 3, 7, 8};
const std::set<int> kCsoCodes{0, 1, 7, 8};
const std::set<int> kAutoconfCodes{0, 1, 3, 7, 8};

const char* kServerSchema = R"({
  "type": "object",
  "required": ["name", "port", "mode"],
  "additionalProperties": false,
  "properties": {
    "name": {"type": "string", "pattern": "^[a-z]+$", "maxLength": 8},
    "port": {"type": "integer", "minimum": 1, "maximum": 65535},
    "mode": {"enum": [1, 2]},
    "ratio": {"type": "number", "exclusiveMaximum": true, "maximum": 1, "multipleOf": 0.25},
    "tags": {"type": "array", "minItems": 1, "uniqueItems": true, "items": {"type": "string"}},
    "owner": {"type": "object", "required": ["uid"], "properties": {"uid": {"type": "integer"}}}
  }})";

}  // namespace

TEST(Validate, ReportsEveryErrorWithPathCodeTextAndArguments) {
  EXPECT_EQ(Check(kServerSchema,
                R"({"name": "Web Server", "port": 70000, "ratio": 1, "tags": ["a", 3, "a"],
                    "owner": {"uid": "x"}, "extra": true})"),
            R"([{"field":"/mode","errId":9,"error":"required property \"mode\" is missing","errArgs":["mode"]},)"
            R"({"field":"/name","errId":18,"error":"string of 10 characters is longer than 8","errArgs":["10","8"]},)"
            R"({"field":"/name","errId":19,"error":"string \"Web Server\" does not match the pattern \"^[a-z]+$\"","errArgs":["\"Web Server\"","^[a-z]+$"]},)"
            R"({"field":"/port","errId":14,"error":"value 70000 is greater than the maximum 65535","errArgs":["70000","65535"]},)"
            R"({"field":"/ratio","errId":15,"error":"value 1 is not less than 1","errArgs":["1","1"]},)"
            R"({"field":"/tags/2","errId":22,"error":"items 0 and 2 are equal","errArgs":["0","2"]},)"
            R"({"field":"/tags/1","errId":5,"error":"expected string, found integer","errArgs":["string","integer"]},)"
            R"({"field":"/owner/uid","errId":5,"error":"expected integer, found string","errArgs":["integer","string"]},)"
            R"({"field":"/extra","errId":4,"error":"property \"extra\" is not allowed","errArgs":["extra"]}])");
  EXPECT_EQ(Check(kServerSchema, R"({"name": "web", "port": 80, "mode": 1, "ratio": 0.75, "tags": ["a"]})"), "[]");
}

TEST(Validate, AppendsToExistingResultAndPrefixesEscapedFields) {
  rapidjson::Document schema = Parse(R"({"properties": {"a/b~c": {"items": {"type": "null"}}}})");
  rapidjson::Document errors = Parse(R"([{"field": "/earlier"}])");
  V::Validate(schema, Parse(R"({"a/b~c": [null, 1]})"), errors, {}, "/net/dns/resolver");
  ASSERT_EQ(errors.Size(), 2u);
  EXPECT_STREQ(errors[1]["field"].GetString(), "/net/dns/resolver/a~1b~0c/1");

  rapidjson::Document fresh;
  V::Validate(schema, Parse("{}"), fresh, {}, "");
  EXPECT_TRUE(fresh.IsArray() && fresh.Empty());
}

TEST(Validate, CallerCodeSetsSuppressOnlyTheirAdvisoryCodes) {
  const char* schema = R"({"type": "object", "additionalProperties": false,
    "properties": {"id": {"type": "string", "readOnly": true}, "old": {"deprecated": true},
                   "mail": {"type": "string", "format": "email"}, "list": {"type": "array",
                   "instanceId": "name", "items": {"type": "object"}}, "x": {"foo": 1}}})";
  const char* value = R"({"id": "a", "old": 1, "mail": "m", "list": [{"n": 1}], "x": 0, "y": 0})";
  EXPECT_EQ(Brief(schema, value), "/id:7 /old:8 /mail:0 /list/0/name:3 /x:1 /y:4 ");
  EXPECT_EQ(Brief(schema, value, kManifestCodes), "/id:7 /list/0/name:3 ");
  EXPECT_EQ(Brief(schema, value, kCsoCodes), "/list/0/name:3 /y:4 ");
  EXPECT_EQ(Brief(schema, value, kAutoconfCodes), "/y:4 ");
  EXPECT_EQ(Brief(schema, value, kDocumentCodes), "/y:4 ");

  // The store assigns generated identifiers, so their absence is no finding.
  EXPECT_EQ(Brief(R"({"instanceId": "cs_generated_id", "items": {}})", R"([{"a": 1}])"), "");

  // Hard violations stay reported whatever the caller's set.
  const char* strict = R"({"required": ["r"], "properties": {"t": {"type": "integer"},
    "e": {"enum": [1]}, "m": {"minimum": 5}, "p": {"pattern": "^a"}}})";
  for (const auto* codes : {&kManifestCodes, &kDocumentCodes, &kCsoCodes, &kAutoconfCodes}) {
    EXPECT_EQ(Brief(strict, R"({"t": "1", "e": 2, "m": 4, "p": "b"})", *codes),
              "/r:9 /t:5 /e:6 /m:12 /p:19 ");
  }
}

TEST(Validate, DiscriminatorChoosesOneVariantAndReportsItsErrorsDirectly) {
  const char* schema = R"({"type": "object", "properties": {"link": {
    "discriminator": "kind",
    "oneOf": [
      {"properties": {"kind": {"enum": ["static"]}, "address": {"type": "string", "pattern": "^[0-9.]+$"}},
       "required": ["kind", "address"]},
      {"$ref": "#/definitions/dhcp"}]}},
    "definitions": {"dhcp": {"properties": {"kind": {"enum": ["dhcp", "auto"]}, "lease": {"type": "integer"}}}}})";
  EXPECT_EQ(Check(schema, R"({"link": {"address": "10.0.0.1"}})"),
            R"([{"field":"/link/kind","errId":32,"error":"union tag \"kind\" is missing","errArgs":["kind"]}])");
  EXPECT_EQ(Check(schema, R"({"link": {"kind": "ppp"}})"),
            R"([{"field":"/link/kind","errId":31,"error":"union tag \"kind\" has the unknown value \"ppp\"; )"
            R"(expected one of [\"static\",\"dhcp\",\"auto\"]","errArgs":["kind","\"ppp\"","[\"static\",\"dhcp\",\"auto\"]"]}])");
  EXPECT_EQ(Brief(schema, R"({"link": {"kind": "static", "address": "x"}})"), "/link/address:19 ");
  EXPECT_EQ(Brief(schema, R"({"link": {"kind": "auto", "lease": "long"}})"), "/link/lease:5 ");
  EXPECT_EQ(Brief(schema, R"({"link": {"kind": "dhcp", "lease": 60}})"), "");
  // A non-object value falls back to plain oneOf.
  EXPECT_EQ(Brief(schema, R"({"link": 5})"), "/link:28 ");
}

TEST(Validate, AlternativesDoNotLeakTheirBranchErrors) {
  EXPECT_EQ(Check(R"({"anyOf": [{"type": "string"}, {"minimum": 10}]})", "3"),
            R"([{"field":"","errId":26,"error":"value matches none of the 2 schemas of \"anyOf\"","errArgs":["2"]}])");
  EXPECT_EQ(Brief(R"({"oneOf": [{"type": "integer"}, {"minimum": 2}]})", "3"), ":28 ");
  EXPECT_EQ(Brief(R"({"oneOf": [{"type": "integer"}, {"minimum": 2}]})", "1.5"), ":27 ");
  EXPECT_EQ(Brief(R"({"not": {"type": "integer"}})", "3"), ":29 ");
  // A suppressed finding inside a branch does not make the branch fail.
  EXPECT_EQ(Brief(R"({"anyOf": [{"readOnly": true}]})", "3", kCsoCodes), "");
  EXPECT_EQ(Brief(R"({"anyOf": [{"readOnly": true}]})", "3"), ":26 ");
}

TEST(Validate, SensitiveValuesNeverAppearInErrors) {
  const char* schema = R"({"properties": {"password": {"type": "string", "sensitive": true,
    "pattern": "^.{12,}$", "enum": ["x"]}, "plain": {"enum": ["y"]}}})";
  // Limits come from the schema and stay visible.
  EXPECT_EQ(Check(R"({"sensitive": true, "minimum": 1000})", "12"),
            R"j([{"field":"","errId":12,"error":"value (sensitive) is less than the minimum 1000","errArgs":["(sensitive)","1000"]}])j");
  std::string errors = Check(schema, R"({"password": "hunter2", "plain": "hunter2"})");
  EXPECT_EQ(errors,
            R"j([{"field":"/password","errId":6,"error":"value (sensitive) is not one of [\"x\"]","errArgs":["(sensitive)","[\"x\"]"]},)j"
            R"j({"field":"/password","errId":19,"error":"string (sensitive) does not match the pattern \"^.{12,}$\"","errArgs":["(sensitive)","^.{12,}$"]},)j"
            R"j({"field":"/plain","errId":6,"error":"value \"hunter2\" is not one of [\"y\"]","errArgs":["\"hunter2\"","[\"y\"]"]}])j");
}

TEST(Validate, NumbersCompareExactlyBeyondDoublePrecision) {
  EXPECT_EQ(Brief(R"({"maximum": 9007199254740992})", "9007199254740993"), ":14 ");
  EXPECT_EQ(Brief(R"({"minimum": -9223372036854775808})", "18446744073709551615"), "");
  EXPECT_EQ(Brief(R"({"type": "integer", "multipleOf": 3})", "18446744073709551615"), "");
  EXPECT_EQ(Brief(R"({"type": "integer"})", "2.0"), ":5 ");
}

TEST(Validate, EmptyTupleAllowsNoItemsWhenAdditionalItemsAreClosed) {
  EXPECT_EQ(Brief(R"({"items": [], "additionalItems": false})", "[1, 2]"), "/0:23 /1:23 ");
  EXPECT_EQ(Brief(R"({"items": [], "additionalItems": false})", "[]"), "");
}

TEST(Validate, MalformedSchemaIsReportedByLocationAndValueIsNotJudged) {
  EXPECT_EQ(Check(R"({"type": "text", "properties": {"a": {"minLength": -1, "pattern": "(", "items": 3},
                    "b": {"$ref": "#/definitions/missing"}, "c": {"$ref": "other.json#/x"}},
                    "required": "a", "enum": []})",
                "{\"a\": 1}"),
            R"([{"field":"","errId":2,"error":"invalid schema at #/type: \"type\" names an unknown type","errArgs":["#/type","\"type\" names an unknown type"]},)"
            R"({"field":"","errId":2,"error":"invalid schema at #/properties/a/minLength: \"minLength\" must be a non-negative integer","errArgs":["#/properties/a/minLength","\"minLength\" must be a non-negative integer"]},)"
            R"({"field":"","errId":2,"error":"invalid schema at #/properties/a/pattern: invalid regular expression \"(\": Mismatched '(' and ')' in regular expression","errArgs":["#/properties/a/pattern","invalid regular expression \"(\": Mismatched '(' and ')' in regular expression"]},)"
            R"({"field":"","errId":2,"error":"invalid schema at #/properties/a/items: a schema must be a JSON object","errArgs":["#/properties/a/items","a schema must be a JSON object"]},)"
            R"({"field":"","errId":2,"error":"invalid schema at #/properties/b/$ref: $ref \"#/definitions/missing\" does not resolve","errArgs":["#/properties/b/$ref","$ref \"#/definitions/missing\" does not resolve"]},)"
            R"({"field":"","errId":2,"error":"invalid schema at #/properties/c/$ref: remote $ref \"other.json#/x\" is not supported","errArgs":["#/properties/c/$ref","remote $ref \"other.json#/x\" is not supported"]},)"
            R"({"field":"","errId":2,"error":"invalid schema at #/required: \"required\" must be an array of strings","errArgs":["#/required","\"required\" must be an array of strings"]},)"
            R"({"field":"","errId":2,"error":"invalid schema at #/enum: \"enum\" must be a non-empty array","errArgs":["#/enum","\"enum\" must be a non-empty array"]}])");
  EXPECT_EQ(Brief(R"({"definitions": {"a": {"$ref": "#/definitions/b"}, "b": {"$ref": "#/definitions/a"}},
                      "$ref": "#/definitions/a"})", "1"), ":2 :2 ");
  EXPECT_EQ(Brief("[1]", "1"), ":2 ");
  EXPECT_EQ(Brief(R"({"discriminator": "kind", "oneOf": [{"properties": {}}]})", "{}"), ":2 ");
  // A broken schema never passes as valid, whatever the caller suppresses.
  EXPECT_EQ(Brief(R"({"type": 5})", "1", {0, 1, 2, 3, 4, 5, 6, 7, 8}), ":2 ");
}

TEST(Validate, PatternRepetitionsAreBoundedBeforeCompiling) {
  // A count past a long, and nested counts multiplying past the bound.
  EXPECT_EQ(Check(R"({"pattern": "^[0-9]{1,88888888888888888888}$"})", R"("1")"),
            R"([{"field":"","errId":2,"error":"invalid schema at #/pattern: invalid regular expression \"^[0-9]{1,88888888888888888888}$\": repetitions expand to more than 100000 elements","errArgs":["#/pattern","invalid regular expression \"^[0-9]{1,88888888888888888888}$\": repetitions expand to more than 100000 elements"]}])");
  EXPECT_EQ(Brief(R"({"pattern": "((a{100}){100}b){11}"})", R"("a")"), ":2 ");
  EXPECT_EQ(Brief(R"({"pattern": "[0-9]{18446744073709551615,2}"})", R"("1")"), ":2 ");
  EXPECT_EQ(Check(R"({"pattern": "(a)\\99999999999999999999"})", R"("a")"),
            R"([{"field":"","errId":2,"error":"invalid schema at #/pattern: invalid regular expression \"(a)\\99999999999999999999\": back-reference number above 999","errArgs":["#/pattern","invalid regular expression \"(a)\\99999999999999999999\": back-reference number above 999"]}])");
  // Ordinary bounded patterns, braces in classes and escaped braces compile.
  EXPECT_EQ(Brief(R"({"pattern": "^([0-9]{1,3}\\.){3}[0-9]{1,3}/[0-9]{1,2}$"})", R"("10.0.0.1/24")"), "");
  EXPECT_EQ(Brief(R"({"pattern": "^[a-z]{1,63}(\\.[a-z]{1,63}){0,126}$"})", R"("lab.example")"), "");
  EXPECT_EQ(Brief(R"({"pattern": "^[{]\\{99999999999\\}$"})", R"("{{99999999999}")"), "");
}

TEST(Validate, MembersFoundWhateverTheirOrderCountOrRepetition) {
  // Out of schema order, a name the schema repeats (its last schema counts),
  // a member that is no property.
  const char* schema = R"({"properties": {"a": {"type": "string"}, "b": {"type": "integer"},
                           "a": {"type": "integer"}}, "required": ["a", "b", "c"],
                           "additionalProperties": false})";
  EXPECT_EQ(Brief(schema, R"({"b": "x", "a": "y", "z": 1})"), "/c:9 /b:5 /a:5 /z:4 ");
  EXPECT_EQ(Brief(schema, R"({"c": 1, "a": 1, "b": 1})"), "/c:4 ");
  // Seventy properties, all required, and a value with more members than that.
  std::string properties, required, members;
  for (int i = 0; i < 70; ++i) {
    properties += (i ? "," : "") + ("\"p" + std::to_string(i) + "\": {\"type\": \"integer\"}");
    required += (i ? "," : "") + ("\"p" + std::to_string(i) + "\"");
  }
  for (int i = 79; i >= 0; --i) {
    if (i == 3 || i == 66) continue;
    members += (i == 79 ? "" : ",") + ("\"p" + std::to_string(i) + "\": " + (i == 68 ? "\"s\"" : "1"));
  }
  EXPECT_EQ(Brief(R"({"properties": {)" + properties + R"(}, "required": [)" + required +
                      R"(], "additionalProperties": {"type": "null"}})",
                  "{" + members + "}"),
            "/p3:9 /p66:9 /p79:5 /p78:5 /p77:5 /p76:5 /p75:5 /p74:5 /p73:5 /p72:5 /p71:5 /p70:5 /p68:5 ");
  // A bad pattern is reported wherever it appears, though compiled once.
  EXPECT_EQ(Brief(R"({"properties": {"a": {"pattern": "(x"}, "b": {"pattern": "(x"}},
                      "patternProperties": {"(x": {}}})", "{}"), ":2 :2 :2 ");
  // Duplicates are equal JSON values; -1 and 2^64-1 share their 64 bits only.
  EXPECT_EQ(Brief(R"({"uniqueItems": true})", R"([-1, 18446744073709551615, 1, 1.0, {"a": [1]}, {"a": [1]}])"),
            "/3:22 /5:22 ");
}

TEST(Validate, TenThousandLevelsNeitherOverflowNorPass) {
  std::string deep = std::string(10000, '[') + std::string(10000, ']');
  // Following the nesting stops at the limit with one error.
  std::string field;
  for (int i = 0; i < V::kMaxDepth; ++i) field += "/0";
  EXPECT_EQ(Check(R"({"type": "array", "items": {"$ref": "#"}})", deep),
            R"([{"field":")" + field + R"(","errId":30,"error":"value nested deeper than 1000 levels","errArgs":["1000"]}])");
  // Inside an alternative, the limit is still reported once, at the root.
  EXPECT_EQ(Brief(R"({"anyOf": [{"items": {"$ref": "#"}}]})", deep), ":26 :30 ");
  // A schema that does not descend accepts any depth.
  EXPECT_EQ(Brief(R"({"type": "array", "maxItems": 1})", deep), "");
  std::string deepSchema;
  for (int i = 0; i < 10000; ++i) deepSchema += R"({"items":)";
  deepSchema += "{}" + std::string(10000, '}');
  EXPECT_EQ(Brief(deepSchema, "[]"), ":2 ");
  // Self-applying schemas on the same value hit the same limit.
  EXPECT_EQ(Brief(R"({"allOf": [{"$ref": "#"}]})", "1"), ":30 ");
}

TEST(Validate, PatternsMatchLongStringsWithoutExhaustingTheStack) {
  // Far beyond the ~25,000 characters that overflow the backtracking matcher.
  std::string longText(200000, 'a');
  EXPECT_EQ(Brief(R"({"pattern": "^(a|b)+$"})", "\"" + longText + "\""), "");
  EXPECT_EQ(Brief(R"({"pattern": "^(a|b)+$"})", "\"" + longText + "!\""), ":19 ");
  EXPECT_EQ(Brief(R"({"patternProperties": {"^a+$": {"type": "null"}}})", "{\"" + longText + "\": 1}"),
            "/" + longText + ":5 ");
  // Back-references have no flat matcher: short subjects are matched, long ones fail closed.
  EXPECT_EQ(Brief(R"({"pattern": "^(a)\\1"})", "\"aa\""), "");
  EXPECT_EQ(Brief(R"({"pattern": "^(a)\\1"})", "\"" + longText + "\""), ":19 ");
}

TEST(ValidateCMDocument, ChecksEachKeyAgainstItsSchemaWithDocumentPaths) {
  rapidjson::Document schemaDoc = Parse(R"({"type": "object", "properties": {
    "profile": {"type": "object", "properties": {
      "network": {"type": "object", "properties": {
        "dns": {"type": "object", "properties": {
          "resolver": {"type": "object", "required": ["servers"],
                       "properties": {"servers": {"type": "array", "items": {"$ref": "#/definitions/ip"}}}},
          "hosts": {"type": "array", "instanceId": "name", "items": {"type": "object"}}}}}}}},
    "host-specific": {"type": "object"}},
    "definitions": {"ip": {"type": "string", "pattern": "^[0-9.]+$"}}})");
  const char* content = R"({"network": {"dns": {"resolver": {"servers": ["1.1.1.1", "dns"]},
    "hosts": "DELETE_DEFAULT", "cache": {}}, "vpn": {}}, "storage": 3})";
  const std::string expected =
      R"([{"field":"/network/dns/resolver/servers/1","errId":19,"error":"string \"dns\" does not match the pattern \"^[0-9.]+$\"","errArgs":["\"dns\"","^[0-9.]+$"]},)"
      R"({"field":"/network/dns/cache","errId":11,"error":"no schema for \"network.dns.cache\"","errArgs":["network.dns.cache"]},)"
      R"({"field":"/network/vpn","errId":11,"error":"no schema for \"network.vpn\"","errArgs":["network.vpn"]},)"
      R"({"field":"/storage","errId":11,"error":"no schema for \"storage\"","errArgs":["storage"]}])";
  rapidjson::Document errors;
  V::ValidateCMDocument(schemaDoc, Parse(content), errors, {}, "");
  EXPECT_EQ(Compact(errors), expected);

  rapidjson::Document whole = Parse(std::string(R"({"profile": )") + content + "}");
  rapidjson::Document wholeErrors;
  V::ValidateCMDocument(schemaDoc, whole, wholeErrors, kDocumentCodes, "");
  EXPECT_EQ(Compact(wholeErrors),
            R"([{"field":"/network/dns/resolver/servers/1","errId":19,"error":"string \"dns\" does not match the pattern \"^[0-9.]+$\"","errArgs":["\"dns\"","^[0-9.]+$"]}])");

  rapidjson::Document typeErrors;
  V::ValidateCMDocument(schemaDoc, Parse(R"({"network": {"dns": []}})"), typeErrors, {}, "");
  EXPECT_EQ(Compact(typeErrors),
            R"([{"field":"/network/dns","errId":5,"error":"expected object, found array","errArgs":["object","array"]}])");
}

TEST(ValidateCMDocument, BrokenKeySchemaIsAttributedToItsKey) {
  // The per-host sections repeat the profile's schema; the broken key is reported once.
  const std::string profile = R"({"properties": {"system": {"properties": {"time": {"properties": {
    "ntp": {"properties": {"servers": {"type": 7}}}}}}}}})";
  rapidjson::Document schemaDoc = Parse(R"({"properties": {"profile": )" + profile +
                                        R"(, "host-specific": {"additionalProperties": )" + profile + "}}}");
  rapidjson::Document errors;
  V::ValidateCMDocument(schemaDoc, Parse(R"({"system": {"time": {"ntp": {"servers": []}}}})"), errors,
                        kDocumentCodes, "");
  EXPECT_EQ(Compact(errors),
            R"([{"field":"/system/time/ntp","errId":2,"error":"invalid schema at #/properties/profile/properties/system/properties/time/properties/ntp/properties/servers/type: \"type\" must be a type name or a non-empty array of type names",)"
            R"("errArgs":["#/properties/profile/properties/system/properties/time/properties/ntp/properties/servers/type","\"type\" must be a type name or a non-empty array of type names"]}])");
}

TEST(ValidateCMDocument, RepeatedNamesAndInstanceIdentifiersAreErrorsInEveryCodeSet) {
  rapidjson::Document schemaDoc = Parse(R"({"properties": {"profile": {"properties": {
    "network": {"properties": {"dns": {"properties": {
      "resolver": {"type": "object", "properties": {"servers": {"type": "array"}}},
      "hosts": {"type": "array", "instanceId": "name", "items": {"type": "object"}}}}}}}}}})");
  // A repeated key (its second copy would pass unseen), a repeated property
  // inside a value, and instances sharing "a" (twice) and 7; "b" and "7" differ.
  const char* content = R"({"network": {"dns": {
    "resolver": {"servers": [], "servers": ["x"]},
    "hosts": [{"name": "a"}, {"name": "b"}, {"name": "a"}, {"name": 7}, {"name": "7"}, {"name": 7}, {"name": "a"}],
    "resolver": {}}}})";
  const std::string expected =
      R"([{"field":"/network/dns/resolver","errId":33,"error":"member name \"resolver\" appears more than once","errArgs":["resolver"]},)"
      R"({"field":"/network/dns/resolver/servers","errId":33,"error":"member name \"servers\" appears more than once","errArgs":["servers"]},)"
      R"({"field":"/network/dns/hosts/2/name","errId":34,"error":"instance identifier \"a\" is also used by instance 0","errArgs":["\"a\"","0"]},)"
      R"({"field":"/network/dns/hosts/5/name","errId":34,"error":"instance identifier 7 is also used by instance 3","errArgs":["7","3"]},)"
      R"({"field":"/network/dns/hosts/6/name","errId":34,"error":"instance identifier \"a\" is also used by instance 0","errArgs":["\"a\"","0"]}])";
  for (const std::set<int>& codes : {kDocumentCodes, kCsoCodes, kAutoconfCodes}) {
    rapidjson::Document errors;
    V::ValidateCMDocument(schemaDoc, Parse(content), errors, codes, "");
    EXPECT_EQ(Compact(errors), expected);
  }
}

TEST(ConvertErrorCodeToMsgId, NamesEveryCodeAndFallsBackForUnknownOnes) {
  EXPECT_EQ(V::ConvertErrorCodeToMsgId(V::REQUIRED_PROPERTY_MISSING),
            "corvane.qen.settings.schema.required-property-missing");
  EXPECT_EQ(V::ConvertErrorCodeToMsgId(V::UNION_TAG_MISSING), "corvane.qen.settings.schema.union-tag-missing");
  EXPECT_EQ(V::ConvertErrorCodeToMsgId(V::ADDITIONAL_PROPERTY), "corvane.qen.settings.schema.additional-property");
  EXPECT_EQ(V::ConvertErrorCodeToMsgId(V::kCodeCount), "corvane.qen.settings.schema.unknown-error");
  EXPECT_EQ(V::ConvertErrorCodeToMsgId(-1), "corvane.qen.settings.schema.unknown-error");
  std::set<std::string> ids;
  for (int code = 0; code < V::kCodeCount; ++code) ids.insert(V::ConvertErrorCodeToMsgId(code));
  EXPECT_EQ(ids.size(), static_cast<size_t>(V::kCodeCount));
}

TEST(MessageText, FillsTheCodesTextAndKnowsOnlyItsOwnIdentifiers) {
  EXPECT_EQ(V::MessageText(V::ConvertErrorCodeToMsgId(V::TYPE_MISMATCH), {"string", "integer"}),
            "expected string, found integer");
  EXPECT_EQ(V::MessageText("corvane.qen.settings.schema.dependency-missing", {"a", "b"}),
            "property \"a\" requires property \"b\"");
  // Missing arguments leave their places empty rather than failing.
  EXPECT_EQ(V::MessageText("corvane.qen.settings.schema.maximum", {"7"}), "value 7 is greater than the maximum ");
  EXPECT_EQ(V::MessageText("corvane.qen.settings.schema.unknown-error", {}), "");
  EXPECT_EQ(V::MessageText("corvane.qen.settings.resolver.invalid-server", {"x"}), "");
}
