// `cmake --install` into a private prefix: the flat folder runs from there, and the systemd
// user unit and the autostart entry name the installed gateway.
#include "e2e_fixture.h"
#include "support/run_program.h"
#include "web/raw_http_client.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

// The value of `key=` in an ini-style file; empty when absent.
std::string value_of(const std::string& text, const std::string& key) {
  const size_t at = text.find("\n" + key + "=");
  if (at == std::string::npos) return std::string();
  const size_t begin = at + key.size() + 2;
  return text.substr(begin, text.find('\n', begin) - begin);
}

class install_test : public e2e_test {};

TEST_F(install_test, InstalledFolderRunsAndTheSessionFilesNameIt) {
  const auto prefix = env_.root() / "prefix";
  const program_result install = run_program(
      {TARN_CMAKE_COMMAND, "--install", TARN_BINARY_DIR, "--prefix", prefix.string()}, "", 120s);
  ASSERT_EQ(install.exit_code, 0) << install.out << install.err;

  const auto unit_path = prefix / "lib/systemd/user/tarngateway.service";
  const auto entry_path = prefix / "etc/xdg/autostart/tarngateway.desktop";
  const std::string unit = read_file(unit_path);
  const std::string entry = read_file(entry_path);
  const std::string gateway = value_of(unit, "ExecStart");
  EXPECT_TRUE(gateway.starts_with(prefix.string() + "/")) << gateway;
  EXPECT_EQ(value_of(entry, "Exec"), gateway);

  const auto runtime = env_.root() / "run";
  const program_result verify =
      run_program({"/usr/bin/env", "XDG_RUNTIME_DIR=" + runtime.string(), "systemd-analyze",
                   "--user", "verify", "--man=no", unit_path.string()});
  EXPECT_EQ(verify.exit_code, 0) << verify.err;
  EXPECT_EQ(verify.out + verify.err, "");
  const program_result validate =
      run_program({"/usr/bin/env", "desktop-file-validate", entry_path.string()});
  EXPECT_EQ(validate.exit_code, 0) << validate.out << validate.err;
  EXPECT_EQ(validate.out + validate.err, "");

  SCOPED_TRACE("the installed gateway serves its own start page");
  auto installed = std::make_unique<gateway_process>(env_.root(), "installed", gateway);
  ASSERT_TRUE(installed->wait_listening()) << installed->error_output();
  raw_http_client client(kPort);
  ASSERT_TRUE(client.send("GET / HTTP/1.1\r\n\r\n"));
  const std::string page = client.read_to_close();
  EXPECT_TRUE(page.starts_with("HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n")) << page;
  EXPECT_NE(page.find(read_file(prefix / "lib/vantu-tarn/www-data/index.html")), std::string::npos);
  stop(*installed);
}

}  // namespace
}  // namespace tarn::test
