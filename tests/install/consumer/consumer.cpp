// Uses the installed library the way a host's management daemon would:
// parses a document, reports a malformed one, and extracts the host's
// current configuration (which runs the installed plugin runners).
#include <iostream>

#include "configmanager/common.h"
#include "configmanager/extract.h"

int main() {
  using QenConfigStore::ConfigStoreException;
  try {
    auto desired = QenConfigManager::CreateDocumentFromString(
        R"({"profile": {"demo": {"app": {"greeting": {"text": "hello"}}}}})");
    const auto& greeting = desired->GetDocument()["profile"]["demo"]["app"]["greeting"];
    std::cout << "desired greeting: " << greeting["text"].GetString() << "\n";
  } catch (const ConfigStoreException& e) {
    std::cout << "unexpected error " << e.GetErrorCode() << ": " << e.what() << "\n";
    return 1;
  }

  try {
    QenConfigManager::CreateDocumentFromString(R"({"profile": )");
    std::cout << "malformed document accepted\n";
    return 1;
  } catch (const ConfigStoreException& e) {
    std::cout << "malformed: error " << e.GetErrorCode() << "\n";
  }

  try {
    auto current = QenConfigManager::ExtractCurrentConfiguration();
    std::cout << "current: " << JsonToString(current->GetDocument()) << "\n";
  } catch (const ConfigStoreException& e) {
    std::cout << "extract failed, error " << e.GetErrorCode() << ": " << e.what() << "\n";
    return 1;
  }
  return 0;
}
