#include "workstation.h"

#include <algorithm>
#include <thread>

#include "e2e_fixture.h"
#include "support/conversion.h"
#include "support/run_program.h"
#include "web/raw_http_client.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

std::unique_ptr<workstation>& the_workstation() {
  static std::unique_ptr<workstation> one;
  return one;
}

// Ends the workstation after the last test, while gtest can still report what went wrong.
class workstation_environment : public ::testing::Environment {
 public:
  void TearDown() override { workstation::end(); }
};
[[maybe_unused]] const auto* const kRegistered =
    ::testing::AddGlobalTestEnvironment(new workstation_environment);

std::string xml_text(const std::string& text) {
  std::string out;
  for (char c : text) out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : std::string(1, c);
  return out;
}

void write_docx(const fs::path& file, const std::string& text) {
  write_zip(file,
            {{"[Content_Types].xml",
              R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>)"
              R"(<Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types">)"
              R"(<Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml"/>)"
              R"(<Default Extension="xml" ContentType="application/xml"/>)"
              R"(<Override PartName="/word/document.xml" ContentType="application/vnd.openxmlformats-officedocument.wordprocessingml.document.main+xml"/></Types>)"},
             {"_rels/.rels",
              R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>)"
              R"(<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">)"
              R"(<Relationship Id="rId1" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/officeDocument" Target="word/document.xml"/></Relationships>)"},
             {"word/document.xml",
              R"(<?xml version="1.0" encoding="UTF-8" standalone="yes"?>)"
              R"(<w:document xmlns:w="http://schemas.openxmlformats.org/wordprocessingml/2006/main">)"
              "<w:body><w:p><w:r><w:t>" +
                  xml_text(text) + "</w:t></w:r></w:p></w:body></w:document>"}});
}

program_result tarnctl(std::vector<std::string> args) {
  args.insert(args.begin(), dist_program("tarnctl"));
  return run_program(args);
}

program_result set_dword(const std::string& key, const std::string& value, uint32_t number) {
  return tarnctl({"reg", "add", "HKCU\\Software\\Vantu\\PDF\\V1\\" + key, "/v", value, "/t",
                  "REG_DWORD", "/d", std::to_string(number), "/f"});
}

}  // namespace

std::string send_command_message(int cmd, const std::string& connection,
                                 const std::string& location, const std::vector<std::string>& refs,
                                 int seqid) {
  nlohmann::json set = nlohmann::json::array({"str", refs.size()});
  for (const auto& ref : refs) set.push_back(ref);
  const nlohmann::json args = {{"1", {{"i32", cmd}}},
                               {"2", {{"str", connection}}},
                               {"3", {{"str", location}}},
                               {"4", {{"set", set}}}};
  return nlohmann::json::array({1, "send_command", 1, seqid, args}).dump();
}

