// Mapping of the host's fixed (logical) paths to their physical place.
//
// The library and the runners name files by the host's absolute logical paths
// ("/usr/lib/corvane/configmanager/apply_modules/", ...). Physically they live
// below a host root: "/" in production, a temporary directory in tests and in
// the demo. This header is the only place that knows the root; nothing else
// reads QEN_HOST_ROOT. Thread-safe.
#pragma once

#include <string>

namespace QenPlatform {

// The physical host root, without a trailing slash ("" for "/").
// Precedence: SetHostRoot() override, then $QEN_HOST_ROOT, then "/".
std::string HostRoot();

// Overrides the root for this process (runners derive it from their own
// location). An empty text removes the override.
void SetHostRoot(const std::string& root);

// Physical path of a logical absolute path. A relative path is returned as is.
std::string HostPath(const std::string& logical);

// Logical path of a physical path below the root (the inverse of HostPath);
// a path outside the root is returned unchanged.
std::string LogicalPath(const std::string& physical);

}  // namespace QenPlatform
