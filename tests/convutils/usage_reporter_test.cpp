#include "convutils/usage_reporter.h"

#include <poll.h>
#include <sys/inotify.h>

#include <nlohmann/json.hpp>

#include "convutils_fixture.h"
#include "platform/unique_fd.h"
#include "support/run_program.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
constexpr reg_root kMachine = reg_root::local_machine;
constexpr reg_root kUser = reg_root::current_user;
constexpr DWORD kUnset = 0xDEAD;

void set(reg_root root, const char* key, const char* name, DWORD value) {
  if (value != kUnset) CConvRegKey(root, key, name, DWORD{0}).write_number(value);
}

using usage_reporter_test = test::convutils_fixture;

TEST_F(usage_reporter_test, PolicyWinsOverTheUserSwitchAndMachineOverUser) {
  const struct {
    const char* name;
    DWORD machine_policy, user_policy, machine_switch, user_switch;
    bool reports;
    DWORD user_switch_after;  // kUnset: not written
  } cases[] = {
      {"nothing anywhere", kUnset, kUnset, kUnset, kUnset, true, 1},
      {"policy off, user on", 0, kUnset, kUnset, 1, false, 1},
      {"user 2", kUnset, kUnset, kUnset, 2, false, 2},
      {"machine policy before user's", 1, 0, kUnset, kUnset, true, kUnset},
      {"user policy over switch", kUnset, 1, 0, kUnset, true, kUnset},
      {"-1 counts as missing", 0xFFFFFFFF, kUnset, kUnset, 0, false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::scoped_test_env env;
    set(kMachine, kUsagePolicyKey, "CollectData", c.machine_policy);
    set(kUser, kUsagePolicyKey, "CollectData", c.user_policy);
    set(kMachine, kProductKey, "AnalyticsEnabled", c.machine_switch);
    set(kUser, kProductKey, "AnalyticsEnabled", c.user_switch);
    usage_reporter reporter(kProductKey, kUsagePropertyId);
    EXPECT_EQ(!reporter.program().empty(), c.reports);
    DWORD after = kUnset;
    CConvRegKey(kUser, kProductKey, "AnalyticsEnabled", kUnset).read_number(&after);
    EXPECT_EQ(after, c.user_switch_after);
  }
}

TEST_F(usage_reporter_test, LineCarriesKeyBuildIdAndTrimmedValuesEscapedByUtf16Unit) {
  const fs::path install = env_.root() / "Tarn Install";
  test::write_file(install / "Build.id", "\n  \n5.0.0.1 second word\n");
  set_install_path(install.string());
  usage_reporter reporter(kProductKey, kUsagePropertyId);
  reporter.add_value("ec", "iManage 10");
  reporter.add_value("skipped", "   ");
  reporter.add_value("el", " From DMS ");
  reporter.add_value("x", "é€|%😀");
  EXPECT_EQ(reporter.program(), install.string() + "/Telemetry");
  EXPECT_EQ(reporter.line(),
            "Software\\Vantu\\PDF\\V1|5.0.0.1|UA-314159265-1|ec|iManage%2010|el|From%20DMS"
            "|x|%E9%20AC|%%D83D%DE00");

  set_install_path("");
  EXPECT_EQ(usage_reporter(kProductKey, kUsagePropertyId).line(),
            "Software\\Vantu\\PDF\\V1||UA-314159265-1");
}

// The real reporter of the build's install folder, started detached as a command does it.
TEST_F(usage_reporter_test, EventReachesTheReportersFile) {
  set_install_path(test::dist_program(""));
  const fs::path folder = env_.home() / ".local/state/vantu";
  fs::create_directories(folder);
  unique_fd watch(inotify_init1(IN_CLOEXEC));
  ASSERT_GE(inotify_add_watch(watch.get(), folder.c_str(), IN_CLOSE_WRITE), 0);
  send_usage_event("iManage 10", "Open", "Tarn Assistant");
  // The reporter closes the file after its one write; the limit only ends a broken run.
  pollfd pfd = {watch.get(), POLLIN, 0};
  ASSERT_EQ(poll(&pfd, 1, 30000), 1) << "no event arrived";

  const auto event = nlohmann::json::parse(test::read_file(folder / "usage.jsonl"));
  EXPECT_EQ(event["values"],
            (nlohmann::json{{"ec", "iManage 10"}, {"ea", "Open"}, {"el", "Tarn Assistant"}}));
}

}  // namespace
}  // namespace tarn
