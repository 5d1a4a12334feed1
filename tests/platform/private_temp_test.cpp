#include "platform/private_temp.h"

#include <sys/stat.h>

#include "support/test_env.h"

namespace tarn {
namespace {

class private_temp_test : public test::sandboxed_test {};

// A private folder under TMPDIR, else under XDG_RUNTIME_DIR; never one others can enter.
TEST_F(private_temp_test, PrefersTmpdirThenRuntimeDirAndRefusesAnOpenFolderOrAFile) {
  EXPECT_EQ(private_temp_dir(), env_.tmp());
  env_.set_env("TMPDIR", std::nullopt);
  const auto runtime = env_.root() / "run";
  std::filesystem::create_directories(runtime);
  env_.set_env("XDG_RUNTIME_DIR", runtime.string());
  std::string err;
  auto dir = private_temp_dir(&err);
  ASSERT_TRUE(dir) << err;
  EXPECT_EQ(*dir, runtime / "tarn");
  struct stat st;
  ASSERT_EQ(stat(dir->c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  chmod((runtime / "tarn").c_str(), 0755);
  EXPECT_FALSE(private_temp_dir(&err));
  EXPECT_NE(err.find("open to other users"), std::string::npos) << err;
  std::filesystem::remove(runtime / "tarn");
  test::write_file(runtime / "tarn", "x");
  EXPECT_FALSE(private_temp_dir(&err));
  EXPECT_NE(err.find("not a folder"), std::string::npos) << err;
}

}  // namespace
}  // namespace tarn
