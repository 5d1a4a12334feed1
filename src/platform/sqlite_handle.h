// Owners and small helpers for SQLite handles, shared by the registry store and the
// local document store.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <string_view>

namespace tarn {

struct sqlite_closer {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct sqlite_finalizer {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using sqlite_db = std::unique_ptr<sqlite3, sqlite_closer>;
using sqlite_stmt = std::unique_ptr<sqlite3_stmt, sqlite_finalizer>;

// Opens `path` with `flags` (SQLITE_OPEN_*), a busy time-out so that concurrent writers wait
// rather than fail, and extended result codes. Null with the reason in *err on failure.
sqlite_db sqlite_open(const std::string& path, int flags, std::string* err);

// Prepares `sql`; null with the reason in *err on failure.
sqlite_stmt sqlite_prepare(sqlite3* db, std::string_view sql, std::string* err);

// Runs statements that return no rows. False with the reason in *err on failure.
bool sqlite_exec(sqlite3* db, const char* sql, std::string* err);

// Binds UTF-8 text, copied by SQLite.
inline int sqlite_bind_text(sqlite3_stmt* stmt, int index, std::string_view text) {
  return sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()),
                           SQLITE_TRANSIENT);
}

inline std::string sqlite_column_text(sqlite3_stmt* stmt, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
  return text == nullptr ? std::string()
                         : std::string(text, static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
}

std::string sqlite_column_blob(sqlite3_stmt* stmt, int column);

// A write transaction (BEGIN IMMEDIATE) that rolls back unless committed.
class sqlite_transaction {
 public:
  explicit sqlite_transaction(sqlite3* db);
  ~sqlite_transaction();
  sqlite_transaction(const sqlite_transaction&) = delete;
  sqlite_transaction& operator=(const sqlite_transaction&) = delete;

  bool begun() const { return begun_; }
  bool commit(std::string* err);
  const std::string& error() const { return error_; }
  // SQLite's extended code of the failed BEGIN or COMMIT (e.g. SQLITE_FULL); SQLITE_OK otherwise.
  int error_code() const { return error_code_; }

 private:
  sqlite3* db_;
  bool begun_ = false;
  bool done_ = false;
  int error_code_ = SQLITE_OK;
  std::string error_;
};

}  // namespace tarn
