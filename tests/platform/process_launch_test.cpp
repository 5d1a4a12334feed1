#include "platform/process_launch.h"

#include <gtest/gtest.h>

namespace tarn {
namespace {

TEST(process_launch_test, SplitsLikeTheStartedProgramsRuntime) {
  const struct {
    const char* line;
    std::vector<std::string> args;
  } cases[] = {
      {"", {}},
      {"  \t ", {}},
      {R"("a b c" d e)", {"a b c", "d", "e"}},
      {R"("ab\"c" "\\" d)", {"ab\"c", "\\", "d"}},
      {R"(a\\\b d"e f"g h)", {"a\\\\\\b", "de fg", "h"}},
      {R"(a\\\"b c d)", {"a\\\"b", "c", "d"}},
      {R"(a\\\\"b c" d e)", {"a\\\\b c", "d", "e"}},
      {R"(a"b"" c d)", {"ab\" c d"}},
      {R"(/p "/home/u/My Docs/a.docx" "/tmp/tarn/a.pdf" /noviewpdf)",
       {"/p", "/home/u/My Docs/a.docx", "/tmp/tarn/a.pdf", "/noviewpdf"}},
      {R"(x "" y)", {"x", "", "y"}},
      {R"("unclosed quote runs to the end)", {"unclosed quote runs to the end"}},
      {"/run/user/1000/tarn/ss_0a1b2c3d.txt", {"/run/user/1000/tarn/ss_0a1b2c3d.txt"}},
      {"\"Grüße/日本.docx\"", {"Grüße/日本.docx"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(split_command_line(c.line), c.args);
  }
}

TEST(process_launch_test, QuotedArgumentsComeBackUnchanged) {
  const std::vector<std::string> args = {
      "plain", "with blank", "with \"quotes\" inside", "ends in \\", "\\\\server\\share\\",
      "\\\"", "", "\"", "Grüße 日本 €", "tab\there"};
  std::string line;
  for (const auto& arg : args) line += quote_argument(arg) + " ";
  EXPECT_EQ(split_command_line(line), args);
  // An ordinary path only gains its quotes, as the helper's command line always had them.
  EXPECT_EQ(quote_argument("/home/u/My Docs/a b.docx"), "\"/home/u/My Docs/a b.docx\"");
}

}  // namespace
}  // namespace tarn
