#include "platform/registry_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/unique_fd.h"
#include "platform/user_dirs.h"

namespace tarn {
namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS reg_keys("
    "  path TEXT PRIMARY KEY COLLATE NOCASE) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS reg_values("
    "  key TEXT NOT NULL COLLATE NOCASE,"
    "  name TEXT NOT NULL COLLATE NOCASE,"
    "  type INTEGER NOT NULL,"
    "  data BLOB NOT NULL,"
    "  PRIMARY KEY(key, name)) WITHOUT ROWID;"
    "PRAGMA user_version = 1;";

// A WHERE clause matching the key ?1 itself and every key below it, on `column`.
std::string subtree_filter(const std::string& column) {
  return "(" + column + " = ?1 OR (length(" + column + ") > length(?1) AND substr(" + column +
         ", 1, length(?1) + 1) = (?1 || '\\') COLLATE NOCASE))";
}

void append_utf16le(std::string& out, uint32_t unit) {
  out.push_back(static_cast<char>(unit & 0xFF));
  out.push_back(static_cast<char>((unit >> 8) & 0xFF));
}

void append_utf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

std::filesystem::path registry_file(reg_root root) {
  if (root == reg_root::current_user) return xdg_config_home() / "vantu" / "registry.sqlite";
  if (const char* file = std::getenv("TARN_MACHINE_REGISTRY"); file != nullptr && file[0] != '\0')
    return file;
  return "/etc/vantu/registry.sqlite";
}

std::string normalize_reg_key(std::string_view key) {
  std::string out;
  size_t pos = 0;
  while (pos <= key.size()) {
    size_t end = key.find('\\', pos);
    if (end == std::string_view::npos) end = key.size();
    if (end > pos) {
      if (!out.empty()) out += '\\';
      out.append(key.substr(pos, end - pos));
    }
    pos = end + 1;
  }
  return out;
}

std::string reg_sz_bytes(std::string_view utf8) {
  std::string out;
  out.reserve(utf8.size() * 2 + 2);
  for (size_t i = 0; i < utf8.size();) {
    auto byte = static_cast<unsigned char>(utf8[i]);
    uint32_t cp = 0xFFFD;
    size_t len = 1;
    if (byte < 0x80) {
      cp = byte;
    } else if ((byte & 0xE0) == 0xC0) {
      len = 2;
    } else if ((byte & 0xF0) == 0xE0) {
      len = 3;
    } else if ((byte & 0xF8) == 0xF0) {
      len = 4;
    }
    if (len > 1) {
      if (i + len > utf8.size()) {
        len = utf8.size() - i;
      } else {
        cp = byte & (0x7F >> len);
        for (size_t k = 1; k < len; ++k) {
          auto next = static_cast<unsigned char>(utf8[i + k]);
          if ((next & 0xC0) != 0x80) {
            cp = 0xFFFD;
            len = k;
            break;
          }
          cp = (cp << 6) | (next & 0x3F);
        }
      }
    }
    if (cp >= 0x10000 && cp <= 0x10FFFF) {
      cp -= 0x10000;
      append_utf16le(out, 0xD800 | (cp >> 10));
      append_utf16le(out, 0xDC00 | (cp & 0x3FF));
    } else {
      append_utf16le(out, cp > 0x10FFFF ? 0xFFFD : cp);
    }
    i += len;
  }
  append_utf16le(out, 0);
  return out;
}

std::string reg_sz_text(std::string_view bytes) {
  std::string out;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    uint32_t unit = static_cast<unsigned char>(bytes[i]) |
                    (static_cast<uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8);
    if (unit == 0) break;
    if (unit >= 0xD800 && unit <= 0xDBFF && i + 3 < bytes.size()) {
      uint32_t low = static_cast<unsigned char>(bytes[i + 2]) |
                     (static_cast<uint32_t>(static_cast<unsigned char>(bytes[i + 3])) << 8);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        append_utf8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
        i += 2;
        continue;
      }
    }
    append_utf8(out, (unit >= 0xD800 && unit <= 0xDFFF) ? 0xFFFD : unit);
  }
  return out;
}

