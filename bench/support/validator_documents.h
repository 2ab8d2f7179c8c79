// The validator benchmarks' ~10 MB configuration document and its schema
// document, shared by our throughput benchmark and the peer comparison.
//
// 8 components x 5 groups x 5 keys, each key an instance array (about 50 KB
// of instances) under the same key schema: patterns, ranges, enums, nested
// arrays with uniqueItems, a map of strings and a tagged union.
#pragma once

#include <string>

namespace QenBench {

// `vocabulary` adds this platform's keywords ("instanceId", "discriminator");
// without them the schema is plain draft-04, which any validator reads alike.
std::string ValidatorSchemaText(bool vocabulary);

// The document: valid against either schema, or with `faults`, one instance
// in 500 breaking a range, a pattern, a required member or the union's tag.
std::string ValidatorDocumentText(bool faults);

}  // namespace QenBench
