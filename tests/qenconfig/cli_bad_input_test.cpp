// Bad input through the command line, one row per input: each ends in one
// clear line on stderr and the documented exit code, and leaves the store as
// it was.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "QenConfigStore.h"
#include "QenConfigTest.h"

namespace {

using QenTest::Outcome;
using QenTest::QenConfigTest;

constexpr const char* kDatabase = QenConfigStore::kDatabasePath;
constexpr const char* kSetpriv = "/usr/bin/setpriv";

class CliBadInputTest;

struct Row {
  const char* name;
  // Writes the input below the test's root; the command's arguments.
  std::function<std::vector<std::string>(CliBadInputTest&)> prepare;
  int exit;
  // The line on stderr, exactly or (`prefix`) how it starts.
  std::function<std::string(CliBadInputTest&)> error;
  bool prefix = false;
  bool unprivileged = false;  // qenconfig runs as user and group 65534
  const char* missing = nullptr;  // a refusal not built yet: the row is skipped while it fails
};

class CliBadInputTest : public QenConfigTest, public ::testing::WithParamInterface<Row> {
 public:
  std::string Input(const std::string& name, const std::string& text) { return UserFile(name, text); }
  std::string Physical(const std::string& logical) const { return Path(logical); }
  void Put(const std::string& logical, const std::string& text, int mode) { WriteFile(logical, text, mode); }
  std::string Top() const { return Root(); }

 protected:
  void SetUp() override {
    QenConfigTest::SetUp();
    LoadSampleStore();
  }

  std::string Bytes(const std::string& logical) const {
    std::ifstream in(Path(logical), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
};

TEST_P(CliBadInputTest, OneClearLineTheDocumentedCodeAndAnUnchangedStore) {
  const Row& row = GetParam();
  if (row.unprivileged && ::access(kSetpriv, X_OK) != 0)
    GTEST_SKIP() << "no " << kSetpriv << ": cannot run qenconfig as an unprivileged user";
  const std::vector<std::string> args = row.prepare(*this);
  const std::string dump = Run({"store", "dump"}).out;
  const std::string database = Bytes(kDatabase);

  if (row.unprivileged) {
    // The user may pass the root; what it may read below is the row's choice.
    ASSERT_EQ(::chmod(Root().c_str(), 0755), 0);
    runAs_ = {kSetpriv, "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
  }
  const Outcome outcome = Run(args);
  runAs_.clear();

  const std::string expected = row.error(*this);
  const bool matches = outcome.exit == row.exit &&
                       (row.prefix ? outcome.err.rfind(expected, 0) == 0 : outcome.err == expected + "\n");
  if (row.missing && !matches) GTEST_SKIP() << "not refused yet: " << row.missing << "; got: " << outcome.err;
  EXPECT_EQ(outcome.exit, row.exit) << outcome.err;
  if (row.prefix)
    EXPECT_EQ(outcome.err.rfind(expected, 0), 0u) << outcome.err;
  else
    EXPECT_EQ(outcome.err, expected + "\n");
  EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << "not one line:\n" << outcome.err;
  EXPECT_LT(outcome.err.size(), 400u) << "the input echoed back?";
  EXPECT_EQ(outcome.out, "");
  EXPECT_TRUE(Bytes(kDatabase) == database) << "the store's file changed";
  EXPECT_EQ(Run({"store", "dump"}).out, dump);
}

using Args = std::vector<std::string>;

// Rows print as their name.
void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }

// A valid document holding one string of `size` bytes, `cut` bytes short of
// its end.
std::string Huge(size_t size, size_t cut) {
  std::string text = R"({"profile": {"network": {"dns": {"resolver": {"search": [")";
  text.append(size, 'a');
  text += R"("]}}}}})";
  text.resize(text.size() - cut);
  return text;
}

std::vector<Row> Rows() {
  return {
      {"TruncatedJson",
       [](CliBadInputTest& t) { return Args{"validate", t.Input("in.json", R"({"profile": {"network": )")}; },
       1, [](CliBadInputTest&) { return "error 2080: "; }, true},
      {"InvalidJson",
       [](CliBadInputTest& t) { return Args{"compliance", t.Input("in.json", R"({"profile": nope})")}; },
       1, [](CliBadInputTest&) { return "error 2080: "; }, true},
      {"InvalidUtf8",
       [](CliBadInputTest& t) {
         return Args{"validate", t.Input("in.json", "{\"profile\": {\"system\": {\"\xff\xfe\": {}}}}")};
       },
       1, [](CliBadInputTest&) { return "error "; }, true, false, "invalid UTF-8 with its byte offset"},
      {"DeepNesting",
       [](CliBadInputTest& t) {
         return Args{"compliance", t.Input("in.json", std::string(100000, '[') + std::string(100000, ']'))};
       },
       1, [](CliBadInputTest&) { return "error 2080: "; }, true},
      {"HugeDocument",
       [](CliBadInputTest& t) { return Args{"store", "load", t.Input("in.json", Huge(200u << 20, 3))}; },
       1,
       [](CliBadInputTest& t) {
         return "error 2003: Store description \"" + t.Physical("/in.json") + "\" is not valid JSON: ";
       },
       true},
      {"DirectoryForAFile",
       [](CliBadInputTest& t) { return Args{"compliance", t.Top()}; },
       1, [](CliBadInputTest& t) { return "error: cannot read file \"" + t.Top() + "\": Is a directory"; }},
      {"UnreadableFile",
       [](CliBadInputTest& t) {
         t.Put("/in.json", "{}", 0600);
         return Args{"validate", t.Physical("/in.json")};
       },
       1, [](CliBadInputTest& t) { return "error: cannot read file \"" + t.Physical("/in.json") + "\": Permission denied"; },
       false, true},
      {"CorruptStore",
       [](CliBadInputTest& t) {
         // Garbage where the database was, no journal to read pages from.
         t.Put(kDatabase, std::string(8192, 'x'), 0600);
         for (const char* suffix : {"-wal", "-shm"}) ::unlink(t.Physical(std::string(kDatabase) + suffix).c_str());
         return Args{"set", "network", "dns", "resolver", R"({"servers": ["192.0.2.1"]})", "--yes"};
       },
       1,
       [](CliBadInputTest& t) {
         return "error 2001: Configuration store \"" + t.Physical(kDatabase) +
                "\" is not a usable database: file is not a database";
       }},
      {"ReadOnlyStore",
       [](CliBadInputTest& t) {
         // Readable by the user, its directories not writable.
         std::string dir = kDatabase;
         while ((dir = dir.substr(0, dir.rfind('/'))).size() > 0) ::chmod(t.Physical(dir).c_str(), 0755);
         for (const char* suffix : {"", "-wal", "-shm"})
           ::chmod(t.Physical(std::string(kDatabase) + suffix).c_str(), 0644);
         return Args{"store", "load", QEN_SOURCE_DIR "/host/documents/store-sample.json"};
       },
       1,
       [](CliBadInputTest& t) {
         // Without write access to its directory the store cannot be opened at
         // all (its journal files cannot be made).
         return "error 2001: Configuration store \"" + t.Physical(kDatabase) + "\" is unavailable";
       },
       false, true},
  };
}

INSTANTIATE_TEST_SUITE_P(Inputs, CliBadInputTest, ::testing::ValuesIn(Rows()),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

}  // namespace
