#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/child_process.h"
#include "support/run_program.h"
#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr const char* kEvent =
    "Software\\Vantu\\PDF\\V1|5.0.0.1|UA-314159265-1|ec|iManage%2010|ea|iManage10:%20Create%20PDF"
    "|el|From%20DMS%20%E9t%E9";

class telemetry_test : public test::sandboxed_test {
 protected:
  test::program_result telemetry(std::vector<std::string> args) {
    args.insert(args.begin(), test::dist_program("Telemetry"));
    return test::run_program(args);
  }
  std::vector<nlohmann::json> events() {
    std::vector<nlohmann::json> found;
    std::istringstream in(test::read_file(file_));
    for (std::string line; std::getline(in, line);) found.push_back(nlohmann::json::parse(line));
    return found;
  }
  unsigned mode_of(const fs::path& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
  }

  const fs::path folder_ = env_.home() / ".local/state/vantu";
  const fs::path file_ = folder_ / "usage.jsonl";
};

TEST_F(telemetry_test, AppendsEachEventAsOneDecodedJsonLine) {
  auto r = telemetry({kEvent});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  // An unquoted line with blanks arrives as several words.
  r = telemetry({"Software\\Vantu\\PDF\\V1||UA-314159265-1|ec|two", "words"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out + r.err, "");

  const auto found = events();
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0]["key"], "Software\\Vantu\\PDF\\V1");
  EXPECT_EQ(found[0]["build"], "5.0.0.1");
  EXPECT_EQ(found[0]["property"], "UA-314159265-1");
  EXPECT_EQ(found[0]["values"], (nlohmann::json{{"ec", "iManage 10"},
                                                {"ea", "iManage10: Create PDF"},
                                                {"el", "From DMS été"}}));
  EXPECT_EQ(found[0]["line"], kEvent);
  EXPECT_EQ(found[1]["build"], "");
  EXPECT_EQ(found[1]["values"], (nlohmann::json{{"ec", "two words"}}));
  EXPECT_EQ(mode_of(folder_), 0700u);
  EXPECT_EQ(mode_of(file_), 0600u);
}

TEST_F(telemetry_test, ConcurrentReportersLoseNothing) {
  std::vector<std::unique_ptr<child_process>> reporters;
  for (int i = 0; i < 16; ++i) {
    reporters.push_back(child_process::start(
        {test::dist_program("Telemetry"), std::string(kEvent) + "|n|" + std::to_string(i)}));
    ASSERT_TRUE(reporters.back());
  }
  for (auto& reporter : reporters) EXPECT_EQ(reporter->wait(), 0);
  std::set<std::string> seen;
  for (const auto& event : events()) seen.insert(event["values"]["n"].get<std::string>());
  EXPECT_EQ(seen.size(), 16u);
}

TEST_F(telemetry_test, BadInputIsRefusedAndNothingWritten) {
  const struct {
    std::vector<std::string> args;
    int code;
    const char* message;
  } cases[] = {
      {{}, 2, "Telemetry: LINE is required"},
      {{"a|b"}, 2, "Telemetry: bad event: expected KEY|BUILD|PROPERTY[|NAME|TEXT]..., got 2 "
                   "field(s) in \"a|b\"\n"},
      {{"k|b|p|ec"}, 2, "Telemetry: bad event: value \"ec\" has no text\n"},
      {{"|b|p"}, 2, "Telemetry: bad event: the key is empty in \"|b|p\"\n"},
      {{"k|b|"}, 2, "Telemetry: bad event: the property id is empty in \"k|b|\"\n"},
      {{"k|b|p||x"}, 2, "Telemetry: bad event: value 1 has no name\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    auto r = telemetry(c.args);
    EXPECT_EQ(r.exit_code, c.code);
    EXPECT_EQ(r.err.rfind(c.message, 0), 0u) << r.err;
  }
  EXPECT_FALSE(fs::exists(folder_));

  auto help = telemetry({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("vantu/usage.jsonl"), std::string::npos);
}

TEST_F(telemetry_test, UnwritableStateFolderIsNamed) {
  test::write_file(env_.root() / "state", "a file where a folder should be");
  env_.set_env("XDG_STATE_HOME", (env_.root() / "state").string());
  auto r = telemetry({kEvent});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "Telemetry: can't create " + (env_.root() / "state/vantu").string() +
                       ": Not a directory\n");
}

}  // namespace
}  // namespace tarn
