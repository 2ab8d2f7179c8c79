// The documents that leave the host: user configuration with mutable
// defaults, the export with its reference host, the telemetry form with
// allowlists and masking, and the SmartNIC configuration.
#include <gtest/gtest.h>

#include <functional>

#include <boost/filesystem.hpp>

#include "CustomHost.h"
#include "ExtractTestSupport.h"
#include "JsonErrors.h"
#include "configmanager/extract.h"
#include "extract/extraction_internal.h"

using namespace QenConfigManager;

namespace {

const char* kAgentSchema = R"({
  "component": "sys", "group": "snmp", "key": "agent", "singleton": true, "userConfig": "snmp",
  "schema": {"type": "object", "properties": {"enabled": {"type": "boolean", "default": false},
             "community": {"type": "string", "sensitive": true}, "location": {"type": "string"}}}})";

const char* kUserSchema = R"({
  "component": "sys", "group": "users", "key": "user", "singleton": false, "instanceId": "name",
  "userConfig": "users", "telemetryDisabled": true, "solutionUserInstances": ["agent"],
  "schema": {"type": "array", "items": {"type": "object",
             "properties": {"name": {"type": "string"}, "password": {"type": "string", "sensitive": true}}}}})";

const char* kDnsSchema = R"({
  "component": "sys", "group": "net", "key": "dns", "singleton": false, "instanceId": "server",
  "userConfig": "dns", "mutableDefault": {"host": true},
  "schema": {"type": "array", "items": {"type": "object",
             "properties": {"server": {"type": "string"}, "port": {"type": "integer"}}}}})";

const char* kOffloadSchema = R"({
  "component": "sys", "group": "nic", "key": "offload", "singleton": true, "userConfig": "offload",
  "mutableDefault": {"smartnic": true},
  "schema": {"type": "object", "properties": {"firewall": {"type": "boolean"}}}})";

// The sample host's reference host metadata, normalised.
const char* kMetadata =
    R"("metadata":{"reference_host":{"build":"24585383","patch":"2","update":"3",)"
    R"("uuid":"4c4c4544-0042-3510-8052-b4c04f4a4b32","version":"8.0.3"}})";

const char* kMasked =
    R"({"telemetry_data":"Configuration value cannot be exported for telemetry since it contains )"
    R"(customer sensitive information."})";

class ExportTest : public QenTest::CustomHostTest {
 protected:
  void SetUp() override {
    CustomHostTest::SetUp();
    // Each test writes the allowlists it needs.
    boost::filesystem::remove_all(Path(kTelemetryAllowlistDir));
    WriteKeySchema("sys", "snmp", "agent", kAgentSchema);
    WriteKeySchema("sys", "users", "user", kUserSchema);
  }

  void Allow(const std::string& file, const std::string& names) {
    WriteFile(std::string(kTelemetryAllowlistDir) + file, names);
  }

  static std::string Text(const rapidjson::Value& value) {
    std::string out;
    SerializeValue(value, out);
    return out;
  }

  template <typename E>
  static E Thrown(const std::function<void()>& body) {
    try {
      body();
    } catch (const E& e) {
      return e;
    }
    ADD_FAILURE() << "no throw";
    return E(0, "");
  }

  bool LogMentions(const std::string& text) const {
    for (const auto& line : log_.Lines())
      if (line.second.find(text) != std::string::npos) return true;
    return false;
  }
};

TEST_F(ExportTest, ExportCarriesTheReferenceHostAndSplitsHostSpecificValues) {
  WriteKeySchema("sys", "net", "nic", R"({
    "component": "sys", "group": "net", "key": "nic", "singleton": false, "instanceId": "name",
    "userConfig": "nic", "schema": {"type": "array", "items": {"type": "object",
    "properties": {"name": {"type": "string"}, "mtu": {"type": "integer", "hostSpecific": true}}}}})");
  LoadStore(R"({"host": {"current": {"sys": {
      "snmp": {"agent": {"enabled": false, "location": "rack 1"}},
      "net": {"nic": [{"name": "nic0", "mtu": 9000}]}}}}})");
  // Default values go; the host-specific MTU moves under this host's UUID.
  EXPECT_EQ(ExportDocument(),
            R"({"host-specific":{"4c4c4544-0042-3510-8052-b4c04f4a4b32":{"sys":{"net":{"nic":[{"mtu":9000,"name":"nic0"}]}}}},)" +
                std::string(kMetadata) +
                R"(,"profile":{"sys":{"net":{"nic":[{"name":"nic0"}]},"snmp":{"agent":{"location":"rack 1"}}}}})");
  EXPECT_TRUE(log_.Contains(3, "ExportDocument invoked"));
}

