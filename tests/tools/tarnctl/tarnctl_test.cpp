// tarnctl as an administrator meets it: the registry, the document store and the gateway.
#include <nlohmann/json.hpp>
#include <regex>

#include "components/dms_local/dms_local_plugin.h"
#include "log/simple_log.h"
#include "platform/registry_store.h"
#include "support/run_program.h"
#include "support/test_env.h"
#include "tasks/TarnGateWayHandler.h"
#include "web/in_process_server.h"
#include "web/thrift_http_server.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kKey = "HKCU\\Software\\Vantu\\PDF\\V1\\TarnGateWay";

// Each case has a gateway of its own on a port of the system's choosing.
class tarnctl_test : public test::sandboxed_test {
 protected:
  test::program_result tarnctl(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), test::dist_program("tarnctl"));
    return test::run_program(args, input);
  }
  // The standard output of a run that must succeed.
  std::string ok(const std::vector<std::string>& args) {
    const auto r = tarnctl(args);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    return r.out;
  }
  std::string input(const std::string& name, const std::string& bytes) {
    const fs::path path = env_.root() / "in" / name;
    test::write_file(path, bytes);
    return path.string();
  }
  std::string port() const { return std::to_string(server_.port()); }

  std::shared_ptr<simple_log> log_ = std::make_shared<simple_log>("start");
  test::in_process_server server_{
      std::make_shared<thrift_http_server_factory>("index.html", nullptr),
      std::make_shared<TarnGateWayHandler>(log_, std::make_shared<TaskWorker>(nullptr))};
};

