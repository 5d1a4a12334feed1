#include "platform/trusted_path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarn {
namespace {

namespace fs = std::filesystem;

// Checks `path` and each folder above it as they are, without following links; *linked
// tells whether a link was passed on the way.
bool trusted_steps(const fs::path& path, bool* linked, std::string* why) {
  for (fs::path step = path;; step = step.parent_path()) {
    struct stat st;
    if (::lstat(step.c_str(), &st) != 0) {
      *why = step.string() + ": " + std::strerror(errno);
      return false;
    }
    if (S_ISLNK(st.st_mode)) {
      // A link's own mode means nothing; who may replace it is the folder's matter.
      *linked = true;
    } else if (st.st_uid != 0 && st.st_uid != ::getuid()) {
      *why = step.string() + " belongs to uid " + std::to_string(st.st_uid) +
             ", neither root nor this user";
      return false;
    } else if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 &&
               !(S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX) != 0 && st.st_uid == 0)) {
      *why = step.string() + " can be written by " +
             ((st.st_mode & S_IWOTH) != 0 ? "others" : "its group");
      return false;
    }
    if (step == step.root_path()) return true;
  }
}

}  // namespace

bool trusted_path(const fs::path& path, std::string* why) {
  std::string reason;
  auto refuse = [&](std::string text) {
    if (why != nullptr) *why = std::move(text);
    return false;
  };
  if (!path.is_absolute()) return refuse(path.string() + " is not an absolute path");
  const fs::path normal = path.lexically_normal();
  bool linked = false;
  if (!trusted_steps(normal, &linked, &reason)) return refuse(std::move(reason));
  if (linked) {
    std::error_code ec;
    const fs::path real = fs::canonical(normal, ec);
    if (ec) return refuse(normal.string() + ": " + ec.message());
    if (!trusted_steps(real, &linked, &reason)) return refuse(std::move(reason));
  }
  struct stat st;
  if (::stat(normal.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
    return refuse(normal.string() + " is not a file");
  return true;
}

}  // namespace tarn