std::string reg_dword_bytes(uint32_t value) {
  std::string out(4, '\0');
  for (int i = 0; i < 4; ++i) out[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
  return out;
}

std::unique_ptr<registry_store> registry_store::open(const std::filesystem::path& file,
                                                     access mode, unsigned file_mode,
                                                     std::string* err, int* err_code) {
  auto fail = [&](int code, const std::string& what) -> std::unique_ptr<registry_store> {
    if (err_code != nullptr) *err_code = code;
    if (err != nullptr) *err = what;
    return nullptr;
  };
  if (mode == access::read) {
    if (::access(file.c_str(), R_OK) != 0)
      return fail(errno, file.string() + ": " + std::strerror(errno));
    std::string why;
    sqlite_db db = sqlite_open(file.string(), SQLITE_OPEN_READONLY, &why);
    if (!db) return fail(EIO, why);
    return std::unique_ptr<registry_store>(new registry_store(std::move(db)));
  }

  const unsigned dir_mode = (file_mode & 077) == 0 ? 0700 : 0755;
  if (!make_dirs(file.parent_path(), dir_mode))
    return fail(errno, file.parent_path().string() + ": " + std::strerror(errno));
  // Created here rather than by SQLite so that the mode is right from the first byte;
  // SQLite gives its journal the mode of the database file.
  unique_fd fd(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, file_mode));
  if (!fd) return fail(errno, file.string() + ": " + std::strerror(errno));
  struct stat st;
  if (::fstat(fd.get(), &st) == 0 && st.st_uid == ::geteuid() && (st.st_mode & 0777) != file_mode)
    ::fchmod(fd.get(), file_mode);
  fd.reset();

  std::string why;
  sqlite_db db = sqlite_open(file.string(), SQLITE_OPEN_READWRITE, &why);
  if (!db) return fail(EIO, why);
  if (!sqlite_exec(db.get(), kSchema, &why)) {
    int code = sqlite3_extended_errcode(db.get());
    return fail(code == SQLITE_READONLY || (code & 0xFF) == SQLITE_READONLY ? EROFS : EIO,
                file.string() + ": " + why);
  }
  return std::unique_ptr<registry_store>(new registry_store(std::move(db)));
}

std::unique_ptr<registry_store> registry_store::open(reg_root root, access mode, std::string* err,
                                                     int* err_code) {
  return open(registry_file(root), mode, root == reg_root::current_user ? 0600 : 0644, err,
              err_code);
}

bool registry_store::key_exists(std::string_view key) {
  auto stmt = sqlite_prepare(db_.get(), "SELECT 1 FROM reg_keys WHERE path = ?1", nullptr);
  if (!stmt) return false;
  sqlite_bind_text(stmt.get(), 1, normalize_reg_key(key));
  return sqlite3_step(stmt.get()) == SQLITE_ROW;
}

std::optional<reg_value> registry_store::get(std::string_view key, std::string_view name) {
  auto stmt = sqlite_prepare(
      db_.get(), "SELECT name, type, data FROM reg_values WHERE key = ?1 AND name = ?2", nullptr);
  if (!stmt) return std::nullopt;
  sqlite_bind_text(stmt.get(), 1, normalize_reg_key(key));
  sqlite_bind_text(stmt.get(), 2, name);
  if (sqlite3_step(stmt.get()) != SQLITE_ROW) return std::nullopt;
  return reg_value{sqlite_column_text(stmt.get(), 0),
                   static_cast<uint32_t>(sqlite3_column_int64(stmt.get(), 1)),
                   sqlite_column_blob(stmt.get(), 2)};
}

std::vector<reg_value> registry_store::values(std::string_view key) {
  std::vector<reg_value> out;
  auto stmt = sqlite_prepare(
      db_.get(), "SELECT name, type, data FROM reg_values WHERE key = ?1 ORDER BY name", nullptr);
  if (!stmt) return out;
  sqlite_bind_text(stmt.get(), 1, normalize_reg_key(key));
  while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
    out.push_back({sqlite_column_text(stmt.get(), 0),
                   static_cast<uint32_t>(sqlite3_column_int64(stmt.get(), 1)),
                   sqlite_column_blob(stmt.get(), 2)});
  }
  return out;
}

std::vector<std::string> registry_store::subkeys(std::string_view key) {
  std::vector<std::string> out;
  const std::string parent = normalize_reg_key(key);
  auto stmt = sqlite_prepare(db_.get(),
                             "SELECT path FROM reg_keys WHERE length(path) > length(?1) + 1 AND "
                             "substr(path, 1, length(?1) + 1) = (?1 || '\\') COLLATE NOCASE AND "
                             "instr(substr(path, length(?1) + 2), '\\') = 0 ORDER BY path",
                             nullptr);
  if (!stmt) return out;
  sqlite_bind_text(stmt.get(), 1, parent);
  while (sqlite3_step(stmt.get()) == SQLITE_ROW) out.push_back(sqlite_column_text(stmt.get(), 0));
  return out;
}

