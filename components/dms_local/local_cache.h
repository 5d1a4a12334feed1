// The connector's local copies of opened documents, in the user's private temporary folder:
// <tmp>/dms_local/<pid>-XXXXXX/ for each connector object, and in it one folder per item
// holding the document under its own name and extension. A connector removes its folder when
// it ends; folders of processes that are gone are removed by the next connector that starts.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "dms_local/file_copy.h"

namespace tarn {

class local_cache {
 public:
  local_cache() = default;
  ~local_cache();  // removes every copy
  local_cache(const local_cache&) = delete;
  local_cache& operator=(const local_cache&) = delete;

  // Copies `source` to <session>/<item>/<name>.<extension>; *path is the copy.
  copy_result put(const std::filesystem::path& source, uint64_t item, const std::string& name,
                  const std::string& extension, std::filesystem::path* path);
  // Removes the copy at `path` and its item's folder.
  void remove(const std::filesystem::path& path);
  void remove_all();

  // Removes the folders of connectors whose process has ended.
  static void remove_abandoned();

 private:
  std::optional<std::filesystem::path> session_;
};

// `name`.`extension` as a name that can't leave its folder: no '/', no control characters,
// not "." or "..", at most 240 bytes, cut at a character boundary.
std::string safe_file_name(const std::string& name, const std::string& extension);

}  // namespace tarn
