#include <gtest/gtest.h>

#include <string>

#include "CommonTest.h"
#include "JsonErrors.h"

using namespace QenConfigManager;
using namespace QenTest;

TEST(ThrowException, EveryArgumentTypeFormatsTheTemplateAndRecordsTheArgument) {
  char mutableArg[] = "c/g/k";
  const char* constArg = "/a/b/c";

  EXPECT_EQ(FailureOf<ConfigManagerException>(
                [&] { ThrowException<ConfigManagerException>(SCHEMA_NOT_FOUND, std::string("/a/b/c")); }),
            std::make_tuple(2021, std::string("Schema object not found: /a/b/c"), Args{"/a/b/c"}));
  EXPECT_EQ(FailureOf<ConfigManagerException>(
                [&] { ThrowException<ConfigManagerException>(EXTRACT_FAILED, mutableArg); }),
            std::make_tuple(2031, std::string("Extract plugin failed: c/g/k"), Args{"c/g/k"}));
  EXPECT_EQ(FailureOf<InvalidArgumentException>(
                [&] { ThrowException<InvalidArgumentException>(NOT_SINGLETON, constArg); }),
            std::make_tuple(2022, std::string("Not a Singleton object: /a/b/c"), Args{"/a/b/c"}));
  EXPECT_EQ(FailureOf<SchemaNotFound>([&] { ThrowException<SchemaNotFound>(SCHEMA_NOT_FOUND, "x:y:z"); }),
            std::make_tuple(2021, std::string("Schema object not found: x:y:z"), Args{"x:y:z"}));
}

TEST(ThrowException, ArgumentIsTakenVerbatimNeverAsAFormat) {
  EXPECT_EQ(FailureOf<ConfigManagerException>(
                [] { ThrowException<ConfigManagerException>(INVALID_KEY_VALUE, "%s%n%d"); }),
            std::make_tuple(2084, std::string("Invalid value for key %s%n%d"), Args{"%s%n%d"}));
  // A template without a placeholder still keeps the argument (files name their path).
  EXPECT_EQ(FailureOf<ConfigManagerException>(
                [] { ThrowException<ConfigManagerException>(PARSE_ERROR, std::string("/etc/x.json")); }),
            std::make_tuple(2080, std::string("Failed to parse JSON String"), Args{"/etc/x.json"}));
  const char* null = nullptr;
  EXPECT_EQ(FailureOf<ConfigManagerException>([&] { ThrowException<ConfigManagerException>(CONFIG_NOT_FOUND, null); }),
            std::make_tuple(2030, std::string("No configuration found for  in the config store"), Args{""}));
}

TEST(ThrowException, WithoutArgumentTheListStaysEmpty) {
  EXPECT_EQ(FailureOf<InvalidImpact>([] { ThrowException<InvalidImpact>(IMPACT_INVALID); }),
            std::make_tuple(2025, std::string("The impact result is not applicable anymore."), Args{}));
  EXPECT_EQ(FailureOf<HostNotInMM>([] { ThrowException<HostNotInMM>(HOST_NOT_IN_MM); }),
            std::make_tuple(2026, std::string("The host must be in maintenance mode for apply to proceed."),
                            Args{}));
  EXPECT_EQ(FailureOf<HostInDBM>([] { ThrowException<HostInDBM>(HOST_IN_DBM); }),
            std::make_tuple(2029,
                            std::string("The host has other pending desired configurations, please "
                                        "reboot the host."),
                            Args{}));
  EXPECT_EQ(FailureOf<InvalidArgumentException>([] { ThrowException<InvalidArgumentException>(PARSE_ERROR); }),
            std::make_tuple(2080, std::string("Failed to parse JSON String"), Args{}));
  EXPECT_EQ(FailureOf<ConfigManagerException>([] { ThrowException<ConfigManagerException>(DB_CONNECT_ERROR); }),
            std::make_tuple(2001, std::string("Failed to connect to ConfigStore"), Args{}));
}

