#include "dms_local/local_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "dms_local/doc_ref.h"
#include "dms_local/file_copy.h"
#include "log/trace.h"
#include "platform/unique_fd.h"
#include "platform/user_dirs.h"

namespace tarn {
namespace {

constexpr const char* kCatalogue = "catalogue.sqlite";
constexpr const char* kContentDir = "content";
// Content waits here from its first byte until its rows are committed; see write_version.
constexpr const char* kIncomingDir = "incoming";
constexpr int kSchemaVersion = 1;
// A writer holds the lock while it copies a file in, so others wait longer than SQLite's usual.
constexpr int kBusyTimeoutMs = 60000;

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS documents("
    "  number INTEGER PRIMARY KEY AUTOINCREMENT,"
    "  folder TEXT NOT NULL);"
    "CREATE INDEX IF NOT EXISTS documents_by_folder ON documents(folder);"
    "CREATE TABLE IF NOT EXISTS versions("
    "  number INTEGER NOT NULL REFERENCES documents(number),"
    "  version INTEGER NOT NULL,"
    "  name TEXT NOT NULL,"
    "  extension TEXT NOT NULL,"
    "  size INTEGER NOT NULL,"
    "  created TEXT NOT NULL,"
    "  content TEXT NOT NULL UNIQUE,"
    "  PRIMARY KEY(number, version)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS related("
    "  from_number INTEGER NOT NULL REFERENCES documents(number),"
    "  to_number INTEGER NOT NULL REFERENCES documents(number),"
    "  PRIMARY KEY(from_number, to_number)) WITHOUT ROWID;"
    "PRAGMA user_version = 1;";

// Columns read by read_version(), over "documents d JOIN versions v".
constexpr const char* kVersionColumns =
    "d.number, v.version, v.name, v.extension, d.folder, v.size, v.created, v.content, "
    "(SELECT count(*) FROM versions c WHERE c.number = d.number)";
constexpr const char* kLatestVersion =
    "v.version = (SELECT max(version) FROM versions WHERE number = d.number)";

stored_version read_version(sqlite3_stmt* stmt, const std::string& library, int first) {
  stored_version v;
  v.library = library;
  v.number = sqlite3_column_int64(stmt, first);
  v.version = sqlite3_column_int(stmt, first + 1);
  v.name = sqlite_column_text(stmt, first + 2);
  v.extension = sqlite_column_text(stmt, first + 3);
  v.folder = sqlite_column_text(stmt, first + 4);
  v.size = sqlite3_column_int64(stmt, first + 5);
  v.created = sqlite_column_text(stmt, first + 6);
  v.content = sqlite_column_text(stmt, first + 7);
  v.version_count = sqlite3_column_int(stmt, first + 8);
  return v;
}

// Reads kVersionColumns of the versions that `rest` (a WHERE clause and more) picks.
sqlite_stmt select_versions(sqlite3* db, const std::string& rest) {
  return sqlite_prepare(db,
                        std::string("SELECT ") + kVersionColumns +
                            " FROM documents d JOIN versions v ON v.number = d.number WHERE " +
                            rest,
                        nullptr);
}

// Steps through `stmt`, a version a row, into *out; SQLITE_DONE when all were read.
int read_versions(sqlite3_stmt* stmt, const std::string& library,
                  std::vector<stored_version>* out) {
  out->clear();
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) out->push_back(read_version(stmt, library, 0));
  return rc;
}

store_status fail(store_status status, std::string* err, std::string text) {
  if (err != nullptr) *err = std::move(text);
  return status;
}

std::string utc_now() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&now, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

// Test hook: TARN_DMS_TEST_STALL="<point>:<fd>" stops a write at <point>, tells the test by
// writing one byte to fd, and waits there to be killed.
void stall_here_for_test(std::string_view point) {
  const char* stall = std::getenv("TARN_DMS_TEST_STALL");
  if (stall == nullptr) return;
  const std::string_view text(stall);
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos || text.substr(0, colon) != point) return;
  int fd = -1;
  std::from_chars(text.data() + colon + 1, text.data() + text.size(), fd);
  if (fd < 0) return;
  [[maybe_unused]] ssize_t n = ::write(fd, "s", 1);
  while (true) ::pause();
}

// BEGIN IMMEDIATE, rolled back unless committed. Unlike sqlite_transaction it rolls back only
// when it ends, so that the cause of a failed COMMIT (a full disk) can still be read.
class write_transaction {
 public:
  explicit write_transaction(sqlite3* db)
      : db_(db), open_(sqlite_exec(db, "BEGIN IMMEDIATE", nullptr)) {}
  ~write_transaction() {
    if (open_ && sqlite3_get_autocommit(db_) == 0) sqlite_exec(db_, "ROLLBACK", nullptr);
  }
  write_transaction(const write_transaction&) = delete;
  write_transaction& operator=(const write_transaction&) = delete;