bool eventually(const std::function<bool()>& done, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

workstation& workstation::get() {
  auto& one = the_workstation();
  if (!one) one.reset(new workstation());
  return *one;
}

void workstation::end() { the_workstation().reset(); }

workstation::workstation() {
  prepare_sandbox(env_);
  // TMPDIR open to every user, as /tmp is: the programs keep to a private folder inside it.
  fs::create_directories(shared_tmp());
  fs::permissions(shared_tmp(), fs::perms::all | fs::perms::sticky_bit);
  env_.set_env("TMPDIR", shared_tmp().string());
  fs::create_directory(temp());
  fs::permissions(temp(), fs::perms::owner_all);
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
  for (const program_result& r : {tarnctl({"setup"}), set_dword("TarnGateWay", "Tarn_GateWay_fetatures", 4)}) {
    if (r.exit_code != 0) {
      why_ = "tarnctl failed: " + r.err;
      return;
    }
  }
  if (port_answers()) {
    why_ = "something already listens on port 9090";
    return;
  }
  if (!restart_gateway(true)) why_ = "the gateway didn't listen:\n" + gateway_->error_output();
}

bool workstation::restart_gateway(bool with_bus) {
  if (gateway_ && gateway_->started()) {
    gateway_->send_signal(SIGTERM);
    EXPECT_EQ(gateway_->wait_exit(), std::optional<int>(0)) << gateway_->error_output();
  }
  env_.set_env("DBUS_SESSION_BUS_ADDRESS",
               with_bus ? std::optional<std::string>(notes_->address()) : std::nullopt);
  gateway_ = std::make_unique<gateway_process>(env_.root(), "gateway" + std::to_string(++gateways_));
  return gateway_->wait_listening();
}

workstation::~workstation() {
  if (gateway_ && gateway_->started()) {
    gateway_->send_signal(SIGTERM);
    EXPECT_EQ(gateway_->wait_exit(), std::optional<int>(0)) << gateway_->error_output();
  }
  gateway_.reset();
  // tarnprint leaves its office running for the next document; this one is the test's.
  end_office_worker(temp());
  notes_.reset();
  x_.reset();
}

fs::path workstation::make_document(const std::string& name, const std::string& text) {
  const fs::path file = env_.root() / "documents" / std::to_string(++made_) / name;
  fs::create_directories(file.parent_path());
  if (file.extension() == ".docx")
    write_docx(file, text);
  else
    write_file(file, text + "\n");
  return file;
}

std::vector<std::string> workstation::import(const std::vector<fs::path>& files,
                                             const std::string& folder) {
  std::vector<std::string> args{"import"};
  for (const auto& file : files) args.push_back(file.string());
  if (!folder.empty()) args.insert(args.end(), {"--folder", folder});
  std::vector<std::string> refs;
  for (const auto& entry : dms(args)) refs.push_back(entry.at("ref").get<std::string>());
  EXPECT_EQ(refs.size(), files.size());
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

workstation::pdf_facts workstation::exported(const std::string& ref) {
  const fs::path dir = env_.root() / "exports" / std::to_string(++made_);
  fs::create_directories(dir);
  const program_result r = tarnctl({"dms", "export", ref, dir.string()});
  if (r.exit_code != 0 || fs::is_empty(dir)) {
    ADD_FAILURE() << "tarnctl dms export " << ref << " failed: " << r.err;
    return {};
  }
  pdf_facts facts{pdf_text(fs::directory_iterator(dir)->path())};
  // pdftotext ends every page with a form feed.
  facts.pages = static_cast<int>(std::count(facts.text.begin(), facts.text.end(), '\f'));
  return facts;
}
std::string workstation::post(const std::string& message) {
  raw_http_client client(kPort);
  if (!client.send(post_request(message))) return "";
  const std::string reply = client.read_reply();
  const size_t body = reply.find("\r\n\r\n");
  return body == std::string::npos ? "" : reply.substr(body + 4);
}

std::string workstation::send_command(int cmd, const std::vector<std::string>& refs,
                                      const std::string& connection, const std::string& location) {
  const int seqid = seqid_++;
  const std::string reply = post(send_command_message(cmd, connection, location, refs, seqid));
  EXPECT_EQ(reply, "[1,\"send_command\",2," + std::to_string(seqid) + ",{}]");
  return reply;
}

bool workstation::after_the_running_task() {
  const std::string idle = "ERROR: create_pdf_task::do_work() nothing to do.";
  const size_t before = trace_count(idle);
  send_command(kCreatePdf, {});
  return eventually([&] { return trace_count(idle) > before; });
}

std::string workstation::logs() {
  raw_http_client client(kPort);
  client.send("GET /logs HTTP/1.1\r\nHost: localhost:9090\r\n\r\n");
  const std::string reply = client.read_to_close();
  const size_t body = reply.find("\r\n\r\n");
  return body == std::string::npos ? "" : reply.substr(body + 4);
}

size_t workstation::trace_count(const std::string& text) const {
  const std::string all = trace();
  size_t count = 0;
  for (size_t at = all.find(": " + text + "\n"); at != std::string::npos;
       at = all.find(": " + text + "\n", at + 1))
    ++count;
  return count;
}

std::vector<std::string> workstation::temp_files() const {
  std::vector<std::string> files;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(temp(), ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it.depth() == 0 && it->path().filename() == "tarnoffice") {
      it.disable_recursion_pending();
      continue;
    }
    if (!it->is_directory(ec)) files.push_back(fs::relative(it->path(), temp()).string());
  }
  return files;
}

void workstation::remember(const std::string& value, uint32_t number) {
  const program_result r = set_dword("iManage", value, number);
  EXPECT_EQ(r.exit_code, 0) << r.err;
}

}  // namespace tarn::test
