#include "Progress.h"

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>

#include "Commands.h"

namespace qenconfig {
namespace {

std::atomic<int> g_signal{0};
static_assert(std::atomic<int>::is_always_lock_free, "read and written in a signal handler");
// Steady-clock ticks of the --timeout deadline; 0: none. Read by the plugin
// launcher's monitor thread too.
std::atomic<std::chrono::steady_clock::rep> g_deadline{0};

void OnInterrupt(int sig) {
  int none = 0;
  if (g_signal.compare_exchange_strong(none, sig)) return;
  // The second one: end now, as the signal itself would.
  signal(sig, SIG_DFL);
  raise(sig);
}

}  // namespace

void CatchInterrupts() {
  static bool installed = false;
  if (installed) return;
  installed = true;
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

namespace {

class InterruptibleTask : public QenConfigManager::TaskHandle {
 public:
  bool IsAborted() override { return g_signal.load() != 0 || TimedOut(); }
};

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

class TerminalTask : public InterruptibleTask {
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
  CatchInterrupts();
  if (!StderrIsTerminal()) return std::make_shared<InterruptibleTask>();
  return std::make_shared<TerminalTask>(what);
}

int InterruptSignal() { return g_signal.load(); }

void AbortAfter(double seconds) {
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(seconds));
  g_deadline.store(deadline.time_since_epoch().count());
}

bool TimedOut() {
  const auto deadline = g_deadline.load();
  return deadline != 0 && std::chrono::steady_clock::now().time_since_epoch().count() >= deadline;
}

void ExitIfInterrupted() {
  if (int sig = InterruptSignal()) throw Interrupted{sig};
}

}  // namespace qenconfig
