#include "configmanager/common.h"

namespace QenConfigManager {

TaskHandle::Notifications::~Notifications() = default;
void TaskHandle::Notifications::PluginInfo(const std::string&, const std::list<std::string>&) {}
void TaskHandle::Notifications::PluginWarning(const std::string&, const std::list<std::string>&) {}
void TaskHandle::Notifications::PluginError(ErrorInfo) {}

TaskHandle::~TaskHandle() = default;
bool TaskHandle::IsAborted() { return false; }
void TaskHandle::UpdateProgress(float) {}
std::shared_ptr<TaskHandle::Notifications> TaskHandle::AddNotification() {
  return std::make_shared<Notifications>();
}
std::shared_ptr<TaskHandle> TaskHandle::ChildTask(int) { return Dummy(); }
std::string TaskHandle::GetTaskId() const { return std::string(); }
std::shared_ptr<TaskHandle> TaskHandle::Dummy() { return std::make_shared<TaskHandle>(); }

PluginMonitor::~PluginMonitor() = default;
bool PluginMonitor::IsAborted() { return false; }
std::string PluginMonitor::GetTaskId() { return std::string(); }
std::shared_ptr<PluginMonitor> PluginMonitor::Dummy() { return std::make_shared<PluginMonitor>(); }

bool TaskPluginMonitor::IsAborted() { return task_->IsAborted(); }
std::string TaskPluginMonitor::GetTaskId() { return task_->GetTaskId(); }

}  // namespace QenConfigManager