TEST_F(ExportTest, ReferenceHostMetadataIsWrittenInItsOrder) {
  rapidjson::Document doc(rapidjson::kObjectType);
  AddReferenceHostMetadata("u-1", doc);
  EXPECT_EQ(Text(doc),
            R"({"metadata":{"reference_host":{"uuid":"u-1","build":"24585383","version":"8.0.3","patch":"2","update":"3"}}})");

  // A version part the host does not name fails the JSON library's check.
  WriteFile("/etc/corvane/version.json", R"({"build": "1", "version": "8.0", "update": "0"})");
  QenTest::ExpectJsonLibraryError(
      [] {
        rapidjson::Document other(rapidjson::kObjectType);
        AddReferenceHostMetadata("u-1", other);
      },
      "s != 0");
}

TEST_F(ExportTest, FailuresOutsideTheStoreFamilyBecomeUnexpectedErrors) {
  ASSERT_EQ(::unlink(Path("/etc/corvane/version.json").c_str()), 0);
  auto e = Thrown<ConfigManagerException>([] { ExportDocument(); });
  EXPECT_EQ(e.GetErrorCode(), 3000);
  EXPECT_EQ(std::string(e.what()),
            "ExportDocument failed: cannot read host file \"/etc/corvane/version.json\": No such "
            "file or directory");

  ASSERT_EQ(::unlink(Path("/etc/corvane/hardware.json").c_str()), 0);
  e = Thrown<ConfigManagerException>([] { ExportDocumentTelemetry(); });
  EXPECT_EQ(e.GetErrorCode(), 3000);
  EXPECT_EQ(std::string(e.what()).rfind("ExportDocumentTelemetry failed: ", 0), 0u) << e.what();

  // The store's own exceptions pass unchanged.
  WriteKeySchema("sys", "time", "zone", kZoneSchema);
  e = Thrown<ConfigManagerException>([] { ExportDocument(); });
  EXPECT_EQ(e.GetErrorCode(), 2027);
}

TEST_F(ExportTest, TelemetryKeepsOnlyAllowListedKeysEachOnce) {
  WriteKeySchema("sys", "time", "ntp", R"({
    "component": "sys", "group": "time", "key": "ntp", "singleton": true, "userConfig": "ntp",
    "schema": {"type": "object", "properties": {"servers": {"type": "array", "items": {"type": "string"}}}}})");
  LoadStore(R"({"host": {"current": {"sys": {
      "snmp": {"agent": {"location": "rack 1"}}, "time": {"ntp": {"servers": ["a"]}}}}}})");

  Allow("none.json", R"(["sys.other.key"])");
  EXPECT_EQ(ExportDocumentTelemetry(), "{" + std::string(kMetadata) + R"(,"profile":{}})");

  Allow("a.json", R"(["sys.time.ntp"])");
  Allow("b.json", R"(["sys.snmp.agent", "sys.time.ntp"])");
  Allow("ignored.txt", R"(["sys.users.user"])");
  EXPECT_EQ(ExportDocumentTelemetry(),
            "{" + std::string(kMetadata) +
                R"(,"profile":{"sys":{"snmp":{"agent":{"location":"rack 1"}},"time":{"ntp":{"servers":["a"]}}}}})");
  EXPECT_EQ(log_.Texts(3)[0], "ExportDocumentTelemetry invoked");
  EXPECT_TRUE(log_.Contains(3, "Loading telemetry allowlist a.json from '/usr/lib/corvane/configmanager/telemetry/'"));
  EXPECT_TRUE(log_.Contains(3, "Loaded configIDs from b.json"));
  EXPECT_FALSE(LogMentions("ignored.txt"));
}

