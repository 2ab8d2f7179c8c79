// The frame of the boot entry points that return an int.
#pragma once

#include <functional>

namespace QenConfigManager {

// Runs `body` and returns what it returns. A boot service has nobody to
// catch an exception, so whatever `body` throws is handed to `report` (which
// logs the entry point's one priority-0 line with the failure's text) and
// becomes 1.
int RunBootEntryPoint(const std::function<int()>& body, const std::function<void(const char* reason)>& report);

}  // namespace QenConfigManager
