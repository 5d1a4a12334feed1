#include "platform/private_temp.h"

#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

class private_temp_test : public test::sandboxed_test {};

unsigned mode_of(const fs::path& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// Never a folder others can enter or own, and never none when some place of the user's serves.
TEST_F(private_temp_test, TakesTheFirstPlaceThatIsPrivateAndFallsBackWhenItIsNot) {
  const std::string own = "tarn-" + std::to_string(getuid());
  const fs::path shared = env_.root() / "shared", runtime = env_.root() / "run",
                 cache = env_.home() / ".cache" / "tarn-tmp";
  const struct {
    const char* what;
    std::function<void()> arrange;  // TMPDIR is the sandbox's private folder unless changed
    std::string expected;           // "mkdtemp": a fresh tarn-<uid>-XXXXXX in `shared`
  } cases[] = {
      {"a private TMPDIR serves as it is", [] {}, env_.tmp()},
      {"a TMPDIR all may write gets a folder of ours",
       [&] {
         fs::create_directory(shared);
         chmod(shared.c_str(), 01777);
       },
       shared / own},
      {"so does one its group may enter",
       [&] {
         fs::create_directory(shared);
         chmod(shared.c_str(), 0750);
       },
       shared / own},
      {"without TMPDIR, the runtime folder",
       [&] {
         env_.set_env("TMPDIR", std::nullopt);
         fs::create_directory(runtime);
         env_.set_env("XDG_RUNTIME_DIR", runtime.string());
       },
       runtime / "tarn"},
      {"a folder of that name open to others: the cache",
       [&] {
         env_.set_env("TMPDIR", std::nullopt);
         fs::create_directories(runtime / "tarn");
         chmod((runtime / "tarn").c_str(), 0755);
         env_.set_env("XDG_RUNTIME_DIR", runtime.string());
       },
       cache},
      {"the name held by a link to someone else's folder: the cache",
       [&] {
         fs::create_directory(shared);
         chmod(shared.c_str(), 0777);
         fs::create_directory_symlink("/", shared / own);
       },
       cache},
      {"no cache either: a folder made for the process",
       [&] {
         fs::create_directory(shared);
         chmod(shared.c_str(), 0777);
         test::write_file(shared / own, "a user's file");
         test::write_file(env_.root() / "no-cache", "");
         env_.set_env("XDG_CACHE_HOME", (env_.root() / "no-cache").string());
       },
       "mkdtemp"},
      {"nothing writable: no folder at all",
       [&] {
         fs::create_directory(shared);
         chmod(shared.c_str(), 0555);
         test::write_file(env_.root() / "no-cache", "");
         env_.set_env("XDG_CACHE_HOME", (env_.root() / "no-cache").string());
       },
       ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    env_.set_env("TMPDIR", env_.tmp().string());
    c.arrange();
    if (fs::exists(shared)) env_.set_env("TMPDIR", shared.string());
    std::string err;
    const auto dir = private_temp_dir(&err);
    if (c.expected.empty()) {
      EXPECT_FALSE(dir);
      EXPECT_NE(err.find("can't create a folder in " + shared.string()), std::string::npos) << err;
    } else if (c.expected == "mkdtemp") {
      ASSERT_TRUE(dir) << err;
      EXPECT_EQ(dir->parent_path(), shared);
      EXPECT_TRUE(dir->filename().string().starts_with(own + "-")) << *dir;
      EXPECT_EQ(private_temp_dir(), dir) << "one folder for the process";
      EXPECT_EQ(test::read_file(shared / own), "a user's file");
    } else {
      EXPECT_EQ(dir, fs::path(c.expected)) << err;
    }
    if (dir) EXPECT_EQ(mode_of(*dir), 0700u);
    chmod(shared.c_str(), 0700);
    fs::remove_all(shared);
    fs::remove_all(runtime);
    fs::remove_all(cache);
    env_.set_env("XDG_RUNTIME_DIR", std::nullopt);
    env_.set_env("XDG_CACHE_HOME", (env_.home() / ".cache").string());
  }
}

}  // namespace
}  // namespace tarn
