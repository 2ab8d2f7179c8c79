#include <cstdlib>
#include <memory>

#include "CSLogger.h"
#include "configmanager/common.h"

namespace QenConfigManager {

const CMErrorTable& ErrorMessageTable() {
  static const CMErrorTable table = {
      {DB_CONNECT_ERROR, "Failed to connect to ConfigStore"},
      {SCHEMA_NOT_FOUND, "Schema object not found: %s"},
      {NOT_SINGLETON, "Not a Singleton object: %s"},
      {EMPTY_DOCUMENT, "The desired configuration document is empty."},
      {APPLY_EMPTY_INPUT, "The Apply API was invoked without valid input."},
      {IMPACT_INVALID, "The impact result is not applicable anymore."},
      {HOST_NOT_IN_MM, "The host must be in maintenance mode for apply to proceed."},
      {DELETE_DEFAULT_NOT_SUPPORTED, "Deleting default configuration for %s is not supported."},
      {NOT_NON_SINGLETON, "Not a Non-Singleton object: %s"},
      {HOST_IN_DBM, "The host has other pending desired configurations, please reboot the host."},
      {CONFIG_NOT_FOUND, "No configuration found for %s in the config store"},
      {EXTRACT_FAILED, "Extract plugin failed: %s"},
      {EXTRACT_INVALID_CONFIG, "Extract plugin(s) returned invalid config: %s"},
      {EXTRACT_MULTIPLE_PLUGINS, "Multiple extract plugins found for config: %s"},
      {PARSE_ERROR, "Failed to parse JSON String"},
      {SCHEMA_STORE_ERROR, "Failed to access SchemaStore"},
      {INVALID_PLUGIN, "The plugin JSON does not validate against schema: %s"},
      {UNSUPPORTED_PLUGIN_VERSION, "The plugin JSON version is not supported: %s"},
      {DEPENDENCY_ERROR, "Failed to create dependency graph from plugin JSON files."},
      {INVALID_KEY_VALUE, "Invalid value for key %s"},
      {HOSTAPI_UNSUPPORTED_CONFIG,
       "Cannot use HostAPIs as Configuration is not user configuration"},
      {APPLY_PLUGIN_ABSENT, "No Apply plugins were found for %s configuration."},
  };
  return table;
}

const CMErrorTable& ErrorIdTable() {
  static const CMErrorTable table = {
      {DB_CONNECT_ERROR, "corvane.qen.settings.configmanager.db-connect-error"},
      {SCHEMA_NOT_FOUND, "corvane.qen.settings.configmanager.schema-not-found"},
      {NOT_SINGLETON, "corvane.qen.settings.configmanager.not-singleton"},
      {EMPTY_DOCUMENT, "corvane.qen.settings.configmanager.empty-doc"},
      {APPLY_EMPTY_INPUT, "corvane.qen.settings.check-apply.empty-input"},
      {IMPACT_INVALID, "corvane.qen.settings.impact.invalid"},
      {HOST_NOT_IN_MM, "corvane.qen.settings.apply.not-in-maint-mode"},
      {DELETE_DEFAULT_NOT_SUPPORTED, "corvane.qen.settings.extract.delete-default-not-supported"},
      {NOT_NON_SINGLETON, "corvane.qen.settings.configmanager.singleton-error"},
      {HOST_IN_DBM, "corvane.qen.settings.configmanager.host-in-dbm"},
      {CONFIG_NOT_FOUND, "corvane.qen.settings.configmanager.not-found"},
      {EXTRACT_FAILED, "corvane.qen.settings.extract.failed"},
      {EXTRACT_INVALID_CONFIG, "corvane.qen.settings.extract.invalid-config"},
      {EXTRACT_MULTIPLE_PLUGINS, "corvane.qen.settings.extract.multiple-plugins"},
      {PARSE_ERROR, "corvane.qen.settings.configmanager.parse-error"},
      {SCHEMA_STORE_ERROR, "corvane.qen.settings.configmanager.schema-store-error"},
      {INVALID_PLUGIN, "corvane.qen.settings.configmanager.invalid-plugin"},
      {UNSUPPORTED_PLUGIN_VERSION, "corvane.qen.settings.configmanager.unsupported-plugin-version"},
      {DEPENDENCY_ERROR, "corvane.qen.settings.apply.dependency-error"},
      {INVALID_KEY_VALUE, "corvane.qen.settings.configmanager.invalid-key-value"},
      {HOSTAPI_UNSUPPORTED_CONFIG, "corvane.qen.settings.hostapi.unsupported-config"},
      {UNEXPECTED_ERROR, "corvane.qen.settings.configmanager.unexpected-error"},
      {APPLY_PLUGIN_ABSENT, "corvane.qen.settings.configmanager.apply-plugin-absent"},
  };
  return table;
}

namespace {

// The tables are built when the library is loaded, not on first use.
[[maybe_unused]] const bool kTablesBuilt = (ErrorMessageTable(), ErrorIdTable(), true);

struct FreeDeleter {
  void operator()(char* p) const { free(p); }
};

const char* Template(CMErrorCodes code) {
  const CMErrorTable& table = ErrorMessageTable();
  auto it = table.find(code);
  if (it == table.end()) {
    // Only table codes may be thrown this way; a miss is a programming error
    // that must still surface as an exception, not a crash.
    throw QenConfigStore::ConfigStoreException(UNEXPECTED_ERROR,
                                               "ThrowException called with a code without message");
  }
  return it->second;
}

const char* AsCString(const char* s) { return s ? s : ""; }
const char* AsCString(char* s) { return s ? s : ""; }
const char* AsCString(const std::string& s) { return s.c_str(); }

}  // namespace

template <typename E>
void ThrowException(CMErrorCodes code) {
  // The template has no conversion when no argument is given.
  std::unique_ptr<char, FreeDeleter> text(Str_Asprintf("%s", Template(code)));
  QenConfigStore::ConfigStoreException base(code, text.get());
  throw E(base);
}

template <typename E, typename A>
void ThrowException(CMErrorCodes code, A argument) {
  const char* arg = AsCString(argument);
  const char* tmpl = Template(code);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  std::unique_ptr<char, FreeDeleter> text(Str_Asprintf(tmpl, arg));
#pragma GCC diagnostic pop
  QenConfigStore::ConfigStoreException base(code, text.get());
  base.AddArg(std::string(arg));
  throw E(base);
}

// Every class with every argument type, so that no raise site fails to link.
#define QCM_INSTANTIATE_THROW(E)                                                  \
  template QCM_EXPORT void ThrowException<E>(CMErrorCodes);                       \
  template QCM_EXPORT void ThrowException<E, char*>(CMErrorCodes, char*);         \
  template QCM_EXPORT void ThrowException<E, const char*>(CMErrorCodes, const char*); \
  template QCM_EXPORT void ThrowException<E, std::string>(CMErrorCodes, std::string);
QCM_INSTANTIATE_THROW(ConfigManagerException)
QCM_INSTANTIATE_THROW(InvalidImpact)
QCM_INSTANTIATE_THROW(HostNotInMM)
QCM_INSTANTIATE_THROW(HostInDBM)
QCM_INSTANTIATE_THROW(InvalidArgumentException)
QCM_INSTANTIATE_THROW(SchemaNotFound)
#undef QCM_INSTANTIATE_THROW

// ErrorInfo's value semantics and serialisation live in the platform's
// plugin support library, which the runners link without this library.

}  // namespace QenConfigManager