  bool begun() const { return open_; }
  bool commit() {
    if (!sqlite_exec(db_, "COMMIT", nullptr)) return false;
    open_ = false;
    return true;
  }

 private:
  sqlite3* db_;
  bool open_;
};

bool folder_is_empty(const std::filesystem::path& dir) {
  std::error_code ec;
  return std::filesystem::directory_iterator(dir, ec) == std::filesystem::directory_iterator();
}

}  // namespace

store_status status_of_errno(int error) {
  switch (error) {
    case ENOENT:
      return store_status::not_found;
    case EACCES:
    case EPERM:
    case EROFS:
      return store_status::read_only;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return store_status::no_space;
    case EISDIR:
    case EINVAL:
      return store_status::invalid;
    default:
      return store_status::failed;
  }
}

std::string stored_version::ref() const { return format_doc_ref(library, number, version); }

std::string stored_version::file_name() const {
  return extension.empty() ? name : name + "." + extension;
}

std::filesystem::path local_store::root_dir() { return xdg_data_home() / "vantu" / "dms"; }

std::vector<std::string> local_store::libraries() {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(root_dir(), ec)) {
    const std::string name = entry.path().filename().string();
    if (valid_library_name(name) && std::filesystem::exists(entry.path() / kCatalogue, ec))
      out.push_back(name);
  }
  std::sort(out.begin(), out.end());
  return out;
}

local_store::local_store(std::string library, std::filesystem::path dir, sqlite_db db)
    : library_(std::move(library)), dir_(std::move(dir)), db_(std::move(db)) {}

local_store::~local_store() = default;

