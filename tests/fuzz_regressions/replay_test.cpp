// Every input a fuzzer found a fault with (tests/fuzz_regressions/<target>/)
// and every seed (fuzz/corpus/<target>/), replayed through the same target
// functions the fuzzers call, so the normal and sanitizer builds keep them
// fixed. A target aborts on a broken invariant and lets any exception its
// entry points do not document escape: either fails the test.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include <boost/filesystem.hpp>

#include "support/Fuzz.h"

namespace fs = boost::filesystem;

namespace {

std::vector<fs::path> FilesIn(const fs::path& dir) {
  std::vector<fs::path> files;
  if (!fs::is_directory(dir)) return files;
  for (fs::directory_iterator it(dir), end; it != end; ++it) {
    if (fs::is_regular_file(it->status()) && it->path().filename() != "README.md") files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string Bytes(const fs::path& file) {
  std::ifstream in(file.string(), std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

class ReplayTest : public ::testing::TestWithParam<QenFuzz::Target> {
 protected:
  void Replay(const std::vector<fs::path>& files) {
    for (const fs::path& file : files) {
      const std::string bytes = Bytes(file);
      // An abort leaves no test report: the file that caused it goes first.
      std::fprintf(stderr, "replaying %s\n", file.c_str());
      EXPECT_EQ(GetParam().entry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0) << file;
    }
  }
};

TEST_P(ReplayTest, SeedsAndFindingsRunClean) {
  const std::string name = GetParam().name;
  const std::vector<fs::path> seeds = FilesIn(fs::path(QEN_SOURCE_DIR) / "fuzz" / "corpus" / name);
  ASSERT_FALSE(seeds.empty()) << "fuzz/corpus/" << name << " has no seeds";
  Replay(seeds);
  Replay(FilesIn(fs::path(QEN_SOURCE_DIR) / "tests" / "fuzz_regressions" / name));
}

INSTANTIATE_TEST_SUITE_P(Fuzz, ReplayTest, ::testing::ValuesIn(QenFuzz::Targets()),
                         [](const ::testing::TestParamInfo<QenFuzz::Target>& info) {
                           std::string name = info.param.name;
                           name.erase(std::remove(name.begin(), name.end(), '_'), name.end());
                           return name;
                         });

}  // namespace