TEST(ThrowException, EveryClassIsCaughtThroughEachOfItsBases) {
  auto throwsThroughBases = [](auto raise) {
    EXPECT_THROW(raise(), ConfigManagerException);
    EXPECT_THROW(raise(), QenConfigStore::ConfigStoreException);
    EXPECT_THROW(raise(), HostCtl::Lib::HostCtlException);
    EXPECT_THROW(raise(), std::exception);
  };
  throwsThroughBases([] { ThrowException<InvalidImpact>(IMPACT_INVALID); });
  throwsThroughBases([] { ThrowException<HostNotInMM>(HOST_NOT_IN_MM); });
  throwsThroughBases([] { ThrowException<HostInDBM>(HOST_IN_DBM); });
  throwsThroughBases([] { ThrowException<InvalidArgumentException>(EMPTY_DOCUMENT); });
  throwsThroughBases([] { ThrowException<SchemaNotFound>(SCHEMA_NOT_FOUND, "k"); });
  throwsThroughBases([] { ThrowException<ConfigManagerException>(DEPENDENCY_ERROR); });

  // A sibling class must not catch another's failure.
  try {
    ThrowException<HostNotInMM>(HOST_NOT_IN_MM);
  } catch (const InvalidImpact&) {
    FAIL() << "HostNotInMM caught as InvalidImpact";
  } catch (const HostNotInMM& e) {
    EXPECT_EQ(e.GetErrorCode(), 2026);
  }
}

TEST(ThrowException, CodeWithoutTemplateIsAnUnexpectedErrorNotACrash) {
  EXPECT_EQ(FailureOf<QenConfigStore::ConfigStoreException>(
                [] { ThrowException<ConfigManagerException>(UNEXPECTED_ERROR, "x"); }),
            std::make_tuple(3000, std::string("ThrowException called with a code without message"), Args{}));
}

TEST(ErrorTables, MessageAndIdentifierTables) {
  EXPECT_EQ(ErrorMessageTable().size(), 22u);
  EXPECT_EQ(ErrorIdTable().size(), 23u);
  EXPECT_EQ(ErrorMessageTable().count(UNEXPECTED_ERROR), 0u);
  EXPECT_STREQ(ErrorIdTable().at(UNEXPECTED_ERROR), "corvane.qen.settings.configmanager.unexpected-error");
  // Every formatted code has an identifier for the caller to show.
  for (const auto& entry : ErrorMessageTable()) EXPECT_EQ(ErrorIdTable().count(entry.first), 1u) << entry.first;
  EXPECT_STREQ(ErrorIdTable().at(APPLY_EMPTY_INPUT), "corvane.qen.settings.check-apply.empty-input");
  EXPECT_STREQ(ErrorIdTable().at(NOT_NON_SINGLETON), "corvane.qen.settings.configmanager.singleton-error");
  EXPECT_STREQ(ErrorMessageTable().at(APPLY_PLUGIN_ABSENT), "No Apply plugins were found for %s configuration.");
}

TEST(ErrorInfo, CopyIsDeep) {
  ErrorInfo original("corvane.qen.settings.apply.plugin.aborted", {"ntp", "dns"}, "aborted");
  ErrorInfo copy(original);
  ErrorInfo assigned;
  assigned = original;
  original.args.push_back("x");
  original.msgId += "!";
  EXPECT_EQ(copy, ErrorInfo("corvane.qen.settings.apply.plugin.aborted", {"ntp", "dns"}, "aborted"));
  EXPECT_EQ(assigned, copy);
}

TEST(ErrorInfo, MoveAssignmentSwapsStringsAndEmptiesTheSourceList) {
  ErrorInfo target("old.id", {"old"}, "old text");
  ErrorInfo source("new.id", {"a", "b"}, "new text");
  target = std::move(source);
  EXPECT_EQ(target, ErrorInfo("new.id", {"a", "b"}, "new text"));
  EXPECT_EQ(source.msgId, "old.id");
  EXPECT_EQ(source.message, "old text");
  EXPECT_TRUE(source.args.empty());

  ErrorInfo moved(std::move(target));
  EXPECT_EQ(moved, ErrorInfo("new.id", {"a", "b"}, "new text"));
  EXPECT_TRUE(target.args.empty());
}

TEST(JsonAssertion, StructuralMisuseThrows1082WithTheFailedCondition) {
  rapidjson::Document d;
  d.Parse("{\"a\": 1}");
  // The file named is the JSON library's, right after "JSON error:".
  const std::string file = QenTest::JsonLibraryFile();
  EXPECT_EQ(file.substr(file.size() - std::string("/rapidjson/document.h").size()), "/rapidjson/document.h");
  QenTest::ExpectJsonLibraryError([&] { (void)d["a"].GetString(); }, "IsString()");
  QenTest::ExpectJsonLibraryError([&] { (void)d["a"].MemberCount(); }, "IsObject()");
  QenTest::ExpectJsonLibraryError([&] { (void)d["a"].Size(); }, "IsArray()");
  QenTest::ExpectJsonLibraryError([&] { (void)d["b"]; }, "false");
}