std::unique_ptr<local_store> local_store::open(const std::string& library, bool create,
                                               store_status* status, std::string* err) {
  auto refuse = [&](store_status why, std::string text) -> std::unique_ptr<local_store> {
    const store_status failed = fail(why, err, std::move(text));
    if (status != nullptr) *status = failed;
    return nullptr;
  };
  if (!valid_library_name(library))
    return refuse(store_status::invalid,
                  "\"" + library + "\" is no library name (a-z, 0-9, '-', '_', up to 64)");
  const std::filesystem::path dir = root_dir() / library;
  const std::filesystem::path catalogue = dir / kCatalogue;
  struct stat st;
  const bool exists = ::stat(catalogue.c_str(), &st) == 0;
  if (!exists && errno != ENOENT)
    return refuse(status_of_errno(errno),
                  "can't read " + catalogue.string() + ": " + std::strerror(errno));
  if (!exists && create) {
    for (const auto& sub : {dir / kContentDir, dir / kIncomingDir}) {
      if (!make_dirs(sub, 0700))
        return refuse(status_of_errno(errno),
                      "can't create " + sub.string() + ": " + std::strerror(errno));
    }
    // Made here rather than by SQLite so that the catalogue, and the journals SQLite makes
    // with its mode, are the user's alone from the first byte.
    unique_fd fd(::open(catalogue.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!fd)
      return refuse(status_of_errno(errno),
                    "can't create " + catalogue.string() + ": " + std::strerror(errno));
  } else if (!exists) {
    return refuse(store_status::not_found,
                  "no library \"" + library + "\" (" + catalogue.string() + " is missing)");
  }

  std::string why;
  sqlite_db db = sqlite_open(catalogue.string(), SQLITE_OPEN_READWRITE, &why);
  if (!db) return refuse(store_status::failed, why);
  sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
  std::unique_ptr<local_store> store(new local_store(library, dir, std::move(db)));
  sqlite3* raw = store->db_.get();
  auto sqlite_refusal = [&](const char* what) {
    std::string text;
    const store_status why_status = store->sqlite_failure(what, &text);
    return refuse(why_status, text);
  };
  if (!sqlite_exec(raw, "PRAGMA foreign_keys = ON; PRAGMA synchronous = FULL;", &why))
    return sqlite_refusal("can't set up");

  int schema = -1;
  if (auto stmt = sqlite_prepare(raw, "PRAGMA user_version", &why);
      stmt && sqlite3_step(stmt.get()) == SQLITE_ROW)
    schema = sqlite3_column_int(stmt.get(), 0);
  if (schema < 0) return sqlite_refusal("can't read");
  if (schema > kSchemaVersion)
    return refuse(store_status::failed, catalogue.string() + " was made by a newer version");
  if (schema == 0) {
    if (!create)
      return refuse(store_status::not_found,
                    "no library \"" + library + "\" (" + catalogue.string() + " is empty)");
    sqlite_transaction tx(raw);
    if (!tx.begun() || !sqlite_exec(raw, kSchema, &why) || !tx.commit(&why))
      return sqlite_refusal("can't create the catalogue");
  }

  // Tidy up after a writer that died, unless another one is at work right now.
  if (!folder_is_empty(dir / kIncomingDir) && sqlite3_db_readonly(raw, "main") == 0) {
    sqlite3_busy_timeout(raw, 0);
    sqlite_transaction tx(raw);
    if (tx.begun()) {
      store->finish_interrupted_writes();
      tx.commit(nullptr);
    }
    sqlite3_busy_timeout(raw, kBusyTimeoutMs);
  }
  if (status != nullptr) *status = store_status::ok;
  return store;
}

store_status local_store::sqlite_failure(const std::string& what, std::string* err) const {
  const int code = sqlite3_extended_errcode(db_.get());
  const int error = sqlite3_system_errno(db_.get());
  store_status status = store_status::failed;
  switch (code & 0xFF) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      status = store_status::busy;
      break;
    case SQLITE_READONLY:
      status = store_status::read_only;
      break;
    case SQLITE_FULL:
      status = store_status::no_space;
      break;
    case SQLITE_CANTOPEN:
    case SQLITE_IOERR:
      if (status_of_errno(error) == store_status::read_only ||
          status_of_errno(error) == store_status::no_space)
        status = status_of_errno(error);
      break;
  }
  std::string text = what + " " + (dir_ / kCatalogue).string() + ": " + sqlite3_errmsg(db_.get());
  if (error != 0 && (code & 0xFF) != SQLITE_BUSY)
    text += std::string(" (") + std::strerror(error) + ")";
  return fail(status, err, std::move(text));
}

store_status local_store::find(int64_t number, int32_t version, stored_version* out,
                               std::string* err) {
  auto stmt = select_versions(db_.get(), std::string("d.number = ?1 AND (CASE WHEN ?2 = 0 THEN ") +
                                             kLatestVersion + " ELSE v.version = ?2 END)");
  if (!stmt) return sqlite_failure("can't read", err);
  sqlite3_bind_int64(stmt.get(), 1, number);
  sqlite3_bind_int(stmt.get(), 2, version);
  const int rc = sqlite3_step(stmt.get());
  if (rc == SQLITE_ROW) {
    *out = read_version(stmt.get(), library_, 0);
    return store_status::ok;
  }
  if (rc != SQLITE_DONE) return sqlite_failure("can't read", err);
  return fail(store_status::not_found, err,
              "no document " + format_doc_ref(library_, number, version) + " in library \"" +
                  library_ + "\"");
}

store_status local_store::list(const std::optional<std::string>& folder,
                               std::vector<stored_version>* out, std::string* err) {
  auto stmt =
      select_versions(db_.get(), std::string(kLatestVersion) +
                                     " AND (?1 IS NULL OR d.folder = ?1) ORDER BY d.number");
  if (!stmt) return sqlite_failure("can't read", err);
  if (folder) sqlite_bind_text(stmt.get(), 1, *folder);
  if (read_versions(stmt.get(), library_, out) != SQLITE_DONE)
    return sqlite_failure("can't read", err);
  return store_status::ok;
}

