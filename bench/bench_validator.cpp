// Validation throughput on a ~10 MB configuration document against its
// generated schema document (support/validator_documents.h), paired with
// RapidJSON's parse of the same text, the floor any DOM-based check starts
// from (support/paired.h: the two alternate in every iteration):
//   validate/parse   ValidateCMDocument with the document callers' codes,
//                    as a speed relative to the parse (parse time / validation
//                    time)                                goal >= 0.35 (aim 0.5)
#include <benchmark/benchmark.h>

#include <string>

#include "JsonValidator.h"
#include "paired.h"
#include "validator_documents.h"

namespace {

struct Fixture {
  std::string text = QenBench::ValidatorDocumentText(false);
  rapidjson::Document schema;
  rapidjson::Document doc;

  Fixture() {
    schema.Parse(QenBench::ValidatorSchemaText(true).c_str());
    doc.Parse(text.c_str());
    if (schema.HasParseError() || doc.HasParseError()) std::abort();
  }
};

Fixture& Data() {
  static Fixture fixture;
  return fixture;
}

void BM_ValidateVsParse(benchmark::State& state) {
  Fixture& f = Data();
  size_t errorCount = 0;
  QenBench::Paired(
      state,
      [&] {
        rapidjson::Document errors;
        JsonValidator::ValidateCMDocument(f.schema, f.doc, errors, {0, 11, 1, 3, 7, 8}, "");
        errorCount = errors.Size();
        return errorCount == 0;
      },
      [&] {
        rapidjson::Document d;
        d.Parse(f.text.c_str(), f.text.size());
        benchmark::DoNotOptimize(d.IsObject());
      });
  if (errorCount != 0) state.SkipWithError("the generated document should be valid");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.text.size()));
  state.counters["doc_MB"] = static_cast<double>(f.text.size()) / (1 << 20);
}
BENCHMARK(BM_ValidateVsParse)->Unit(benchmark::kMillisecond)->Iterations(40);

const std::vector<QenBench::Goal> kGoals = {{"BM_ValidateVsParse", "validate/parse (speed)", 0.35, true}};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Data();
  QenBench::RunPaired(kGoals);
  return 0;
}
