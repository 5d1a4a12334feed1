#include "workstation.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

void write_odt(const fs::path& file, const std::string& text) {
  write_zip(file,
            {{"mimetype", "application/vnd.oasis.opendocument.text"},
             {"META-INF/manifest.xml",
              R"(<?xml version="1.0" encoding="UTF-8"?>)"
              R"(<manifest:manifest xmlns:manifest="urn:oasis:names:tc:opendocument:xmlns:manifest:1.0" manifest:version="1.2">)"
              R"(<manifest:file-entry manifest:full-path="/" manifest:media-type="application/vnd.oasis.opendocument.text"/>)"
              R"(<manifest:file-entry manifest:full-path="content.xml" manifest:media-type="text/xml"/></manifest:manifest>)"},
             {"content.xml",
              R"(<?xml version="1.0" encoding="UTF-8"?>)"
              R"(<office:document-content xmlns:office="urn:oasis:names:tc:opendocument:xmlns:office:1.0" )"
              R"(xmlns:text="urn:oasis:names:tc:opendocument:xmlns:text:1.0" office:version="1.2">)"
              "<office:body><office:text><text:p>" +
                  xml_text(text) +
                  "</text:p></office:text></office:body></office:document-content>"}});
}

program_result tarnctl(const std::vector<std::string>& args) {
  std::vector<std::string> argv{dist_program("tarnctl")};
  argv.insert(argv.end(), args.begin(), args.end());
  return run_program(argv);
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
  const fs::path root = env_.root();
  write_file(root / "machine-info", "CHASSIS=desktop\n");
  env_.set_env("TARN_MACHINE_INFO", (root / "machine-info").string());
  env_.set_env("TARN_TRACE", "85");
  const auto runtime = root / "run";
  fs::create_directories(runtime);
  fs::permissions(runtime, fs::perms::owner_all);
  env_.set_env("XDG_RUNTIME_DIR", runtime.string());
  env_.set_env("WAYLAND_DISPLAY", std::nullopt);
  env_.set_env("QT_QPA_PLATFORM", std::nullopt);

  x_ = std::make_unique<x_display>();
  if (!x_->started()) {
    why_ = x_->why();
    return;
  }
  // The gateway, xdotool and nothing else of the test see this display.
  env_.set_env("DISPLAY", x_->display());

  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"setup"},
        std::vector<std::string>{"reg", "add", "HKCU\\Software\\Vantu\\PDF\\V1\\TarnGateWay", "/v",
                                 "Tarn_GateWay_fetatures", "/t", "REG_DWORD", "/d", "4", "/f"}}) {
    const program_result r = tarnctl(args);
    if (r.exit_code != 0) {
      why_ = "tarnctl " + args[0] + " failed: " + r.err;
      return;
    }
  }
  if (port_answers()) {
    why_ = "something already listens on port 9090; the whole-process tests need it free";
    return;
  }
  gateway_ = std::make_unique<gateway_process>(root, "gateway");
  if (!gateway_->started() || !gateway_->wait_listening()) {
    why_ = "the gateway didn't listen; its standard error:\n" + gateway_->error_output();
  }
}

workstation::~workstation() {
  if (gateway_ && gateway_->started()) {
    gateway_->send_signal(SIGTERM);
    EXPECT_EQ(gateway_->wait_exit(), std::optional<int>(0)) << gateway_->error_output();
  }
  gateway_.reset();
  // tarnprint leaves its office running for the next document; this one is the test's.
  end_office_worker(env_.tmp());
  x_.reset();
}

fs::path workstation::make_document(const std::string& name, const std::string& text) {
  const fs::path file = env_.root() / "documents" / std::to_string(++made_) / name;
  fs::create_directories(file.parent_path());
  const std::string ext = file.extension().string();
  if (ext == ".docx") {
    write_docx(file, text);
  } else if (ext == ".odt") {
    write_odt(file, text);
  } else {
    write_file(file, text + "\n");
  }
  return file;
}

std::vector<std::string> workstation::import(const std::vector<fs::path>& files,
                                             const std::string& folder) {
  std::vector<std::string> args{"dms", "import", "--json"};
  for (const auto& file : files) args.push_back(file.string());
  if (!folder.empty()) args.insert(args.end(), {"--folder", folder});
  std::vector<std::string> refs;
  const nlohmann::json imported = dms(args);
  for (const auto& entry : imported) refs.push_back(entry.at("ref").get<std::string>());
  EXPECT_EQ(refs.size(), files.size());
  return refs;
}

