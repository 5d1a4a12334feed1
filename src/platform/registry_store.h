// A typed key/value store with the registry's semantics, kept in one SQLite file per root:
// keys are backslash-separated paths compared without regard to ASCII case, each value has a
// name ("" is the key's default value), a type and raw data bytes. Text values are stored as
// the registry stores them, UTF-16LE with a terminating NUL, so sizes and type mix-ups behave
// alike. Several processes may read and write one file at once; SQLite serialises the writes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sqlite_handle.h"

namespace tarn {

enum class reg_root { current_user, local_machine };

constexpr uint32_t kRegSz = 1;
constexpr uint32_t kRegExpandSz = 2;
constexpr uint32_t kRegBinary = 3;
constexpr uint32_t kRegDword = 4;
constexpr uint32_t kRegMultiSz = 7;
constexpr uint32_t kRegQword = 11;

struct reg_value {
  std::string name;
  uint32_t type = 0;
  std::string data;  // raw bytes
};

// The file of a root: ${XDG_CONFIG_HOME:-~/.config}/vantu/registry.sqlite for the current user;
// $TARN_MACHINE_REGISTRY or /etc/vantu/registry.sqlite for the machine.
std::filesystem::path registry_file(reg_root root);

// "\\Software\\\\Vantu\\" -> "Software\\Vantu": no empty steps, no leading or trailing "\".
std::string normalize_reg_key(std::string_view key);

// UTF-8 <-> registry text bytes (UTF-16LE with a terminating NUL).
std::string reg_sz_bytes(std::string_view utf8);
// Decodes registry text bytes to UTF-8, stopping at the first NUL; an odd last byte is dropped.
std::string reg_sz_text(std::string_view bytes);
std::string reg_dword_bytes(uint32_t value);

class registry_store {
 public:
  enum class access { read, write };

  // Read access never creates anything: a missing file gives null with *err_code ENOENT.
  // Write access creates the folder and the file (0600 for the user store, 0644 for the machine
  // store). On failure: null, *err_code an errno value and *err a sentence with the path.
  static std::unique_ptr<registry_store> open(const std::filesystem::path& file, access mode,
                                              unsigned file_mode, std::string* err,
                                              int* err_code = nullptr);
  static std::unique_ptr<registry_store> open(reg_root root, access mode, std::string* err,
                                              int* err_code = nullptr);

  bool key_exists(std::string_view key);
  std::optional<reg_value> get(std::string_view key, std::string_view name);
  // Values of one key, sorted by name; the default value ("") first.
  std::vector<reg_value> values(std::string_view key);
  // Full paths of the direct subkeys, sorted.
  std::vector<std::string> subkeys(std::string_view key);

  // Writes create the key path as needed and run in one transaction each.
  bool create_key(std::string_view key, std::string* err);
  bool set(std::string_view key, std::string_view name, uint32_t type, std::string_view data,
           std::string* err);
  // False with *err empty when there was nothing to remove.
  bool remove_value(std::string_view key, std::string_view name, std::string* err);
  // Removes the key, its values and all keys below it.
  bool remove_key(std::string_view key, std::string* err);

 private:
  explicit registry_store(sqlite_db db) : db_(std::move(db)) {}
  bool ensure_key(const std::string& key, std::string* err);

  sqlite_db db_;
};

}  // namespace tarn
