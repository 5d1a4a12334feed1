// The fixture of the whole-process tests: a sandbox (HOME, XDG folders, TMPDIR, the machine
// store), a workstation, the diagnostic channel on, and port 9090 free at the start.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "convutils/CConvRegKey.h"
#include "gateway_process.h"
#include "support/test_env.h"

namespace tarn::test {

class e2e_test : public sandboxed_test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(port_answers())
        << "something already listens on port 9090; the whole-process tests need it free";
    write_file(env_.root() / "machine-info", "CHASSIS=desktop\n");
    env_.set_env("TARN_MACHINE_INFO", (env_.root() / "machine-info").string());
    env_.set_env("TARN_TRACE", "85");
    const auto runtime = env_.root() / "run";
    std::filesystem::create_directories(runtime);
    std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
    env_.set_env("XDG_RUNTIME_DIR", runtime.string());
    env_.set_env("DISPLAY", std::nullopt);
    env_.set_env("WAYLAND_DISPLAY", std::nullopt);
    // Without this the gateway would take the X server of any test that runs beside it.
    const auto no_x = env_.root() / "no-x11";
    std::filesystem::create_directories(no_x);
    env_.set_env("TARN_X11_SOCKET_DIR", no_x.string());
    env_.set_env("QT_QPA_PLATFORM", std::nullopt);
  }

  void set_feature_flag(DWORD value) {
    CConvRegKey flag(reg_root::current_user, "Software\\Vantu\\PDF\\V1\\TarnGateWay",
                     "Tarn_GateWay_fetatures", DWORD{0});
    ASSERT_EQ(flag.write_number(value), kErrorSuccess);
  }

  // A gateway that listens on port 9090, or a failed assertion.
  std::unique_ptr<gateway_process> start_listening(const std::string& name) {
    auto gateway = std::make_unique<gateway_process>(env_.root(), name);
    EXPECT_TRUE(gateway->started());
    EXPECT_TRUE(gateway->wait_listening()) << "the gateway didn't listen; its standard error:\n"
                                           << gateway->error_output();
    return gateway;
  }

  // SIGTERM, then the process must end with 0 in time and leave the port free.
  void stop(gateway_process& gateway) {
    ASSERT_TRUE(gateway.send_signal(SIGTERM));
    EXPECT_EQ(gateway.wait_exit(), std::optional<int>(0)) << gateway.error_output();
    EXPECT_FALSE(port_answers());
  }
};

// A POST of `body` to "/" as a browser sends it.
inline std::string post_request(const std::string& body) {
  return "POST / HTTP/1.1\r\nHost: localhost:9090\r\nContent-Type: application/x-thrift\r\n"
         "Content-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

// True when `err` holds the diagnostic line "[85] info FILE:LINE: " + text.
inline bool has_trace_line(const std::string& err, const std::string& text) {
  size_t begin = 0;
  while (begin < err.size()) {
    size_t end = err.find('\n', begin);
    if (end == std::string::npos) end = err.size();
    const std::string_view line(err.data() + begin, end - begin);
    if (line.starts_with("[85] info ") && line.ends_with(": " + text)) return true;
    begin = end + 1;
  }
  return false;
}

}  // namespace tarn::test
