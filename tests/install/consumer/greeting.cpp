// A C++ extract plugin built against the installed plugin SDK: the greeting
// is the text of /etc/greeting.
#include "QenPlugin.h"

QEN_PLUGIN_EXPORT int qen_plugin_extract(QenPlugin::ExtractCall* call) {
  std::string text;
  QenPlugin::Call::ReadHostFile("/etc/greeting", text);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  rapidjson::Document value(rapidjson::kObjectType);
  value.AddMember("text", rapidjson::Value(text, value.GetAllocator()), value.GetAllocator());
  for (const auto& id : call->Request().GetCSOIdsForExtract()) call->AddObject(id, value);
  return 0;
}
