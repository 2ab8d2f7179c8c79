// The telemetry provider: the filter rules over the nine items (with value
// functions that count their calls), and the real items on the sample host.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <sys/statvfs.h>

#include <boost/filesystem.hpp>

#include "HostRootTest.h"
#include "QenConfigStore.h"
#include "configmanager/extract.h"
#include "telemetry/telemetry_internal.h"

using namespace QenConfigManager;
using HostCtl::System::TelemetryData;
using HostCtl::System::TelemetryFilter;
using HostCtl::System::TelemetryValue;

namespace {

const std::vector<std::string> kNames = {
    "configManagerRowCount",           "configManagerRamDiskUsage",
    "configManagerRamDiskReservedSize", "configManagerTotalVitalConfigSize",
    "configManagerTotalUserConfigSize", "configManagerTotalCachedConfigSize",
    "configManagerQenBiosUuid",        "configManagerQenConfig",
    "configManagerConfigStoreMetrics"};

// The provider's own table, each value function replaced by one that
// records its call and answers from its name.
class CountingItems {
 public:
  CountingItems() {
    const TelemetryItems& real = ConfigManagerItems();
    for (const auto& item : real.integers)
      items_.integers.push_back({item.name, [this, name = item.name] {
                                   calls_.push_back(name);
                                   return static_cast<int64_t>(calls_.size());
                                 }});
    for (const auto& item : real.strings)
      items_.strings.push_back({item.name, [this, name = item.name] {
                                  calls_.push_back(name);
                                  return std::string("text of ") + name;
                                }});
    for (const auto& item : real.lists)
      items_.lists.push_back({item.name, [this, name = item.name] {
                                calls_.push_back(name);
                                return std::vector<std::string>{name, "x=1"};
                              }});
  }

  uint32_t Collect(const TelemetryFilter& filter, TelemetryData& out, uint32_t index) {
    return CollectTelemetry(items_, filter, out, index);
  }
  const std::vector<std::string>& Calls() const { return calls_; }

