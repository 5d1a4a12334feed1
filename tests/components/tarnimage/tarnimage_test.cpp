#include <dlfcn.h>

#include "convutils/DynLoadDll.h"
#include "support/conversion.h"
#include "support/run_program.h"
#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

// The built library, loaded as the gateway loads it.
class tarnimage_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    void* handle = dlopen(test::dist_program(kTarnImageLibrary).c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    std::string err;
    ASSERT_TRUE(dll_.attach(module_handle(handle), &err)) << err;
  }
  int convert(const fs::path& source, const fs::path& target) {
    return dll_.XpsToPdfConvert(source.c_str(), target.c_str(), 15, 0, 0);
  }

  TarnImageDll dll_;
};

TEST_F(tarnimage_test, RendersEveryPageOfXpsAndOxpsWithItsText) {
  for (bool oxps : {false, true}) {
    SCOPED_TRACE(oxps ? "OXPS" : "XPS");
    const fs::path dir = env_.tmp() / (oxps ? "Ordner \"ö\"" : "dir with blanks");
    const fs::path source = dir / (oxps ? "Bericht 日本.oxps" : "report.xps");
    const fs::path target = dir / "out put.pdf";
    test::write_file(target, "an older file, replaced whole");
    test::write_xps(source, {"Erste Seite Grüße", "Second page", "Third & last"}, oxps);
    EXPECT_EQ(convert(source, target), 3);
    EXPECT_TRUE(test::pdf_is_valid(target));
    EXPECT_EQ(test::pdf_text(target), "Erste Seite Grüße\n\n\fSecond page\n\n\fThird & last\n\n\f");
    EXPECT_EQ(test::names_in(dir), (std::set<std::string>{source.filename(), "out put.pdf"}));
  }
}

TEST_F(tarnimage_test, BadInputFailsWithItsCodeAndLeavesNothing) {
  const fs::path dir = env_.tmp();
  test::write_file(dir / "corrupt.xps", std::string(3000, '\x17'));
  test::write_zip(dir / "no pages.xps", {{"_rels/.rels", "<Relationships/>"}});
  test::write_xps(dir / "ok.xps", {"fine"});
  test::write_file(dir / "a.pdf", "kept");
  fs::create_directory(dir / "folder");
  const struct {
    const char* source;
    fs::path target;
    int code;
  } cases[] = {
      {"missing.xps", dir / "a.pdf", kTarnImageUnreadable},
      {"corrupt.xps", dir / "a.pdf", kTarnImageUnreadable},
      {"no pages.xps", dir / "a.pdf", kTarnImageUnreadable},
      {"ok.xps", dir / "no such folder" / "a.pdf", kTarnImageUnwritable},
      {"ok.xps", dir / "folder", kTarnImageUnwritable},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.source);
    EXPECT_EQ(convert(dir / c.source, c.target), c.code);
  }
  EXPECT_EQ(test::read_file(dir / "a.pdf"), "kept");
  EXPECT_EQ(test::names_in(dir),
            (std::set<std::string>{"corrupt.xps", "no pages.xps", "ok.xps", "a.pdf", "folder"}))
      << "no partial or temporary file";
  EXPECT_EQ(dll_.XpsToPdfConvert(nullptr, "x.pdf", 15, 0, 0), kTarnImageBadArgument);
}

}  // namespace
}  // namespace tarn
