#include <gtest/gtest.h>

#include "HostRootTest.h"
#include "configmanager/common.h"

using namespace QenConfigManager;

TEST(ThrowException, FormatsTemplateAndKeepsArgument) {
  try {
    ThrowException<ConfigManagerException>(SCHEMA_NOT_FOUND, std::string("/a/b/c"));
    FAIL() << "no throw";
  } catch (const ConfigManagerException& e) {
    EXPECT_STREQ(e.what(), "Schema object not found: /a/b/c");
    EXPECT_EQ(e.GetErrorCode(), 2021);
    EXPECT_EQ(e.GetArgs(), (std::list<std::string>{"/a/b/c"}));
  }
}

TEST(ThrowException, DerivedClassesCatchableAsBases) {
  EXPECT_THROW(ThrowException<HostNotInMM>(HOST_NOT_IN_MM), ConfigManagerException);
  EXPECT_THROW(ThrowException<HostNotInMM>(HOST_NOT_IN_MM), QenConfigStore::ConfigStoreException);
  EXPECT_THROW(ThrowException<HostNotInMM>(HOST_NOT_IN_MM), HostCtl::Lib::HostCtlException);
  try {
    ThrowException<HostNotInMM>(HOST_NOT_IN_MM);
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_TRUE(e.GetArgs().empty());
    EXPECT_EQ(e.GetErrorCode(), 2026);
  }
}

TEST(JsonAssertion, WrongTypeThrows1082) {
  rapidjson::Document d;
  d.Parse("{\"a\": 1}");
  try {
    (void)d["a"].GetString();
    FAIL() << "no throw";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), 1082);
    EXPECT_EQ(std::string(e.what()).rfind("JSON error:", 0), 0u) << e.what();
  }
}
