// Standing comparison with a peer JSON Schema validator: valijson (Debian's
// libvalijson-dev, header-only), through its RapidJSON adapter, validating
// the same ~10 MB document against the same draft-04 schema (this platform's
// vocabulary left out, so both do the same work), both reporting every
// error. Built only when the peer's headers are found (bench/CMakeLists.txt).
//   ours/peer          our Validate (schema compiled in every call) against
//                      the peer's validation with its schema parsed once and
//                      its validator (and regex cache) kept  goal: >= 4x as fast
//   ours/peer+parse    the same with the peer parsing its schema and building
//                      a fresh validator in every call      reported
// Before measuring, both must agree on the valid document (no error) and on a
// faulty one (errors): otherwise the benchmark stops.
#include <benchmark/benchmark.h>

// Our RapidJSON configuration first: the peer's adapter includes RapidJSON too.
#include "QenJson.h"

#include <valijson/adapters/rapidjson_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

#include <cstdio>
#include <string>

#include "JsonValidator.h"
#include "paired.h"
#include "validator_documents.h"

namespace {

struct Fixture {
  rapidjson::Document schema, valid, faulty;
  valijson::Schema peerSchema;

  Fixture() {
    schema.Parse(QenBench::ValidatorSchemaText(false).c_str());
    valid.Parse(QenBench::ValidatorDocumentText(false).c_str());
    faulty.Parse(QenBench::ValidatorDocumentText(true).c_str());
    if (schema.HasParseError() || valid.HasParseError() || faulty.HasParseError()) std::abort();
    ParsePeerSchema(peerSchema);
  }

  void ParsePeerSchema(valijson::Schema& out) const {
    valijson::SchemaParser parser(valijson::SchemaParser::kDraft4);
    valijson::adapters::RapidJsonAdapter adapter(schema);
    parser.populateSchema(adapter, out);
  }
};

Fixture& Data() {
  static Fixture fixture;
  return fixture;
}

size_t Ours(const rapidjson::Value& doc) {
  rapidjson::Document errors;
  JsonValidator::Validate(Data().schema, doc, errors, {}, "");
  return errors.Size();
}

// Errors the peer reports (0 when it finds the document valid).
size_t Peer(valijson::Validator& validator, const valijson::Schema& schema, const rapidjson::Value& doc) {
  valijson::ValidationResults results;
  valijson::adapters::RapidJsonAdapter target(doc);
  const bool valid = validator.validate(schema, target, &results);
  return valid ? 0 : std::max<size_t>(results.numErrors(), 1);
}

void BM_PeerKeepingItsSchema(benchmark::State& state) {
  Fixture& f = Data();
  valijson::Validator validator;
  QenBench::Paired(
      state, [&] { return Ours(f.valid) == 0; },
      [&] { benchmark::DoNotOptimize(Peer(validator, f.peerSchema, f.valid)); });
}

void BM_PeerParsingItsSchema(benchmark::State& state) {
  Fixture& f = Data();
  QenBench::Paired(
      state, [&] { return Ours(f.valid) == 0; },
      [&] {
        valijson::Schema schema;
        f.ParsePeerSchema(schema);
        valijson::Validator validator;
        benchmark::DoNotOptimize(Peer(validator, schema, f.valid));
      });
}

BENCHMARK(BM_PeerKeepingItsSchema)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_PeerParsingItsSchema)->Unit(benchmark::kMillisecond)->Iterations(20);

const std::vector<QenBench::Goal> kGoals = {{"BM_PeerParsingItsSchema", "ours/peer+parse (speed)", 0, true},
                                            {"BM_PeerKeepingItsSchema", "ours/peer (speed)", 4.0, true}};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Fixture& f = Data();
  valijson::Validator validator;
  const size_t oursValid = Ours(f.valid), peerValid = Peer(validator, f.peerSchema, f.valid);
  const size_t oursFaulty = Ours(f.faulty), peerFaulty = Peer(validator, f.peerSchema, f.faulty);
  std::printf("errors reported, valid document: ours %zu, peer %zu; faulty document: ours %zu, peer %zu\n",
              oursValid, peerValid, oursFaulty, peerFaulty);
  if (oursValid != 0 || peerValid != 0 || oursFaulty == 0 || peerFaulty == 0) {
    std::fprintf(stderr, "the validators disagree on valid/invalid: no comparison\n");
    return 1;
  }
  QenBench::RunPaired(kGoals);
  return 0;
}
