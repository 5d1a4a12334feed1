#include "platform/machine_kind.h"

#include "support/test_env.h"

namespace tarn {
namespace {

using machine_kind_test = test::sandboxed_test;

TEST_F(machine_kind_test, MachineInfoDecidesBeforeDmi) {
  const struct {
    const char* machine_info;  // null: no file
    const char* chassis_type;  // null: no file
    bool server;
  } cases[] = {
      {"CHASSIS=server\n", "3", true},
      {"PRETTY_HOSTNAME=x\nCHASSIS=\"server\"\n", nullptr, true},
      {"CHASSIS=desktop\n", "17", false},   // an explicit CHASSIS wins over DMI
      {"PRETTY_HOSTNAME=x\n", "23", true},  // no CHASSIS line: DMI rack mount
      {nullptr, "28\n", true},
      {nullptr, "3", false},
      {nullptr, "garbage", false},
      {nullptr, nullptr, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.machine_info ? c.machine_info : "-") + " / " +
                 (c.chassis_type ? c.chassis_type : "-"));
    const auto info = env_.root() / "machine-info", dmi = env_.root() / std::to_string(&c - cases);
    if (c.machine_info) test::write_file(info, c.machine_info);
    if (!c.machine_info) std::filesystem::remove(info);
    if (c.chassis_type) test::write_file(dmi / "chassis_type", c.chassis_type);
    env_.set_env("TARN_MACHINE_INFO", info.string());
    env_.set_env("TARN_DMI_DIR", dmi.string());
    EXPECT_EQ(is_server_edition(), c.server);
  }
}

}  // namespace
}  // namespace tarn
