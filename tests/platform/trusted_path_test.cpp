#include "platform/trusted_path.h"

#include <sys/stat.h>

#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

using trusted_path_test = test::sandboxed_test;

TEST_F(trusted_path_test, OnlyFilesNobodyElseCouldHavePlacedOrChangedPass) {
  const fs::path root = env_.root();
  const struct {
    const char* what;
    std::string path;
    unsigned file_mode, folder_mode;  // of root/d/f and root/d when made; 0: not made
    std::string why;                  // empty: trusted
  } cases[] = {
      {"own file, own folders", "d/f", 0755, 0700, ""},
      {"a root-owned program", "/usr/bin/env", 0, 0, ""},
      {"relative", "f", 0, 0, "f is not an absolute path"},
      {"missing", "d/gone", 0, 0700, "d/gone: No such file or directory"},
      {"a folder", "d", 0, 0700, "d is not a file"},
      {"file its group may write", "d/f", 0775, 0700, "d/f can be written by its group"},
      {"folder anyone may write", "d/f", 0755, 0777, "d can be written by others"},
      {"sticky but not root's", "d/f", 0755, 01777, "d can be written by others"},
      {"a link to such a folder", "link/f", 0755, 0777, "d can be written by others"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const fs::path dir = root / "d";
    if (c.folder_mode != 0) {
      fs::create_directory(dir);
      if (c.file_mode != 0) {
        test::write_file(dir / "f", "#!/bin/sh\n");
        chmod((dir / "f").c_str(), c.file_mode);
      }
      fs::create_directory_symlink(dir, root / "link");
      chmod(dir.c_str(), c.folder_mode);
    }
    const fs::path path = c.path.starts_with("/") || c.what == std::string("relative")
                              ? fs::path(c.path)
                              : root / c.path;
    std::string why;
    EXPECT_EQ(trusted_path(path, &why), c.why.empty()) << why;
    const std::string expected = c.why.empty() || c.path == "f" ? c.why : (root / c.why).string();
    EXPECT_EQ(why, expected);
    chmod(dir.c_str(), 0700);
    fs::remove_all(dir);
    fs::remove(root / "link");
  }
}

}  // namespace
}  // namespace tarn
