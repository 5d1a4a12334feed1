#include "log/trace.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "log/simple_log.h"

namespace tarn {
namespace {

class trace_test : public ::testing::Test {
 protected:
  void TearDown() override { unsetenv("TARN_TRACE"); }
};

TEST_F(trace_test, ChannelListSwitchesChannelsOn) {
  const struct {
    const char* value;  // null: unset
    bool on;
  } cases[] = {{nullptr, false}, {"", false},      {"85", true},    {"84,85", true},
               {"1 85", true},   {"850", false},   {"8", false},    {"all", true},
               {"x85", false},   {"85x", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value ? c.value : "(unset)");
    if (c.value) {
      setenv("TARN_TRACE", c.value, 1);
    } else {
      unsetenv("TARN_TRACE");
    }
    EXPECT_EQ(isTraceLogEnabled(85), c.on);
  }
}

TEST_F(trace_test, LineHasLevelSourceAndText) {
  setenv("TARN_TRACE", "85", 1);
  testing::internal::CaptureStderr();
  TARN_TRACE(kTraceError, "Print failed %s %d", "x", 42);
  const int line = __LINE__ - 1;
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(out, "[85] error tests/log/trace_test.cpp:" + std::to_string(line) +
                     ": Print failed x 42\n");
}

TEST_F(trace_test, LogEntriesGoToTheChannelOnlyWhenItIsOn) {
  simple_log log("start");
  testing::internal::CaptureStderr();
  log.add("quiet", -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  setenv("TARN_TRACE", "85", 1);
  testing::internal::CaptureStderr();
  log.add("loud", 3);
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(out.rfind("[85] info src/log/simple_log.cpp:", 0), 0u) << out;
  EXPECT_NE(out.find(": loud\n"), std::string::npos) << out;
  // Both entries are in the history either way.
  EXPECT_NE(log.render().find("quiet"), std::string::npos);
}

}  // namespace
}  // namespace tarn