 private:
  TelemetryItems items_;
  std::vector<std::string> calls_;
};

TelemetryFilter Filter(uint32_t max) {
  TelemetryFilter filter;
  filter.maxEntries = max;
  return filter;
}

std::vector<std::string> Names(const TelemetryData& data) {
  std::vector<std::string> names;
  for (const auto& entry : data) names.push_back(entry.first);
  return names;
}

TEST(TelemetryFilterTest, NineItemsInTheirTablesAndOrder) {
  CountingItems items;
  TelemetryData out;
  EXPECT_EQ(items.Collect(Filter(9), out, 0), 9u);
  // Value functions run in table order, each once: six integers, two
  // strings, one list.
  EXPECT_EQ(items.Calls(), kNames);
  ASSERT_EQ(out.size(), 9u);
  EXPECT_EQ(std::get<int64_t>(out.at("configManagerRowCount")), 1);
  EXPECT_EQ(std::get<int64_t>(out.at("configManagerTotalCachedConfigSize")), 6);
  EXPECT_EQ(std::get<std::string>(out.at("configManagerQenConfig")), "text of configManagerQenConfig");
  EXPECT_EQ(std::get<std::vector<std::string>>(out.at("configManagerConfigStoreMetrics")),
            (std::vector<std::string>{"configManagerConfigStoreMetrics", "x=1"}));
}

TEST(TelemetryFilterTest, AFullOutputMapTakesNothing) {
  CountingItems items;
  TelemetryData out;
  EXPECT_EQ(items.Collect(Filter(0), out, 4), 4u);
  EXPECT_TRUE(out.empty());

  // The maximum counts other providers' entries too.
  out.emplace("otherProviderA", TelemetryValue(int64_t{1}));
  out.emplace("otherProviderB", TelemetryValue(std::string("b")));
  EXPECT_EQ(items.Collect(Filter(2), out, 7), 7u);
  EXPECT_EQ(out.size(), 2u);
  EXPECT_TRUE(items.Calls().empty());

  EXPECT_EQ(items.Collect(Filter(3), out, 7), 8u);
  EXPECT_EQ(Names(out), (std::vector<std::string>{"configManagerRowCount", "otherProviderA",
                                                  "otherProviderB"}));
}

TEST(TelemetryFilterTest, MaximumTwoNeverReadsTheThirdValue) {
  CountingItems items;
  TelemetryData out;
  EXPECT_EQ(items.Collect(Filter(2), out, 0), 2u);
  EXPECT_EQ(items.Calls(), (std::vector<std::string>{"configManagerRowCount", "configManagerRamDiskUsage"}));
  EXPECT_EQ(Names(out), (std::vector<std::string>{"configManagerRamDiskUsage", "configManagerRowCount"}));
}

TEST(TelemetryFilterTest, IncludedItemTakesTheNextIndex) {
  CountingItems items;
  TelemetryData out;
  TelemetryFilter filter;
  filter.include = {"configManagerQenBiosUuid"};
  EXPECT_EQ(items.Collect(filter, out, 5), 6u);
  EXPECT_EQ(items.Calls(), std::vector<std::string>{"configManagerQenBiosUuid"});
  EXPECT_EQ(Names(out), std::vector<std::string>{"configManagerQenBiosUuid"});

  // Names compare whole: a prefix names nothing.
  filter.include = {"configManagerQen"};
  EXPECT_EQ(items.Collect(filter, out, 5), 5u);
  EXPECT_EQ(items.Calls().size(), 1u);
}

TEST(TelemetryFilterTest, ItemsBelowTheStartIndexAreCountedNotRead) {
  CountingItems items;
  TelemetryData out;
  TelemetryFilter filter;
  filter.startIndex = 8;
  EXPECT_EQ(items.Collect(filter, out, 0), 9u);
  EXPECT_EQ(items.Calls(), std::vector<std::string>{"configManagerConfigStoreMetrics"});
  EXPECT_EQ(Names(out), std::vector<std::string>{"configManagerConfigStoreMetrics"});
}

TEST(TelemetryFilterTest, ExcludedItemIsNeitherReadNorCounted) {
  CountingItems items;
  TelemetryData out;
  TelemetryFilter filter;
  filter.exclude = {"configManagerQenConfig", "notAnItem"};
  EXPECT_EQ(items.Collect(filter, out, 0), 8u);
  EXPECT_EQ(out.size(), 8u);
  EXPECT_EQ(out.count("configManagerQenConfig"), 0u);
  EXPECT_EQ(std::count(items.Calls().begin(), items.Calls().end(), "configManagerQenConfig"), 0);

  // Exclusion wins over inclusion.
  filter.include = {"configManagerQenConfig"};
  TelemetryData none;
  EXPECT_EQ(items.Collect(filter, none, 3), 3u);
  EXPECT_TRUE(none.empty());
}

TEST(TelemetryFilterTest, AnEntryAlreadyThereIsKept) {
  CountingItems items;
  TelemetryData out;
  out.emplace("configManagerRowCount", TelemetryValue(std::string("earlier")));
  EXPECT_EQ(items.Collect(Filter(9), out, 0), 9u);
  EXPECT_EQ(std::get<std::string>(out.at("configManagerRowCount")), "earlier");
  EXPECT_EQ(out.size(), 9u);
}

// The real items against the sample host's store.
class TelemetryTest : public QenTest::HostRootTest {
 protected:
  void SetUp() override {
    HostRootTest::SetUp();
    InstallSampleHost();
    std::ifstream in(std::string(QEN_SOURCE_DIR) + "/host/documents/store-sample.json");
    std::stringstream text;
    text << in.rdbuf();
    rapidjson::Document description;
    description.Parse(text.str().c_str());
    ASSERT_FALSE(description.HasParseError());
    QenConfigStore::LoadStoreDescription(description);
  }

