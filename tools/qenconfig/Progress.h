// A task handle for the command line: progress and plugin notifications go
// to stderr as one rewritten line, only when stderr is a terminal.
#pragma once

#include <memory>

#include "configmanager/common.h"

namespace qenconfig {

std::shared_ptr<QenConfigManager::TaskHandle> MakeProgressTask(const char* what);

}  // namespace qenconfig
