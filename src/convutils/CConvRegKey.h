// One registry value: root, key path, value name, type and default. The store is opened at
// each access and closed again; a read never fails for the caller, it gives the default.
// An object belongs to one thread; objects for the same value may live on several.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/registry_store.h"

namespace tarn {

using DWORD = uint32_t;

// Win32 status codes, as the registry calls return them.
constexpr long kErrorSuccess = 0;
constexpr long kErrorFileNotFound = 2;
constexpr long kErrorAccessDenied = 5;
constexpr long kErrorMoreData = 234;
constexpr long kErrorGenFailure = 31;

class CConvRegKey {
 public:
  // A REG_DWORD value.
  CConvRegKey(reg_root root, std::string_view subkey, std::string_view value_name,
              DWORD default_number);
  // A REG_SZ value; the default may be absent.
  CConvRegKey(reg_root root, std::string_view subkey, std::string_view value_name,
              std::optional<std::string> default_text);
  virtual ~CConvRegKey();
  CConvRegKey(const CConvRegKey&) = delete;
  CConvRegKey& operator=(const CConvRegKey&) = delete;

  // Sets *value in every case (the default when nothing is read) and returns the status.
  // Up to four bytes of any type read as a number; a longer value gives the default.
  long read_number(DWORD* value);
  DWORD read_as_number();
  bool read_as_bool() { return read_as_number() != 0; }
  // Creates the key path when missing. A failed write is lost; callers need not look.
  long write_number(DWORD value);

  // The text read (UTF-8), else the default text, else null. The pointer stays valid until
  // the next read_text() or the object's end. A value of fewer than 2 bytes reads as missing.
  const std::string* read_text();
  long write_text(std::string_view text);

  uint32_t type() const { return type_; }

 private:
  long write(uint32_t type, std::string_view data);

  const reg_root root_;
  const std::string subkey_;
  const std::string value_name_;
  const uint32_t type_;
  const DWORD default_number_;
  const std::optional<std::string> default_text_;
  std::optional<std::string> read_text_;
};

}  // namespace tarn
