// Host configuration API: read, set and delete the configuration of one key
// (component, group, key) without writing a whole desired document.
//
// A change is a sequence of calls whose documents the caller carries:
//   ValidateInputSet -> GenerateSetDocuments -> CheckImpact -> SetConfig
//   ValidateInputDelete -> GenerateDeleteDocuments -> CheckImpact -> DeleteConfig
// SetConfig and DeleteConfig remediate the running host through the apply
// plugins when the impact allows it (maintenance mode only when the host is
// in it), and stage the change in the store for the next boot on a reboot
// impact. Nothing is kept between calls.
//
// Current values are read through the key's single extract plugin when the
// feature switch FEATURE_CONFIG_PLUGIN_READS is on (the same switch adds the
// apply plugins' objects to the dependents a change must not race), else
// from the store.
//
// Ownership: documents are borrowed for the call; out documents are filled
// (made objects when they are not). Results are plain values.
// Thread safety: one call per thread with its own documents; plugin calls
// are serialised per host by the plugin layer, and the task handle is also
// polled from the plugin launcher's monitor thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "configmanager/impact.h"
#include "configmanager/validate.h"

namespace QenConfigManager {

// The key's default and current configuration as value text (an object for
// a singleton key, an array of instances otherwise; "" when there is none),
// cleaned for presentation: generated identifiers, members equal to their
// schema default (unless required) and empty members removed, nested
// instance arrays sorted, solution-user instances left out; instances in
// the order they are stored (or the plugin returned them). `userConfigText` is the schema's user-configuration
// text. Throws ConfigManagerException 2180 (no schema store), 2021 (no
// schema), 2181 (not user configuration), the store's 2001, and the plugin
// read's 2031, 2032, 2033.
QCM_EXPORT void GetConfig(const std::string& component, const std::string& group,
                          const std::string& key, std::string& defaultText,
                          std::string& currentText, std::string& userConfigText);

// Parses `valueText` into `valueDoc` and validates it against the key's
// schema (an array value element by element, each error's path prefixed with
// "/<index>"). Returns true when valid; otherwise `errors` gets one record per
// validator error, in order, even when two share a path. Throws
// InvalidArgumentException 2080 ("Invalid Json"), 2023 (empty value), 2028
// (an object for a non-singleton key), 2022 (an array for a singleton key),
// and ConfigManagerException 2180 / 2021.
QCM_EXPORT bool ValidateInputSet(const std::string& component, const std::string& group,
                                 const std::string& key, const std::string& valueText,
                                 rapidjson::Document& valueDoc,
                                 std::vector<ValidationErrorInfo>& errors);

// Throws ConfigManagerException 2180 / 2021 when the key has no schema.
QCM_EXPORT void ValidateInputDelete(const std::string& component, const std::string& group,
                                    const std::string& key);

// Adds the key's current value to `current` and `value` to `desired`
// (components at the root, no "profile"); `relevant` becomes `desired` plus
// the current values of the objects that the key's validation plugins (and,
// with the plugin feature switch, its apply plugins) work with, so that
// validating it sees what those plugins need. Throws HostInDBM 2029 when any
// of those objects already has a change staged for the next boot, before
// `relevant` is filled; the read failures of GetConfig.
QCM_EXPORT void GenerateSetDocuments(const std::string& component, const std::string& group,
                                     const std::string& key, const rapidjson::Value& value,
                                     rapidjson::Document& desired, rapidjson::Document& current,
                                     rapidjson::Document& relevant);

// Adds the key's current value to `current` and its dependents to `relevant`;
// both stay untouched when the key has no current value (nothing to delete).
// Failures as GenerateSetDocuments.
QCM_EXPORT void GenerateDeleteDocuments(const std::string& component, const std::string& group,
                                        const std::string& key, rapidjson::Document& current,
                                        rapidjson::Document& relevant);

// The impact of turning `current` into `desired` (for a delete: an empty
// object document). No extraction: `current` stands for the host. Progress
// and notifications as for Impact; an impact plugin's failure or an abort
// comes back in errorInfo.
QCM_EXPORT ImpactResult CheckImpact(rapidjson::Document& desired, const rapidjson::Document& current,
                                    std::shared_ptr<TaskHandle> task);

// Performs the set that `impact` describes. NO_IMPACT, or
// MAINTENANCE_MODE_REQUIRED with the host in maintenance mode: the apply
// plugins turn `current` into `desired` (progress 20, then 80 / tasks, with
// "corvane.qen.settings.apply.plugin.started" / "...finished" notifications;
// a failing plugin's error or the aborted error is returned and later
// plugins do not run). REBOOT_REQUIRED: `value` (each element of an array on
// its own) is staged as the key's desired configuration and the boot mode
// set to 4, in one store transaction; nothing runs. Throws HostInDBM 2029
// (boot mode 1: a whole document waits for a reboot), HostNotInMM 2026
// (maintenance mode needed and off, or an unknown impact),
// ConfigManagerException 2085 (an object that no apply plugin serves; no
// plugin has run then), and the store's failures (nothing staged then).
QCM_EXPORT ErrorInfo SetConfig(rapidjson::Document& desired, rapidjson::Document& current,
                               rapidjson::Document& value, const ImpactResult& impact,
                               const std::string& component, const std::string& group,
                               const std::string& key, std::shared_ptr<TaskHandle> task);

// Performs the delete that `impact` describes: remediation as SetConfig
// towards an empty document, or on REBOOT_REQUIRED the key's deletion staged
// for the next boot (the boot mode is left as it is). Throws as SetConfig.
QCM_EXPORT ErrorInfo DeleteConfig(rapidjson::Document& current, const ImpactResult& impact,
                                  const std::string& component, const std::string& group,
                                  const std::string& key, std::shared_ptr<TaskHandle> task);

}  // namespace QenConfigManager
