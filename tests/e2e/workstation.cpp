#include "workstation.h"

#include "support/conversion.h"
#include "support/run_program.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

std::unique_ptr<workstation> the_workstation;
// Ends the workstation after the last test, while gtest can still report what went wrong.
class workstation_environment : public ::testing::Environment {
 public:
  void TearDown() override { the_workstation.reset(); }
};
[[maybe_unused]] const auto* const kRegistered =
    ::testing::AddGlobalTestEnvironment(new workstation_environment);

program_result tarnctl(std::vector<std::string> args) {
  args.insert(args.begin(), dist_program("tarnctl"));
  return run_program(args);
}

program_result set_dword(const std::string& key, const std::string& value, uint32_t number) {
  return tarnctl({"reg", "add", "HKCU\\Software\\Vantu\\PDF\\V1\\" + key, "/v", value, "/t",
                  "REG_DWORD", "/d", std::to_string(number), "/f"});
}

}  // namespace

workstation& workstation::get() {
  if (!the_workstation) the_workstation.reset(new workstation());
  return *the_workstation;
}

workstation::workstation() {
  prepare_sandbox(env_);
  // TMPDIR open to every user, as /tmp is: the programs keep to a private folder inside it.
  fs::create_directories(shared_tmp());
  fs::permissions(shared_tmp(), fs::perms::all | fs::perms::sticky_bit);
  env_.set_env("TMPDIR", shared_tmp().string());
  x_ = std::make_unique<x_display>();
  if (!x_->started()) {
    why_ = x_->why();
    return;
  }
  // The gateway, xdotool and nothing else of the test see this display.
  env_.set_env("DISPLAY", x_->display());
  notes_ = std::make_unique<notification_service>(x_->display(), env_.root() / "notifications");
  if (!notes_->started()) {
    why_ = notes_->why();
    return;
  }
  env_.set_env("DBUS_SESSION_BUS_ADDRESS", notes_->address());
  // What xdg-open starts for a folder: a note of which one.
  const fs::path opener = env_.root() / "open-folder";
  write_file(opener, "#!/bin/sh\necho \"$1\" >> \"$0.log\"\n");
  fs::permissions(opener, fs::perms::owner_all);
  write_file(env_.home() / ".local/share/applications/tarn-test-folder.desktop",
             "[Desktop Entry]\nType=Application\nName=Folder\nExec=" + opener.string() +
                 " %f\nMimeType=inode/directory;\n");
  write_file(env_.home() / ".config/mimeapps.list",
             "[Default Applications]\ninode/directory=tarn-test-folder.desktop\n");
  for (const program_result& r :
       {tarnctl({"setup"}), set_dword("TarnGateWay", "Tarn_GateWay_fetatures", 4)}) {
    if (r.exit_code != 0) {
      why_ = "tarnctl failed: " + r.err;
      return;
    }
  }
  if (port_answers()) {
    why_ = "something already listens on port 9090";
    return;
  }
  gateway_ = std::make_unique<gateway_process>(env_.root(), "gateway");
  if (!gateway_->wait_listening()) why_ = "the gateway didn't listen:\n" + gateway_->error_output();
}

workstation::~workstation() {
  if (gateway_ && gateway_->started()) {
    gateway_->send_signal(SIGTERM);
    EXPECT_EQ(gateway_->wait_exit(), std::optional<int>(0)) << gateway_->error_output();
  }
  gateway_.reset();
  // tarnprint leaves its office running for the next document; this one is the test's.
  end_office_worker(temp());
}

std::vector<std::string> workstation::import(const std::vector<fs::path>& files,
                                             const std::string& folder) {
  std::vector<std::string> args{"import"};
  for (const auto& file : files) args.push_back(file.string());
  if (!folder.empty()) args.insert(args.end(), {"--folder", folder});
  std::vector<std::string> refs;
  for (const auto& entry : dms(args)) refs.push_back(entry.at("ref").get<std::string>());
  EXPECT_EQ(refs.size(), files.size());
  refs.resize(files.size());  // so that a test may index it all the same
  return refs;
}

nlohmann::json workstation::dms(const std::vector<std::string>& args) {
  std::vector<std::string> all{"dms"};
  all.insert(all.end(), args.begin(), args.end());
  all.push_back("--json");
  const program_result r = tarnctl(all);
  if (r.exit_code != 0) {
    ADD_FAILURE() << "tarnctl dms " << args[0] << " failed (" << r.exit_code << "): " << r.err;
    return nullptr;
  }
  return nlohmann::json::parse(r.out, nullptr, false);
}

std::string workstation::exported(const std::string& ref) {
  const fs::path dir = env_.root() / "exports" / std::to_string(++made_);
  fs::create_directories(dir);
  const program_result r = tarnctl({"dms", "export", ref, dir.string()});
  if (r.exit_code != 0 || fs::is_empty(dir)) {
    ADD_FAILURE() << "tarnctl dms export " << ref << " failed: " << r.err;
    return {};
  }
  return pdf_text(fs::directory_iterator(dir)->path());
}

void workstation::send_command(int cmd, const std::vector<std::string>& refs) {
  const int seqid = seqid_++;
  EXPECT_EQ(call(send_command_message(cmd, "", "", refs, seqid)),
            "[1,\"send_command\",2," + std::to_string(seqid) + ",{}]");
}

bool workstation::after_the_running_task() {
  const auto idle_lines = [this] {
    const std::string all = trace(), idle = ": ERROR: create_pdf_task::do_work() nothing to do.\n";
    size_t count = 0;
    for (size_t at = all.find(idle); at != std::string::npos; at = all.find(idle, at + 1)) ++count;
    return count;
  };
  const size_t before = idle_lines();
  send_command(kCreatePdf, {});
  return eventually([&] { return idle_lines() > before; });
}

void workstation::remember(const std::vector<std::pair<std::string, uint32_t>>& answers) {
  for (const auto& [value, number] : answers) {
    const program_result r = set_dword("iManage", value, number);
    EXPECT_EQ(r.exit_code, 0) << value << ": " << r.err;
  }
}

}  // namespace tarn::test
