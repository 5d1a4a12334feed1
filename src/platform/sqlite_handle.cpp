#include "platform/sqlite_handle.h"

namespace tarn {
namespace {
constexpr int kBusyTimeoutMs = 10000;
}

sqlite_db sqlite_open(const std::string& path, int flags, std::string* err) {
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, flags, nullptr);
  sqlite_db db(raw);
  if (rc != SQLITE_OK) {
    if (err != nullptr)
      *err = path + ": " + (raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
    return nullptr;
  }
  sqlite3_extended_result_codes(raw, 1);
  sqlite3_busy_timeout(raw, kBusyTimeoutMs);
  return db;
}

sqlite_stmt sqlite_prepare(sqlite3* db, std::string_view sql, std::string* err) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &raw, nullptr) !=
      SQLITE_OK) {
    if (err != nullptr) *err = sqlite3_errmsg(db);
    return nullptr;
  }
  return sqlite_stmt(raw);
}

bool sqlite_exec(sqlite3* db, const char* sql, std::string* err) {
  char* msg = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &msg) == SQLITE_OK) return true;
  if (err != nullptr) *err = msg != nullptr ? msg : sqlite3_errmsg(db);
  sqlite3_free(msg);
  return false;
}

std::string sqlite_column_blob(sqlite3_stmt* stmt, int column) {
  const auto* data = static_cast<const char*>(sqlite3_column_blob(stmt, column));
  return data == nullptr
             ? std::string()
             : std::string(data, static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
}

sqlite_transaction::sqlite_transaction(sqlite3* db) : db_(db) {
  begun_ = sqlite_exec(db_, "BEGIN IMMEDIATE", &error_);
  if (!begun_) error_code_ = sqlite3_extended_errcode(db_);
}

sqlite_transaction::~sqlite_transaction() {
  if (begun_ && !done_) sqlite_exec(db_, "ROLLBACK", nullptr);
}

bool sqlite_transaction::commit(std::string* err) {
  if (!begun_) {
    if (err != nullptr) *err = error_;
    return false;
  }
  done_ = true;
  if (sqlite_exec(db_, "COMMIT", err)) return true;
  // Kept before the rollback, which would reset it: callers tell a full disk from a busy store.
  error_code_ = sqlite3_extended_errcode(db_);
  sqlite_exec(db_, "ROLLBACK", nullptr);
  return false;
}

}  // namespace tarn
