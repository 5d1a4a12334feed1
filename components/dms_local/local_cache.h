// The connector's local copies of opened documents, in the user's private temporary folder:
// <tmp>/dms_local/<pid>-XXXXXX/ for each connector object, and in it one folder per open item
// holding the document under its own name and extension, so that equal names never meet and
// files made beside a copy stay apart. Emptied folders are used again. A connector removes its
// folder when it ends; folders of processes that are gone go when the next connector starts.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "dms_local/file_copy.h"

namespace tarn {

class local_cache {
 public:
  local_cache() = default;
  ~local_cache();  // removes every copy
  local_cache(const local_cache&) = delete;
  local_cache& operator=(const local_cache&) = delete;

  // Copies `source` to <session>/<folder>/<name>.<extension>; *path is the copy.
  copy_result put(const std::filesystem::path& source, const std::string& name,
                  const std::string& extension, std::filesystem::path* path);
  // Removes the copy at `path`; its folder serves again once nothing else is left in it.
  void remove(const std::filesystem::path& path);
  void remove_all();

  // Removes the folders of connectors whose process has ended.
  static void remove_abandoned();

 private:
  std::optional<std::filesystem::path> session_;
  std::vector<std::filesystem::path> spare_folders_;
  uint64_t folders_made_ = 0;
};

// `name`.`extension` as a name that can't leave its folder: no '/', no control characters,
// not "." or "..", at most 240 bytes, cut at a character boundary.
std::string safe_file_name(const std::string& name, const std::string& extension);

}  // namespace tarn