  static uint32_t Get(const TelemetryFilter& filter, TelemetryData& out, uint32_t index) {
    return ConfigManagerTelemetryInfo::GetTelemetryData(filter, out, index);
  }
};

TEST_F(TelemetryTest, ItemsReportTheStoreAndTheStorageHoldingIt) {
  TelemetryFilter filter;
  filter.exclude = {"configManagerQenConfig"};
  TelemetryData out;
  EXPECT_EQ(Get(filter, out, 10), 18u);
  ASSERT_EQ(out.size(), 8u);
  EXPECT_EQ(std::get<int64_t>(out.at("configManagerRowCount")), QenConfigStore::GetConfigRowCount());
  EXPECT_GT(std::get<int64_t>(out.at("configManagerTotalUserConfigSize")), 0);
  EXPECT_EQ(std::get<int64_t>(out.at("configManagerTotalUserConfigSize")),
            QenConfigStore::GetUserConfigSize());
  EXPECT_EQ(std::get<int64_t>(out.at("configManagerTotalVitalConfigSize")),
            QenConfigStore::GetVitalConfigSize());
  EXPECT_EQ(std::get<int64_t>(out.at("configManagerTotalCachedConfigSize")), 0);
  EXPECT_EQ(std::get<std::string>(out.at("configManagerQenBiosUuid")),
            "4c4c4544-0042-3510-8052-b4c04f4a4b32");
  EXPECT_EQ(std::get<std::vector<std::string>>(out.at("configManagerConfigStoreMetrics")),
            QenConfigStore::GetConfigMetrics());

  // The storage figures are those of the file system under the store.
  struct statvfs fs;
  ASSERT_EQ(::statvfs(Path("/var/lib/corvane/configstore").c_str(), &fs), 0);
  const int64_t reserved = std::get<int64_t>(out.at("configManagerRamDiskReservedSize"));
  EXPECT_EQ(reserved, static_cast<int64_t>(fs.f_blocks * fs.f_frsize / 1048576 * 1048576));
  const int64_t used = std::get<int64_t>(out.at("configManagerRamDiskUsage"));
  EXPECT_GT(used, 0);
  EXPECT_EQ(used % 4096, 0);
  EXPECT_LE(used, reserved + 1048576);
  // The telemetry export never ran.
  EXPECT_FALSE(log_.Contains(3, "ExportDocumentTelemetry invoked"));
}

TEST_F(TelemetryTest, ConfigurationItemIsTheTelemetryExport) {
  TelemetryFilter filter;
  filter.include = {"configManagerQenConfig"};
  TelemetryData out;
  EXPECT_EQ(Get(filter, out, 0), 1u);
  EXPECT_TRUE(log_.Contains(3, "ExportDocumentTelemetry invoked"));
  const std::string text = std::get<std::string>(out.at("configManagerQenConfig"));
  EXPECT_EQ(text, ExportDocumentTelemetry());
  // The sample's sensitive SNMP community is redacted, its users masked.
  EXPECT_EQ(text.find("s3cret-community"), std::string::npos);
  EXPECT_NE(text.find(R"x("community":"(redacted)")x"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("user":[{"telemetry_data":)"), std::string::npos) << text;
}

TEST_F(TelemetryTest, UnreadableStorageStatisticsFailAfterTheEarlierItems) {
  // A host offering another interface version.
  WriteFile("/var/run/corvane/sysinfo.json", R"({"interfaceCount": 20})");
  Ramvol_SysqRamStats stats{};
  EXPECT_FALSE(GetCurrentConfigStoreStats(&stats));
  EXPECT_TRUE(log_.Contains(0, "Sysq Check Sig Failed: Interface signature mismatch"));

  TelemetryData out;
  try {
    Get(TelemetryFilter(), out, 0);
    FAIL() << "no throw";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), 2000);
    EXPECT_EQ(std::string(e.what()), "Failed to get data from GetRamDiskUsage");
  }
  EXPECT_EQ(Names(out), std::vector<std::string>{"configManagerRowCount"});
}

TEST_F(TelemetryTest, MissingStoreDirectoryCannotBeMeasured) {
  WriteFile("/var/run/corvane/sysinfo.json", "{}");
  // The store's files go with their directory.
  boost::filesystem::remove_all(Path("/var/lib/corvane/configstore"));
  try {
    GetReservedRamdiskSize();
    FAIL() << "no throw";
  } catch (const QenConfigStore::ConfigStoreException& e) {
    EXPECT_EQ(e.GetErrorCode(), 2000);
    EXPECT_EQ(std::string(e.what()), "Failed to get data from GetReservedRamdiskSize");
  }
  EXPECT_TRUE(log_.Contains(0, "Failed to get the size of ram utilization for configstore: Not found"));
  EXPECT_FALSE(GetCurrentConfigStoreStats(nullptr));
}

}  // namespace
