// Boot apply records as the store hands them back: Deserialize, then the
// record written and read again keeps its error.
#include "configmanager/boot.h"
#include "support/Fuzz.h"

using namespace QenConfigManager;

namespace QenFuzz {

int BootRecord(const uint8_t* data, size_t size) {
  BootApplyErrorInfo record;
  // 2080 (not JSON), 1082 (not an object, a member that is not a string),
  // ErrorInfo's 2003 (an error text of the wrong shape).
  try {
    record.Deserialize(Text(data, size));
  } catch (const QenConfigStore::ConfigStoreException&) {
    return 0;
  }
  BootApplyErrorInfo again;
  again.Deserialize(record.Serialize());
  Check(again.errorInfo == record.errorInfo, "a record read back after writing keeps its error");
  return 0;
}

}  // namespace QenFuzz
