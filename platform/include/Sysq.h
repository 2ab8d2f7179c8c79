// Kernel system information, backed by the host state file
// "/var/run/corvane/sysinfo.json" (logical path):
//   {"interfaceCount": 21, "maintenanceMode": 0, ...}
// A missing "interfaceCount" means 21, the count this build speaks. A missing
// or unreadable file makes every call fail with SYSQ_ERR_UNAVAILABLE.
#pragma once

#include <cstddef>
#include <cstdint>

typedef int Sysq_Node;

enum : int {
  Sysq_NODE_system_maintenanceMode = 1,
  Sysq_NODE_system_ramvol_ramdisks_stats = 2,
};

enum : int {
  SYSQ_OK = 0,
  SYSQ_ERR_UNAVAILABLE = 195887105,  // the interface is not offered by this host
  SYSQ_ERR_SIGNATURE = 195887106,    // interface version mismatch
  SYSQ_ERR_NOT_FOUND = 195887107,    // node or instance not found
  SYSQ_ERR_BAD_PARAM = 195887108,    // buffer too small, bad argument
};

constexpr int Sysq_INTERFACE_COUNT = 21;
constexpr const char* Sysq_STATE_FILE = "/var/run/corvane/sysinfo.json";

extern "C" {
// Checks that the running host offers the interface version of `count`
// nodes. Returns 0 when it does; `result` (may be null) receives the host's
// count.
int Sysq_CheckSig(const char* signature, int count, int* result);

// Reads node `node` (instance argument `instance`, may be null) into buffer.
int Sysq_Get(Sysq_Node node, const void* instance, void* buffer, size_t size);

// Human-readable text of a status code; never null.
const char* TAV_ReturnStatusToString(int status);
}