bool registry_store::ensure_key(const std::string& key, std::string* err) {
  auto stmt =
      sqlite_prepare(db_.get(), "INSERT OR IGNORE INTO reg_keys(path) VALUES(?1)", err);
  if (!stmt) return false;
  size_t pos = 0;
  while (true) {
    size_t end = key.find('\\', pos);
    sqlite3_reset(stmt.get());
    sqlite_bind_text(stmt.get(), 1, key.substr(0, end));
    if (sqlite3_step(stmt.get()) != SQLITE_DONE) {
      if (err != nullptr) *err = sqlite3_errmsg(db_.get());
      return false;
    }
    if (end == std::string::npos) return true;
    pos = end + 1;
  }
}

bool registry_store::create_key(std::string_view key, std::string* err) {
  const std::string path = normalize_reg_key(key);
  if (path.empty()) return true;
  sqlite_transaction tx(db_.get());
  return ensure_key(path, err) && tx.commit(err);
}

bool registry_store::set(std::string_view key, std::string_view name, uint32_t type,
                         std::string_view data, std::string* err) {
  const std::string path = normalize_reg_key(key);
  sqlite_transaction tx(db_.get());
  if (!tx.begun()) {
    if (err != nullptr) *err = tx.error();
    return false;
  }
  if (!path.empty() && !ensure_key(path, err)) return false;
  auto stmt = sqlite_prepare(
      db_.get(), "INSERT OR REPLACE INTO reg_values(key, name, type, data) VALUES(?1, ?2, ?3, ?4)",
      err);
  if (!stmt) return false;
  sqlite_bind_text(stmt.get(), 1, path);
  sqlite_bind_text(stmt.get(), 2, name);
  sqlite3_bind_int64(stmt.get(), 3, type);
  sqlite3_bind_blob(stmt.get(), 4, data.data(), static_cast<int>(data.size()), SQLITE_TRANSIENT);
  if (sqlite3_step(stmt.get()) != SQLITE_DONE) {
    if (err != nullptr) *err = sqlite3_errmsg(db_.get());
    return false;
  }
  return tx.commit(err);
}

bool registry_store::remove_value(std::string_view key, std::string_view name, std::string* err) {
  auto stmt =
      sqlite_prepare(db_.get(), "DELETE FROM reg_values WHERE key = ?1 AND name = ?2", err);
  if (!stmt) return false;
  sqlite_bind_text(stmt.get(), 1, normalize_reg_key(key));
  sqlite_bind_text(stmt.get(), 2, name);
  if (sqlite3_step(stmt.get()) != SQLITE_DONE) {
    if (err != nullptr) *err = sqlite3_errmsg(db_.get());
    return false;
  }
  if (sqlite3_changes(db_.get()) == 0) {
    if (err != nullptr) err->clear();
    return false;
  }
  return true;
}

bool registry_store::remove_key(std::string_view key, std::string* err) {
  const std::string path = normalize_reg_key(key);
  sqlite_transaction tx(db_.get());
  if (!tx.begun()) {
    if (err != nullptr) *err = tx.error();
    return false;
  }
  auto keys = sqlite_prepare(db_.get(), "DELETE FROM reg_keys WHERE " + subtree_filter("path"), err);
  auto vals = sqlite_prepare(db_.get(), "DELETE FROM reg_values WHERE " + subtree_filter("key"), err);
  if (!keys || !vals) return false;
  sqlite_bind_text(keys.get(), 1, path);
  sqlite_bind_text(vals.get(), 1, path);
  if (sqlite3_step(keys.get()) != SQLITE_DONE) {
    if (err != nullptr) *err = sqlite3_errmsg(db_.get());
    return false;
  }
  const int removed = sqlite3_changes(db_.get());
  if (sqlite3_step(vals.get()) != SQLITE_DONE) {
    if (err != nullptr) *err = sqlite3_errmsg(db_.get());
    return false;
  }
  if (removed == 0 && sqlite3_changes(db_.get()) == 0) {
    if (err != nullptr) err->clear();
    return false;
  }
  return tx.commit(err);
}

}  // namespace tarn