TEST_F(ExportTest, TelemetryDisabledKeyIsOneMaskedEntryWhateverItsInstances) {
  Allow("users.json", R"(["sys.users.user"])");
  const std::string masked =
      "{" + std::string(kMetadata) + R"(,"profile":{"sys":{"users":{"user":[)" + kMasked + "]}}}}";

  LoadStore(R"({"host": {"current": {"sys": {"users": {"user": [{"name": "root", "password": "pw-1"}]}}}}})");
  EXPECT_EQ(ExportDocumentTelemetry(), masked);

  LoadStore(R"({"host": {"current": {"sys": {"users": {"user": [
      {"name": "root", "password": "pw-1"}, {"name": "ops"}, {"name": "dev", "password": "pw-2"}]}}}}})");
  EXPECT_EQ(ExportDocumentTelemetry(), masked);

  // The masked entry's identifier, before the document is normalised.
  rapidjson::Document doc = ExtractUserConfiguration(DOC_TELEMETRY);
  EXPECT_EQ(Text(doc), R"({"profile":{"sys":{"users":{"user":[)" + std::string(kMasked) + "]}}}}");
  EXPECT_FALSE(LogMentions("pw-1"));
}

TEST_F(ExportTest, SensitiveValuesNeverLeaveInTelemetry) {
  Allow("snmp.json", R"(["sys.snmp.agent"])");
  LoadStore(R"({"host": {"current": {"sys": {"snmp": {"agent": {"community": "s3cret", "enabled": true}}}}}})");
  const std::string telemetry = ExportDocumentTelemetry();
  EXPECT_EQ(telemetry, "{" + std::string(kMetadata) +
                           R"x(,"profile":{"sys":{"snmp":{"agent":{"community":"(redacted)","enabled":true}}}}})x");
  EXPECT_FALSE(LogMentions("s3cret"));
  // The plain export is the host's configuration for other hosts and keeps it.
  EXPECT_NE(ExportDocument().find("s3cret"), std::string::npos);
}

TEST_F(ExportTest, BadAllowlistsAreErrorsAndAMissingDirectoryExportsNothing) {
  LoadStore(R"({"host": {"current": {"sys": {"snmp": {"agent": {"location": "rack 1"}}}}}})");
  const std::string empty = "{" + std::string(kMetadata) + R"(,"profile":{}})";
  // No directory: no key is allowed.
  EXPECT_EQ(ExportDocumentTelemetry(), empty);
  // A file where the directory should be cannot be read either.
  WriteFile("/usr/lib/corvane/configmanager/telemetry", "[]");
  EXPECT_EQ(ExportDocumentTelemetry(), empty);
  EXPECT_TRUE(log_.Contains(1, "Telemetry allowlist directory '/usr/lib/corvane/configmanager/telemetry/' "
                               "cannot be read: Not a directory"));
  ASSERT_EQ(::unlink(Path("/usr/lib/corvane/configmanager/telemetry").c_str()), 0);

  Allow("bad.json", R"({"sys.snmp.agent": true})");
  auto e = Thrown<QenConfigStore::ConfigStoreException>([] { ExportDocumentTelemetry(); });
  EXPECT_EQ(e.GetErrorCode(), 1082);
  EXPECT_NE(std::string(e.what()).find(": IsArray()"), std::string::npos) << e.what();

  Allow("bad.json", R"(["sys.snmp.agent", 7])");
  e = Thrown<QenConfigStore::ConfigStoreException>([] { ExportDocumentTelemetry(); });
  EXPECT_EQ(e.GetErrorCode(), 1082);
  EXPECT_NE(std::string(e.what()).find(": IsString()"), std::string::npos) << e.what();

  Allow("bad.json", std::string(100000, '['));
  e = Thrown<QenConfigStore::ConfigStoreException>([] { ExportDocumentTelemetry(); });
  EXPECT_EQ(e.GetErrorCode(), 2080);
  EXPECT_EQ(std::string(e.what()), "Failed to parse JSON String");
  EXPECT_EQ(e.GetArgs(), std::list<std::string>{"/usr/lib/corvane/configmanager/telemetry/bad.json"});
}

