// The C interface between cpp_plugin_runner and a C++ plugin.
//
// A plugin is self-contained: the SDK (libqenpluginsdk.a) and the parts of the
// C++ runtime it uses are linked into the plugin's shared object with hidden
// symbols, so the runner and the plugin share nothing but this interface and
// libc. The runner finds the plugin, and the SDK inside it does the rest:
// loads the request, calls the operation's entry point (QenPlugin.h) and
// writes the result. No C++ object or exception crosses this boundary.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Bumped whenever the structure below changes meaning; a plugin refuses a
// runner that speaks another version (EINVAL).
#define QEN_PLUGIN_ABI_VERSION 1

struct qen_plugin_invocation {
  int abi_version;        // QEN_PLUGIN_ABI_VERSION of the runner
  const char* host_root;  // physical directory of "/" ("" in production)
};

// Defined by the SDK in every plugin. Returns the runner's exit status: 0
// when the result file was written, otherwise an error number.
typedef int (*qen_plugin_run_fn)(const struct qen_plugin_invocation* invocation);
#define QEN_PLUGIN_RUN_SYMBOL "qen_plugin_run"

#ifdef __cplusplus
}
#endif
