#include "convutils/CConvRegKey.h"

#include <cerrno>
#include <memory>

namespace tarn {
namespace {

long status_of_errno(int code) {
  switch (code) {
    case ENOENT:
    case ENOTDIR:
      return kErrorFileNotFound;
    case EACCES:
    case EPERM:
    case EROFS:
      return kErrorAccessDenied;
    default:
      return kErrorGenFailure;
  }
}

}  // namespace

CConvRegKey::CConvRegKey(reg_root root, std::string_view subkey, std::string_view value_name,
                         DWORD default_number)
    : root_(root),
      subkey_(subkey),
      value_name_(value_name),
      type_(kRegDword),
      default_number_(default_number) {}

CConvRegKey::CConvRegKey(reg_root root, std::string_view subkey, std::string_view value_name,
                         std::optional<std::string> default_text)
    : root_(root),
      subkey_(subkey),
      value_name_(value_name),
      type_(kRegSz),
      default_number_(0),
      default_text_(std::move(default_text)) {}

CConvRegKey::~CConvRegKey() = default;

long CConvRegKey::read_number(DWORD* value) {
  *value = default_number_;
  int code = 0;
  auto store = registry_store::open(root_, registry_store::access::read, nullptr, &code);
  if (!store) return status_of_errno(code);
  if (!store->key_exists(subkey_)) return kErrorFileNotFound;
  auto found = store->get(subkey_, value_name_);
  if (!found) return kErrorFileNotFound;
  if (found->data.size() > 4) return kErrorMoreData;
  DWORD number = 0;
  for (size_t i = 0; i < found->data.size(); ++i)
    number |= static_cast<DWORD>(static_cast<unsigned char>(found->data[i])) << (8 * i);
  *value = number;
  return kErrorSuccess;
}

DWORD CConvRegKey::read_as_number() {
  DWORD value = 0;
  read_number(&value);
  return value;
}

long CConvRegKey::write_number(DWORD value) { return write(kRegDword, reg_dword_bytes(value)); }

long CConvRegKey::write_text(std::string_view text) { return write(kRegSz, reg_sz_bytes(text)); }

long CConvRegKey::write(uint32_t type, std::string_view data) {
  int code = 0;
  auto store = registry_store::open(root_, registry_store::access::write, nullptr, &code);
  if (!store) return status_of_errno(code);
  return store->set(subkey_, value_name_, type, data, nullptr) ? kErrorSuccess : kErrorGenFailure;
}

const std::string* CConvRegKey::read_text() {
  read_text_.reset();
  if (auto store = registry_store::open(root_, registry_store::access::read, nullptr)) {
    auto found = store->get(subkey_, value_name_);
    if (found && found->data.size() >= 2) {
      // Whole UTF-16 units only, as a reader with a wide buffer would see them.
      read_text_ = reg_sz_text(std::string_view(found->data).substr(0, found->data.size() & ~1u));
      return &*read_text_;
    }
  }
  if (default_text_) {
    read_text_ = default_text_;
    return &*read_text_;
  }
  return nullptr;
}

}  // namespace tarn
