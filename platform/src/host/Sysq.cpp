#include "Sysq.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <sys/statvfs.h>
#include <vector>

#include "HostFiles.h"
#include "HostRoot.h"

struct Sysq_ParamList {
  std::vector<std::string> values;
};

namespace {

bool LoadState(rapidjson::Document& doc) {
  return QenPlatform::ReadHostJson(Sysq_STATE_FILE, doc, nullptr);
}

// The figures of the file system that holds `logicalDir`.
int MeasureFileSystem(const std::string& logicalDir, Ramvol_SysqRamStats& stats) {
  struct statvfs fs;
  if (::statvfs(QenPlatform::HostPath(logicalDir).c_str(), &fs) != 0) return SYSQ_ERR_NOT_FOUND;
  const uint64_t mib = 1024 * 1024, page = 4096;
  const uint64_t unit = fs.f_frsize ? fs.f_frsize : fs.f_bsize;
  const uint64_t size = static_cast<uint64_t>(fs.f_blocks) * unit;
  const uint64_t used = static_cast<uint64_t>(fs.f_blocks - fs.f_bfree) * unit;
  stats.reservedMiB = static_cast<uint32_t>(std::min<uint64_t>(size / mib, UINT32_MAX));
  stats.usedPages = (used + page - 1) / page;
  return SYSQ_OK;
}

int GetRamdiskStats(const void* instance, void* buffer, size_t size) {
  const Sysq_ParamList* params = static_cast<const Sysq_ParamList*>(instance);
  if (!params || params->values.size() != 1 || size < sizeof(Ramvol_SysqRamStats))
    return SYSQ_ERR_BAD_PARAM;
  if (params->values[0] != "configstore") return SYSQ_ERR_NOT_FOUND;
  Ramvol_SysqRamStats stats;
  std::memset(&stats, 0, sizeof stats);
  int rc = MeasureFileSystem(Sysq_CONFIGSTORE_MOUNT, stats);
  if (rc == SYSQ_OK) std::memcpy(buffer, &stats, sizeof stats);
  return rc;
}

}  // namespace

extern "C" {

int Sysq_CheckSig(const char* /*signature*/, int count, int* result) {
  rapidjson::Document doc;
  if (!LoadState(doc)) return SYSQ_ERR_UNAVAILABLE;
  int offered = Sysq_INTERFACE_COUNT;
  auto it = doc.FindMember("interfaceCount");
  if (it != doc.MemberEnd()) {
    if (!it->value.IsInt()) return SYSQ_ERR_UNAVAILABLE;
    offered = it->value.GetInt();
  }
  if (result) *result = offered;
  return offered == count ? SYSQ_OK : SYSQ_ERR_SIGNATURE;
}

int Sysq_Get(Sysq_Node node, const void* instance, void* buffer, size_t size) {
  if (!buffer) return SYSQ_ERR_BAD_PARAM;
  rapidjson::Document doc;
  if (!LoadState(doc)) return SYSQ_ERR_UNAVAILABLE;
  switch (node) {
    case Sysq_NODE_system_maintenanceMode: {
      if (size < sizeof(int32_t)) return SYSQ_ERR_BAD_PARAM;
      int32_t state = 0;
      auto it = doc.FindMember("maintenanceMode");
      if (it != doc.MemberEnd()) {
        if (!it->value.IsInt()) return SYSQ_ERR_NOT_FOUND;
        state = it->value.GetInt();
      }
      std::memcpy(buffer, &state, sizeof state);
      return SYSQ_OK;
    }
    case Sysq_NODE_system_ramvol_ramdisks_stats:
      return GetRamdiskStats(instance, buffer, size);
    default:
      return SYSQ_ERR_NOT_FOUND;
  }
}

Sysq_ParamList* Sysq_ParamListCreate(void) { return new (std::nothrow) Sysq_ParamList(); }

int Sysq_ParamListAddString(Sysq_ParamList* list, const char* value) {
  if (!list || !value) return SYSQ_ERR_BAD_PARAM;
  try {
    list->values.emplace_back(value);
  } catch (const std::bad_alloc&) {
    return SYSQ_ERR_BAD_PARAM;
  }
  return SYSQ_OK;
}

void Sysq_ParamListDestroy(Sysq_ParamList* list) { delete list; }

const char* TAV_ReturnStatusToString(int status) {
  switch (status) {
    case SYSQ_OK: return "Success";
    case SYSQ_ERR_UNAVAILABLE: return "System information interface not available";
    case SYSQ_ERR_SIGNATURE: return "Interface signature mismatch";
    case SYSQ_ERR_NOT_FOUND: return "Not found";
    case SYSQ_ERR_BAD_PARAM: return "Bad parameter";
    default: return "Unknown status";
  }
}

}  // extern "C"
