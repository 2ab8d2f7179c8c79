// Task handles for the command line: progress and plugin notifications go
// to stderr as one rewritten line, only when stderr is a terminal and
// --quiet is not given; SIGINT
// and SIGTERM become an abort of the running operation.
#pragma once

#include <list>
#include <memory>
#include <string>

#include "configmanager/common.h"
#include "configmanager/impact.h"

namespace qenconfig {

// The task handle of a command that runs plugins. From the first call on,
// SIGINT and SIGTERM do not end the process: they ask the running operation
// to stop through the handle's IsAborted (the plugin runner gets SIGTERM
// within about a second, and the request and result files are removed), and
// the command then ends with 128 + the signal (ExitIfInterrupted). A second
// one ends the process at once; its runner dies with it. Operations that
// take no task handle (extraction) finish their plugin calls first.
std::shared_ptr<QenConfigManager::TaskHandle> MakeProgressTask(const char* what);
// The task handle of apply: stopped like MakeProgressTask's (signals,
// AbortAfter). On a terminal it draws a progress bar on stderr; plugin
// notifications are one line each on stderr either way. Its child tasks
// share the stop and the output, so the remediation's plugins stop and
// report like the task's own.
std::shared_ptr<QenConfigManager::TaskHandle> MakeApplyTask();
// One line for a message identifier with its arguments:
// "corvane.qen.settings.apply.plugin.started" with [p] reads "apply plugin p
// started"; any other shows the identifier and its arguments.
std::string DescribeMessage(const std::string& id, const std::list<std::string>& args);
// The same for an error, followed by its message text when it has one.
std::string DescribeError(const QenConfigManager::ErrorInfo& error);
// A validation problem as a sentence: the schema checks' own text
// ("expected string, found integer"), else DescribeError.
std::string DescribeProblem(const QenConfigManager::ErrorInfo& error);
// Why the plugin that `error` names (its first argument) failed: its exit
// status or signal and where its log is, as one indented line on stderr;
// nothing when the log does not tell.
void PrintPluginFailure(const QenConfigManager::ErrorInfo& error);
// One impact message: "set     network/dns/resolver" for a per-key one
// ([key, group, component]), "reboot required", "maintenance mode required";
// any other as DescribeMessage.
std::string DescribeImpact(const QenConfigManager::ImpactInfo& info);
// The same signal handling for a command whose operation takes no task.
void CatchInterrupts();

// The signal that asked the command to stop, or 0.
int InterruptSignal();

// From `seconds` from now on (> 0), every task handle of MakeProgressTask
// and MakeApplyTask reports an abort, as a signal would, without ending the
// command: it then reports the aborted operation's outcome (TimedOut() tells
// why).
void AbortAfter(double seconds);
bool TimedOut();

// Thrown by ExitIfInterrupted, turned into the exit status by Run.
struct Interrupted {
  int signal;
};
// Throws Interrupted when a signal asked the command to stop: call it when an
// operation returns, before printing its result.
void ExitIfInterrupted();

}  // namespace qenconfig
