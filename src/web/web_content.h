// What a GET finds: the web folder "www-data" beside the running program, the file path of a
// URI, the type of a path, and a file's bytes. Nothing outside the web folder is ever read,
// whatever symbolic links lie inside it. Safe from any thread.
#pragma once

#include <optional>
#include <string>

namespace tarn {

// The web folder, worked out anew at each call: the folder of /proc/self/exe + "www-data",
// without a trailing "/".
std::string web_root();

// Makes web_root() answer `root` in this process (empty: back to the program's folder).
// Tests only, before any server thread runs.
void set_web_root_for_testing(std::string root);

// web_root + the URI, with "/" standing for `default_uri`. The URI is taken byte for byte:
// no percent-decoding, and "?" or "#" end nothing.
std::string file_path_of_uri(const std::string& web_root, const std::string& uri,
                             const std::string& default_uri);

// The Content-Type of a path by the extension behind its last "." after its last "/";
// "text/plain" for any other.
const char* content_type_of(const std::string& path);

// The whole content of the regular file `path`, which must lie beneath `web_root` once every
// symbolic link is resolved; nothing when it doesn't, or can't be opened or read.
std::optional<std::string> read_web_file(const std::string& web_root, const std::string& path);

}  // namespace tarn
