#include "notify/desktop_notifier.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <cstring>

#include "convutils/CConvRegKey.h"
#include "convutils/ConvUtils.h"
#include "convutils/usage_reporter.h"
#include "platform/child_process.h"
#include "platform/unique_fd.h"
#include "support/session_bus.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class desktop_notifier_test : public test::sandboxed_test {
 protected:
  void SetUp() override { env_.set_env("DBUS_SESSION_BUS_ADDRESS", std::nullopt); }

  // Shows twice, waits for an action, and returns what was logged. A waiting caller would hang
  // the test here; the test's time-out then fails it.
  std::vector<std::string> use_notifier() {
    std::vector<std::string> lines;
    {
      desktop_notifier notes("test", [&](const std::string& line) { lines.push_back(line); });
      notes.show("progress", {"one"});
      notes.show("progress", {"two", "", {{"default", "Open"}}});
      for (const char* tag : {"progress", "never shown"})
        EXPECT_EQ(notes.wait_for_action(tag, std::chrono::hours(1)), "");
    }
    return lines;
  }
};

TEST_F(desktop_notifier_test, WithoutABusOrANotificationServiceNobodyWaitsAndTheLogSaysSoOnce) {
  EXPECT_THAT(use_notifier(), ElementsAre(HasSubstr("no session bus")));

  std::string why;
  const auto bus = test::start_session_bus(env_.root(), &why);
  ASSERT_TRUE(bus) << why << " (scripts/install-deps.sh test installs dbus-daemon)";
  env_.set_env("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (env_.root() / "bus").string());
  EXPECT_THAT(use_notifier(), ElementsAre(HasSubstr("no notification service answers")));
}

TEST_F(desktop_notifier_test, TheBusIsTheNamedOneElseTheSessionSocketNeverAnother) {
  const fs::path runtime = env_.root() / "run", not_socket = env_.root() / "plain";
  fs::create_directories(runtime);
  test::write_file(not_socket / "bus", "");
  unique_fd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un addr{.sun_family = AF_UNIX};
  std::strncpy(addr.sun_path, (runtime / "bus").c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  const struct {
    const char* name;
    std::optional<std::string> named, runtime;
    std::string address;
  } cases[] = {
      {"named", "unix:path=/x", runtime.string(), "unix:path=/x"},
      {"session socket", std::nullopt, runtime.string(), "unix:path=" + (runtime / "bus").string()},
      {"a file is no bus", std::nullopt, not_socket.string(), ""},
      {"nothing", "", std::nullopt, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    env_.set_env("DBUS_SESSION_BUS_ADDRESS", c.named);
    env_.set_env("XDG_RUNTIME_DIR", c.runtime);
    EXPECT_EQ(session_bus_address(), c.address);
  }
}

TEST_F(desktop_notifier_test, TheMachinePolicyWinsOverTheUsersSwitch) {
  const struct {
    std::optional<DWORD> policy, user;
    bool on;
  } cases[] = {{{}, {}, true}, {{}, 0, false}, {0, 1, false}, {1, 0, true}};
  for (const auto& c : cases) {
    test::scoped_test_env env;
    for (auto [root, key, value] : {std::tuple{reg_root::local_machine, kUsagePolicyKey, c.policy},
                                    {reg_root::current_user, kGatewayKey, c.user}})
      if (value) CConvRegKey(root, key, "Notifications", DWORD{0}).write_number(*value);
    EXPECT_EQ(notifications_enabled(), c.on) << c.policy.value_or(9) << " " << c.user.value_or(9);
  }
}

}  // namespace
}  // namespace tarn
