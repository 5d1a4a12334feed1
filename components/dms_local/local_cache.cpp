#include "dms_local/local_cache.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "log/trace.h"
#include "platform/private_temp.h"

namespace tarn {
namespace {

constexpr const char* kCacheDir = "dms_local";
constexpr size_t kMaxFileName = 240;

std::optional<std::filesystem::path> cache_root(std::string* err) {
  auto temp = private_temp_dir(err);
  if (!temp) return std::nullopt;
  std::filesystem::path root = *temp / kCacheDir;
  if (::mkdir(root.c_str(), 0700) != 0 && errno != EEXIST) {
    *err = "can't create " + root.string() + ": " + std::strerror(errno);
    return std::nullopt;
  }
  return root;
}

// Cuts `text` to at most `limit` bytes without splitting a UTF-8 sequence.
std::string cut(const std::string& text, size_t limit) {
  if (text.size() <= limit) return text;
  size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

std::string clean(const std::string& text) {
  std::string out = text;
  for (char& c : out) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '/' || byte < 0x20 || byte == 0x7F) c = '_';
  }
  return out;
}

}  // namespace

std::string safe_file_name(const std::string& name, const std::string& extension) {
  std::string ext = cut(clean(extension), 32);
  std::string base = clean(name);
  if (base.empty() || base == "." || base == "..") base = "document";
  base = cut(base, kMaxFileName - (ext.empty() ? 0 : ext.size() + 1));
  return ext.empty() ? base : base + "." + ext;
}

local_cache::~local_cache() { remove_all(); }

copy_result local_cache::put(const std::filesystem::path& source, uint64_t item,
                             const std::string& name, const std::string& extension,
                             std::filesystem::path* path) {
  if (!session_) {
    copy_result failed;
    auto root = cache_root(&failed.text);
    if (!root) {
      failed.error = EACCES;
      return failed;
    }
    std::string pattern = (*root / (std::to_string(::getpid()) + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      failed.error = errno;
      failed.text = "can't create a folder in " + root->string() + ": " + std::strerror(errno);
      return failed;
    }
    session_ = pattern;
  }
  const std::filesystem::path dir = *session_ / std::to_string(item);
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    copy_result failed;
    failed.error = errno;
    failed.text = "can't create " + dir.string() + ": " + std::strerror(errno);
    return failed;
  }
  const std::filesystem::path target = dir / safe_file_name(name, extension);
  ::unlink(target.c_str());  // a copy the user removed or changed is fetched afresh
  copy_result result = copy_into_new_file(source, target, false);
  if (result.ok) {
    *path = target;
  } else {
    ::rmdir(dir.c_str());
  }
  return result;
}

void local_cache::remove(const std::filesystem::path& path) {
  // Only item folders of this session, whatever path a caller hands in.
  if (!session_ || path.parent_path().parent_path() != *session_) return;
  std::error_code ec;
  std::filesystem::remove_all(path.parent_path(), ec);
  if (ec)
    TARN_TRACE(kTraceWarning, "dms_local: can't remove %s: %s", path.parent_path().c_str(),
               ec.message().c_str());
}

void local_cache::remove_all() {
  if (!session_) return;
  std::error_code ec;
  std::filesystem::remove_all(*session_, ec);
  if (ec)
    TARN_TRACE(kTraceWarning, "dms_local: can't remove %s: %s", session_->c_str(),
               ec.message().c_str());
  session_.reset();
}

void local_cache::remove_abandoned() {
  std::string err;
  auto root = cache_root(&err);
  if (!root) return;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(*root, ec)) {
    const std::string name = entry.path().filename().string();
    int pid = 0;
    auto [end, parse_error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (parse_error != std::errc() || end == name.data() + name.size() || *end != '-' || pid <= 0)
      continue;
    if (::kill(pid, 0) == 0 || errno != ESRCH) continue;
    std::error_code remove_error;
    std::filesystem::remove_all(entry.path(), remove_error);
  }
}

}  // namespace tarn
