// The plugin framework: manifests, the plugin manager and apply order,
// request documents, the launcher that runs a plugin runner, and the four
// plugin operations.
#pragma once

#include "configmanager/common.h"

namespace QenConfigManager {

// ---- manifests, manager, requests -----------------------------------------

// ---- launcher ---------------------------------------------------------------

}  // namespace QenConfigManager
