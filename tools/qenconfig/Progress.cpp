#include "Progress.h"

#include <cstdio>

#include "Commands.h"

namespace qenconfig {
namespace {

class TerminalNotifications : public QenConfigManager::TaskHandle::Notifications {
 public:
  void PluginInfo(const std::string& messageId, const std::list<std::string>& args) override {
    Print("info", messageId, args);
  }
  void PluginWarning(const std::string& messageId, const std::list<std::string>& args) override {
    Print("warning", messageId, args);
  }
  void PluginError(QenConfigManager::ErrorInfo error) override {
    Print("error", error.msgId, error.args);
  }

 private:
  static void Print(const char* level, const std::string& id, const std::list<std::string>& args) {
    std::string text;
    for (const std::string& a : args) text += (text.empty() ? "" : ", ") + a;
    fprintf(stderr, "\r\033[K%s: %s %s\n", level, id.c_str(), text.c_str());
  }
};

class TerminalTask : public QenConfigManager::TaskHandle {
 public:
  explicit TerminalTask(const char* what) : what_(what) {}
  ~TerminalTask() override { fprintf(stderr, "\r\033[K"); }
  void UpdateProgress(float percent) override {
    fprintf(stderr, "\r\033[K%s: %3.0f%%", what_, static_cast<double>(percent));
    fflush(stderr);
  }
  std::shared_ptr<Notifications> AddNotification() override {
    return std::make_shared<TerminalNotifications>();
  }

 private:
  const char* what_;
};

}  // namespace

std::shared_ptr<QenConfigManager::TaskHandle> MakeProgressTask(const char* what) {
  if (!StderrIsTerminal()) return QenConfigManager::TaskHandle::Dummy();
  return std::make_shared<TerminalTask>(what);
}

}  // namespace qenconfig
