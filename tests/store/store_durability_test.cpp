// Transactions, failed writes, two connections and processes, bad files, boot
// state, statistics and the description round trip.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "StoreTestSupport.h"

using namespace QenConfigStore;
using QenTest::Failure;

namespace {

const char* const kSmall = R"({
  "host": {
    "defaults": {"c": {"g": {"k": {"v": 0}}}},
    "current": {"c": {"g": {"k": {"v": 1}, "list": [{"cs_generated_id": "x", "n": 1}]}}}
  },
  "bootMode": 0
})";

class StoreDurabilityTest : public QenTest::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    Load(kSmall);
  }
  void TearDown() override {
    FailNthWrite(0);
    StoreTest::TearDown();
  }
  static std::string Dump() { return Json(DumpStoreDescription()->GetDocument()); }
  static rapidjson::Document Doc(const char* text) {
    rapidjson::Document doc;
    doc.Parse(text);
    return doc;
  }
};

TEST_F(StoreDurabilityTest, DatabaseIsOwnerOnlyInWalMode) {
  struct stat st;
  ASSERT_EQ(::stat(Path(kDatabasePath).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_TRUE(Exists(std::string(kDatabasePath) + "-wal"));
  ASSERT_EQ(::stat(Path(std::string(kDatabasePath) + "-wal").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

class StoreCreationTest : public QenTest::StoreTest {};

TEST_F(StoreCreationTest, DatabaseAndItsDirectoriesAreOwnerOnlyWhateverTheUmask) {
  const mode_t saved = ::umask(0);
  auto conn = Connect();
  SetBootMode(BOOTMODE_HOSTAPI_STAGED, conn);
  ::umask(saved);
  EXPECT_EQ(Mode("/var/lib"), 0700);
  EXPECT_EQ(Mode("/var/lib/corvane/configstore"), 0700);
  EXPECT_EQ(Mode(kDatabasePath), 0600);
  EXPECT_EQ(Mode(std::string(kDatabasePath) + "-wal"), 0600);
}

TEST_F(StoreDurabilityTest, TransactionCommitsOrRollsBackEveryWriteItSpans) {
  const std::string before = Dump();
  auto store = ConfigStore::GetStore();
  {
    ConfigStoreTransaction tx(store);
    auto doc = Doc(R"({"c": {"g": {"k": {"v": 2}}}})");
    SetDesiredUserConfig(doc);
    ConfigStoreObject object(ConfigStoreObjectId("o", "g", "c"));
    object.SetValue("p", "t");
    store->SetObject(object);
    EXPECT_EQ(GetBootMode(), BOOTMODE_DESIRED_STAGED);  // visible inside
  }  // dropped uncommitted
  EXPECT_EQ(Dump(), before);

  auto other = Connect();
  {
    ConfigStoreTransaction tx(store);
    SetBootMode(BOOTMODE_HOSTAPI_STAGED);
    // A second connection reads the last committed state meanwhile, without
    // waiting for the writer.
    EXPECT_EQ(Lines(GetUserConfigContents(other)).size(), 2u);
    EXPECT_EQ(Lines(GetDesiredUserConfigContents(other)), Lines(GetUserConfigContents(other)));
    tx.Commit();
  }
  EXPECT_EQ(GetBootMode(), BOOTMODE_HOSTAPI_STAGED);
}

// A transaction on a connection of its own (the library's operations open
// one) spans the writes made on that connection: a desired object, the boot
// mode and the auto-deployment object commit together or not at all.
TEST_F(StoreDurabilityTest, TransactionOnAnOwnConnectionSpansTheWritesGivenIt) {
  const std::string before = Dump();
  const ConfigStoreObjectId autodeploy("autodeploy", "bootstrap", "qen");
  auto writeAll = [&](const std::shared_ptr<DBStore::StoreConnection>& conn) {
    auto value = Doc(R"({"v": 7})");
    ProcessDesiredObject(value.GetAllocator(), conn, "user text", "c", "g", "k", nullptr, value);
    SetBootMode(BOOTMODE_HOSTAPI_STAGED, conn);
    ConfigStoreObject object(autodeploy);
    object.SetValue("firewall", "<rules/>");
    ConfigStore::SetObject(object, conn);
  };

  {
    auto conn = Connect();
    ConfigStoreTransaction tx(conn);
    writeAll(conn);
  }  // discarded
  EXPECT_EQ(Dump(), before);

  {
    auto conn = Connect();
    FailNthWrite(3);  // the boot mode, after the desired object's two writes
    EXPECT_EQ(Failure([&] {
                ConfigStoreTransaction tx(conn);
                writeAll(conn);
                tx.Commit();
              }),
              "2002: Configuration store \"/var/lib/corvane/configstore/configstore.db\": write failed: "
              "injected fault");
  }
  EXPECT_EQ(Dump(), before);

  {
    auto conn = Connect();
    ConfigStoreTransaction tx(conn);
    writeAll(conn);
    tx.Commit();
  }
  EXPECT_EQ(Lines(GetDesiredUserConfigContents(Connect())), (std::vector<std::string>{
                                                                "c/g/k/=" R"({"v":7})",
                                                                "c/g/list/x=" R"({"cs_generated_id":"x","n":1})"}));
  EXPECT_EQ(GetBootMode(), BOOTMODE_HOSTAPI_STAGED);
  std::string firewall;
  auto stored = ConfigStore::GetStore()->GetObject(autodeploy);
  ASSERT_NE(stored, nullptr);
  EXPECT_TRUE(stored->GetValue("firewall", firewall));
  EXPECT_EQ(firewall, "<rules/>");
}

// The other write forms that take a connection use it too: were one of them
// to use the process-wide connection, it would wait for the transaction's
// lock and fail.
TEST_F(StoreDurabilityTest, EveryWriteFormWithAConnectionStaysOnIt) {
  auto conn = Connect();
  {
    ConfigStoreTransaction tx(conn);
    auto doc = Doc(R"({"c": {"g": {"k": {"v": 2}}}, "d": {"g": {"k": {"v": 3}}}})");
    SetDesiredUserConfig(doc, conn);
    DeleteHostAPIConfiguration("d", "g", "k", conn);
    setBootApplyRecord("record", conn);
    tx.Commit();
  }
  EXPECT_EQ(Lines(GetDesiredUserConfigContents(conn)), (std::vector<std::string>{"c/g/k/=" R"({"v":2})"}));
  EXPECT_EQ(GetBootMode(), BOOTMODE_DESIRED_STAGED);
  EXPECT_EQ(Json(getBootApplyRecord()->GetDocument()), R"({"isBootComplete":true,"bootApplyRecord":"record"})");
}

TEST_F(StoreDurabilityTest, NestedTransactionRollsBackOnlyItsOwnPart) {
  auto store = ConfigStore::GetStore();
  ConfigStoreTransaction outer(store);
  SetBootMode(4);
  {
    ConfigStoreTransaction inner(store);
    AddBootTimeRestoreFailure("c", "g", "k");
  }
  outer.Commit();
  EXPECT_EQ(GetBootMode(), 4);
  EXPECT_TRUE(GetBootTimeRestoreFailures().empty());
}

TEST_F(StoreDurabilityTest, FailedWriteChangesNothing) {
  const std::string before = Dump();
  auto doc = Doc(R"({"c": {"g": {"k": {"v": 2}, "list": [{"n": 1}, {"n": 2}, {"n": 3}]}}})");
  FailNthWrite(3);
  EXPECT_EQ(Failure([&] { SetDesiredUserConfig(doc); }),
            "2002: Configuration store \"/var/lib/corvane/configstore/configstore.db\": write failed: "
            "injected fault");
  EXPECT_EQ(Dump(), before);

  FailNthWrite(2);
  EXPECT_EQ(Failure([&] { Load(R"({"host": {"current": {"a": {"b": {"c": {}, "d": {}}}}}})"); }).substr(0, 5),
            "2002:");
  EXPECT_EQ(Dump(), before);

  // Without the hook the same writes succeed.
  SetDesiredUserConfig(doc);
  EXPECT_EQ(GetDesiredUserConfigContents(Connect())->size(), 4u);
}

TEST_F(StoreDurabilityTest, KilledWriterLeavesLastCommittedState) {
  const std::string before = Dump();
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Own connection; write inside a transaction and die before committing.
    auto conn = GetDBStore(0, true);
    ConfigStoreTransaction tx(conn);
    rapidjson::Document value;
    value.Parse(R"({"v": 99})");
    ProcessDesiredObject(value.GetAllocator(), conn, "text", "c", "g", "k", nullptr, value);
    char byte = 1;
    (void)!write(ready[1], &byte, 1);
    pause();
    _exit(0);
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  // The child holds the write lock: readers are not blocked.
  EXPECT_FALSE(CheckDesiredObjectExists(ConfigStoreObjectId("k", "g", "c"), Connect()));
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  close(ready[0]);
  EXPECT_EQ(Dump(), before);
  // The lock died with the writer: a new write goes through.
  SetBootMode(4);
  EXPECT_EQ(GetBootMode(), 4);
}

TEST_F(StoreDurabilityTest, ConcurrentWritersOnSeparateConnectionsQueueInsteadOfFailing) {
  std::atomic<int> failures{0};
  auto writer = [&](const std::string& key) {
    auto conn = GetDBStore(0, true);
    for (int i = 0; i < 40; ++i) {
      rapidjson::Document value;
      value.Parse("{\"n\": 1}");
      try {
        ProcessDesiredObject(value.GetAllocator(), conn, "text", "c", "g", key + std::to_string(i),
                             nullptr, value);
        GetDesiredUserConfigContents(conn);
      } catch (const ConfigStoreException&) {
        ++failures;
      }
    }
  };
  std::thread a(writer, "a"), b(writer, "b");
  writer("c");
  a.join();
  b.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(GetConfigRowCount(), 2 + 3 * 40);
}

TEST_F(StoreDurabilityTest, CorruptOrMissingDatabaseIsAClearError) {
  WriteFile("/var/lib/corvane/configstore/other.db", "");
  ::unlink(Path(kDatabasePath).c_str());
  ::unlink(Path(std::string(kDatabasePath) + "-wal").c_str());
  ::unlink(Path(std::string(kDatabasePath) + "-shm").c_str());
  EXPECT_EQ(Failure([] { GetDBStore(0, false); }),
            "2001: Configuration store \"/var/lib/corvane/configstore/configstore.db\" does not exist: it is "
            "not initialised (load a store description first)");

  WriteFile(kDatabasePath, std::string(8192, 'x'), 0600);
  EXPECT_EQ(Failure([] { GetDBStore(0, true); }),
            "2001: Configuration store \"/var/lib/corvane/configstore/configstore.db\" is not a usable "
            "database: file is not a database");
  EXPECT_EQ(ConfigStore::GetStore(), nullptr);
  EXPECT_TRUE(log_.Contains(0, "Failed to open the configuration store: Configuration store "
                               "\"/var/lib/corvane/configstore/configstore.db\" is not a usable "
                               "database: file is not a database"));
  EXPECT_EQ(Failure([] { GetBootMode(); }),
            "2001: Configuration store \"/var/lib/corvane/configstore/configstore.db\" is unavailable");
  EXPECT_EQ(ReadFile(kDatabasePath), std::string(8192, 'x'));
}

TEST_F(StoreDurabilityTest, MalformedDescriptionNamesTheMemberAndChangesNothing) {
  const std::string before = Dump();
  EXPECT_EQ(Failure([] { Load(R"({"hosts": {}})"); }), "2003: Store description: unknown member \"hosts\"");
  EXPECT_EQ(Failure([] { Load(R"({"host": {"current": []}})"); }),
            "2003: Store description: \"host.current\" is not an object");
  EXPECT_EQ(Failure([] { Load(R"({"host": {"defaults": {"c": {"g": {"k": "DELETE_DEFAULT"}}}}})"); }),
            "2003: Store description: \"DELETE_DEFAULT\" is only a current value (comp c grp g key k)");
  EXPECT_EQ(Failure([] { Load(R"({"host": {"current": {"c": {"g": {"k": {}}}}, "vital": {"c": {"g": {"k": {}}}}}})"); }),
            "2003: Store description: comp c grp g key k appears as user and as vital configuration");
  EXPECT_EQ(Failure([] { Load(R"({"bootApplyState": {"isBootComplete": 1}})"); }),
            "2003: Store description: \"bootApplyState\" needs \"isBootComplete\" (boolean) and "
            "\"bootApplyRecord\" (string)");
  EXPECT_EQ(Failure([] { Load(R"({"restoreFailures": [{"component": "c"}]})"); }),
            "2003: Store description: \"restoreFailures\" must be an array of {\"component\", \"group\", "
            "\"key\"} objects");
  EXPECT_EQ(Dump(), before);
  EXPECT_EQ(Failure([] { CreateDocumentFromFile("/nonexistent/file.json"); }),
            "2000: Cannot read JSON file \"/nonexistent/file.json\"");
}

TEST_F(StoreDurabilityTest, BootApplyStateAndRestoreFailures) {
  auto state = getBootApplyRecord();
  EXPECT_EQ(Json(state->GetDocument()), R"({"isBootComplete":false,"bootApplyRecord":""})");
  setBootApplyRecord(R"({"errorInfo":"{}","time":"01-01-2026 00-00-00"})");
  EXPECT_EQ(Json(getBootApplyRecord()->GetDocument()),
            R"({"isBootComplete":true,"bootApplyRecord":"{\"errorInfo\":\"{}\",\"time\":\"01-01-2026 00-00-00\"}"})");
  SetBootComplete(false);
  EXPECT_FALSE(getBootApplyRecord()->GetDocument()["isBootComplete"].GetBool());

  AddBootTimeRestoreFailure("z", "g", "k2");
  AddBootTimeRestoreFailure("a", "g", "k1");
  auto failures = GetBootTimeRestoreFailures();
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_EQ(failures[0].toString(), "comp z grp g key k2");
  EXPECT_EQ(failures[1].toString(), "comp a grp g key k1");
  ClearBootTimeRestoreFailures();
  EXPECT_TRUE(GetBootTimeRestoreFailures().empty());
}

TEST_F(StoreDurabilityTest, BootRestoreMakesStagedConfigurationCurrent) {
  auto doc = Doc(R"({"c": {"g": {"k": {"v": 5}, "other": {"o": 1}}}})");
  SetDesiredUserConfig(doc);
  setBootApplyRecord("previous");
  RestoreDesiredConfigAtBoot();
  auto conn = Connect();
  EXPECT_EQ(Lines(GetUserConfigContents(conn)),
            (std::vector<std::string>{R"(c/g/k/={"v":5})", R"(c/g/other/={"o":1})"}));
  EXPECT_EQ(Lines(GetDesiredUserConfigContents(conn)), Lines(GetUserConfigContents(conn)));
  EXPECT_FALSE(CheckDesiredObjectExists(ConfigStoreObjectId("k", "g", "c"), conn));
  EXPECT_EQ(GetBootMode(), BOOTMODE_NORMAL);
  EXPECT_FALSE(getBootApplyRecord()->GetDocument()["isBootComplete"].GetBool());
  // The default of the replaced key survives.
  EXPECT_EQ(GetDefaultUserConfigMapList(ConfigStoreObjectId("k", "g", "c"), conn).size(), 1u);
}

TEST_F(StoreDurabilityTest, StagedValueThatIsNotJsonIsARestoreFailure) {
  // Another client (the Python plugin SDK uses the sqlite3 module) stages a
  // broken value next to a good one.
  DeleteHostAPIConfiguration("c", "g", "gone");
  WriteFile("/tmp/stage.py",
            "import sqlite3, sys\n"
            "c = sqlite3.connect(sys.argv[1])\n"
            "c.execute(\"INSERT INTO desired_object VALUES('host','c','g','k','','SET','{broken',1)\")\n"
            "c.execute(\"INSERT INTO desired_object VALUES('host','c','g','n','','SET','{\\\"a\\\":1}',1)\")\n"
            "c.commit()\n");
  ASSERT_EQ(std::system(("python3 " + Path("/tmp/stage.py") + " " + Path(kDatabasePath)).c_str()), 0);
  RestoreDesiredConfigAtBoot();
  auto failures = GetBootTimeRestoreFailures();
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].toString(), "comp c grp g key k");
  EXPECT_EQ(Lines(GetUserConfigContents(Connect())),
            (std::vector<std::string>{R"(c/g/k/={"v":1})",
                                      R"(c/g/list/x={"cs_generated_id":"x","n":1})",
                                      R"(c/g/n/={"a":1})"}));
}

// Values nested 100,000 levels deep, written by another client: every read
// refuses them with its error instead of overflowing the stack.
TEST_F(StoreDurabilityTest, ValueNestedTooDeepIsRefusedByEveryRead) {
  WriteFile("/tmp/deep.py",
            "import sqlite3, sys\n"
            "deep = '[' * 100000 + ']' * 100000\n"
            "c = sqlite3.connect(sys.argv[1])\n"
            "c.execute(\"INSERT INTO config_object VALUES('host','c','g','deep','','user',NULL,?,NULL,9)\", (deep,))\n"
            "c.execute(\"INSERT INTO desired_object VALUES('host','c','g','k','','SET',?,1)\", (deep,))\n"
            "c.commit()\n");
  ASSERT_EQ(std::system(("python3 " + Path("/tmp/deep.py") + " " + Path(kDatabasePath)).c_str()), 0);
  const ConfigStoreObjectId id("deep", "g", "c");
  EXPECT_EQ(Failure([&] { ConfigStore::GetStore()->GetObject(id); }),
            "2003: The value of comp c grp g key deep is not valid JSON: nested deeper than 512 levels at offset 512");
  EXPECT_EQ(Failure([&] { DumpStoreDescription(); }),
            "2000: Configuration store holds a value that is not JSON: comp c grp g key deep");
  RestoreDesiredConfigAtBoot();
  auto failures = GetBootTimeRestoreFailures();
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].toString(), "comp c grp g key k");
}

TEST_F(StoreDurabilityTest, StatisticsCountRowsAndValueBytes) {
  // Rows: c/g/k (default and current), c/g/list/x.
  EXPECT_EQ(GetConfigRowCount(), 2);
  const int64_t user = std::string(R"({"v":0})").size() + std::string(R"({"v":1})").size() +
                       std::string(R"({"cs_generated_id":"x","n":1})").size();
  EXPECT_EQ(GetUserConfigSize(), user);
  EXPECT_EQ(GetVitalConfigSize(), 0);
  Load(R"({"host": {"vital": {"v": {"v": {"v": {"a": 1}}}}, "cached": {"d": {"d": {"d": {"b": 22}}}}}})");
  EXPECT_EQ(GetVitalConfigSize(), 7);
  EXPECT_EQ(GetCachedConfigSize(), 8);
  DeleteHostAPIConfiguration("c", "g", "k");
  EXPECT_EQ(GetConfigRowCount(), 3);
  auto metrics = GetConfigMetrics();
  ASSERT_EQ(metrics.size(), 8u);
  EXPECT_EQ(metrics[0], "objectRows=2");
  EXPECT_EQ(metrics[1], "desiredRows=1");
  EXPECT_EQ(metrics[3], "currentValues=2");
  EXPECT_EQ(metrics[7].substr(0, 14), "databaseBytes=");
}

TEST_F(StoreDurabilityTest, DescriptionRoundTripsThroughDumpAndLoad) {
  Load(R"({
    "host": {
      "defaults": {"c": {"g": {"k": {"v": 0}, "list": [{"cs_generated_id": "y", "n": 0}]}}},
      "current": {"c": {"g": {"k": "DELETE_DEFAULT", "list": [{"cs_generated_id": "x", "n": 1}]}}},
      "vital": {"q": {"b": {"a": {"p": "t"}}}},
      "cached": {"q": {"c": {"a": {"p": 1}}}},
      "autoconf": {"c": {"g": {"list": {"n": 5}}}},
      "desired": {"c": {"g": {"k": {"v": 3}}}},
      "desiredMode": "overlay",
      "desiredDeletes": [{"component": "c", "group": "g", "key": "gone"}]
    },
    "smartnic": {"current": {"s": {"n": {"o": {"f": true}}}}, "desired": {"s": {"n": {"o": {"f": false}}}}},
    "bootMode": 4,
    "bootApplyState": {"isBootComplete": true, "bootApplyRecord": "r"},
    "restoreFailures": [{"component": "c", "group": "g", "key": "k"}]
  })");
  const std::string first = Dump();
  EXPECT_EQ(first,
            R"({"host":{"defaults":{"c":{"g":{"k":{"v":0},"list":[{"cs_generated_id":"y","n":0}]}}},)"
            R"("current":{"c":{"g":{"k":"DELETE_DEFAULT","list":[{"cs_generated_id":"x","n":1}]}}},)"
            R"("vital":{"q":{"b":{"a":{"p":"t"}}}},"cached":{"q":{"c":{"a":{"p":1}}}},)"
            R"("autoconf":{"c":{"g":{"list":{"n":5}}}},"desired":{"c":{"g":{"k":{"v":3}}}},)"
            R"("desiredMode":"overlay","desiredDeletes":[{"component":"c","group":"g","key":"gone"}]},)"
            R"("smartnic":{"defaults":{},"current":{"s":{"n":{"o":{"f":true}}}},"vital":{},"cached":{},)"
            R"("autoconf":{},"desired":{"s":{"n":{"o":{"f":false}}}},"desiredMode":"overlay","desiredDeletes":[]},)"
            R"("bootMode":4,"bootApplyState":{"isBootComplete":true,"bootApplyRecord":"r"},)"
            R"("restoreFailures":[{"component":"c","group":"g","key":"k"}]})");
  auto doc = DumpStoreDescription();
  LoadStoreDescription(doc->GetDocument());
  EXPECT_EQ(Dump(), first);
}

}  // namespace
