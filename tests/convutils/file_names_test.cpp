#include <sys/stat.h>

#include <regex>

#include "convutils/CConvRegKey.h"
#include "convutils/ConvUtils.h"
#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

class file_names_test : public test::sandboxed_test {
 protected:
  void set_install_path(const std::string& text) {
    CConvRegKey(reg_root::local_machine, kProductKey, "InstallPath", std::nullopt)
        .write_text(text);
  }
};

TEST_F(file_names_test, TempNamesAreFreeAndKeepOnlyXpsAndPdfExtensions) {
  const struct {
    const char* input;
    const char* extension;
  } cases[] = {
      {"", ".pdf"},           {"report.XPS", ".XPS"},     {"report.oxps", ".oxps"},
      {"report.Pdf", ".Pdf"}, {"report.doc", ".pdf"},     {"report", ""},
      {"a.b/report", ""},     {"/x/report.tar.xps", ".xps"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.input);
    std::string name = c.input;
    ASSERT_TRUE(GetUniqueTempFile(&name));
    const fs::path path(name);
    EXPECT_EQ(path.parent_path(), env_.tmp());
    EXPECT_TRUE(std::regex_match(path.filename().string(),
                                 std::regex(std::string("ss_[0-9a-f]{8}") + c.extension)))
        << name;
    EXPECT_FALSE(fs::exists(path));
  }
  // Nothing is left behind: the reservation files are gone, and the names were never made.
  EXPECT_TRUE(fs::is_empty(env_.tmp()));
}

TEST_F(file_names_test, NoTempNameWithoutAPrivateFolder) {
  env_.set_env("TMPDIR", std::nullopt);
  const fs::path runtime = env_.root() / "run";
  fs::create_directories(runtime / "tarn");
  chmod((runtime / "tarn").c_str(), 0777);
  env_.set_env("XDG_RUNTIME_DIR", runtime.string());
  std::string name;
  EXPECT_FALSE(GetUniqueTempFile(&name));
}

TEST_F(file_names_test, InstallPathAlwaysEndsInASeparator) {
  std::string path = "stale";
  EXPECT_FALSE(ReadInstallPath(&path));
  EXPECT_EQ(path, "");
  const struct {
    const char* stored;
    const char* read;
  } cases[] = {{"/opt/vantu tarn/", "/opt/vantu tarn/"}, {"/opt/Grüße", "/opt/Grüße/"}};
  for (const auto& c : cases) {
    set_install_path(c.stored);
    EXPECT_TRUE(ReadInstallPath(&path, 0));
    EXPECT_EQ(path, c.read);
  }
  set_install_path("");
  EXPECT_FALSE(ReadInstallPath(&path));
}

TEST_F(file_names_test, InstalledFileIsLookedForInTheSubfolderFirst) {
  const fs::path install = env_.root() / "inst";
  fs::create_directories(install / "bin");
  const std::string folder = install.string() + "/";
  EXPECT_EQ(FindInstalledFile(folder, "tarnprint", "bin"), "");
  test::write_file(install / "tarnprint", "x");
  EXPECT_EQ(FindInstalledFile(folder, "tarnprint", "bin"), folder + "tarnprint");
  test::write_file(install / "bin" / "tarnprint", "x");
  EXPECT_EQ(FindInstalledFile(folder, "tarnprint", "bin"), folder + "bin/tarnprint");
  // No install folder must not become a search of the current directory.
  EXPECT_EQ(FindInstalledFile("", "tarnprint", "bin"), "");
}

}  // namespace
}  // namespace tarn
