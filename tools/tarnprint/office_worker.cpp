#include "office_worker.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "conversion_watchdog.h"
#include "lok_office.h"
#include "office_protocol.h"
#include "platform/unique_fd.h"
#include "shared_extension_cache.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using clock = std::chrono::steady_clock;

constexpr const char* kProgramDir = "/usr/lib/libreoffice/program";
// A run that connects but sends no request doesn't hold the worker longer than this.
constexpr auto kRequestWait = std::chrono::seconds(10);
// tarnprint kills a hung worker at the time-out; this is for a run that went away meanwhile.
constexpr auto kWatchdogGrace = std::chrono::seconds(10);
constexpr long long kDefaultTimeoutMs = 120'000;
// Set only by the tests: every document hangs once loaded, so that the time-out can be seen
// at work.
constexpr const char* kStallHook = "TARN_OFFICE_TEST_STALL";
constexpr std::chrono::milliseconds kSocketCheck{5000};

long long ms_since(clock::time_point begin) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - begin).count();
}

// One line of the worker's log (its standard error).
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void say(const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::fprintf(stderr, "tarnoffice %d: %s\n", static_cast<int>(::getpid()), text);
  std::fflush(stderr);
}

// The office turns the names in file URLs into bytes with the codeset of the locale variables,
// so under C or POSIX it opens only ASCII names. It keeps the user's language, with UTF-8.
void use_utf8_file_names() {
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') continue;
    const std::string locale = value;
    if (const size_t dot = locale.find('.'); dot != std::string::npos) {
      std::string codeset;
      for (char c : locale.substr(dot + 1, locale.find('@', dot) - dot - 1))
        if (c != '-') codeset += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (codeset == "utf8") return;
    }
    std::string language = locale.substr(0, locale.find_first_of(".@"));
    if (language == "POSIX") language = "C";
    // LC_ALL overrides the others, so a LC_ALL without UTF-8 is the one to replace.
    ::setenv(std::strcmp(name, "LC_ALL") == 0 ? "LC_ALL" : "LC_CTYPE",
             (language + ".UTF-8").c_str(), 1);
    return;
  }
  ::setenv("LC_CTYPE", "C.UTF-8", 1);
}

class worker {
 public:
  explicit worker(const worker_options& options) : options_(options) {}

  [[noreturn]] void run();

 private:
  bool listen_on_socket(std::string* err);
  bool socket_is_ours() const;
  void serve_one(int client);
  void convert(int client, const nlohmann::json& request);
  void prime();
  [[noreturn]] void finish(int code);

  const worker_options& options_;
  const office_paths& paths_ = options_.paths;
  unique_fd life_lock_;
  unique_fd listener_;
  std::optional<socket_address> address_;  // keeps a /proc/self/fd path's folder open
  bool bound_ = false;
  ino_t socket_inode_ = 0;
  unsigned converted_ = 0;
  lok_office office_;
  conversion_watchdog watchdog_;
};

bool worker::listen_on_socket(std::string* err) {
  address_ = make_socket_address(paths_.socket(), err);
  if (!address_) return false;
  // Whatever is there belongs to a worker that is gone: the life lock is ours.
  ::unlink(paths_.socket().c_str());
  listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!listener_ ||
      ::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address_->addr), address_->len) !=
          0 ||
      ::listen(listener_.get(), 16) != 0) {
    *err = "can't listen on " + paths_.socket().string() + ": " + std::strerror(errno);
    return false;
  }
  bound_ = true;
  struct stat st;
  if (::stat(paths_.socket().c_str(), &st) == 0) socket_inode_ = st.st_ino;
  return true;
}

bool worker::socket_is_ours() const {
  struct stat st;
  return ::stat(paths_.socket().c_str(), &st) == 0 && st.st_ino == socket_inode_;
}

