// The configuration store's exception, the base of every exception the
// configuration manager throws. Holds the message text, the error code and the
// message's arguments, in that order.
#pragma once

#include <list>
#include <string>

#include "HostCtl.h"

namespace QenConfigStore {

class ConfigStoreException : public HostCtl::Lib::HostCtlException {
 public:
  ConfigStoreException(int code, const char* message)
      : HostCtl::Lib::HostCtlException(message ? message : ""), code_(code) {}
  ~ConfigStoreException() override = default;

  int GetErrorCode() const { return code_; }
  const std::list<std::string>& GetArgs() const { return args_; }
  void AddArg(std::string arg) { args_.push_back(std::move(arg)); }
  const std::string& GetMessage() const { return message_; }

 private:
  int code_;
  std::list<std::string> args_;
};

}  // namespace QenConfigStore
