// Kernel system information. Availability and the interface version come
// from the host state file "/var/run/corvane/sysinfo.json" (logical path):
//   {"interfaceCount": 21, "maintenanceMode": 0}
// A missing "interfaceCount" means 21, the count this build speaks. A missing
// or unreadable file makes every call fail with SYSQ_ERR_UNAVAILABLE.
//
// Ramdisks: "configstore" is the file system that holds the configuration
// store's database (the store's directory "/var/lib/corvane/configstore").
// Its statistics are that file system's own figures: its size is the
// reserved size and the space used on it the used size, so they are true of
// a dedicated ramdisk and of whatever else holds the store. Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>

typedef int Sysq_Node;

// An ordered list of string parameters naming a node's instance.
typedef struct Sysq_ParamList Sysq_ParamList;

// Statistics of one ramdisk (Sysq_NODE_system_ramvol_ramdisks_stats; the
// instance is a parameter list holding the ramdisk's name).
typedef struct Ramvol_SysqRamStats {
  uint32_t reservedMiB;  // reserved size in MiB (rounded down)
  uint32_t reserved0;
  uint64_t usedPages;    // used size in 4 KiB pages (rounded up)
} Ramvol_SysqRamStats;

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
constexpr const char* Sysq_CONFIGSTORE_MOUNT = "/var/lib/corvane/configstore";
constexpr const char* Sysq_STATE_FILE = "/var/run/corvane/sysinfo.json";

extern "C" {
// Checks that the running host offers the interface version of `count`
// nodes. Returns 0 when it does; `result` (may be null) receives the host's
// count.
int Sysq_CheckSig(const char* signature, int count, int* result);

// Reads node `node` (instance argument `instance`, may be null) into buffer.
// The ramdisk node needs a parameter list with the ramdisk's name
// (SYSQ_ERR_BAD_PARAM without; SYSQ_ERR_NOT_FOUND for an unknown ramdisk or
// one whose file system cannot be queried, e.g. a missing store directory).
int Sysq_Get(Sysq_Node node, const void* instance, void* buffer, size_t size);

// Parameter lists: create, append strings (SYSQ_ERR_BAD_PARAM for null
// arguments), destroy (null is ignored).
Sysq_ParamList* Sysq_ParamListCreate(void);
int Sysq_ParamListAddString(Sysq_ParamList* list, const char* value);
void Sysq_ParamListDestroy(Sysq_ParamList* list);

// Human-readable text of a status code; never null.
const char* TAV_ReturnStatusToString(int status);
}
