// The start page as a browser shows it: a real headless Chromium loads it and the rendered DOM
// is read back.
#include <filesystem>

#include "e2e_fixture.h"
#include "support/run_program.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

class start_page_test : public e2e_test {
 protected:
  // The DOM after the page's scripts ran; the virtual time budget lets the fetch finish.
  program_result render(const std::string& url) {
    const auto profile = env_.root() / "chromium-profile";
    std::filesystem::create_directories(profile);
    return run_program(
        {kChromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
         "--no-first-run", "--disable-background-networking", "--disable-component-update",
         "--disable-sync", "--user-data-dir=" + profile.string(), "--virtual-time-budget=10000",
         "--dump-dom", url},
        "", 90s);
  }

  static constexpr const char* kChromium = "/usr/bin/chromium";
};

TEST_F(start_page_test, ShowsTheVersionItAskedTheGatewayForAndLinksTheLogPage) {
  ASSERT_TRUE(std::filesystem::exists(kChromium))
      << kChromium << " is missing; scripts/install-deps.sh test installs it";
  auto gateway = start_listening("gateway");
  const program_result page = render("http://localhost:9090/");
  EXPECT_EQ(page.exit_code, 0) << page.err;
  EXPECT_NE(page.out.find(R"(<dd id="version">Vantu Tarn (version 5.0)</dd>)"), std::string::npos)
      << page.out;
  EXPECT_NE(page.out.find(R"(class="status ok")"), std::string::npos) << page.out;
  EXPECT_NE(page.out.find(R"(<a id="logs-link" href="/logs">)"), std::string::npos) << page.out;
  stop(*gateway);
}

TEST_F(start_page_test, SaysSoWhenTheGatewayCannotBeReached) {
  ASSERT_TRUE(std::filesystem::exists(kChromium))
      << kChromium << " is missing; scripts/install-deps.sh test installs it";
  // Opened from the file, the page has no gateway behind it.
  const program_result page = render("file://" + dist_program("www-data/index.html"));
  EXPECT_EQ(page.exit_code, 0) << page.err;
  EXPECT_NE(page.out.find(R"(class="status error")"), std::string::npos) << page.out;
  EXPECT_NE(page.out.find("The gateway can't be reached"), std::string::npos) << page.out;
  EXPECT_NE(page.out.find(R"(<dd id="version">unknown</dd>)"), std::string::npos) << page.out;
}

}  // namespace
}  // namespace tarn::test
