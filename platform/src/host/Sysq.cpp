#include "Sysq.h"

#include <cstdint>
#include <cstring>

#include "HostFiles.h"

namespace {

bool LoadState(rapidjson::Document& doc) {
  return QenPlatform::ReadHostJson(Sysq_STATE_FILE, doc, nullptr);
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

int Sysq_Get(Sysq_Node node, const void* /*instance*/, void* buffer, size_t size) {
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
    default:
      return SYSQ_ERR_NOT_FOUND;
  }
}

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
