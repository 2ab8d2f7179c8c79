// qenconfig impact FILE; qenconfig plan FILE -o PLAN; qenconfig apply PLAN.
//
// A plan is a check-apply result kept in a file (PlanFile.h) between the
// check and the apply. Apply refuses a plan that is damaged, edited or made
// for another host before anything runs, and explains a stale one: the
// impact then and now, and the keys whose drift moved since the plan.
#include <iostream>
#include <map>

#include "Commands.h"
#include "PlanFile.h"
#include "Progress.h"
#include "configmanager/apply.h"

namespace {

using namespace QenConfigManager;

// Exit codes of apply beyond the common ones (Commands.h).
enum ApplyExit : int {
  kStaged = 4,          // staged for the next boot: a reboot makes it take effect
  kApplyFailed = 5,     // a plugin failed (or the impact re-check's plugin)
  kTimedOut = 6,        // --timeout stopped it
  kStale = 7,           // 2025: the impact changed since the plan
  kNotInMaintenance = 8,  // 2026
  kBadPlan = 9,         // the plan file is unusable, or 2024
};

constexpr const char* kImpactTexts[] = {"none", "maintenance mode required", "reboot required"};
constexpr const char* kImpactNames[] = {"NO_IMPACT", "MAINTENANCE_MODE_REQUIRED", "REBOOT_REQUIRED"};
constexpr const char* kQuickBootTexts[] = {"unsupported", "supported", "supported (STM)"};

template <size_t N>
const char* Named(const char* const (&names)[N], int value) {
  return value >= 0 && value < static_cast<int>(N) ? names[value] : "unknown";
}

void PrintImpact(int impact, int quickBootStatus) {
  std::cout << "Impact: " << Named(kImpactTexts, impact) << "\nQuick boot: " << Named(kQuickBootTexts, quickBootStatus)
            << "\n";
}

std::string ObjectText(const ConfigStoreObjectId& id) {
  return id.GetComponent() + "/" + id.GetGroup() + "/" + id.GetKey() +
         (id.GetInstanceId().empty() ? "" : "/" + id.GetInstanceId());
}

// Records every drifted key or instance with a digest of its drift, under
// the same walk settings as the impact computation, so that the same
// document and host give the same list.
class DriftRecorder : public DriftHandler {
 public:
  DriftRecorder() {
    consolidatedAction = true;
    createDriftObject = true;
  }
  void Add(const rapidjson::Value& desired, const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>&,
           const std::string&) override {
    Note(id, ADD, desired, kEmptyVal);
  }
  void Set(const rapidjson::Value& desired, const rapidjson::Value& host, const ConfigStoreObjectId& id,
           const std::shared_ptr<SchemaObject>&, const std::string&, const rapidjson::Value&) override {
    Note(id, SET, desired, host);
  }
  void Delete(const rapidjson::Value& host, const ConfigStoreObjectId& id, const std::shared_ptr<SchemaObject>&,
              const std::string&) override {
    Note(id, DELETE, kEmptyVal, host);
  }
  std::vector<qenconfig::PlannedDrift> drift;

