#include "Progress.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>

#include "Commands.h"
#include "JsonValidator.h"

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

// Standard error of an apply: notification lines, and on a terminal a
// progress bar kept below them. Used from the caller's thread only.
struct ApplyScreen {
  ApplyScreen(bool terminal, bool quiet) : terminal(terminal && !quiet), quiet(quiet) {}
  ~ApplyScreen() {
    if (!bar.empty()) fprintf(stderr, "\r\033[K");
  }
  void Line(const std::string& line) {
    if (quiet) return;
    if (terminal) fprintf(stderr, "\r\033[K%s\n%s", line.c_str(), bar.c_str());
    else fprintf(stderr, "%s\n", line.c_str());
    fflush(stderr);
  }
  void Bar(const char* what, float percent) {
    if (!terminal) return;
    constexpr int kWidth = 30;
    const int filled = std::max(0, std::min(kWidth, static_cast<int>(percent * kWidth / 100.0f + 0.5f)));
    char text[96];
    snprintf(text, sizeof text, "%-15s [%s%s] %3.0f%%", what, std::string(filled, '#').c_str(),
             std::string(kWidth - filled, '.').c_str(), static_cast<double>(percent));
    bar = text;
    fprintf(stderr, "\r\033[K%s", bar.c_str());
    fflush(stderr);
  }
  const bool terminal;  // draws the bar
  const bool quiet;     // --quiet: neither bar nor lines
  std::string bar;  // what is drawn on the last line, "" for nothing
};

class NotificationLines : public QenConfigManager::TaskHandle::Notifications {
 public:
  explicit NotificationLines(std::shared_ptr<ApplyScreen> screen) : screen_(std::move(screen)) {}
  void PluginInfo(const std::string& messageId, const std::list<std::string>& args) override {
    screen_->Line(DescribeMessage(messageId, args));
  }
  void PluginWarning(const std::string& messageId, const std::list<std::string>& args) override {
    screen_->Line("warning: " + DescribeMessage(messageId, args));
  }
  void PluginError(QenConfigManager::ErrorInfo error) override { screen_->Line("error: " + DescribeError(error)); }

 private:
  std::shared_ptr<ApplyScreen> screen_;
};

class ApplyTask : public QenConfigManager::TaskHandle {
 public:
  ApplyTask(const char* what, std::shared_ptr<ApplyScreen> screen) : what_(what), screen_(std::move(screen)) {}
  // Also called from the plugin launcher's monitor thread: atomics and the
  // clock only.
  bool IsAborted() override { return g_signal.load() != 0 || TimedOut(); }
  void UpdateProgress(float percent) override { screen_->Bar(what_, percent); }
  std::shared_ptr<Notifications> AddNotification() override { return std::make_shared<NotificationLines>(screen_); }
  std::shared_ptr<TaskHandle> ChildTask(int) override {
    return std::make_shared<ApplyTask>("applying", screen_);
  }

 private:
  const char* what_;
  std::shared_ptr<ApplyScreen> screen_;
};

}  // namespace

std::shared_ptr<QenConfigManager::TaskHandle> MakeApplyTask() {
  CatchInterrupts();
  return std::make_shared<ApplyTask>("checking impact",
                                     std::make_shared<ApplyScreen>(StderrIsTerminal(), Quiet()));
}

std::string DescribeMessage(const std::string& id, const std::list<std::string>& args) {
  static const std::string kPrefix = "corvane.qen.settings.";
  static const std::string kPlugin = ".plugin.";
  const size_t plugin = id.find(kPlugin);
  const size_t event = plugin + kPlugin.size();
  if (id.compare(0, kPrefix.size(), kPrefix) == 0 && plugin != std::string::npos && args.size() == 1 &&
      id.find('.', event) == std::string::npos)
    return id.substr(kPrefix.size(), plugin - kPrefix.size()) + " plugin " + args.front() + " " + id.substr(event);
  std::string text = id;
  bool first = true;
  for (const std::string& a : args) {
    text += (first ? ": " : ", ") + a;
    first = false;
  }
  return text;
}

std::string DescribeError(const QenConfigManager::ErrorInfo& error) {
  return DescribeMessage(error.msgId, error.args) + (error.message.empty() ? "" : " (" + error.message + ")");
}

std::string DescribeProblem(const QenConfigManager::ErrorInfo& error) {
  const std::string text =
      JsonValidator::MessageText(error.msgId, std::vector<std::string>(error.args.begin(), error.args.end()));
  return text.empty() ? DescribeError(error) : text;
}

void PrintPluginFailure(const QenConfigManager::ErrorInfo& error) {
  if (error.args.empty()) return;
  const std::string detail = PluginFailureDetail(error.args.front());
  if (!detail.empty()) fprintf(stderr, "  %s\n", detail.c_str());
}

std::string DescribeImpact(const QenConfigManager::ImpactInfo& info) {
  static const std::string kPrefix = "corvane.settings.impact.info.";
  if (info.msgId.compare(0, kPrefix.size(), kPrefix) != 0) return DescribeMessage(info.msgId, info.args);
  const std::string what = info.msgId.substr(kPrefix.size());
  if (info.args.size() == 3) {
    auto arg = info.args.begin();
    const std::string& key = *arg++;
    const std::string& group = *arg++;
    return what + std::string(what.size() < 8 ? 8 - what.size() : 1, ' ') + *arg + "/" + group + "/" + key;
  }
  if (what == "reboot") return "reboot required";
  if (what == "maintenance-mode") return "maintenance mode required";
  return DescribeMessage(info.msgId, info.args);
}

std::shared_ptr<QenConfigManager::TaskHandle> MakeProgressTask(const char* what) {
  CatchInterrupts();
  if (Quiet() || !StderrIsTerminal()) return std::make_shared<InterruptibleTask>();
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