void worker::run() {
  ::umask(077);
  std::string err;
  // A worker that is still going (its last document done, or killed a moment ago) holds this
  // lock; two offices on one profile lose each other's files.
  life_lock_ = lock_file(paths_.life_lock(), /*wait=*/true, &err);
  if (!life_lock_) {
    say("%s", err.c_str());
    finish(1);
  }
  say("starting (at most %u documents, idle exit after %lld s)", options_.max_conversions,
      static_cast<long long>(options_.idle.count()));
  {
    std::ofstream pid(paths_.pid_file(), std::ios::trunc);
    pid << ::getpid() << "\n";
  }
  if (!listen_on_socket(&err)) {
    say("%s", err.c_str());
    finish(1);
  }
  if (options_.ready_fd >= 0) {
    // Runs may connect from now on; they wait in the backlog while the office loads.
    (void)!::write(options_.ready_fd, "1", 1);
    ::close(options_.ready_fd);
  }

  std::error_code ec;
  fs::remove_all(paths_.office_tmp(), ec);
  fs::create_directory(paths_.office_tmp(), ec);
  ::setenv("TMPDIR", paths_.office_tmp().c_str(), 1);
  ::setenv("SAL_USE_VCLPLUGIN", "svp", 1);
  use_utf8_file_names();
  const auto begin = clock::now();
  if (std::getenv(kStallHook) != nullptr) office_.stall();
  // As root, the office would create the machine's shared extension cache with this
  // process's umask and so lock every other user's office out.
  if (::geteuid() == 0 && !open_shared_extension_cache(&err)) say("%s", err.c_str());
  if (!office_.start(kProgramDir, paths_.profile(), &err)) {
    say("%s", err.c_str());
    finish(1);
  }
  say("office loaded in %lld ms", ms_since(begin));
  if (options_.prime && std::getenv(kStallHook) == nullptr) prime();

  using std::chrono::milliseconds;
  const milliseconds idle = options_.idle;
  auto since = clock::now();
  for (;;) {
    const auto waited = std::chrono::duration_cast<milliseconds>(clock::now() - since);
    const milliseconds left = std::max(idle - waited, milliseconds(0));
    pollfd p{listener_.get(), POLLIN, 0};
    // Wakes now and then: an office whose socket was removed (its temporary folder cleaned up)
    // can never be reached again and would only hold its memory until the idle time ends.
    const int ready = ::poll(&p, 1, static_cast<int>(std::min(left, kSocketCheck).count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      if (clock::now() - since >= idle) {
        say("idle for %lld s; exiting", static_cast<long long>(options_.idle.count()));
        finish(0);
      }
      if (!socket_is_ours()) {
        say("%s is gone; exiting", paths_.socket().c_str());
        finish(0);
      }
      continue;
    }
    unique_fd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (client) serve_one(client.get());
    since = clock::now();
  }
}

// The first document of each kind pays for loading its office module, its import and fonts,
// and the first of all for the PDF export: up to a second, which a warm-up should spend before
// the user answers rather than after. One small document goes through each module, by way of
// the kinds users send most.
void worker::prime() {
  static constexpr struct {
    const char* flat;  // the flat file's extension
    const char* kind;  // its mime type's last word
    const char* body;
    const char* format;
  } kPrimers[] = {
      {"fodt", "text", "<office:text><text:p>Ready</text:p></office:text>", "docx"},
      {"fods", "spreadsheet",
       "<office:spreadsheet><table:table><table:table-row><table:table-cell><text:p>Ready</text:p>"
       "</table:table-cell></table:table-row></table:table></office:spreadsheet>",
       "xlsx"},
      {"fodp", "presentation",
       "<office:presentation><draw:page><draw:frame svg:width=\"9cm\" svg:height=\"2cm\">"
       "<draw:text-box><text:p>Ready</text:p></draw:text-box></draw:frame></draw:page>"
       "</office:presentation>",
       "pptx"},
  };
  const auto begin = clock::now();
  std::string err;
  bool ok = true;
  for (const auto& primer : kPrimers) {
    const fs::path src = paths_.office_tmp() / (std::string("prime.") + primer.flat),
                   mid = paths_.office_tmp() / (std::string("prime.") + primer.format),
                   dst = paths_.office_tmp() / "prime.pdf";
    std::ofstream(src)
        << R"(<?xml version="1.0" encoding="UTF-8"?><office:document xmlns:office="urn:oasis:names:tc:opendocument:xmlns:office:1.0" xmlns:text="urn:oasis:names:tc:opendocument:xmlns:text:1.0" xmlns:table="urn:oasis:names:tc:opendocument:xmlns:table:1.0" xmlns:draw="urn:oasis:names:tc:opendocument:xmlns:drawing:1.0" xmlns:svg="urn:oasis:names:tc:opendocument:xmlns:svg-compatible:1.0" office:version="1.3" office:mimetype="application/vnd.oasis.opendocument.)"
        << primer.kind << "\"><office:body>" << primer.body << "</office:body></office:document>\n";
    ok = office_.convert(src, mid, primer.format, std::nullopt, &err) &&
         office_.convert(mid, dst, "pdf", std::nullopt, &err);
    office_.close_document();
    std::error_code ec;
    for (const auto& file : {src, mid, dst}) fs::remove(file, ec);
    if (!ok) break;
  }
  const long long ms = ms_since(begin);
  if (ok) {
    say("primed in %lld ms", ms);
  } else {
    say("priming failed after %lld ms: %s", ms, err.c_str());
  }
}

