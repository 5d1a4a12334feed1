#include "platform/registry_store.h"
#include "support/run_program.h"
#include "support/test_env.h"

namespace tarn {
namespace {

using test::run_program;

class tarnctl_reg_test : public test::sandboxed_test {
 protected:
  test::program_result tarnctl(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), test::dist_program("tarnctl"));
    return run_program(args, input);
  }
};

constexpr const char* kKey = "HKCU\\Software\\Vantu\\PDF\\V1\\TarnGateWay";

TEST_F(tarnctl_reg_test, AddQueryDeleteLikeRegExe) {
  // Data that looks like a switch or an option stays data; switches ignore case.
  for (const auto& add : std::vector<std::vector<std::string>>{
           {"/v", "Tarn_GateWay_fetatures", "/t", "REG_DWORD", "/d", "4", "/f"},
           {"/VE", "/d", "/usr/lib/x", "/F"},
           {"/v", "Neg", "/d", "--looks-like-an-option", "/f"},
           {"/v", "List", "/t", "REG_MULTI_SZ", "/d", "a\\0b\\0", "/f"}}) {
    std::vector<std::string> args{"reg", "add", kKey};
    args.insert(args.end(), add.begin(), add.end());
    const auto r = tarnctl(args);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.out, "The operation completed successfully.\n");
  }
  auto r = tarnctl({"reg", "query", kKey});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out,
            "\nHKEY_CURRENT_USER\\Software\\Vantu\\PDF\\V1\\TarnGateWay\n"
            "    (Default)    REG_SZ    /usr/lib/x\n"
            "    List    REG_MULTI_SZ    a\\0b\n"
            "    Neg    REG_SZ    --looks-like-an-option\n"
            "    Tarn_GateWay_fetatures    REG_DWORD    0x4\n\n");

  r = tarnctl({"reg", "delete", kKey, "/v", "Neg", "/f"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  r = tarnctl({"reg", "query", kKey, "/v", "Neg"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "ERROR: The system was unable to find the specified registry key or value.\n");

  EXPECT_EQ(tarnctl({"reg", "delete", "HKCU\\Software\\Vantu", "/f"}).exit_code, 0);
  EXPECT_EQ(tarnctl({"reg", "query", kKey}).exit_code, 1);
}

// Without a terminal to confirm on, overwriting and deleting want /f.
TEST_F(tarnctl_reg_test, RefusesBadInputWithTheValueAtFault) {
  ASSERT_EQ(tarnctl({"reg", "add", kKey, "/v", "a", "/d", "old", "/f"}).exit_code, 0);
  const struct {
    std::vector<std::string> args;
    int exit_code;
    const char* err_part;
  } cases[] = {
      {{"reg", "add", "HKXX\\Software", "/v", "a", "/d", "1", "/f"}, 2, "HKXX\\Software"},
      {{"reg", "add", kKey, "/v", "a", "/t", "REG_DWORD", "/d", "4294967296", "/f"}, 2,
       "4294967296"},
      {{"reg", "add", kKey, "/v", "a", "/t", "REG_DWORD", "/d", "-1", "/f"}, 2, "-1"},
      {{"reg", "add", kKey, "/v", "a", "/t", "REG_NONE", "/f"}, 2, "REG_NONE"},
      {{"reg", "add", kKey, "/v", "a", "/t", "REG_BINARY", "/d", "0g", "/f"}, 2, "0g"},
      {{"reg", "add", kKey, "/v", "a", "/d", "new"}, 1, "add /f"},
      {{"reg", "delete", kKey}, 1, ""},
      {{"reg", "query", "HKCU\\Nothing\\Here"}, 1, "unable to find"},
      {{"reg", "frobnicate"}, 2, "frobnicate"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[1] + " " + c.args.back());
    auto r = tarnctl(c.args, "yes\n");
    EXPECT_EQ(r.exit_code, c.exit_code);
    EXPECT_NE(r.err.find(c.err_part), std::string::npos) << r.err;
  }
  EXPECT_NE(tarnctl({"reg", "query", kKey, "/v", "a"}).out.find("REG_SZ    old"),
            std::string::npos);
}

TEST_F(tarnctl_reg_test, SetupRegistersTheInstallFolderAndRemoveTakesOnlyThatBack) {
  auto r = tarnctl({"setup"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  auto store =
      registry_store::open(env_.machine_registry(), registry_store::access::write, 0644, nullptr);
  ASSERT_TRUE(store);
  auto value = store->get("Software\\Vantu\\PDF\\V1", "InstallPath");
  ASSERT_TRUE(value);
  EXPECT_EQ(reg_sz_text(value->data), std::string(TARN_DIST_DIR) + "/");
  // The shipped components, registered by class id for the component loader.
  for (const auto& [clsid, library] :
       {std::pair{"{3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97}", "dms_local.so"},
        std::pair{"{F3D21E10-ACE3-4CD1-AA63-7226F6416B06}", "pdf_attach.so"}}) {
    SCOPED_TRACE(library);
    value = store->get(std::string("Software\\Classes\\CLSID\\") + clsid + "\\InprocServer32", "");
    ASSERT_TRUE(value);
    EXPECT_EQ(reg_sz_text(value->data), std::string(TARN_DIST_DIR) + "/" + library);
  }

  // Removal takes back only what names this folder: another product's registration of a class
  // id and the machine's policies stay.
  constexpr const char* kPolicyKey = "Software\\Policies\\Vantu\\Tarn 5.0\\Preferences";
  const std::string foreign = "/opt/other/pdf_attach.so";
  const std::string attach_key =
      "Software\\Classes\\CLSID\\{F3D21E10-ACE3-4CD1-AA63-7226F6416B06}\\InprocServer32";
  ASSERT_TRUE(store->set(attach_key, "", kRegSz, reg_sz_bytes(foreign), nullptr));
  ASSERT_TRUE(store->set(kPolicyKey, "CollectData", kRegDword, std::string(4, '\0'), nullptr));
  r = tarnctl({"setup", "--remove"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_FALSE(store->key_exists("Software\\Vantu"));
  EXPECT_FALSE(
      store->key_exists("Software\\Classes\\CLSID\\{3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97}"));
  value = store->get(attach_key, "");
  ASSERT_TRUE(value);
  EXPECT_EQ(reg_sz_text(value->data), foreign);
  EXPECT_TRUE(store->get(kPolicyKey, "CollectData"));

  env_.set_env("TARN_MACHINE_REGISTRY", "/proc/no/such/registry.sqlite");
  r = tarnctl({"setup"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("/proc/no/such/registry.sqlite"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace tarn