nlohmann::json workstation::dms(const std::vector<std::string>& args) {
  std::vector<std::string> all = args;
  if (all.empty() || all[0] != "dms") all.insert(all.begin(), "dms");
  if (std::find(all.begin(), all.end(), "--json") == all.end()) all.push_back("--json");
  const program_result r = tarnctl(all);
  if (r.exit_code != 0) {
    ADD_FAILURE() << "tarnctl " << all[1] << " failed (" << r.exit_code << "): " << r.err;
    return nullptr;
  }
  return nlohmann::json::parse(r.out, nullptr, false);
}

workstation::pdf_facts workstation::exported(const std::string& ref) {
  const fs::path dir = env_.root() / "exports" / std::to_string(++made_);
  fs::create_directories(dir);
  const program_result r = tarnctl({"dms", "export", ref, dir.string()});
  if (r.exit_code != 0) {
    ADD_FAILURE() << "tarnctl dms export " << ref << " failed: " << r.err;
    return {};
  }
  fs::path pdf;
  for (const auto& entry : fs::directory_iterator(dir)) pdf = entry.path();
  pdf_facts facts{pdf_text(pdf)};
  const program_result pages = run_program({"/usr/bin/qpdf", "--show-npages", pdf.string()});
  facts.pages = pages.exit_code == 0 ? std::atoi(pages.out.c_str()) : -1;
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
  for (auto it = fs::recursive_directory_iterator(env_.tmp(), ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it.depth() == 0 && it->path().filename() == "tarnoffice") {
      it.disable_recursion_pending();
      continue;
    }
    if (!it->is_directory(ec)) files.push_back(fs::relative(it->path(), env_.tmp()).string());
  }
  return files;
}

void workstation::remember(const std::string& value, uint32_t number) {
  const program_result r =
      tarnctl({"reg", "add", "HKCU\\Software\\Vantu\\PDF\\V1\\iManage", "/v", value, "/t",
               "REG_DWORD", "/d", std::to_string(number), "/f"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
}

list_file_catcher::list_file_catcher(const fs::path& folder)
    : folder_(folder),
      inotify_(inotify_init1(IN_CLOEXEC)),
      stop_(eventfd(0, EFD_CLOEXEC)) {
  if (!inotify_ || !stop_ ||
      inotify_add_watch(inotify_.get(), folder.c_str(), IN_CREATE | IN_CLOSE_WRITE) < 0) {
    ADD_FAILURE() << "can't watch " << folder << ": " << std::strerror(errno);
    return;
  }
  thread_ = std::thread([this] { watch(); });
}

list_file_catcher::~list_file_catcher() {
  if (thread_.joinable()) {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(stop_.get(), &one, sizeof(one));
    thread_.join();
  }
}

void list_file_catcher::watch() {
  for (;;) {
    pollfd p[2] = {{inotify_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
    if (poll(p, 2, -1) < 0 && errno != EINTR) return;
    if ((p[1].revents & POLLIN) != 0) return;
    if ((p[0].revents & POLLIN) != 0) take_events();
  }
}

void list_file_catcher::take_events() {
  alignas(inotify_event) char buffer[64 * 1024];
  const ssize_t n = read(inotify_.get(), buffer, sizeof(buffer));
  for (ssize_t at = 0; at < n;) {
    const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
    at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    const std::string name = event->len > 0 ? event->name : "";
    if (!name.starts_with("ss_") || !name.ends_with(".txt")) continue;
    if ((event->mask & IN_CREATE) != 0 && !open_.count(name)) {
      unique_fd fd(open((folder_ / name).c_str(), O_RDONLY | O_CLOEXEC));
      if (fd) open_[name] = std::move(fd);
    }
    if ((event->mask & IN_CLOSE_WRITE) != 0 && open_.count(name)) {
      std::string bytes;
      char chunk[4096];
      ssize_t got;
      for (off_t off = 0; (got = pread(open_[name].get(), chunk, sizeof(chunk), off)) > 0;
           off += got)
        bytes.append(chunk, static_cast<size_t>(got));
      open_.erase(name);
      std::lock_guard lock(mutex_);
      closed_.push_back(std::move(bytes));
      changed_.notify_all();
    }
  }
}

std::optional<std::string> list_file_catcher::next(std::chrono::milliseconds deadline) {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, deadline, [this] { return !closed_.empty(); }))
    return std::nullopt;
  std::string first = std::move(closed_.front());
  closed_.pop_front();
  return first;
}

}  // namespace tarn::test
