#include "platform/process_launch.h"

#include <gtest/gtest.h>

namespace tarn {
namespace {

TEST(process_launch_test, SplitsLikeTheStartedProgramsRuntime) {
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {"  \t ", {}},
      {R"("a b c" d e)", {"a b c", "d", "e"}},
      {R"("ab\"c" "\\" d)", {"ab\"c", "\\", "d"}},
      {R"(a\\\b d"e f"g h)", {"a\\\\\\b", "de fg", "h"}},
      {R"(a\\\"b c d)", {"a\\\"b", "c", "d"}},
      {R"(a\\\\"b c" d e)", {"a\\\\b c", "d", "e"}},
      {R"(a"b"" c d)", {"ab\" c d"}},
      {R"(x "" "unclosed runs to the end)", {"x", "", "unclosed runs to the end"}},
      {"\"Grüße/日本.docx\"", {"Grüße/日本.docx"}},
  };
  for (const auto& [line, args] : cases) EXPECT_EQ(split_command_line(line), args) << line;
  // An ordinary path only gains its quotes, as the helper's command line always had them.
  EXPECT_EQ(quote_argument("/home/u/My Docs/a b.docx"), "\"/home/u/My Docs/a b.docx\"");
}

}  // namespace
}  // namespace tarn
