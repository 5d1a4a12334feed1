#include "platform/private_temp.h"

#include <unistd.h>

#include <functional>

#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

using private_temp_test = test::sandboxed_test;

TEST_F(private_temp_test, TakesTheFirstPlaceThatIsPrivateAndFallsBackWhenItIsNot) {
  const std::string own = "tarn-" + std::to_string(getuid());
  const fs::path shared = env_.root() / "shared", runtime = env_.root() / "run",
                 cache = env_.home() / ".cache" / "tarn-tmp";
  const auto folder = [](const fs::path& dir, unsigned mode) {
    fs::create_directories(dir);
    fs::permissions(dir, fs::perms(mode));
  };
  const auto no_cache = [&] {
    test::write_file(env_.root() / "no-cache", "");
    env_.set_env("XDG_CACHE_HOME", (env_.root() / "no-cache").string());
  };
  const struct {
    const char* what;
    std::function<void()> arrange;  // TMPDIR is the sandbox's private folder unless changed
    std::string expected;           // "mkdtemp": a fresh tarn-<uid>-XXXXXX in `shared`
  } cases[] = {
      {"a private TMPDIR serves as it is", [] {}, env_.tmp()},
      {"a TMPDIR all may write gets a folder of ours", [&] { folder(shared, 01777); },
       shared / own},
      {"so does one its group may enter", [&] { folder(shared, 0750); }, shared / own},
      {"without TMPDIR, the runtime folder",
       [&] {
         env_.set_env("TMPDIR", std::nullopt);
         fs::create_directories(runtime);
         env_.set_env("XDG_RUNTIME_DIR", runtime.string());
       },
       runtime / "tarn"},
      {"the name held by a link to someone else's folder: the cache",
       [&] {
         folder(shared, 0777);
         fs::create_directory_symlink("/", shared / own);
       },
       cache},
      {"no cache either: a folder made for the process",
       [&] {
         folder(shared, 0777);
         test::write_file(shared / own, "a user's file");
         no_cache();
       },
       "mkdtemp"},
      {"nothing writable: no folder at all",
       [&] {
         folder(shared, 0555);
         no_cache();
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
      EXPECT_EQ(private_temp_dir(), dir) << "one folder for the process";
      EXPECT_EQ(test::read_file(shared / own), "a user's file");
    } else {
      EXPECT_EQ(dir, fs::path(c.expected)) << err;
    }
    EXPECT_TRUE(!dir || fs::symlink_status(*dir).permissions() == fs::perms::owner_all);
    if (fs::exists(shared)) fs::permissions(shared, fs::perms::owner_all);
    for (const auto& made : {shared, runtime, cache}) fs::remove_all(made);
    env_.set_env("XDG_RUNTIME_DIR", std::nullopt);
    env_.set_env("XDG_CACHE_HOME", (env_.home() / ".cache").string());
  }
}

}  // namespace
}  // namespace tarn
