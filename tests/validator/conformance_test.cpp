// Runs the validator over the draft-04 cases of the JSON Schema Test Suite
// (installed by scripts/fetch-schema-suite.sh) and requires every case of
// every supported keyword to pass. Unsupported: remote $ref (cases whose
// schema refers outside itself) and "format".
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "JsonValidator.h"

namespace fs = std::filesystem;

namespace {

fs::path SuiteDir() {
  std::vector<fs::path> candidates;
  if (const char* env = std::getenv("QEN_SCHEMA_SUITE_DIR")) candidates.emplace_back(env);
  candidates.emplace_back(fs::path(QEN_BINARY_DIR) / "schema-suite");
  for (const fs::path& base : candidates) {
    for (const fs::path& dir : {base / "node_modules/json-schema-test-suite/tests/draft4",
                                base / "tests/draft4"}) {
      if (fs::is_directory(dir)) return dir;
    }
  }
  return {};
}

bool HasRemoteRef(const rapidjson::Value& v) {
  if (v.IsObject()) {
    for (auto& m : v.GetObject()) {
      if (m.name == "$ref" && m.value.IsString() && m.value.GetString()[0] != '#') return true;
      if (HasRemoteRef(m.value)) return true;
    }
  } else if (v.IsArray()) {
    for (auto& e : v.GetArray()) {
      if (HasRemoteRef(e)) return true;
    }
  }
  return false;
}

struct Tally {
  int passed = 0;
  int failed = 0;
  int skipped = 0;
};

}  // namespace

TEST(SchemaTestSuite, Draft4SupportedKeywordsAllPass) {
  fs::path dir = SuiteDir();
  ASSERT_FALSE(dir.empty()) << "JSON Schema Test Suite not found: run scripts/fetch-schema-suite.sh "
                               "<dir> and set QEN_SCHEMA_SUITE_DIR=<dir>, or use <dir> = "
                            << QEN_BINARY_DIR << "/schema-suite";
  std::vector<fs::path> files;
  for (auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().extension() == ".json") files.push_back(entry.path());
  }
  // Optional cases that the platform supports: big numbers, 1.0 not an integer.
  for (const char* optional : {"optional/bignum.json", "optional/zeroTerminatedFloats.json"}) {
    if (fs::exists(dir / optional)) files.push_back(dir / optional);
  }
  std::sort(files.begin(), files.end());
  ASSERT_GT(files.size(), 20u);

  // Only advisory findings that the suite's schemas can raise are tolerated.
  const std::set<int> advisory{JsonValidator::FORMAT_NOT_CHECKED, JsonValidator::UNKNOWN_KEYWORD};
  std::map<std::string, Tally> tallies;
  std::ostringstream failures;
  for (const fs::path& file : files) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    rapidjson::Document groups;
    groups.Parse(text.str().c_str());
    ASSERT_FALSE(groups.HasParseError()) << file;
    Tally& tally = tallies[file.stem().string()];
    for (auto& group : groups.GetArray()) {
      bool remote = HasRemoteRef(group["schema"]);
      for (auto& test : group["tests"].GetArray()) {
        if (remote) {
          ++tally.skipped;
          continue;
        }
        rapidjson::Document errors;
        JsonValidator::Validate(group["schema"], test["data"], errors, advisory, "");
        bool valid = errors.IsArray() && errors.Empty();
        if (valid == test["valid"].GetBool()) {
          ++tally.passed;
        } else {
          ++tally.failed;
          rapidjson::StringBuffer buffer;
          rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
          errors.Accept(writer);
          failures << file.stem().string() << ": " << group["description"].GetString() << " / "
                   << test["description"].GetString() << " -> " << buffer.GetString() << "\n";
        }
      }
    }
  }
  int passed = 0, total = 0, skipped = 0;
  for (auto& [keyword, t] : tallies) {
    std::printf("%-22s %3d/%3d passed%s\n", keyword.c_str(), t.passed, t.passed + t.failed,
                t.skipped ? (" (" + std::to_string(t.skipped) + " remote $ref cases skipped)").c_str() : "");
    passed += t.passed;
    total += t.passed + t.failed;
    skipped += t.skipped;
  }
  std::printf("total                  %3d/%3d passed (%d skipped)\n", passed, total, skipped);
  EXPECT_EQ(passed, total) << failures.str();
}
