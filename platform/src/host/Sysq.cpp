#include "Sysq.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <boost/filesystem.hpp>

#include "HostFiles.h"
#include "HostRoot.h"

struct Sysq_ParamList {
  std::vector<std::string> values;
};

namespace {

bool LoadState(rapidjson::Document& doc) {
  return QenPlatform::ReadHostJson(Sysq_STATE_FILE, doc, nullptr);
}

// Pages of 4 KiB that the regular files below `logicalDir` occupy.
void MeasureRamdisk(const std::string& logicalDir, Ramvol_SysqRamStats& stats) {
  namespace fs = boost::filesystem;
  const uint64_t page = 4096;
  boost::system::error_code ec;
  fs::recursive_directory_iterator it(QenPlatform::HostPath(logicalDir), ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    struct stat st;
    if (::lstat(it->path().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    const uint64_t bytes = static_cast<uint64_t>(st.st_blocks) * 512;
    stats.usedPages += (bytes + page - 1) / page;
    ++stats.fileCount;
  }
}

int GetRamdiskStats(const rapidjson::Document& doc, const void* instance, void* buffer,
                    size_t size) {
  const Sysq_ParamList* params = static_cast<const Sysq_ParamList*>(instance);
  if (!params || params->values.size() != 1 || size < sizeof(Ramvol_SysqRamStats))
    return SYSQ_ERR_BAD_PARAM;
  const std::string& name = params->values[0];
  uint32_t reserved = Sysq_CONFIGSTORE_RESERVED_MIB;
  std::string mount = Sysq_CONFIGSTORE_MOUNT;
  bool known = name == "configstore";
  auto ramdisks = doc.FindMember("ramdisks");
  if (ramdisks != doc.MemberEnd() && ramdisks->value.IsObject()) {
    auto entry = ramdisks->value.FindMember(name.c_str());
    if (entry != ramdisks->value.MemberEnd()) {
      const rapidjson::Value& disk = entry->value;
      if (!disk.IsObject()) return SYSQ_ERR_NOT_FOUND;
      auto reservedMiB = disk.FindMember("reservedMiB");
      if (reservedMiB != disk.MemberEnd()) {
        if (!reservedMiB->value.IsUint()) return SYSQ_ERR_NOT_FOUND;
        reserved = reservedMiB->value.GetUint();
      }
      auto dir = disk.FindMember("mount");
      if (dir != disk.MemberEnd()) {
        if (!dir->value.IsString()) return SYSQ_ERR_NOT_FOUND;
        mount = dir->value.GetString();
      } else if (!known) {
        return SYSQ_ERR_NOT_FOUND;
      }
      known = true;
    }
  }
  if (!known) return SYSQ_ERR_NOT_FOUND;
  Ramvol_SysqRamStats stats;
  std::memset(&stats, 0, sizeof stats);
  stats.reservedMiB = reserved;
  MeasureRamdisk(mount, stats);
  std::memcpy(buffer, &stats, sizeof stats);
  return SYSQ_OK;
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
      return GetRamdiskStats(doc, instance, buffer, size);
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
