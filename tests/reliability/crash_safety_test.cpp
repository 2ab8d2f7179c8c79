// A writer process killed with SIGKILL at random moments of its store
// transactions, hundreds of times: after every kill the database passes
// SQLite's integrity check and holds one whole change, the last one the
// writer committed or the one it was in the middle of, never a mixture.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <set>

#include "HostRootTest.h"
#include "QenConfigStore.h"

using namespace QenConfigStore;

namespace {

constexpr int kKeys = 24;
// Enough text per value that a change spans many database pages and the
// write-ahead log is checkpointed every few dozen changes.
const std::string kPadding(1500, 'p');

// Change number `gen`: every key's current value, a staged document of the
// same keys and the boot apply record all carry it.
std::string Description(uint64_t gen) {
  std::string keys;
  for (int k = 0; k < kKeys; ++k) {
    keys += std::string(k ? ", " : "") + "\"k" + std::to_string(k) + "\": {\"gen\": " + std::to_string(gen) +
            ", \"pad\": \"" + kPadding + "\"}";
  }
  return R"({"host": {"current": {"c": {"g": {)" + keys + R"(}}}, "desired": {"c": {"g": {)" + keys +
         R"(}}}, "desiredMode": "document"}, "bootApplyState": {"isBootComplete": true, "bootApplyRecord": ")" +
         std::to_string(gen) + "\"}}";
}

// The same change as separate writes in one transaction on the writer's
// own connection.
void WriteChange(const std::shared_ptr<DBStore::StoreConnection>& conn, uint64_t gen) {
  rapidjson::Document description;
  description.Parse(Description(gen).c_str());
  ConfigStoreTransaction transaction(conn);
  SetDesiredUserConfig(description["host"]["desired"], conn);
  for (auto& key : description["host"]["current"]["c"]["g"].GetObject()) {
    ConfigStoreObject object(ConfigStoreObjectId(key.name.GetString(), "g", "c"), key.value);
    ConfigStore::SetObject(object, conn);
  }
  setBootApplyRecord(std::to_string(gen), conn);
  transaction.Commit();
}

struct Message {
  char what;  // 'B' before a change, 'C' after its commit returned
  uint64_t gen;
};

[[noreturn]] void Writer(int out, uint64_t gen) {
  auto say = [out](char what, uint64_t g) {
    const Message m{what, g};
    if (write(out, &m, sizeof m) != sizeof m) _exit(3);
  };
  auto conn = GetDBStore(0, false);
  for (;; ++gen) {
    say('B', gen);
    // Two ways in: the writes of several functions in one transaction, and
    // the load that replaces the whole store.
    if (gen % 2) {
      WriteChange(conn, gen);
    } else {
      rapidjson::Document description;
      description.Parse(Description(gen).c_str());
      LoadStoreDescription(description);
    }
    say('C', gen);
  }
}

std::string IntegrityCheck(const std::string& path) {
  sqlite3* db = nullptr;
  std::string result;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
    result = "cannot open: " + std::string(sqlite3_errmsg(db));
  } else {
    sqlite3_exec(
        db, "PRAGMA integrity_check",
        [](void* out, int, char** values, char**) {
          *static_cast<std::string*>(out) += values[0] ? values[0] : "(null)";
          return 0;
        },
        &result, nullptr);
  }
  sqlite3_close(db);
  return result;
}

// Every change number the store holds: in each key's current and staged
// value and in the boot apply record.
std::multiset<uint64_t> GenerationsInStore() {
  std::multiset<uint64_t> gens;
  auto dump = DumpStoreDescription();
  const rapidjson::Value& host = dump->GetDocument()["host"];
  for (const char* section : {"current", "vital", "desired"}) {
    if (!host[section].HasMember("c")) continue;
    for (auto& key : host[section]["c"]["g"].GetObject()) gens.insert(key.value["gen"].GetUint64());
  }
  gens.insert(std::strtoull(dump->GetDocument()["bootApplyState"]["bootApplyRecord"].GetString(), nullptr, 10));
  return gens;
}

class CrashSafetyTest : public QenTest::HostRootTest {};

TEST_F(CrashSafetyTest, KilledWritersLeaveOneWholeCommittedChange) {
  rapidjson::Document first;
  first.Parse(Description(0).c_str());
  LoadStoreDescription(first);
  const std::string database = Path(kDatabasePath);

  const unsigned seed = std::getenv("QEN_CRASH_SEED") ? std::atoi(std::getenv("QEN_CRASH_SEED")) : 17;
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> delayUs(0, 20000);
  uint64_t committed = 0, next = 1;
  int kills = 0, insideChange = 0, landedOnNext = 0;
  while (insideChange < 200) {
    ASSERT_LT(kills, 2000) << "too few kills land inside a change";
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    CSLogger::Flush();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(pipefd[0]);
      Writer(pipefd[1], next);
    }
    close(pipefd[1]);
    usleep(delayUs(random));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the writer died by itself: " << status;
    ++kills;

    // What the writer said before it died.
    Message m{}, last{'C', committed};
    while (read(pipefd[0], &m, sizeof m) == sizeof m) {
      last = m;
      if (m.what == 'C') committed = m.gen;
    }
    close(pipefd[0]);
    const bool inside = last.what == 'B';
    insideChange += inside;

    SCOPED_TRACE("kill " + std::to_string(kills) + " (seed " + std::to_string(seed) + ")");
    ASSERT_EQ(IntegrityCheck(database), "ok");
    const std::multiset<uint64_t> gens = GenerationsInStore();
    ASSERT_EQ(gens.size(), 2u * kKeys + 1) << "keys went missing";
    const uint64_t held = *gens.begin();
    ASSERT_EQ(gens.count(held), gens.size()) << "the store holds parts of two changes";
    // The change being written when the writer died may have committed.
    if (inside && held == last.gen) {
      ++landedOnNext;
      committed = held;
    }
    ASSERT_EQ(held, committed) << (inside ? "killed inside change " : "killed after change ") << last.gen;
    next = std::max(next, last.gen + 1);
  }
  RecordProperty("kills", kills);
  RecordProperty("committedAtTheKill", landedOnNext);
  EXPECT_GE(kills, 200);
}

}  // namespace
