#include "HostRoot.h"

#include <cstdlib>
#include <mutex>

namespace QenPlatform {
namespace {

std::mutex& OverrideMutex() {
  static std::mutex m;
  return m;
}
std::string& Override() {
  static std::string root;
  return root;
}

std::string StripTrailingSlashes(std::string root) {
  while (!root.empty() && root.back() == '/') root.pop_back();
  return root;
}

}  // namespace

std::string HostRoot() {
  {
    std::lock_guard<std::mutex> lock(OverrideMutex());
    if (!Override().empty()) return Override();
  }
  const char* env = std::getenv("QEN_HOST_ROOT");
  return env ? StripTrailingSlashes(env) : std::string();
}

void SetHostRoot(const std::string& root) {
  std::lock_guard<std::mutex> lock(OverrideMutex());
  Override() = StripTrailingSlashes(root);
  // "/" itself is the production root; an override of "/" is no override.
}

std::string HostPath(const std::string& logical) {
  if (logical.empty() || logical[0] != '/') return logical;
  std::string root = HostRoot();
  if (root.empty()) return logical;
  // Already physical (callers may pass back what HostPath gave them).
  if (logical.compare(0, root.size(), root) == 0 &&
      (logical.size() == root.size() || logical[root.size()] == '/')) {
    return logical;
  }
  return root + logical;
}

std::string LogicalPath(const std::string& physical) {
  std::string root = HostRoot();
  if (root.empty()) return physical;
  if (physical.compare(0, root.size(), root) == 0 &&
      (physical.size() == root.size() || physical[root.size()] == '/')) {
    std::string rest = physical.substr(root.size());
    return rest.empty() ? "/" : rest;
  }
  return physical;
}

}  // namespace QenPlatform
