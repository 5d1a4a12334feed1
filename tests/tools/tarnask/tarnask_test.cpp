// tarnask as the gateway and an administrator meet it: its help, its exit codes, its errors.
// Its dialogs on a real display are tested with the gateway's side, in tests/dialogs.
#include <gmock/gmock.h>

#include "support/run_program.h"
#include "support/test_env.h"

namespace tarn {
namespace {

using ::testing::HasSubstr;

class tarnask_test : public test::sandboxed_test {
 protected:
  void SetUp() override { env_.set_env("QT_QPA_PLATFORM", "offscreen"); }
};

TEST_F(tarnask_test, ExitCodesSayWhatHappened) {
  const std::string how =
      R"({"prompt":"p","local_save_allowed":false,"how_to_save":0,"save_new_related":true})";
  const struct {
    std::vector<std::string> args;
    std::string input;
    int exit_code;
    const char* says;  // on standard output for --help, else on standard error
  } cases[] = {
      {{"--help"}, "", 0, "Exit codes: 0 answered"},
      {{"ask-everything"}, "", 2, "question: ask-everything not in {merge-sort,how-to-save}"},
      {{"how-to-save"}, "{\"prompt\": 7}", 2, "tarnask: bad request on standard input: "},
      {{"how-to-save"}, how, 1, "tarnask: no display to show the question on"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "(none)" : c.args[0]);
    std::vector<std::string> args{test::dist_program("tarnask")};
    args.insert(args.end(), c.args.begin(), c.args.end());
    test::program_result result = test::run_program(args, c.input);
    EXPECT_EQ(result.exit_code, c.exit_code);
    EXPECT_THAT(c.exit_code == 0 ? result.out : result.err, HasSubstr(c.says));
    if (c.exit_code != 0) {
      EXPECT_EQ(result.out, "");
    }
  }
}

}  // namespace
}  // namespace tarn