store_status local_store::versions(int64_t number, std::vector<stored_version>* out,
                                   std::string* err) {
  auto stmt = select_versions(db_.get(), "d.number = ?1 ORDER BY v.version");
  if (!stmt) return sqlite_failure("can't read", err);
  sqlite3_bind_int64(stmt.get(), 1, number);
  if (read_versions(stmt.get(), library_, out) != SQLITE_DONE)
    return sqlite_failure("can't read", err);
  if (out->empty())
    return fail(store_status::not_found, err,
                "no document " + std::to_string(number) + " in library \"" + library_ + "\"");
  return store_status::ok;
}

store_status local_store::related(int64_t number, std::vector<related_document>* out,
                                  std::string* err) {
  stored_version self;
  if (store_status status = find(number, 0, &self, err); status != store_status::ok) return status;
  const std::string columns = kVersionColumns;
  const std::string latest = kLatestVersion;
  auto stmt = sqlite_prepare(db_.get(),
                             "SELECT 'source', " + columns +
                                 " FROM related r JOIN documents d ON d.number = r.to_number"
                                 " JOIN versions v ON v.number = d.number AND " +
                                 latest +
                                 " WHERE r.from_number = ?1"
                                 " UNION ALL SELECT 'derived', " +
                                 columns +
                                 " FROM related r JOIN documents d ON d.number = r.from_number"
                                 " JOIN versions v ON v.number = d.number AND " +
                                 latest + " WHERE r.to_number = ?1 ORDER BY 2",
                             nullptr);
  if (!stmt) return sqlite_failure("can't read", err);
  sqlite3_bind_int64(stmt.get(), 1, number);
  out->clear();
  int rc;
  while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW)
    out->push_back({sqlite_column_text(stmt.get(), 0), read_version(stmt.get(), library_, 1)});
  return rc == SQLITE_DONE ? store_status::ok : sqlite_failure("can't read", err);
}

std::filesystem::path local_store::content_path(const stored_version& v) const {
  std::filesystem::path path = dir_ / kContentDir / v.content;
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) {
    std::filesystem::path waiting = dir_ / kIncomingDir / v.content;
    if (std::filesystem::exists(waiting, ec)) return waiting;
  }
  return path;
}

store_status local_store::add_document(const new_content& content,
                                       std::optional<int64_t> related_to, stored_version* out,
                                       std::string* err) {
  return write_version(std::nullopt, content, related_to, out, err);
}

store_status local_store::add_version(int64_t number, const new_content& content,
                                      stored_version* out, std::string* err) {
  return write_version(number, content, std::nullopt, out, err);
}

