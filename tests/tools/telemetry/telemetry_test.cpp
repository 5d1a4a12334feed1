#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "platform/child_process.h"
#include "support/run_program.h"
#include "support/test_env.h"

namespace tarn {
namespace {

constexpr const char* kEvent =
    "Software\\Vantu\\PDF\\V1|5.0.0.1|UA-314159265-1|ec|iManage%2010|el|From%20DMS%20%E9t%E9";

class telemetry_test : public test::sandboxed_test {
 protected:
  test::program_result telemetry(std::vector<std::string> args) {
    args.insert(args.begin(), test::dist_program("Telemetry"));
    return test::run_program(args);
  }
  const std::filesystem::path file_ = env_.home() / ".local/state/vantu/usage.jsonl";
};

TEST_F(telemetry_test, AppendsEachEventAsOneDecodedJsonLineAndLosesNoneAtOnce) {
  auto r = telemetry({kEvent});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  const auto event = nlohmann::json::parse(test::read_file(file_));
  EXPECT_EQ(event["key"], "Software\\Vantu\\PDF\\V1");
  EXPECT_EQ(event["build"], "5.0.0.1");
  EXPECT_EQ(event["property"], "UA-314159265-1");
  EXPECT_EQ(event["values"], (nlohmann::json{{"ec", "iManage 10"}, {"el", "From DMS été"}}));
  EXPECT_EQ(event["line"], kEvent);
  struct stat st;
  ASSERT_EQ(stat(file_.parent_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  // Sixteen reporters at once, one of them on an unquoted line of two words.
  std::vector<std::unique_ptr<child_process>> reporters;
  for (int i = 0; i < 15; ++i)
    reporters.push_back(child_process::start(
        {test::dist_program("Telemetry"), std::string(kEvent) + "|n|" + std::to_string(i)}));
  reporters.push_back(child_process::start({test::dist_program("Telemetry"), "k||p|n|a", "b"}));
  for (auto& reporter : reporters) EXPECT_EQ(reporter->wait(), 0);
  std::set<std::string> seen;
  std::istringstream lines(test::read_file(file_));
  for (std::string line; std::getline(lines, line);)
    seen.insert(nlohmann::json::parse(line)["values"].value("n", "first"));
  EXPECT_EQ(seen.size(), 17u);
  EXPECT_TRUE(seen.count("a b"));
}

TEST_F(telemetry_test, BadInputIsRefusedWithTheValueAtFault) {
  const struct {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{}, "LINE is required"},
      {{"a|b"}, "bad event: expected KEY|BUILD|PROPERTY[|NAME|TEXT]..., got 2 field(s) in \"a|b\""},
      {{"k|b|p|ec"}, "bad event: value \"ec\" has no text"},
      {{"|b|p"}, "bad event: the key is empty in \"|b|p\""},
      {{"k|b|p||x"}, "bad event: value 1 has no name"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    auto r = telemetry(c.args);
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_EQ(r.err.rfind("Telemetry: " + c.message + "\n", 0), 0u) << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(file_));

  test::write_file(env_.root() / "state", "a file where a folder should be");
  env_.set_env("XDG_STATE_HOME", (env_.root() / "state").string());
  auto r = telemetry({kEvent});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "Telemetry: can't create " + (env_.root() / "state/vantu").string() +
                       ": Not a directory\n");
}

}  // namespace
}  // namespace tarn
