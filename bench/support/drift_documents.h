// The drift benchmark's documents and key schemas, shared by the benchmarks
// that walk them (drift, impact, apply task generation).
//
// Keys: 10 components, groups of 10 keys, every fifth key three instances by
// "name", singleton values of five properties; 1% drift changes one property
// in a hundred keys. Instances: one key of n instances by "name" ("nat") or by
// generated id ("gen"); 1% drift changes one instance in a hundred.
#pragma once

#include <string>

namespace QenBench {

// Key counts and instance counts the drift benchmark measures.
extern const int kKeyCounts[3];
extern const int kInstanceCounts[3];

// Links the schema files of every key the documents use (up to the largest
// key count, and bench/inst/nat, bench/inst/gen) into the host root at
// `root` as its schema directory. The files are written once into a cache
// directory below $TMPDIR and reused.
void LinkSchemas(const std::string& root);

// Text of a document of `keys` keys (components at the root); with `drift`,
// one key in a hundred differs.
std::string KeysDocument(int keys, bool drift);

// One key of `n` instances ("nat" or "gen"); with `drift`, one instance in
// a hundred differs.
std::string InstancesDocument(const char* key, int n, bool drift);

}  // namespace QenBench