TEST_F(ExportTest, UnparsableStoredValueInTelemetryIsAParseError) {
  ConfigMapList list = SingletonList("sys", "snmp", "agent", "{\"community\": \"s3cret");
  rapidjson::Document doc;
  auto e = Thrown<InvalidArgumentException>([&] {
    ProcessConfigMapListTelemetry(doc, list, QenSchemaStore::SchemaStore::GetStore(), nullptr);
  });
  EXPECT_EQ(e.GetErrorCode(), 2080);
  EXPECT_EQ(std::string(e.what()), "Failed to parse JSON String");
  EXPECT_FALSE(LogMentions("s3cret"));
}

TEST_F(ExportTest, MutableDefaultEqualToItsDefaultIsLeftOut) {
  WriteKeySchema("sys", "time", "zone", kZoneSchema);
  WriteKeySchema("sys", "net", "dns", kDnsSchema);
  const std::string defaults = R"("defaults": {"sys": {"time": {"zone": {"zone": "UTC"}},
      "net": {"dns": [{"server": "a", "port": 53}, {"server": "b", "port": 53}]}}})";
  // The same values, instances in another order.
  LoadStore(R"({"host": {)" + defaults + R"(, "current": {"sys": {"time": {"zone": {"zone": "UTC"}},
      "net": {"dns": [{"server": "b", "port": 53}, {"server": "a", "port": 53}]}}}}})");
  EXPECT_EQ(Text(ExtractUserConfiguration(DOC_CURRENT)), "{}");
  EXPECT_TRUE(log_.Contains(0, "User configuration is same as default for mutableDefaultConfig "
                               "schema comp sys grp time key zone "));

  // One changed property brings the whole key back, every instance.
  LoadStore(R"({"host": {)" + defaults + R"(, "current": {"sys": {"time": {"zone": {"zone": "UTC"}},
      "net": {"dns": [{"server": "a", "port": 53}, {"server": "b", "port": 5353}]}}}}})");
  EXPECT_EQ(Text(ExtractUserConfiguration(DOC_EXPORT)),
            R"({"profile":{"sys":{"net":{"dns":[{"server":"a","port":53},{"server":"b","port":5353}]}}}})");
  EXPECT_TRUE(log_.Contains(0, "User configuration is not same as default for mutableDefaultConfig "
                               "schema comp sys grp net key dns "));

  // An instance fewer is a difference too.
  LoadStore(R"({"host": {)" + defaults + R"(, "current": {"sys": {"time": {"zone": {"zone": "CET"}},
      "net": {"dns": [{"server": "a", "port": 53}]}}}}})");
  EXPECT_EQ(Text(ExtractUserConfiguration(DOC_CURRENT)),
            R"({"sys":{"net":{"dns":[{"server":"a","port":53}]},"time":{"zone":{"zone":"CET"}}}})");
}

TEST_F(ExportTest, DeletedMutableDefaultIsRefused) {
  WriteKeySchema("sys", "time", "zone", kZoneSchema);
  const std::string message =
      "Deleting default configuration for comp sys grp time key zone is not supported.";
  for (const char* current : {R"({})", R"({"sys": {"time": {"zone": "DELETE_DEFAULT"}}})"}) {
    LoadStore(R"({"host": {"defaults": {"sys": {"time": {"zone": {"zone": "UTC"}}}}, "current": )" +
              std::string(current) + "}}");
    auto e = Thrown<ConfigManagerException>([] { ExtractUserConfiguration(DOC_EXPORT); });
    EXPECT_EQ(e.GetErrorCode(), 2027) << current;
    EXPECT_EQ(std::string(e.what()), message) << current;
  }

  // Nothing but a solution's instances counts as deleted as well.
  WriteKeySchema("sys", "users", "user", R"({
    "component": "sys", "group": "users", "key": "user", "singleton": false, "instanceId": "name",
    "userConfig": "users", "mutableDefault": {"host": true}, "solutionUserInstances": ["agent"],
    "schema": {"type": "array", "items": {"type": "object", "properties": {"name": {"type": "string"}}}}})");
  LoadStore(R"({"host": {"current": {"sys": {"time": {"zone": {"zone": "UTC"}}, "users": {"user": [{"name": "agent"}]}}}}})");
  auto e = Thrown<ConfigManagerException>([] { ExtractUserConfiguration(DOC_CURRENT); });
  EXPECT_EQ(e.GetErrorCode(), 2027);
  EXPECT_EQ(std::string(e.what()),
            "Deleting default configuration for comp sys grp users key user is not supported.");
}

