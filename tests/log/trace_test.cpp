#include "log/trace.h"

#include <gtest/gtest.h>

#include "log/log_text.h"
#include "log/simple_log.h"
#include "support/test_env.h"

namespace tarn {
namespace {

class trace_test : public test::sandboxed_test {};

TEST_F(trace_test, ChannelListSwitchesChannelsOn) {
  const struct {
    const char* value;  // null: unset
    bool on;
  } cases[] = {{nullptr, false}, {"", false},      {"85", true},    {"84,85", true},
               {"1 85", true},   {"850", false},   {"8", false},    {"all", true},
               {"x85", false},   {"85x", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value ? c.value : "(unset)");
    env_.set_env("TARN_TRACE", c.value ? std::optional<std::string>(c.value) : std::nullopt);
    EXPECT_EQ(isTraceLogEnabled(85), c.on);
  }
}

// A log entry goes to the channel only while it is on, and into the history either way.
TEST_F(trace_test, LinesHaveLevelSourceAndText) {
  simple_log log("start");
  testing::internal::CaptureStderr();
  log.add("quiet", -1);
  env_.set_env("TARN_TRACE", "85");
  log.add("loud", 3);
  TARN_TRACE(kTraceError, "Print failed %s %d", "x", 42);
  const int line = __LINE__ - 1;
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(out.rfind("[85] info src/log/simple_log.cpp:", 0), 0u) << out;
  EXPECT_EQ(out.find("quiet"), std::string::npos) << out;
  EXPECT_EQ(out.substr(out.find(": loud\n")), ": loud\n[85] error tests/log/trace_test.cpp:" +
                                                  std::to_string(line) + ": Print failed x 42\n");
  EXPECT_NE(log.render().find("quiet"), std::string::npos);
}

TEST(log_text, ControlBytesAreEscapedAndLongTextCutVisibly) {
  const std::string cut(kLogCutMark);
  const struct {
    std::string text;
    size_t limit;
    std::string safe;
  } cases[] = {
      {"plain C:\\path \"q\"", 1024, "plain C:\\path \"q\""},
      {"a\r\n<0>b\tc", 1024, "a\\r\\n<0>b\\tc"},
      {std::string("nul\0esc\x1b del\x7f", 13), 1024, "nul\\x00esc\\x1b del\\x7f"},
      {"Grüße", 1024, "Grüße"},
      {"0123456789ABCDEF", 16, "0123456789ABCDEF"},
      {"0123456789ABCDEFG", 16, "01234567" + cut},
      {"0123456\n89ABCDEFGH", 16, "0123456" + cut},  // no half escape
      {"0123456ü123456789", 16, "0123456" + cut},  // no half character
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    EXPECT_EQ(log_safe(c.text, c.limit), c.safe);
    EXPECT_EQ(log_safe(c.safe, c.limit), c.safe) << "a safe text stays as it is";
  }
}

}  // namespace
}  // namespace tarn
