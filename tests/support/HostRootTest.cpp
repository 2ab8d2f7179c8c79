#include "HostRootTest.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

#include <boost/filesystem.hpp>

#include "HostRoot.h"

namespace fs = boost::filesystem;

namespace QenTest {
namespace {

void CopyTree(const fs::path& from, const fs::path& to) {
  if (!fs::exists(from)) return;
  for (fs::recursive_directory_iterator it(from), end; it != end; ++it) {
    fs::path rel = fs::relative(it->path(), from);
    fs::path target = to / rel;
    if (fs::is_directory(it->status())) {
      fs::create_directories(target);
    } else {
      fs::create_directories(target.parent_path());
      {
        std::ifstream in(it->path().string(), std::ios::binary);
        std::ofstream out(target.string(), std::ios::binary | std::ios::trunc);
        out << in.rdbuf();
      }
      fs::permissions(target, fs::status(it->path()).permissions());
    }
  }
}

}  // namespace

void HostRootTest::SetUp() {
  const char* tmp = std::getenv("TMPDIR");
  std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/qen-test-XXXXXX";
  char* made = mkdtemp(&tmpl[0]);
  ASSERT_NE(made, nullptr) << "cannot create a temporary host root";
  root_ = made;
  setenv("QEN_HOST_ROOT", root_.c_str(), 1);
}

void HostRootTest::TearDown() {
  unsetenv("QEN_HOST_ROOT");
  if (!root_.empty() && !std::getenv("QEN_KEEP_TEST_ROOT")) {
    boost::system::error_code ec;
    fs::remove_all(root_, ec);
  }
}

std::string HostRootTest::Path(const std::string& logical) const { return root_ + logical; }

void HostRootTest::WriteFile(const std::string& logical, const std::string& content, int mode) {
  fs::path p(Path(logical));
  fs::create_directories(p.parent_path());
  std::ofstream out(p.string(), std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  chmod(p.c_str(), static_cast<mode_t>(mode));
}

std::string HostRootTest::ReadFile(const std::string& logical) const {
  std::ifstream in(Path(logical), std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool HostRootTest::Exists(const std::string& logical) const { return fs::exists(Path(logical)); }

int HostRootTest::Mode(const std::string& logical) const {
  struct stat st;
  return ::lstat(Path(logical).c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

void HostRootTest::InstallSampleHost() { InstallSampleHostInto(root_); }

void InstallSampleHostInto(const std::string& root) {
  CopyTree(fs::path(QEN_SOURCE_DIR) / "host" / "root", root);
  CopyTree(fs::path(QEN_HOST_STAGING), root);
}

}  // namespace QenTest