 private:
  void Note(const ConfigStoreObjectId& id, ACTION action, const rapidjson::Value& desired,
            const rapidjson::Value& host) {
    drift.push_back({ObjectText(id), kActionNames[action], qenconfig::DriftDigest(kActionNames[action], desired, host)});
  }
};

std::vector<qenconfig::PlannedDrift> RecordDrift(const rapidjson::Value& desired) {
  rapidjson::Document copy;
  copy.CopyFrom(desired, copy.GetAllocator());
  DriftRecorder recorder;
  ComputeDrift(copy, copy.GetAllocator(), recorder);
  return recorder.drift;
}

rapidjson::Document ReadDesired(const std::string& path) {
  rapidjson::Document desired;
  qenconfig::ReadDesiredDocument(path, desired);
  qenconfig::RequireStore();
  return desired;
}

// ---- impact ---------------------------------------------------------------

int ImpactCommand(const std::string& file, const std::string& context) {
  rapidjson::Document desired = ReadDesired(file);
  const ImpactResult result = Impact(desired, context, qenconfig::MakeProgressTask("computing impact"));
  qenconfig::ExitIfInterrupted();
  if (!result.errorInfo.IsEmpty()) {
    std::cerr << "error: " << qenconfig::DescribeError(result.errorInfo) << "\n";
    qenconfig::PrintPluginFailure(result.errorInfo);
    return qenconfig::kFailure;
  }
  if (qenconfig::JsonOutput()) {
    rapidjson::Document out(rapidjson::kObjectType);
    auto& a = out.GetAllocator();
    out.AddMember("compliant", result.compliant, a);
    out.AddMember("impact", rapidjson::StringRef(Named(kImpactNames, result.impact)), a);
    out.AddMember("quickBootStatus", rapidjson::StringRef(qenconfig::QuickBootName(result.quickBootStatus)), a);
    rapidjson::Value messages(rapidjson::kArrayType);
    for (const ImpactInfo& info : result.impactInfo) {
      rapidjson::Value message(rapidjson::kObjectType), args(rapidjson::kArrayType);
      for (const std::string& arg : info.args) args.PushBack(rapidjson::Value(arg, a), a);
      message.AddMember("id", rapidjson::Value(info.msgId, a), a);
      message.AddMember("args", args, a);
      message.AddMember("text", rapidjson::Value(qenconfig::DescribeImpact(info), a), a);
      messages.PushBack(message, a);
    }
    out.AddMember("messages", messages, a);
    qenconfig::PrintJson(out);
    return qenconfig::kOk;
  }
  if (result.compliant) {
    std::cout << "Compliant: applying the document changes nothing.\n";
    return qenconfig::kOk;
  }
  PrintImpact(result.impact, result.quickBootStatus);
  for (const ImpactInfo& info : result.impactInfo) std::cout << "  " << qenconfig::DescribeImpact(info) << "\n";
  return qenconfig::kOk;
}

// ---- plan -----------------------------------------------------------------

int PlanCommand(const std::string& file, const std::string& output, const std::string& context) {
  rapidjson::Document desired = ReadDesired(file);
  std::shared_ptr<CheckApplyResult> check;
  try {
    check = CheckApply(desired, context, qenconfig::MakeProgressTask("checking impact"));
  } catch (const ErrorInfo& error) {  // an impact plugin failed or was stopped
    qenconfig::ExitIfInterrupted();
    std::cerr << "error: " << qenconfig::DescribeError(error) << "; no plan written\n";
    qenconfig::PrintPluginFailure(error);
    return qenconfig::kFailure;
  }
  qenconfig::ExitIfInterrupted();
  if (!check) {
    if (qenconfig::JsonOutput()) {
      rapidjson::Document out(rapidjson::kObjectType);
      out.AddMember("compliant", true, out.GetAllocator());
      out.AddMember("file", rapidjson::Value(), out.GetAllocator());
      qenconfig::PrintJson(out);
    } else {
      std::cout << "Compliant: the host matches the desired document; no plan written.\n";
    }
    return qenconfig::kOk;
  }
  qenconfig::Plan plan;
  plan.host = GetBIOSUUID();
  plan.impact = check->GetImpact();
  plan.quickBootStatus = check->GetQuickBootStatus();
  plan.timestamp = check->GetTimestamp();
  plan.context = check->GetContext();
  plan.driftCache = check->GetDriftCache();
  plan.desired.CopyFrom(check->GetDesiredDocument(), plan.desired.GetAllocator());
  plan.drift = RecordDrift(plan.desired);
  qenconfig::ExitIfInterrupted();
  qenconfig::WriteUserFile(output, qenconfig::WritePlan(plan));

  if (qenconfig::JsonOutput()) {
    rapidjson::Document out(rapidjson::kObjectType);
    auto& a = out.GetAllocator();
    out.AddMember("compliant", false, a);
    out.AddMember("file", rapidjson::Value(output, a), a);
    out.AddMember("impact", rapidjson::StringRef(Named(kImpactNames, plan.impact)), a);
    out.AddMember("quickBootStatus", rapidjson::StringRef(qenconfig::QuickBootName(plan.quickBootStatus)), a);
    rapidjson::Value drift(rapidjson::kArrayType);
    for (const qenconfig::PlannedDrift& d : plan.drift) {
      rapidjson::Value entry(rapidjson::kObjectType);
      entry.AddMember("operation", rapidjson::Value(d.operation, a), a);
      entry.AddMember("object", rapidjson::Value(d.object, a), a);
      drift.PushBack(entry, a);
    }
    out.AddMember("drift", drift, a);
    qenconfig::PrintJson(out);
    return qenconfig::kOk;
  }
  PrintImpact(plan.impact, plan.quickBootStatus);
  for (const qenconfig::PlannedDrift& d : plan.drift)
    std::cout << "  " << d.operation << std::string(8 - d.operation.size(), ' ') << d.object << "\n";
  std::cout << "Plan written to " << output << " (" << plan.drift.size() << " drifted "
            << (plan.drift.size() == 1 ? "object" : "objects") << ").\n";
  return qenconfig::kOk;
}

// ---- apply ----------------------------------------------------------------

// What a stale plan missed: the impact then and now, and every object whose
// drift is new, changed or gone since the plan.
void ExplainStale(const qenconfig::Plan& plan) {
  rapidjson::Document desired;
  desired.CopyFrom(plan.desired, desired.GetAllocator());
  const ImpactResult now = Impact(desired, plan.context, TaskHandle::Dummy());
  std::cout << "The plan is stale: planned impact: " << Named(kImpactTexts, plan.impact) << "; impact now: "
            << (now.errorInfo.IsEmpty() ? Named(kImpactTexts, now.compliant ? NO_IMPACT : now.impact)
                                        : "unknown (" + qenconfig::DescribeError(now.errorInfo) + ")")
            << ".\n";

  std::map<std::string, const qenconfig::PlannedDrift*> planned;
  for (const auto& d : plan.drift) planned[d.object] = &d;
  const std::vector<qenconfig::PlannedDrift> current = RecordDrift(plan.desired);
  std::vector<std::string> lines;
  for (const auto& d : current) {
    auto it = planned.find(d.object);
    if (it == planned.end()) {
      lines.push_back(d.object + ": drifts now (" + d.operation + "), did not in the plan");
      continue;
    }
    if (!(*it->second == d))
      lines.push_back(d.object + ": drift changed (plan: " + it->second->operation + ", now: " + d.operation + ")");
    planned.erase(it);
  }
  for (const auto& gone : planned)
    lines.push_back(gone.first + ": no drift now (plan: " + gone.second->operation + ")");
  if (lines.empty()) {
    std::cout << "No key's drift differs from the plan's.\n";
  } else {
    std::cout << "Keys whose drift differs from the plan's:\n";
    for (const std::string& line : lines) std::cout << "  " << line << "\n";
  }
  std::cout << "Nothing was applied. Make a new plan to apply the document.\n";
}

std::string TaskLine(const ApplyTaskOutcome& task, const std::string& notRunReason) {
  std::string state, detail;
  switch (task.state) {
    case APPLY_TASK_DONE: state = "done"; break;
    case APPLY_TASK_FAILED:
      state = "failed";
      detail = ": " + qenconfig::DescribeError(task.error);
      break;
    case APPLY_TASK_NOT_RUN:
      state = "not run";
      detail = " (" + notRunReason + ")";
      break;
    default:
      state = "not run";
      detail = " (no apply operation of plugin " + task.pluginId + " takes it)";
  }
  return "  " + state + std::string(9 - state.size(), ' ') + task.key + " [" + std::to_string(task.inputs) +
         (task.inputs == 1 ? " input]" : " inputs]") + detail;
}

int ReportJson(const ApplyResult& result) {
  static const char* const kStates[] = {"done", "failed", "not run"};
  const bool stopped = qenconfig::InterruptSignal() != 0 || qenconfig::TimedOut();
  rapidjson::Document out(rapidjson::kObjectType);
  auto& a = out.GetAllocator();
  const char* outcome = "applied";
  int code = qenconfig::kOk;
  if (result.errorInfo.IsEmpty()) {
    if (result.status == APPLY_STAGED_FOR_REBOOT) outcome = "staged", code = kStaged;
    else if (result.tasks.empty()) outcome = "nothing to apply";
    else if (result.status == APPLY_DONE_IN_MAINTENANCE_MODE) outcome = "applied in maintenance mode";
  } else {
    outcome = result.tasks.empty() ? "impact check failed" : qenconfig::TimedOut() ? "timed out"
                                                           : stopped           ? "stopped"
                                                                               : "failed";
    code = qenconfig::TimedOut() ? kTimedOut : kApplyFailed;
  }
  out.AddMember("outcome", rapidjson::StringRef(outcome), a);
  rapidjson::Value error(rapidjson::kNullType);
  if (!result.errorInfo.IsEmpty()) error.SetString(qenconfig::DescribeError(result.errorInfo), a);
  out.AddMember("error", error, a);
  rapidjson::Value tasks(rapidjson::kArrayType);
  for (const ApplyTaskOutcome& task : result.tasks) {
    rapidjson::Value entry(rapidjson::kObjectType), taskError(rapidjson::kNullType);
    const int state = task.state == APPLY_TASK_DONE ? 0 : task.state == APPLY_TASK_FAILED ? 1 : 2;
    if (task.state == APPLY_TASK_FAILED) taskError.SetString(qenconfig::DescribeError(task.error), a);
    entry.AddMember("key", rapidjson::Value(task.key, a), a);
    entry.AddMember("plugin", rapidjson::Value(task.pluginId, a), a);
    entry.AddMember("state", rapidjson::StringRef(kStates[state]), a);
    entry.AddMember("inputs", static_cast<int>(task.inputs), a);
    entry.AddMember("error", taskError, a);
    tasks.PushBack(entry, a);
  }
  out.AddMember("tasks", tasks, a);
  qenconfig::PrintJson(out);
  return code;
}

int Report(const ApplyResult& result, double timeout) {
  for (const ApplyTaskOutcome& task : result.tasks)
    if (task.state == APPLY_TASK_FAILED) qenconfig::PrintPluginFailure(task.error);
  if (qenconfig::JsonOutput()) return ReportJson(result);
  const bool stopped = qenconfig::InterruptSignal() != 0 || qenconfig::TimedOut();
  if (result.errorInfo.IsEmpty()) {
    if (result.status == APPLY_STAGED_FOR_REBOOT) {
      std::cout << "Staged for the next boot: the host must be rebooted for the document to take effect; "
                   "no plugin ran.\n";
      return kStaged;
    }
    if (result.tasks.empty()) {
      std::cout << "Nothing left to apply: the host matches the plan's document.\n";
      return qenconfig::kOk;
    }
    std::cout << (result.status == APPLY_DONE_IN_MAINTENANCE_MODE ? "Applied in maintenance mode:\n" : "Applied:\n");
  } else if (result.tasks.empty()) {
    std::cout << "Not applied: the impact re-check failed: " << qenconfig::DescribeError(result.errorInfo) << "\n";
  } else if (stopped) {
    std::cout << "Stopped";
    if (qenconfig::TimedOut()) std::cout << " by the timeout of " << timeout << " s";
    std::cout << "; tasks that ran stay applied:\n";
  } else {
    std::cout << "Failed; tasks that ran stay applied:\n";
  }
  const std::string reason = stopped ? "the apply was stopped" : "an earlier task failed";
  for (const ApplyTaskOutcome& task : result.tasks) std::cout << TaskLine(task, reason) << "\n";
  if (result.errorInfo.IsEmpty()) return qenconfig::kOk;
  return qenconfig::TimedOut() ? kTimedOut : kApplyFailed;
}

int ApplyCommand(const std::string& file, double timeout) {
  qenconfig::Plan plan;
  try {
    qenconfig::ReadPlan(qenconfig::ReadUserFile(file), GetBIOSUUID(), plan);
  } catch (const qenconfig::PlanError& e) {
    std::cerr << "error: plan file \"" << file << "\" refused: " << e.what() << "; nothing was applied\n";
    return kBadPlan;
  }
  auto check = std::make_shared<CheckApplyResult>(static_cast<IMPACT_TYPE>(plan.impact), plan.desired, plan.timestamp,
                                                  static_cast<QUICK_BOOT_STATUS>(plan.quickBootStatus), plan.context,
                                                  plan.driftCache);
  ApplyResult result;
  try {
    if (timeout > 0) qenconfig::AbortAfter(timeout);
    result = Apply(check, qenconfig::MakeApplyTask());
  } catch (const InvalidImpact& e) {
    std::cerr << "error " << e.GetErrorCode() << ": " << e.what() << "\n";
    qenconfig::ExitIfInterrupted();
    ExplainStale(plan);
    return kStale;
  } catch (const HostNotInMM& e) {
    std::cerr << "error " << e.GetErrorCode() << ": " << e.what() << "\n";
    return kNotInMaintenance;
  } catch (const ConfigManagerException& e) {
    if (e.GetErrorCode() != APPLY_EMPTY_INPUT) throw;
    std::cerr << "error " << e.GetErrorCode() << ": " << e.what() << "\n";
    return kBadPlan;
  }
  return Report(result, timeout);
}

qenconfig::Registrar reg([](CLI::App& app) {
  struct Options {
    std::string file, output, context;
    double timeout = 0;
  };
  auto o = std::make_shared<Options>();

  auto* impact = app.add_subcommand("impact", "What applying a desired document would cost the host");
  impact->add_option("FILE", o->file, "Desired configuration document (a path on this machine)")->required();
  impact->add_option("--context", o->context, "Context text handed to the impact plugins");
  impact->footer(
      "JSON: {\"compliant\": bool, \"impact\": \"NO_IMPACT\"|\"MAINTENANCE_MODE_REQUIRED\"|\"REBOOT_REQUIRED\",\n"
      "\"quickBootStatus\": \"QUICKBOOT_UNSUPPORTED\"|\"QUICKBOOT_SUPPORTED\"|\"QUICKBOOT_STM_SUPPORTED\",\n"
      "\"messages\": [{\"id\": string, \"args\": [string], \"text\": string}]}.\n"
      "Exit codes: 0 the impact was computed (also when the host complies), 1 it could not be.");
  impact->callback([o] { qenconfig::Exit(qenconfig::Run([&] { return ImpactCommand(o->file, o->context); })); });

  auto* plan = app.add_subcommand("plan", "Check what applying a document costs and keep the result in a plan file");
  plan->add_option("FILE", o->file, "Desired configuration document (a path on this machine)")->required();
  plan->add_option("-o,--file", o->output, "Plan file to write (mode 0600); none when the host complies")
      ->required();
  plan->footer(
      "JSON: {\"compliant\": bool, \"file\": string|null (the plan file; null when none was written),\n"
      "\"impact\": \"NO_IMPACT\"|..., \"quickBootStatus\": \"QUICKBOOT_...\",\n"
      "\"drift\": [{\"operation\": \"ADD\"|\"SET\"|\"DELETE\", \"object\": string}]}.\n"
      "Exit codes: 0 a plan was written or the host complies, 1 failure (no plan written).");
  plan->add_option("--context", o->context, "Context text handed to the impact and apply plugins");
  plan->callback([o] { qenconfig::Exit(qenconfig::Run([&] { return PlanCommand(o->file, o->output, o->context); })); });

  auto* apply = app.add_subcommand("apply", "Apply a plan written by `qenconfig plan`");
  apply->add_option("PLAN", o->file, "Plan file")->required();
  apply->add_option("--timeout", o->timeout, "Stop the apply after SECONDS, like Ctrl-C (0: no limit)")
      ->type_name("SECONDS")
      ->check(CLI::NonNegativeNumber);
  apply->footer(
      "Exit codes: 0 applied (on the running host or in maintenance mode) or nothing left to apply;\n"
      "4 staged for the next boot (reboot required, no plugin ran); 5 a plugin failed (the report\n"
      "names it; tasks before it stay applied, later ones did not run); 6 stopped by --timeout;\n"
      "7 refused, error 2025: the plan is stale (the impact changed; the keys whose drift moved are\n"
      "listed); 8 refused, error 2026: the host must be in maintenance mode; 9 refused: the plan\n"
      "file is not a plan, was changed or cut short, has another format version or was made for\n"
      "another host (or error 2024); 1 other failures; 130/143 stopped by SIGINT/SIGTERM.\n"
      "Refusals apply nothing.\n"
      "JSON (when it ran): {\"outcome\": \"applied\"|\"applied in maintenance mode\"|\"staged\"|\n"
      "\"nothing to apply\"|\"failed\"|\"stopped\"|\"timed out\"|\"impact check failed\", \"error\": string|null,\n"
      "\"tasks\": [{\"key\": string, \"plugin\": string, \"state\": \"done\"|\"failed\"|\"not run\",\n"
      "\"inputs\": int, \"error\": string|null}]}; refusals print no JSON.");
  apply->callback([o] { qenconfig::Exit(qenconfig::Run([&] { return ApplyCommand(o->file, o->timeout); })); });
});

}  // namespace
