#include <gmock/gmock.h>

#include "convutils/ConvUtils.h"
#include "convutils/DynLoadDll.h"
#include "convutils_fixture.h"
#include "support/conversion.h"
#include "support/run_program.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// The test binary's own folder holds no tarnimage.so, so the install folder decides.
class ConvertXpsToPdf_test : public test::convutils_fixture {
 protected:
  void SetUp() override {
    env_.set_env("TARN_TRACE", "85");
    fs::create_directories(install_);
    set_install_path(install_.string());
    test::write_xps(source_, {"Hello XPS", "Zweite Seite"});
  }
  void TearDown() override { tarn_image_dll().unload(); }

  void install_library(const fs::path& from) {
    fs::copy_file(from, install_ / kTarnImageLibrary, fs::copy_options::overwrite_existing);
  }
  bool convert() { return ConvertXpsToPdf(source_.string(), target_.string(), 15, 0, 0); }

  const fs::path install_ = env_.root() / "inst";
  const fs::path source_ = env_.tmp() / "Grüße \"Bericht\".xps";
  const fs::path target_ = env_.tmp() / "Grüße \"Bericht\".pdf";
};

TEST_F(ConvertXpsToPdf_test, LoadsOnFirstUseTriesAgainUntilThereAndKeepsIt) {
  auto trace = capture();
  EXPECT_FALSE(convert());
  EXPECT_FALSE(convert());
  EXPECT_EQ(trace.lines(), Lines(2, "2 Can't load tarnimage.so: not found"));

  install_library(test::dist_program(kTarnImageLibrary));
  EXPECT_TRUE(convert());
  EXPECT_EQ(test::pdf_text(target_), "Hello XPS\n\n\fZweite Seite\n\n\f");

  fs::remove(install_ / kTarnImageLibrary);
  test::write_file(source_, "PK\x03\x04 not really a zip");
  EXPECT_FALSE(convert()) << "the loaded library stays and reports the bad source";
  EXPECT_EQ(trace.lines().back(), "2 XpsToPdfConvert failed (-2): " + source_.string());
}

TEST_F(ConvertXpsToPdf_test, BrokenOrIncompleteLibraryGivesFalseAndStaysUnloaded) {
  test::write_file(env_.tmp() / "junk.so", std::string(4096, 'x'));
  const std::pair<std::string, const char*> cases[] = {
      {(env_.tmp() / "junk.so").string(), "invalid ELF header"},
      {std::string(TARN_FAKES_DIR) + "/tarnimage_without_backdrop.so", "no entry point Backdrop"}};
  for (const auto& [library, reason] : cases) {
    install_library(library);
    auto trace = capture();
    EXPECT_FALSE(convert());
    EXPECT_THAT(trace.lines(),
                ElementsAre(AllOf(StartsWith("2 Can't load tarnimage.so: "), HasSubstr(reason))));
    EXPECT_FALSE(tarn_image_dll().is_loaded());
  }
}

}  // namespace
}  // namespace tarn
