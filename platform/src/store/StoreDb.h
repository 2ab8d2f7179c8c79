// Internal: the SQLite layer of the configuration store. Prepared-statement
// cache, error mapping to ConfigStoreException, write transactions (nested
// ones become savepoints) and the write-fault hook.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

#include "QenConfigStore.h"

struct DBStore::StoreConnection::Impl {
  sqlite3* db = nullptr;
  std::recursive_mutex mutex;
  int depth = 0;  // open transaction levels
  // Keyed by the SQL text's address: statements are string literals.
  std::unordered_map<const char*, sqlite3_stmt*> statements;
  ~Impl();
};

namespace QenConfigStore {
namespace detail {

using Impl = DBStore::StoreConnection::Impl;

// Inline: the object code uses it too and must not drag SQLite into
// programs that only handle objects (plugins).
[[noreturn]] inline void Fail(int code, const std::string& what) {
  throw ConfigStoreException(code, what.c_str());
}
// Throws for an SQLite failure `rc` on `db`: corruption -> STORE_OPEN_FAILED,
// otherwise `code` with the operation text and SQLite's message.
[[noreturn]] void FailSqlite(sqlite3* db, int rc, int code, const std::string& operation);

// A cached prepared statement, reset and unbound when the cursor dies. `sql`
// must be a string literal (it keys the cache).
class Cursor {
 public:
  Cursor(Impl& impl, const char* sql);
  ~Cursor();
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;

  Cursor& Bind(int index, const std::string& text);
  Cursor& Bind(int index, int64_t number);
  Cursor& BindNull(int index);
  // Next row: true when there is one. Writes count for the fault hook.
  bool Step();
  // Runs a statement that returns no rows.
  void Run();
  std::string Text(int column) const;
  bool IsNull(int column) const;
  int64_t Int(int column) const;

 private:
  Impl& impl_;
  sqlite3_stmt* stmt_;
  bool write_;
};

void Exec(Impl& impl, const char* sql, int code);

// Runs `body` in a write transaction on the connection: committed when it
// returns, rolled back when it throws.
void WriteTransaction(Impl& impl, const std::function<void()>& body);
void Begin(Impl& impl);
void Commit(Impl& impl);
void Rollback(Impl& impl);

// The global store's connection (opened on first use; STORE_OPEN_FAILED).
std::shared_ptr<DBStore::StoreConnection> GlobalConnection();
Impl& Of(const std::shared_ptr<DBStore::StoreConnection>& conn);

// Metadata values.
std::string GetMeta(Impl& impl, const std::string& name, const std::string& fallback);
void SetMeta(Impl& impl, const std::string& name, const std::string& value);

}  // namespace detail
}  // namespace QenConfigStore
