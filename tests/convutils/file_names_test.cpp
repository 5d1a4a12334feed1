#include <regex>

#include "convutils_fixture.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

using file_names_test = test::convutils_fixture;

TEST_F(file_names_test, TempNamesAreFreeAndKeepOnlyXpsAndPdfExtensions) {
  const std::pair<const char*, const char*> cases[] = {
      {"", ".pdf"},           {"report.XPS", ".XPS"}, {"report.oxps", ".oxps"},
      {"report.doc", ".pdf"}, {"report", ""},         {"a.b/report", ""}};
  for (const auto& [input, extension] : cases) {
    std::string name = input;
    ASSERT_TRUE(GetUniqueTempFile(&name));
    EXPECT_EQ(fs::path(name).parent_path(), env_.tmp());
    EXPECT_TRUE(std::regex_match(fs::path(name).filename().string(),
                                 std::regex(std::string("ss_[0-9a-f]{8}") + extension)))
        << name;
  }
  // The names were never made, and the files that reserved them are gone.
  EXPECT_TRUE(fs::is_empty(env_.tmp()));
}

TEST_F(file_names_test, InstallPathEndsInASeparatorAndFilesAreLookedForInBinFirst) {
  std::string path = "stale";
  EXPECT_FALSE(ReadInstallPath(&path));
  EXPECT_EQ(path, "");
  const fs::path install = env_.root() / "Grüße inst";
  set_install_path(install.string());
  EXPECT_TRUE(ReadInstallPath(&path, 0));
  EXPECT_EQ(path, install.string() + "/");

  EXPECT_EQ(FindInstalledFile(path, "tarnprint", "bin"), "");
  test::write_file(install / "tarnprint", "x");
  EXPECT_EQ(FindInstalledFile(path, "tarnprint", "bin"), path + "tarnprint");
  test::write_file(install / "bin" / "tarnprint", "x");
  EXPECT_EQ(FindInstalledFile(path, "tarnprint", "bin"), path + "bin/tarnprint");
  // No install folder must not become a search of the current directory.
  EXPECT_EQ(FindInstalledFile("", "tarnprint", "bin"), "");
}

}  // namespace
}  // namespace tarn
