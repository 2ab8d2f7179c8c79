// The boot apply record: its text form in local time, and the boot's
// outcome from the record and the store's restore failures.
#include <gtest/gtest.h>

#include <ctime>

#include "CustomHost.h"
#include "QenConfigStore.h"
#include "configmanager/boot.h"

using namespace QenConfigManager;

namespace {

// Central European time with its summer time, as a POSIX rule: no time zone
// database needed.
constexpr const char* kZone = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr std::time_t kWinter = 1794852400;  // 2026-11-16 18:06:40 UTC
constexpr std::time_t kSummer = 1782907200;  // 2026-07-01 12:00:00 UTC

class BootRecordTest : public QenTest::CustomHostTest {
 protected:
  void SetUp() override {
    CustomHostTest::SetUp();
    setenv("TZ", kZone, 1);  // nothing else in these tests reads the zone
    tzset();
  }

  // A store after a boot: its boot apply state and restore failures.
  void Boot(bool complete, const std::string& record, const std::string& failures = "[]") {
    rapidjson::Document holder;
    const std::string escaped = QenPlatform::CompactJson(rapidjson::Value(record, holder.GetAllocator()));
    LoadStore(std::string(R"({"bootApplyState": {"isBootComplete": )") + (complete ? "true" : "false") +
              R"(, "bootApplyRecord": )" + escaped + R"(}, "restoreFailures": )" + failures + "}");
  }

  static std::vector<std::string> Describe(const BootApplyInfo& info) {
    std::vector<std::string> out{std::to_string(info.status)};
    for (const auto& r : info.records) {
      std::string line = r.errorInfo.msgId;
      for (const auto& a : r.errorInfo.args) line += " " + a;
      out.push_back(line);
    }
    return out;
  }
};

TEST_F(BootRecordTest, TextIsTheErrorAndTheLocalTimeAndReadsBackToTheSecond) {
  BootApplyErrorInfo winter(kWinter, ErrorInfo("corvane.qen.settings.test.failed", {"p", "q"}, "text"));
  EXPECT_EQ(winter.Serialize(),
            R"({"errorInfo":"{\"msgId\":\"corvane.qen.settings.test.failed\",\"args\":[\"p\",\"q\"],)"
            R"(\"message\":\"text\"}","time":"16-11-2026 19-06-40"})");
  BootApplyErrorInfo back;
  back.Deserialize(winter.Serialize());
  EXPECT_EQ(back.time, kWinter);
  EXPECT_EQ(back.errorInfo, winter.errorInfo);

  // Summer time reads back as summer time, not an hour off.
  BootApplyErrorInfo summer(kSummer, ErrorInfo());
  EXPECT_NE(summer.Serialize().find(R"("time":"01-07-2026 14-00-00")"), std::string::npos);
  back.Deserialize(summer.Serialize());
  EXPECT_EQ(back.time, kSummer);
  EXPECT_TRUE(back.errorInfo.msgId.empty());
}

TEST_F(BootRecordTest, DeserializeKeepsWhatTheTextLacksAndRefusesOtherShapes) {
  BootApplyErrorInfo record(kWinter, ErrorInfo("corvane.qen.settings.test.failed", {}));
  record.Deserialize("");
  EXPECT_EQ(record.time, kWinter);
  record.Deserialize(R"({"time": "01-07-2026 14-00-00"})");
  EXPECT_EQ(record.time, kSummer);
  EXPECT_EQ(record.errorInfo.msgId, "corvane.qen.settings.test.failed");
  for (const char* text : {"[1]", R"({"errorInfo": {}})"}) {
    try {
      record.Deserialize(text);
      ADD_FAILURE() << text;
    } catch (const QenConfigStore::ConfigStoreException& e) {
      EXPECT_EQ(e.GetErrorCode(), 1082) << text;
    }
  }
}

TEST_F(BootRecordTest, IncompleteBootReportsNothingElse) {
  Boot(false, BootApplyErrorInfo(kWinter, ErrorInfo("corvane.qen.settings.test.failed", {})).Serialize(),
       R"([{"component": "c", "group": "g", "key": "k"}])");
  EXPECT_EQ(Describe(GetBootApplyInfo()), std::vector<std::string>{"3"});
  EXPECT_TRUE(log_.Texts(0).empty());

  Boot(true, "[]");
  try {
    GetBootApplyInfo();
    ADD_FAILURE() << "no exception";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), 1082);
  }
}

TEST_F(BootRecordTest, OutcomeOfTheApplyAndOfTheRestore) {
  Boot(true, BootApplyErrorInfo(kWinter, ErrorInfo()).Serialize());
  EXPECT_EQ(Describe(GetBootApplyInfo()), std::vector<std::string>{"0"});

  Boot(true, BootApplyErrorInfo(kWinter, ErrorInfo("corvane.qen.settings.test.failed", {"p"})).Serialize());
  BootApplyInfo failed = GetBootApplyInfo();
  EXPECT_EQ(Describe(failed), (std::vector<std::string>{"1", "corvane.qen.settings.test.failed p"}));
  EXPECT_EQ(failed.records[0].time, kWinter);
  EXPECT_EQ(log_.Texts(0), std::vector<std::string>{
                               "Detected failure during boot-time apply. ErrId: corvane.qen.settings.test.failed"});

  log_.Clear();
  Boot(true, BootApplyErrorInfo(kWinter, ErrorInfo()).Serialize(),
       R"([{"component": "system", "group": "time", "key": "ntp"}, {"component": "network", "group": "dns", "key": "resolver"}])");
  const std::time_t before = std::time(nullptr);
  BootApplyInfo restore = GetBootApplyInfo();
  EXPECT_EQ(Describe(restore), (std::vector<std::string>{
                                   "1", "corvane.qen.settings.boot-restore.failed system time ntp",
                                   "corvane.qen.settings.boot-restore.failed network dns resolver"}));
  EXPECT_GE(restore.records[1].time, before);
  EXPECT_EQ(log_.Texts(0),
            (std::vector<std::string>{
                "Failed to apply configuration during boot for component: system, group: time and key: ntp",
                "Failed to apply configuration during boot for component: network, group: dns and key: resolver"}));
}

}  // namespace
