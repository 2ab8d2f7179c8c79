#include "StoreDb.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "CSLogger.h"
#include "HostFiles.h"
#include "HostRoot.h"

namespace QenConfigStore {
namespace detail {
namespace {

std::atomic<int> g_failAfter{0};

constexpr int kSchemaVersion = 1;

const char* const kSchemaSql =
    "CREATE TABLE IF NOT EXISTS config_object ("
    " scope TEXT NOT NULL, component TEXT NOT NULL, grp TEXT NOT NULL, name TEXT NOT NULL,"
    " identifier TEXT NOT NULL, category TEXT NOT NULL,"
    " default_value TEXT, current_value TEXT, autoconf_value TEXT, ordinal INTEGER NOT NULL,"
    " PRIMARY KEY (scope, component, grp, name, identifier)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS desired_object ("
    " scope TEXT NOT NULL, component TEXT NOT NULL, grp TEXT NOT NULL, name TEXT NOT NULL,"
    " identifier TEXT NOT NULL, op TEXT NOT NULL, value TEXT, ordinal INTEGER NOT NULL,"
    " PRIMARY KEY (scope, component, grp, name, identifier)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS store_meta (name TEXT PRIMARY KEY, value TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS restore_failure (seq INTEGER PRIMARY KEY AUTOINCREMENT,"
    " component TEXT NOT NULL, grp TEXT NOT NULL, name TEXT NOT NULL);";

std::string DbName() { return std::string("\"") + kDatabasePath + "\""; }

bool IsCorruption(int rc) {
  rc &= 0xff;
  return rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB;
}

void CreateDatabaseFile(const std::string& physical) {
  if (!QenPlatform::MakeDirectories(physical.substr(0, physical.rfind('/')), 0700))
    Fail(STORE_OPEN_FAILED, "Cannot create the directory of configuration store " + DbName() +
                                ": " + std::strerror(errno));
  // Created here, not by SQLite, so that it is never readable by others (and
  // always writable by its owner, whatever the umask); SQLite gives its WAL
  // and shared-memory files the same mode.
  int fd = ::open(physical.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  const bool made = fd >= 0 && ::fchmod(fd, 0600) == 0;
  const int err = errno;
  if (fd >= 0) ::close(fd);
  if (!made) Fail(STORE_OPEN_FAILED, "Cannot create configuration store " + DbName() + ": " + std::strerror(err));
}

void InitSchema(Impl& impl) {
  int version = 0;
  {
    Cursor c(impl, "PRAGMA user_version");
    if (c.Step()) version = static_cast<int>(c.Int(0));
  }
  if (version == kSchemaVersion) return;
  if (version != 0)
    Fail(STORE_OPEN_FAILED, "Configuration store " + DbName() + " has schema version " +
                                std::to_string(version) + ", expected " +
                                std::to_string(kSchemaVersion));
  WriteTransaction(impl, [&] {
    Exec(impl, kSchemaSql, STORE_OPEN_FAILED);
    Exec(impl, "PRAGMA user_version = 1", STORE_OPEN_FAILED);
  });
}

}  // namespace

void FailSqlite(sqlite3* db, int rc, int code, const std::string& operation) {
  std::string msg = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
  if (IsCorruption(rc))
    Fail(STORE_OPEN_FAILED, "Configuration store " + DbName() + " is not a usable database: " + msg);
  Fail(code, "Configuration store " + DbName() + ": " + operation + " failed: " + msg);
}

Cursor::Cursor(Impl& impl, const char* sql) : impl_(impl), stmt_(nullptr) {
  auto it = impl.statements.find(sql);
  if (it != impl.statements.end()) {
    stmt_ = it->second;
  } else {
    int rc = sqlite3_prepare_v3(impl.db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr);
    if (rc != SQLITE_OK) FailSqlite(impl.db, rc, STORE_READ_FAILED, "preparing a statement");
    impl.statements.emplace(sql, stmt_);
  }
  write_ = sqlite3_stmt_readonly(stmt_) == 0;
}

Cursor::~Cursor() {
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

Cursor& Cursor::Bind(int index, const std::string& text) {
  sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  return *this;
}

Cursor& Cursor::Bind(int index, int64_t number) {
  sqlite3_bind_int64(stmt_, index, number);
  return *this;
}

Cursor& Cursor::BindNull(int index) {
  sqlite3_bind_null(stmt_, index);
  return *this;
}

bool Cursor::Step() {
  if (write_ && g_failAfter.load() > 0 && g_failAfter.fetch_sub(1) == 1)
    Fail(STORE_WRITE_FAILED, "Configuration store " + DbName() + ": write failed: injected fault");
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  FailSqlite(impl_.db, rc, write_ ? STORE_WRITE_FAILED : STORE_READ_FAILED,
             write_ ? "write" : "read");
}

void Cursor::Run() {
  while (Step()) {
  }
}

std::string Cursor::Text(int column) const {
  const unsigned char* text = sqlite3_column_text(stmt_, column);
  if (!text) return std::string();
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
}

bool Cursor::IsNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }

int64_t Cursor::Int(int column) const { return sqlite3_column_int64(stmt_, column); }

void Exec(Impl& impl, const char* sql, int code) {
  char* err = nullptr;
  int rc = sqlite3_exec(impl.db, sql, nullptr, nullptr, &err);
  if (rc != SQLITE_OK) {
    sqlite3_free(err);
    FailSqlite(impl.db, rc, code, std::string("executing ") + sql);
  }
}

void Begin(Impl& impl) {
  if (impl.depth == 0) {
    // IMMEDIATE takes the write lock now (waiting through the busy timeout)
    // instead of failing on a lock upgrade in the middle.
    Exec(impl, "BEGIN IMMEDIATE", STORE_WRITE_FAILED);
  } else {
    Exec(impl, ("SAVEPOINT s" + std::to_string(impl.depth)).c_str(), STORE_WRITE_FAILED);
  }
  ++impl.depth;
}

void Commit(Impl& impl) {
  --impl.depth;
  if (impl.depth == 0) {
    int rc = sqlite3_exec(impl.db, "COMMIT", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
      if (!sqlite3_get_autocommit(impl.db)) sqlite3_exec(impl.db, "ROLLBACK", nullptr, nullptr, nullptr);
      FailSqlite(impl.db, rc, STORE_WRITE_FAILED, "commit");
    }
  } else {
    Exec(impl, ("RELEASE s" + std::to_string(impl.depth)).c_str(), STORE_WRITE_FAILED);
  }
}

void Rollback(Impl& impl) {
  --impl.depth;
  if (impl.depth == 0) {
    if (!sqlite3_get_autocommit(impl.db)) sqlite3_exec(impl.db, "ROLLBACK", nullptr, nullptr, nullptr);
  } else {
    std::string name = "s" + std::to_string(impl.depth);
    sqlite3_exec(impl.db, ("ROLLBACK TO " + name + "; RELEASE " + name).c_str(), nullptr, nullptr,
                 nullptr);
  }
}

void WriteTransaction(Impl& impl, const std::function<void()>& body) {
  std::lock_guard<std::recursive_mutex> lock(impl.mutex);
  Begin(impl);
  try {
    body();
  } catch (...) {
    Rollback(impl);
    throw;
  }
  Commit(impl);
}

Impl& Of(const std::shared_ptr<DBStore::StoreConnection>& conn) {
  if (!conn) Fail(STORE_OPEN_FAILED, "No configuration store connection");
  return conn->impl();
}

std::shared_ptr<DBStore::StoreConnection> GlobalConnection() {
  auto store = ConfigStore::GetStore();
  if (!store) Fail(STORE_OPEN_FAILED, "Configuration store " + DbName() + " is unavailable");
  return store->GetConnection();
}

std::string GetMeta(Impl& impl, const std::string& name, const std::string& fallback) {
  std::lock_guard<std::recursive_mutex> lock(impl.mutex);
  Cursor c(impl, "SELECT value FROM store_meta WHERE name = ?1");
  c.Bind(1, name);
  return c.Step() ? c.Text(0) : fallback;
}

void SetMeta(Impl& impl, const std::string& name, const std::string& value) {
  Cursor c(impl,
           "INSERT INTO store_meta(name, value) VALUES(?1, ?2)"
           " ON CONFLICT(name) DO UPDATE SET value = excluded.value");
  c.Bind(1, name).Bind(2, value).Run();
}

}  // namespace detail

using namespace detail;

void FailNthWrite(int n) { g_failAfter.store(n > 0 ? n : 0); }

}  // namespace QenConfigStore

DBStore::StoreConnection::Impl::~Impl() {
  for (auto& entry : statements) sqlite3_finalize(entry.second);
  if (db) sqlite3_close_v2(db);
}

DBStore::StoreConnection::StoreConnection(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
DBStore::StoreConnection::~StoreConnection() = default;

namespace QenConfigStore {

std::shared_ptr<DBStore::StoreConnection> GetDBStore(DBStore::Type type, bool create) {
  if (type != DBStore::USER)
    Fail(STORE_OPEN_FAILED, "Unknown configuration store type " + std::to_string(type));
  const std::string physical = QenPlatform::HostPath(kDatabasePath);
  struct stat st;
  if (::stat(physical.c_str(), &st) != 0) {
    if (!create)
      Fail(STORE_OPEN_FAILED, "Configuration store " + DbName() +
                                  " does not exist: it is not initialised (load a store description first)");
    CreateDatabaseFile(physical);
  } else if (!S_ISREG(st.st_mode)) {
    Fail(STORE_OPEN_FAILED, "Configuration store " + DbName() + " is not a regular file");
  } else if ((st.st_mode & 077) != 0) {
    ::chmod(physical.c_str(), 0600);
  }
  auto impl = std::make_unique<Impl>();
  int rc = sqlite3_open_v2(physical.c_str(), &impl->db,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) FailSqlite(impl->db, rc, STORE_OPEN_FAILED, "opening");
  sqlite3_extended_result_codes(impl->db, 1);
  sqlite3_busy_timeout(impl->db, 10000);
  Exec(*impl, "PRAGMA journal_mode = WAL", STORE_OPEN_FAILED);
  Exec(*impl, "PRAGMA synchronous = FULL", STORE_OPEN_FAILED);
  InitSchema(*impl);
  return std::make_shared<DBStore::StoreConnection>(std::move(impl));
}

std::shared_ptr<ConfigStore> ConfigStore::GetStore(const std::string& ns) {
  if (ns != sGlobalNamespace) {
    CSLogger::Log(0, "Unknown configuration store namespace \"%s\"", ns.c_str());
    return nullptr;
  }
  static std::mutex mutex;
  // Leaked on purpose: a forked child must never close its parent's
  // connection (SQLite would release the parent's locks), it opens its own.
  static std::shared_ptr<ConfigStore>* cached = nullptr;
  static std::string cachedPath;
  static pid_t cachedPid = 0;
  static ino_t cachedInode = 0;
  std::lock_guard<std::mutex> lock(mutex);
  const std::string physical = QenPlatform::HostPath(kDatabasePath);
  // A removed or replaced database file is opened afresh.
  struct stat st;
  bool present = ::stat(physical.c_str(), &st) == 0;
  if (cached && cachedPid == ::getpid() && cachedPath == physical && present &&
      st.st_ino == cachedInode)
    return *cached;
  if (cached && cachedPid == ::getpid()) delete cached;
  cached = nullptr;
  try {
    auto store = std::make_shared<ConfigStore>(GetDBStore(DBStore::USER, true));
    cached = new std::shared_ptr<ConfigStore>(store);
    cachedPath = physical;
    cachedPid = ::getpid();
    cachedInode = ::stat(physical.c_str(), &st) == 0 ? st.st_ino : 0;
    return store;
  } catch (const ConfigStoreException& e) {
    CSLogger::Log(0, "Failed to open the configuration store: %s", e.what());
    return nullptr;
  }
}

ConfigStoreTransaction::ConfigStoreTransaction(const std::shared_ptr<ConfigStore>& store)
    : ConfigStoreTransaction(store ? store->GetConnection() : nullptr) {}

ConfigStoreTransaction::ConfigStoreTransaction(const std::shared_ptr<DBStore::StoreConnection>& conn)
    : conn_(conn) {
  Impl& impl = Of(conn_);
  impl.mutex.lock();
  try {
    Begin(impl);
  } catch (...) {
    impl.mutex.unlock();
    throw;
  }
  active_ = true;
}

ConfigStoreTransaction::~ConfigStoreTransaction() {
  if (active_) Rollback();
}

void ConfigStoreTransaction::Commit() {
  if (!active_) Fail(STORE_WRITE_FAILED, "Configuration store transaction is not active");
  Impl& impl = Of(conn_);
  active_ = false;
  try {
    detail::Commit(impl);
  } catch (...) {
    impl.mutex.unlock();
    throw;
  }
  impl.mutex.unlock();
}

void ConfigStoreTransaction::Rollback() {
  if (!active_) return;
  Impl& impl = Of(conn_);
  active_ = false;
  detail::Rollback(impl);
  impl.mutex.unlock();
}

}  // namespace QenConfigStore
