// Feature state: the host's feature switches, read from the host file
// "/etc/corvane/features.json" (logical path):
//   {"features": {"Tavapps_BlockSshFileEdits": false, ...}}
// Initialise once per operation with one of the two Init calls (each reads
// the file again, so a changed file is seen by the next operation), then ask
// FeatureState_IsEnabled. A switch the file does not name is disabled.
// Thread-safe: the state is replaced as a whole under a lock.
#pragma once

#include <string>
#include <vector>

constexpr const char* kFeatureStateFile = "/etc/corvane/features.json";

// The feature list: switches the configuration manager reads.
constexpr const char* FEATURE_BLOCK_SSH_FILE_EDITS = "Tavapps_BlockSshFileEdits";
// Host configuration API: read current values through extract plugins and
// follow apply-plugin dependents.
constexpr const char* FEATURE_CONFIG_PLUGIN_READS = "Tavapps_ConfigPluginReads";

// Read the file and log at priority 2 every enabled switch ("Feature state:
// %s enabled"). A missing or malformed file throws
// HostCtl::Lib::HostCtlException naming the file; the previous state is kept.
void FeatureState_InitDeltaMode();
// The same without log lines (boot-time callers).
void FeatureState_InitSilentMode();

// Whether the switch is enabled. Before any Init, initialises silently
// (and throws as Init does).
bool FeatureState_IsEnabled(const char* name);

// The enabled switches, sorted.
std::vector<std::string> FeatureState_EnabledFeatures();