TEST_F(ExportTest, UnparsableMutableDefaultValueIsAParseError) {
  WriteKeySchema("sys", "time", "zone", kZoneSchema);
  LoadStore(R"({"host": {"defaults": {"sys": {"time": {"zone": {"zone": "UTC"}}}}}})");
  ConfigMapList list = SingletonList("sys", "time", "zone", "{\"zone\": ");
  auto e = Thrown<InvalidArgumentException>([&] {
    ProcessMutableDefaultConfig(list, QenConfigStore::GetDBStore(0, true),
                                QenSchemaStore::SchemaStore::GetStore(), false);
  });
  EXPECT_EQ(e.GetErrorCode(), 2080);
}

TEST_F(ExportTest, SmartnicConfigurationIsComparedWithTheSmartnicDefaults) {
  WriteKeySchema("sys", "nic", "offload", kOffloadSchema);
  // The host holds another default for the same key: only the SmartNIC's counts.
  const std::string defaults = R"("host": {"defaults": {"sys": {"nic": {"offload": {"firewall": false}}}}})";
  LoadStore(R"({)" + defaults + R"(, "smartnic": {"defaults": {"sys": {"nic": {"offload": {"firewall": true}}}},
      "current": {"sys": {"nic": {"offload": {"firewall": true}}}}}})");
  EXPECT_EQ(ExtractSmartnicConfiguration(), "{}");

  LoadStore(R"({)" + defaults + R"(, "smartnic": {"defaults": {"sys": {"nic": {"offload": {"firewall": true}}}},
      "current": {"sys": {"nic": {"offload": {"firewall": false}}}}}})");
  EXPECT_EQ(ExtractSmartnicConfiguration(), R"({"sys":{"nic":{"offload":{"firewall":false}}}})");

  LoadStore(R"({"smartnic": {"defaults": {"sys": {"nic": {"offload": {"firewall": true}}}}}})");
  auto e = Thrown<ConfigManagerException>([] { ExtractSmartnicConfiguration(); });
  EXPECT_EQ(e.GetErrorCode(), 2027);
}

TEST_F(ExportTest, SmartnicConfigurationIsStagedAndBadTextRefused) {
  WriteKeySchema("sys", "nic", "offload", kOffloadSchema);
  SetSmartnicConfiguration(R"({"sys": {"nic": {"offload": {"firewall": false}}}})");
  ConfigMapList staged = QenConfigStore::GetDesiredSmartnicConfiguration(QenConfigStore::GetDBStore(0, true));
  ASSERT_EQ(staged->size(), 1u);
  EXPECT_EQ(staged->front()->at("Value"), R"({"firewall":false})");

  auto e = Thrown<InvalidArgumentException>([] { SetSmartnicConfiguration(R"({"sys": )"); });
  EXPECT_EQ(e.GetErrorCode(), 2080);
  EXPECT_EQ(std::string(e.what()), "Failed to parse JSON String");
  auto shape = Thrown<QenConfigStore::ConfigStoreException>([] { SetSmartnicConfiguration("[1]"); });
  EXPECT_EQ(shape.GetErrorCode(), 2003);
  // What was staged before a refused document stays.
  EXPECT_EQ(QenConfigStore::GetDesiredSmartnicConfiguration(QenConfigStore::GetDBStore(0, true))->size(), 1u);
}

}  // namespace
