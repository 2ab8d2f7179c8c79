#include "Fuzz.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include <boost/filesystem.hpp>

#include "HostFiles.h"
#include "HostRoot.h"

namespace fs = boost::filesystem;

namespace QenFuzz {
namespace {

std::string g_root;

void RemoveHost() {
  boost::system::error_code ec;
  if (!g_root.empty() && !std::getenv("QEN_KEEP_FUZZ_ROOT")) fs::remove_all(g_root, ec);
}

void Copy(const std::string& logical) {
  const fs::path from = fs::path(QEN_SOURCE_DIR) / "host" / "root" / logical;
  const fs::path to = fs::path(g_root) / logical;
  if (fs::is_directory(from)) {
    for (fs::recursive_directory_iterator it(from), end; it != end; ++it) {
      const fs::path target = to / fs::relative(it->path(), from);
      if (fs::is_directory(it->status())) {
        fs::create_directories(target);
      } else {
        fs::create_directories(target.parent_path());
        fs::copy_file(it->path(), target, fs::copy_options::overwrite_existing);
      }
    }
  } else {
    fs::create_directories(to.parent_path());
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
  }
}

std::string MakeHost() {
  const char* tmp = std::getenv("TMPDIR");
  std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/qen-fuzz-XXXXXX";
  if (!mkdtemp(&dir[0])) {
    std::perror("qen fuzz: cannot create a host root");
    std::abort();
  }
  g_root = dir;
  std::atexit(RemoveHost);
  Copy("/usr/lib/corvane/configstore/schemas");
  Copy("/usr/lib/corvane/configmanager/plugin_schemas");
  Copy("/etc/corvane/hardware.json");
  Copy("/etc/corvane/features.json");
  Copy("/etc/corvane/version.json");
  Copy("/var/run/corvane/sysinfo.json");
  fs::create_directories(g_root + "/usr/lib/corvane/configmanager/apply_modules");
  fs::create_directories(g_root + "/usr/lib/corvane/configmanager/telemetry");
  fs::create_directories(g_root + "/var/log/corvane");
  fs::create_symlink("/dev/null", g_root + "/var/log/corvane/configmanager.log");
  QenPlatform::SetHostRoot(g_root);
  return g_root;
}

}  // namespace

const std::string& Host() {
  static const std::string root = MakeHost();
  return root;
}

void WriteHostFile(const std::string& logical, const std::string& bytes) {
  const std::string path = Host() + logical;
  fs::create_directories(fs::path(path).parent_path());
  if (!QenPlatform::ReplaceFile(path, bytes, 0600)) {
    std::perror(("qen fuzz: cannot write " + path).c_str());
    std::abort();
  }
}

std::pair<std::string, std::string> SplitAtNul(const uint8_t* data, size_t size) {
  const char* text = reinterpret_cast<const char*>(data);
  const void* nul = std::memchr(text, 0, size);
  if (!nul) return {std::string(text, size), std::string()};
  const size_t at = static_cast<const char*>(nul) - text;
  return {std::string(text, at), std::string(text + at + 1, size - at - 1)};
}

bool SameValue(const rapidjson::Value& a, const rapidjson::Value& b) {
  if (a.IsDouble() || b.IsDouble()) {
    if (!a.IsNumber() || !b.IsNumber()) return false;
    const double x = a.GetDouble(), y = b.GetDouble();
    return x == y || std::fabs(x - y) <= 1e-15 * std::max(std::fabs(x), std::fabs(y));
  }
  if (a.IsArray() && b.IsArray()) {
    if (a.Size() != b.Size()) return false;
    for (rapidjson::SizeType i = 0; i < a.Size(); ++i)
      if (!SameValue(a[i], b[i])) return false;
    return true;
  }
  if (a.IsObject() && b.IsObject()) {
    if (a.MemberCount() != b.MemberCount()) return false;
    for (auto x = a.MemberBegin(), y = b.MemberBegin(); x != a.MemberEnd(); ++x, ++y)
      if (x->name != y->name || !SameValue(x->value, y->value)) return false;
    return true;
  }
  return a.GetType() == b.GetType() && !a.IsObject() && !a.IsArray() && a == b;
}

bool RepeatsAName(const rapidjson::Value& value) {
  if (value.IsArray()) {
    for (const auto& element : value.GetArray())
      if (RepeatsAName(element)) return true;
  }
  if (!value.IsObject()) return false;
  std::set<std::string> names;
  for (const auto& member : value.GetObject()) {
    if (!names.emplace(member.name.GetString(), member.name.GetStringLength()).second) return true;
    if (RepeatsAName(member.value)) return true;
  }
  return false;
}

bool Parse(const std::string& text, rapidjson::Document& doc) {
  return static_cast<bool>(QenPlatform::ParseJson(text, doc));
}

void Check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "qen fuzz: invariant broken: %s\n", what);
  std::abort();
}

const std::vector<Target>& Targets() {
  static const std::vector<Target> targets = {
      {"document", Document},     {"manifest", Manifest}, {"request", Request},
      {"result", Result},         {"key_schema", KeySchema}, {"validator", Validator},
      {"drift", Drift},           {"impact", Impact},     {"plan", Plan},
      {"boot_record", BootRecord}, {"allowlist", Allowlist},
  };
  return targets;
}

}  // namespace QenFuzz
