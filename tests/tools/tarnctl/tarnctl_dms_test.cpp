#include <nlohmann/json.hpp>
#include <regex>

#include "components/dms_local/dms_local_plugin.h"
#include "support/run_program.h"
#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class tarnctl_dms_test : public test::sandboxed_test {
 protected:
  test::program_result tarnctl(std::vector<std::string> args) {
    args.insert(args.begin(), {test::dist_program("tarnctl"), "dms"});
    return test::run_program(args);
  }

  std::string input(const std::string& name, const std::string& bytes) {
    const fs::path path = env_.root() / "in" / name;
    test::write_file(path, bytes);
    return path.string();
  }
};

std::string without_times(const std::string& text) {
  static const std::regex kTime("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ");
  return std::regex_replace(text, kTime, "<time>");
}

TEST_F(tarnctl_dms_test, ImportsListsShowsAndExportsForPeopleAndScripts) {
  auto r = tarnctl({"list"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "REF  NAME  FOLDER  VERSIONS  SIZE  CREATED\n");

  r = tarnctl({"import", input("a.docx", "a"), "--folder", "Contracts"});
  EXPECT_EQ(r.out, "1.1\n");
  EXPECT_EQ(r.err, "");
  ASSERT_EQ(tarnctl({"import", input("報告.txt", std::string(1536, 'b'))}).exit_code, 0);
  r = tarnctl({"import", input("a.docx", "a"), "--library", "archive"});
  EXPECT_EQ(r.out, "archive:1.1\n");
  for (int32_t mode : {kSaveNewVersion, kSaveNewRelatedDocument})
    ASSERT_EQ(test::save_doc(*test::make_connector(), mode, input("a.pdf", "pdf a"), "1.1"), S_OK);

  r = tarnctl({"list"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(without_times(r.out),
            "REF  NAME      FOLDER     VERSIONS  SIZE     CREATED\n"
            "1.2  a.pdf     Contracts  2         5 B      <time>\n"
            "2.1  報告.txt  -          1         1.5 KiB  <time>\n"
            "3.1  a.pdf     -          1         5 B      <time>\n");
  r = tarnctl({"related", "1.1"});
  EXPECT_EQ(r.out,
            "RELATION  REF  NAME   FOLDER\n"
            "derived   3.1  a.pdf  -\n");

  auto json_of = [&](std::vector<std::string> args) {
    args.push_back("--json");
    auto r = tarnctl(args);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    return json::parse(r.out, nullptr, false);
  };
  EXPECT_EQ(json_of({"list", "--library", "archive"}).size(), 1u);
  json listed = json_of({"list", "--folder", "Contracts"});
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0]["ref"], "1.2");
  EXPECT_EQ(listed[0]["versions"], 2);
  json versions = json_of({"versions", "1"});
  ASSERT_EQ(versions.size(), 2u);
  EXPECT_EQ(versions[0]["extension"], "docx");
  EXPECT_EQ(versions[1]["extension"], "pdf");
  json shown = json_of({"show", "1.1"});
  EXPECT_EQ(shown["name"], "a");
  EXPECT_EQ(shown["related"], 1);
  EXPECT_EQ(test::read_file(shown["content"].get<std::string>()), "a");

  const fs::path out_dir = env_.root() / "out";
  fs::create_directories(out_dir);
  r = tarnctl({"export", "1.1", out_dir.string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, (out_dir / "a.docx").string() + "\n");
  EXPECT_EQ(test::read_file(out_dir / "a.docx"), "a");
  r = tarnctl({"export", "1.2", out_dir.string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  r = tarnctl({"export", "3", out_dir.string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find((out_dir / "a.pdf").string()), std::string::npos) << r.err;
  EXPECT_EQ(tarnctl({"export", "3", out_dir.string(), "--force"}).exit_code, 0);
  EXPECT_EQ(test::names_in(out_dir), (std::set<std::string>{"a.docx", "a.pdf"}));
}

TEST_F(tarnctl_dms_test, RefusesBadInputNamingTheValueAtFault) {
  ASSERT_EQ(tarnctl({"import", input("a.txt", "a")}).exit_code, 0);
  const std::string missing = (env_.root() / "in" / "missing.txt").string();
  const std::string folder = (env_.root() / "in").string();
  const struct {
    std::vector<std::string> args;
    int exit_code;
    std::string err_part;
    std::string out;
  } cases[] = {
      {{"show", "9.1"}, 1, "9.1", ""},
      {{"show", "1.2"}, 1, "1.2", ""},
      {{"show", "../1"}, 2, "../1", ""},
      {{"show", "archive:1.1", "--library", "default"}, 2, "archive:1.1", ""},
      {{"versions", "1.1", "--library", "nope"}, 1, "nope", ""},
      {{"list", "--library", "Bad!"}, 2, "Bad!", ""},
      {{"list", "--folder", "bad\tfolder"}, 2, "bad\tfolder", ""},
      {{"export", "1.1", missing}, 1, missing, ""},
      {{"import", input("b.txt", "b"), missing, input("c.txt", "c")}, 1, missing, "2.1\n3.1\n"},
      {{"import", folder}, 1, folder, ""},
      {{"frobnicate"}, 2, "frobnicate", ""},
      {{"show"}, 2, "ref", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args.back());
    auto r = tarnctl(c.args);
    EXPECT_EQ(r.exit_code, c.exit_code);
    EXPECT_NE(r.err.find(c.err_part), std::string::npos) << r.err;
    EXPECT_EQ(r.out, c.out);
  }
}

}  // namespace
}  // namespace tarn
