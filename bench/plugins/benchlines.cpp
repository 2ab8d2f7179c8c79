// Benchmark apply plugin: writes one configuration file with a line per
// input (instance and value), the way a plugin renders a file from many
// instances of a key.
#include <string>

#include "QenPlugin.h"

QEN_PLUGIN_EXPORT int qen_plugin_apply(QenPlugin::ApplyCall* call) {
  std::string text;
  for (const auto& input : call->Request().GetData()) {
    const auto& id = input.object->GetConfigStoreObjectId();
    text += input.operation + " " + id.GetInstanceId() + " " + input.object->GetSerializedData() + "\n";
  }
  QenPlugin::Call::WriteHostFile("/tmp/bench-lines.conf", text);
  return 0;
}