// The order makes every crash safe. Content is copied into incoming/ and synced while this
// process holds the catalogue's write lock, then the rows are committed, then the file moves
// to content/. Whoever takes the lock next finds in incoming/ only files of dead writers: one
// without a row never got committed and is deleted; one with a row is moved on.
store_status local_store::write_version(std::optional<int64_t> number, const new_content& content,
                                        std::optional<int64_t> related_to, stored_version* out,
                                        std::string* err) {
  if (!valid_doc_name(content.name))
    return fail(store_status::invalid, err, "\"" + content.name + "\" is no document name");
  if (!valid_extension(content.extension))
    return fail(store_status::invalid, err, "\"" + content.extension + "\" is no extension");
  if (!valid_folder(content.folder))
    return fail(store_status::invalid, err, "\"" + content.folder + "\" is no folder name");
  sqlite3* db = db_.get();
  if (sqlite3_db_readonly(db, "main") == 1)
    return fail(store_status::read_only, err,
                "can't write " + (dir_ / kCatalogue).string() + ": the catalogue is read-only");

  write_transaction tx(db);
  if (!tx.begun()) return sqlite_failure("can't lock", err);
  finish_interrupted_writes();

  stored_version v;
  v.library = library_;
  v.name = content.name;
  v.extension = content.extension;
  v.created = utc_now();
  if (related_to) {
    stored_version source;
    if (store_status status = find(*related_to, 0, &source, err); status != store_status::ok)
      return status;
  }
  if (number) {
    stored_version latest;
    if (store_status status = find(*number, 0, &latest, err); status != store_status::ok)
      return status;
    v.number = *number;
    v.version = latest.version + 1;
    v.folder = latest.folder;
    v.version_count = latest.version_count + 1;
  } else {
    auto insert = sqlite_prepare(db, "INSERT INTO documents(folder) VALUES(?1)", nullptr);
    if (!insert) return sqlite_failure("can't write", err);
    sqlite_bind_text(insert.get(), 1, content.folder);
    if (sqlite3_step(insert.get()) != SQLITE_DONE) return sqlite_failure("can't write", err);
    v.number = sqlite3_last_insert_rowid(db);
    v.version = 1;
    v.folder = content.folder;
    v.version_count = 1;
  }
  v.content = std::to_string(v.number) + "." + std::to_string(v.version) + "-" + random_hex(8);

  const std::filesystem::path incoming = dir_ / kIncomingDir / v.content;
  copy_result copied = copy_into_new_file(content.source, incoming, true);
  if (!copied.ok) return fail(status_of_errno(copied.error), err, copied.text);
  auto drop_incoming = [&] { ::unlink(incoming.c_str()); };
  if (!sync_dir(dir_ / kIncomingDir)) {
    const int error = errno;
    drop_incoming();
    return fail(status_of_errno(error), err,
                "can't sync " + (dir_ / kIncomingDir).string() + ": " + std::strerror(error));
  }
  v.size = copied.size;

  auto insert = sqlite_prepare(db,
                               "INSERT INTO versions(number, version, name, extension, size, "
                               "created, content) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)",
                               nullptr);
  bool written = insert != nullptr;
  if (written) {
    sqlite3_bind_int64(insert.get(), 1, v.number);
    sqlite3_bind_int(insert.get(), 2, v.version);
    sqlite_bind_text(insert.get(), 3, v.name);
    sqlite_bind_text(insert.get(), 4, v.extension);
    sqlite3_bind_int64(insert.get(), 5, v.size);
    sqlite_bind_text(insert.get(), 6, v.created);
    sqlite_bind_text(insert.get(), 7, v.content);
    written = sqlite3_step(insert.get()) == SQLITE_DONE;
  }
  if (written && related_to) {
    auto link = sqlite_prepare(
        db, "INSERT OR IGNORE INTO related(from_number, to_number) VALUES(?1, ?2)", nullptr);
    written = link != nullptr;
    if (written) {
      sqlite3_bind_int64(link.get(), 1, v.number);
      sqlite3_bind_int64(link.get(), 2, *related_to);
      written = sqlite3_step(link.get()) == SQLITE_DONE;
    }
  }
  if (!written) {
    drop_incoming();
    return sqlite_failure("can't write", err);
  }
  stall_here_for_test("before-commit");
  if (!tx.commit()) {
    const store_status status = sqlite_failure("can't commit", err);
    drop_incoming();
    return status;
  }
  stall_here_for_test("after-commit");
  const std::filesystem::path final_path = dir_ / kContentDir / v.content;
  if (::rename(incoming.c_str(), final_path.c_str()) != 0) {
    // Committed all the same: content_path() finds the file where it is, and the next writer
    // moves it on.
    TARN_TRACE(kTraceWarning, "dms_local: can't move %s to %s: %s", incoming.c_str(),
               final_path.c_str(), std::strerror(errno));
  }
  *out = std::move(v);
  return store_status::ok;
}

// Runs under the write lock, so no live writer has a file in incoming/.
void local_store::finish_interrupted_writes() {
  const std::filesystem::path incoming = dir_ / kIncomingDir;
  if (folder_is_empty(incoming)) return;
  auto known = sqlite_prepare(db_.get(), "SELECT 1 FROM versions WHERE content = ?1", nullptr);
  if (!known) return;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(incoming, ec)) {
    const std::string name = entry.path().filename().string();
    sqlite3_reset(known.get());
    sqlite_bind_text(known.get(), 1, name);
    const int rc = sqlite3_step(known.get());
    if (rc == SQLITE_ROW) {
      const std::filesystem::path target = dir_ / kContentDir / name;
      if (::rename(entry.path().c_str(), target.c_str()) != 0)
        TARN_TRACE(kTraceWarning, "dms_local: can't move %s to %s: %s", entry.path().c_str(),
                   target.c_str(), std::strerror(errno));
    } else if (rc == SQLITE_DONE) {
      TARN_TRACE(kTraceWarning, "dms_local: removing %s, left by an interrupted write",
                 entry.path().c_str());
      ::unlink(entry.path().c_str());
    }
  }
}

}  // namespace tarn
