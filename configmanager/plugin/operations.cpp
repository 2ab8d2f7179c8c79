// The four plugin operations. Each runs one launcher; a failure of the run
// (launcher, abort, unreadable result, malformed request) is folded into the
// result's ErrorInfo and never thrown.
#include <cstring>
#include <functional>
#include <memory>

#include "CSLogger.h"
#include "HostRoot.h"
#include "PluginSupport.h"
#include "configmanager/plugin.h"
#include "plugin/call_lock.h"

namespace QenConfigManager {
namespace {

struct OperationTexts {
  const char* name;        // the request's "type"
  const char* aborted;     // message identifiers for a run that failed
  const char* unexpected;
  const char* failedLog;   // logged with the module when a run failed; may be null
};

const OperationTexts kApply{"APPLY", "corvane.qen.settings.apply.plugin.aborted",
                            "corvane.qen.settings.apply.plugin.unexpected.error", nullptr};
const OperationTexts kImpact{"IMPACT", "corvane.qen.settings.impact.plugin.aborted",
                             "corvane.qen.settings.impact.plugin.unexpected.error", nullptr};
const OperationTexts kExtract{"EXTRACT", "corvane.qen.settings.extract.plugin.aborted",
                              "corvane.qen.settings.extract.plugin.unexpected.error",
                              "Extract plugin %s failed"};
const OperationTexts kValidate{"VALIDATE", "corvane.qen.settings.validation.plugin.aborted",
                               "corvane.qen.settings.validation.plugin.unexpected.error",
                               "Validation plugin %s failed"};

ErrorInfo& ErrorOf(ErrorInfo& result) { return result; }
ErrorInfo& ErrorOf(ImpactPluginResult& result) { return result.errorInfo; }
ErrorInfo& ErrorOf(ExtractPluginResult& result) { return result.errorInfo; }
ErrorInfo& ErrorOf(ValidationPluginResult& result) { return result.errorInfo; }

template <typename Result>
void LogModuleResult(const Result&) {}
void LogModuleResult(const ImpactPluginResult& result) {
  CSLogger::Log(2, ">> Module result id=%s", result.errorInfo.msgId.c_str());
}

void Load(ErrorInfo& result, const std::string& path) { result = ErrorInfo::Load(path); }
void Load(ImpactPluginResult& result, const std::string& path) { result = ImpactPluginResult::Load(path); }
void Load(ExtractPluginResult& result, const std::string& path) { result = ExtractPluginResult::Load(path); }
void Load(ValidationPluginResult& result, const std::string& path) {
  result = ValidationPluginResult::Load(path);
}

void Label(ErrorInfo& result, const std::string& label) { result.message = label; }
void Label(ImpactPluginResult& result, const std::string& label) { result.errorInfo.message = label; }
void Label(ExtractPluginResult& result, const std::string& label) { result.errorInfo.message = label; }
void Label(ValidationPluginResult& result, const std::string& label) {
  result.errorInfo.message = label;
  for (auto& object : result.results) {
    for (auto& error : object.errors) error.message = label;
  }
}

class RequestNotWritten : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

template <typename Result>
Result Run(const Plugin& plugin, const OperationTexts& op, const std::string& context,
           const std::shared_ptr<PluginMonitor>& callerMonitor,
           const std::function<PluginRequest()>& buildRequest) {
  const std::shared_ptr<PluginMonitor> monitor = callerMonitor ? callerMonitor : PluginMonitor::Dummy();
  Result result;
  try {
    {
      // Declared first, released last: after the launcher removed both files.
      PluginCallLock lock(plugin.GetId(), *monitor);
      PluginLauncher launcher(buildRequest(), plugin.GetId(), static_cast<int>(plugin.GetVersion()),
                              op.name, plugin.GetType(), plugin.GetModule());
      const std::string taskId = monitor->GetTaskId();
      launcher.request.Dump(QenPlatform::HostPath(PluginLauncher::kInputFile), taskId, context);
      // Without its request the runner could only report a bad input.
      if (const int err = launcher.request.DumpError())
        throw RequestNotWritten(std::string("Cannot write the plugin request file \"") +
                                PluginLauncher::kInputFile + "\": " + std::strerror(err));
      launcher.ForkPlugin(monitor);
      Load(result, QenPlatform::HostPath(PluginLauncher::kOutputFile));
      Label(result, plugin.GetSchemaLabel());
    }
    LogModuleResult(result);
    return result;
  } catch (const std::exception& e) {
    CSLogger::Log(0, "%s", e.what());
    LogModuleResult(result);
    ErrorInfo& error = ErrorOf(result);
    if (error.msgId.empty()) {
      if (op.failedLog) CSLogger::Log(0, op.failedLog, plugin.GetModule().c_str());
      error.msgId = monitor->IsAborted() ? op.aborted : op.unexpected;
      error.args = {plugin.GetId()};
      if (dynamic_cast<const RequestNotWritten*>(&e)) error.message = e.what();
    }
    return result;
  }
}

}  // namespace

ErrorInfo Plugin::Apply(const DesiredConfigInputList& inputs, const std::string& context,
                        const std::shared_ptr<PluginMonitor>& monitor) const {
  return Run<ErrorInfo>(*this, kApply, context, monitor, [&] {
    return PluginRequest(id, kApply.name, module, static_cast<int>(version), inputs);
  });
}

ImpactPluginResult Plugin::Impact(const DesiredConfigInputList& inputs, const std::string& context,
                                  const std::shared_ptr<PluginMonitor>& monitor) const {
  return Run<ImpactPluginResult>(*this, kImpact, context, monitor, [&] {
    return PluginRequest(id, kImpact.name, module, static_cast<int>(version), inputs);
  });
}

ExtractPluginResult Plugin::Extract(const ConfigStoreObjectIdList& ids, const std::string& context,
                                    const std::shared_ptr<PluginMonitor>& monitor) const {
  return Run<ExtractPluginResult>(*this, kExtract, context, monitor, [&] {
    return PluginRequest(id, kExtract.name, module, static_cast<int>(version), ids);
  });
}

ValidationPluginResult Plugin::Validate(const ConfigStoreObjectList& data,
                                        const ConfigStoreObjectList& references,
                                        const std::string& context,
                                        const std::shared_ptr<PluginMonitor>& monitor) const {
  return Run<ValidationPluginResult>(*this, kValidate, context, monitor, [&] {
    return PluginRequest(id, kValidate.name, module, static_cast<int>(version), data, references);
  });
}

}  // namespace QenConfigManager