TEST_F(tarnctl_test, RegAddQueryDeleteLikeRegExe) {
  // Data that looks like a switch or an option stays data; switches ignore case.
  for (const auto& add : std::vector<std::vector<std::string>>{
           {"/v", "Tarn_GateWay_fetatures", "/t", "REG_DWORD", "/d", "4", "/f"},
           {"/VE", "/d", "/usr/lib/x", "/F"},
           {"/v", "Neg", "/d", "--looks-like-an-option", "/f"},
           {"/v", "List", "/t", "REG_MULTI_SZ", "/d", "a\\0b\\0", "/f"}}) {
    std::vector<std::string> args{"reg", "add", kKey};
    args.insert(args.end(), add.begin(), add.end());
    EXPECT_EQ(ok(args), "The operation completed successfully.\n");
  }
  EXPECT_EQ(ok({"reg", "query", kKey}),
            "\nHKEY_CURRENT_USER\\Software\\Vantu\\PDF\\V1\\TarnGateWay\n"
            "    (Default)    REG_SZ    /usr/lib/x\n"
            "    List    REG_MULTI_SZ    a\\0b\n"
            "    Neg    REG_SZ    --looks-like-an-option\n"
            "    Tarn_GateWay_fetatures    REG_DWORD    0x4\n\n");

  ok({"reg", "delete", kKey, "/v", "Neg", "/f"});
  const auto r = tarnctl({"reg", "query", kKey, "/v", "Neg"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "ERROR: The system was unable to find the specified registry key or value.\n");

  EXPECT_EQ(tarnctl({"reg", "delete", "HKCU\\Software\\Vantu", "/f"}).exit_code, 0);
  EXPECT_EQ(tarnctl({"reg", "query", kKey}).exit_code, 1);
}

// Without a terminal to confirm on, overwriting and deleting want /f; the standard input's
// "yes" is never taken for one.
TEST_F(tarnctl_test, RefusesBadInputNamingTheValueAtFault) {
  ASSERT_EQ(tarnctl({"reg", "add", kKey, "/v", "a", "/d", "old", "/f"}).exit_code, 0);
  ASSERT_EQ(tarnctl({"dms", "import", input("a.txt", "a")}).exit_code, 0);
  const std::string missing = (env_.root() / "in" / "missing.txt").string();
  const std::string b_txt = input("b.txt", "b"), c_txt = input("c.txt", "c");
  const std::string cancelled = "The operation was cancelled by the user.\n";
  const struct {
    std::vector<std::string> args;
    int exit_code;
    std::string err_part;
    std::string out;
  } cases[] = {
      {{"reg", "add", "HKXX\\Software", "/v", "a", "/d", "1", "/f"}, 2, "HKXX\\Software"},
      {{"reg", "add", kKey, "/v", "b", "/t", "REG_DWORD", "/d", "4294967296"}, 2, "4294967296"},
      {{"reg", "add", kKey, "/v", "a", "/t", "REG_DWORD", "/d", "-1", "/f"}, 2, "-1"},
      {{"reg", "add", kKey, "/v", "a", "/t", "REG_NONE", "/f"}, 2, "REG_NONE"},
      {{"reg", "add", kKey, "/v", "a", "/t", "REG_BINARY", "/d", "0g", "/f"}, 2, "0g"},
      {{"reg", "add", kKey, "/v", "a", "/d", "new"}, 1, "add /f", cancelled},
      {{"reg", "delete", kKey}, 1, ""},
      {{"reg", "query", "HKCU\\Nothing\\Here"}, 1, "unable to find"},
      {{"dms", "show", "9.1"}, 1, "9.1"},
      {{"dms", "show", "archive:1.1", "--library", "default"}, 2, "archive:1.1"},
      {{"dms", "versions", "1.1", "--library", "nope"}, 1, "nope"},
      {{"dms", "list", "--library", "Bad!"}, 2, "Bad!"},
      {{"dms", "list", "--folder", "bad\tfolder"}, 2, "bad\tfolder"},
      {{"dms", "export", "1.1", missing}, 1, missing},
      {{"dms", "import", b_txt, missing, c_txt}, 1, missing, "2.1\n3.1\n"},
      // Nothing listens on the privileged port 1 of a test machine.
      {{"call", "get_version", "--host", "127.0.0.1", "--port", "1"}, 1, "gateway at 127.0.0.1:1"},
      {{"call", "send_command", "--cmd", "MERGE", "--port", port()}, 2, "'MERGE' is neither"},
      {{"call", "send_command", "--port", port()}, 2, "--cmd is required"},
      {{"call", "get_version", "--port", "0"}, 2, "--port"},
      {{"call"}, 2, "A subcommand is required"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    auto r = tarnctl(c.args, "yes\n");
    EXPECT_EQ(r.exit_code, c.exit_code);
    EXPECT_NE(r.err.find(c.err_part), std::string::npos) << r.err;
    EXPECT_EQ(r.out, c.out);
  }
  EXPECT_NE(tarnctl({"reg", "query", kKey, "/v", "a"}).out.find("REG_SZ    old"),
            std::string::npos);
}

TEST_F(tarnctl_test, SetupRegistersTheInstallFolderAndRemoveTakesOnlyThatBack) {
  ok({"setup"});
  auto store =
      registry_store::open(env_.machine_registry(), registry_store::access::write, 0644, nullptr);
  ASSERT_TRUE(store);
  auto text_of = [&](const std::string& key, const std::string& name) {
    auto value = store->get(key, name);
    return value ? reg_sz_text(value->data) : "<none>";
  };
  const std::string dist = std::string(TARN_DIST_DIR) + "/";
  EXPECT_EQ(text_of("Software\\Vantu\\PDF\\V1", "InstallPath"), dist);
  // The shipped components, registered by class id for the component loader.
  const std::string attach_key =
      "Software\\Classes\\CLSID\\{F3D21E10-ACE3-4CD1-AA63-7226F6416B06}\\InprocServer32";
  const std::string dms_key = "Software\\Classes\\CLSID\\{3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97}";
  EXPECT_EQ(text_of(dms_key + "\\InprocServer32", ""), dist + "dms_local.so");
  EXPECT_EQ(text_of(attach_key, ""), dist + "pdf_attach.so");

  // Removal takes back only what names this folder: another product's registration of a class
  // id and the machine's policies stay.
  constexpr const char* kPolicyKey = "Software\\Policies\\Vantu\\Tarn 5.0\\Preferences";
  const std::string foreign = "/opt/other/pdf_attach.so";
  ASSERT_TRUE(store->set(attach_key, "", kRegSz, reg_sz_bytes(foreign), nullptr));
  ASSERT_TRUE(store->set(kPolicyKey, "CollectData", kRegDword, std::string(4, '\0'), nullptr));
  ok({"setup", "--remove"});
  EXPECT_FALSE(store->key_exists("Software\\Vantu"));
  EXPECT_FALSE(store->key_exists(dms_key));
  EXPECT_EQ(text_of(attach_key, ""), foreign);
  EXPECT_TRUE(store->get(kPolicyKey, "CollectData"));

  env_.set_env("TARN_MACHINE_REGISTRY", "/proc/no/such/registry.sqlite");
  const auto r = tarnctl({"setup"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("/proc/no/such/registry.sqlite"), std::string::npos) << r.err;
}

TEST_F(tarnctl_test, DmsImportsListsShowsAndExportsForPeopleAndScripts) {
  EXPECT_EQ(ok({"dms", "list"}), "REF  NAME  FOLDER  VERSIONS  SIZE  CREATED\n");

  auto r = tarnctl({"dms", "import", input("a.docx", "a"), "--folder", "Contracts"});
  EXPECT_EQ(r.out, "1.1\n");
  EXPECT_EQ(r.err, "");
  ASSERT_EQ(tarnctl({"dms", "import", input("報告.txt", std::string(1536, 'b'))}).exit_code, 0);
  EXPECT_EQ(ok({"dms", "import", input("a.docx", "a"), "--library", "archive"}), "archive:1.1\n");
  for (int32_t mode : {kSaveNewVersion, kSaveNewRelatedDocument})
    ASSERT_EQ(test::save_doc(*test::make_connector(), mode, input("a.pdf", "pdf a"), "1.1"), S_OK);

  EXPECT_EQ(std::regex_replace(ok({"dms", "list"}),
                               std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ"), "<time>"),
            "REF  NAME      FOLDER     VERSIONS  SIZE     CREATED\n"
            "1.2  a.pdf     Contracts  2         5 B      <time>\n"
            "2.1  報告.txt  -          1         1.5 KiB  <time>\n"
            "3.1  a.pdf     -          1         5 B      <time>\n");
  EXPECT_EQ(ok({"dms", "related", "1.1"}),
            "RELATION  REF  NAME   FOLDER\n"
            "derived   3.1  a.pdf  -\n");

  auto json_of = [&](std::vector<std::string> args) {
    args.insert(args.begin(), "dms");
    args.push_back("--json");
    return json::parse(ok(args), nullptr, false);
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
  EXPECT_EQ(ok({"dms", "export", "1.1", out_dir.string()}), (out_dir / "a.docx").string() + "\n");
  EXPECT_EQ(test::read_file(out_dir / "a.docx"), "a");
  ok({"dms", "export", "1.2", out_dir.string()});
  r = tarnctl({"dms", "export", "3", out_dir.string()});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find((out_dir / "a.pdf").string()), std::string::npos) << r.err;
  ok({"dms", "export", "3", out_dir.string(), "--force"});
  EXPECT_EQ(test::names_in(out_dir), (std::set<std::string>{"a.docx", "a.pdf"}));
}

TEST_F(tarnctl_test, CallsTheGatewayThroughItsHttpTransport) {
  EXPECT_EQ(ok({"call", "get_version", "--host", "127.0.0.1", "--port", port()}),
            "Vantu Tarn (version 5.0)\n");
  EXPECT_EQ(ok({"call", "--host=127.0.0.1", "--port", port(), "send_command", "--cmd",
                "CONVERT_WITH_ASSISTANT", "--connection", "c \"x\"", "--location", "l", "--", "d2",
                "-d1"}),
            "The gateway took CONVERT_WITH_ASSISTANT with 2 document(s).\n");
  ok({"call", "send_command", "--cmd", "-3", "--host=127.0.0.1", "--port", port()});

  const std::string log = log_->render();
  for (const char* line : {"[0] ", R"(, send_command(CONVERT_WITH_ASSISTANT, "c "x"", "l", "-d1"))",
                           R"(, send_command(CONVERT_WITH_ASSISTANT, "c "x"", "l", "d2"))"}) {
    EXPECT_NE(log.find(line), std::string::npos) << line << " in\n" << log;
  }
}

}  // namespace
}  // namespace tarn
