#include <string>

#include "ConfigStoreException.h"
#include "QenJson.h"

namespace QenPlatform {

void ThrowJsonError(const char* file, int line, const char* condition) {
  std::string message = "JSON error:\"";
  message += file;
  message += "\":";
  message += std::to_string(line);
  message += ": ";
  message += condition;
  throw QenConfigStore::ConfigStoreException(kJsonErrorCode, message.c_str());
}

}  // namespace QenPlatform
