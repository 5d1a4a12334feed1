// File steps shared by the store, the connector's cache and tarnctl: copying a file into a new
// one, syncing a folder, naming temporary files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace tarn {

struct copy_result {
  bool ok = false;
  int64_t size = 0;  // bytes copied
  int error = 0;     // errno of the failed step
  std::string text;  // the step and path at fault, with strerror
};

// Copies the regular file `source` into `target`, which must not exist yet, with mode 0600.
// With `sync` the data reaches the disk before this returns. On failure `target` is removed.
copy_result copy_into_new_file(const std::filesystem::path& source,
                               const std::filesystem::path& target, bool sync);

// Makes a new name in `dir` durable. False (errno set) on failure.
bool sync_dir(const std::filesystem::path& dir);

// `bytes` random bytes as lower-case hex.
std::string random_hex(size_t bytes);

}  // namespace tarn