void worker::serve_one(int client) {
  ucred peer{};
  socklen_t len = sizeof peer;
  if (::getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0 || peer.uid != ::getuid())
    return;
  line_reader reader;
  std::string line;
  if (reader.read(client, clock::now() + kRequestWait, &line) != line_reader::status::line) return;
  const auto request = parse_message(line);
  const auto op = request.is_object() ? request.value("op", nlohmann::json()) : nlohmann::json();
  if (op == "quit") {
    send_message(client, {{"ok", true}});
    say("asked to quit");
    finish(0);
  }
  if (op != "convert") {
    send_message(client, {{"ok", false}, {"error", "unknown request"}});
    return;
  }
  convert(client, request);
  if (++converted_ >= options_.max_conversions) {
    say("%u documents converted; exiting so that a fresh office takes over", converted_);
    finish(0);
  }
}

void worker::convert(int client, const nlohmann::json& request) {
  auto text = [&](const char* name, const char* fallback) {
    auto it = request.find(name);
    return it != request.end() && it->is_string() ? it->get<std::string>() : std::string(fallback);
  };
  auto flag = [&](const char* name) {
    auto it = request.find(name);
    return it != request.end() && it->is_boolean() && it->get<bool>();
  };
  const fs::path src = text("src", ""), dst = text("dst", "");
  const std::string format = text("format", "pdf");
  if (!src.is_absolute() || !dst.is_absolute()) {
    send_message(client, {{"ok", false}, {"error", "source and target must be absolute paths"}});
    return;
  }
  long long timeout_ms = kDefaultTimeoutMs;
  if (auto it = request.find("timeout_ms"); it != request.end() && it->is_number_integer())
    timeout_ms = std::clamp<long long>(it->get<long long>(), 1, 86'400'000);
  std::optional<csv_layout> csv;
  if (auto it = request.find("csv"); it != request.end() && it->is_object()) {
    csv = csv_layout{it->value("separator", 44), it->value("charset", 76)};
  }

  send_message(client, {{"event", "started"}});
  const auto begin = clock::now();
  watchdog_.arm(std::chrono::milliseconds(timeout_ms) + kWatchdogGrace, src.string(), dst);
  // A link without an extension, so that the office goes by the content alone.
  const fs::path link = paths_.office_tmp() / "document";
  const bool linked = flag("by_content") && ::symlink(src.c_str(), link.c_str()) == 0;
  std::string err;
  const bool ok = office_.convert(linked ? link : src, dst, format, csv, &err);
  if (linked) ::unlink(link.c_str());
  watchdog_.disarm();
  const long long ms = ms_since(begin);
  if (ok) {
    say("%s -> %s: %lld ms%s", src.c_str(), format.c_str(), ms,
        office_.viewed_pdf() ? " (the hidden load failed; loaded with a view)" : "");
  } else {
    say("%s -> %s failed after %lld ms: %s", src.c_str(), format.c_str(), ms, err.c_str());
  }
  const bool told = ok ? send_message(client, {{"ok", true}})
                       : send_message(client, {{"ok", false}, {"error", err}});
  // Nobody is left to rename or remove what was written.
  if (!told) ::unlink(dst.c_str());
  watchdog_.arm(std::chrono::milliseconds(timeout_ms) + kWatchdogGrace, src.string() + " (closing)",
                {});
  office_.close_document();
  watchdog_.disarm();
}

void worker::finish(int code) {
  // The socket goes first: a run that finds no socket starts a fresh worker, which then waits
  // on the life lock until this process is gone.
  if (bound_) ::unlink(paths_.socket().c_str());
  if (life_lock_) ::unlink(paths_.pid_file().c_str());
  std::error_code ec;
  if (life_lock_) fs::remove_all(paths_.office_tmp(), ec);
  std::fflush(stderr);
  ::_exit(code);
}

}  // namespace

void run_office_worker(const worker_options& options) {
  worker instance(options);
  instance.run();
}

}  // namespace tarn
