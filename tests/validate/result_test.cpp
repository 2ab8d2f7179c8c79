// JSON form of validation results.
#include <gtest/gtest.h>

#include "configmanager/validate.h"

namespace {

using QenConfigManager::ErrorInfo;
using QenConfigManager::ValidationErrorInfo;
using QenConfigManager::ValidationResult;

TEST(ValidationResultTest, MembersAppearOnlyWhenSet) {
  ValidationResult result;
  EXPECT_EQ(result.Serialize(), "{}");

  result.pluginError = ErrorInfo("corvane.qen.settings.validation.plugin.aborted", {"resolver"});
  const std::string pluginOnly = result.Serialize();
  EXPECT_EQ(pluginOnly.rfind(R"({"pluginErr":{)", 0), 0u) << pluginOnly;
  EXPECT_EQ(pluginOnly.find("\"errors\""), std::string::npos);

  result.pluginError = ErrorInfo();
  result.errors.push_back(ValidationErrorInfo("/c/g/k", {}));
  EXPECT_EQ(result.Serialize(), R"({"errors":[{"path":"/c/g/k","messages":[]}]})");
}

TEST(ValidationResultTest, MessagesUseTheErrorInfoForm) {
  ErrorInfo info("corvane.qen.settings.schema.type-mismatch", {"a", "b"}, "text");
  rapidjson::Document expected(rapidjson::kObjectType);
  info.convertToJson(expected, expected.GetAllocator());
  std::string infoText;
  QenConfigManager::SerializeValue(expected, infoText);

  ValidationResult result;
  result.pluginError = info;
  result.errors.push_back(ValidationErrorInfo("/x", {info, info}));
  EXPECT_EQ(result.Serialize(), R"({"pluginErr":)" + infoText + R"(,"errors":[{"path":"/x","messages":[)" +
                                    infoText + "," + infoText + "]}]}");
}

}  // namespace
