#include "office_client.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "convutils/ConvUtils.h"
#include "office_paths.h"
#include "office_pool.h"
#include "office_protocol.h"
#include "platform/unique_fd.h"

extern char** environ;

namespace tarn {
namespace {

using clock = std::chrono::steady_clock;

// A worker binds its socket before it loads the office, so this covers only its start and a
// predecessor's exit.
constexpr auto kReadyWait = std::chrono::seconds(30);
constexpr auto kKillWait = std::chrono::seconds(10);
// Time to load the office itself, which isn't counted against the document's time-out.
constexpr auto kStartAllowance = std::chrono::seconds(60);
constexpr off_t kMaxLogSize = 1 << 20;

// glibc 2.36 declares these in <sys/pidfd.h> without C linkage.
int open_pidfd(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); }
int signal_pidfd(int pidfd, int sig) {
  return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, sig, nullptr, 0));
}

struct worker_link {
  unique_fd socket;
  unique_fd pidfd;  // the worker at the other end
};

bool wait_for_exit(int pidfd, std::chrono::milliseconds wait) {
  pollfd p{pidfd, POLLIN, 0};
  int ready;
  do {
    ready = ::poll(&p, 1, static_cast<int>(wait.count()));
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

void kill_worker(const worker_link& link) {
  if (signal_pidfd(link.pidfd.get(), SIGKILL) == 0) wait_for_exit(link.pidfd.get(), kKillWait);
}

// The worker listening on the socket, if one does and it is this user's.
std::optional<worker_link> connect_worker(const office_paths& paths) {
  std::string err;
  auto address = make_socket_address(paths.socket(), &err);
  if (!address) return std::nullopt;
  worker_link link;
  link.socket.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!link.socket) return std::nullopt;
  int rc;
  do {
    rc = ::connect(link.socket.get(), reinterpret_cast<const sockaddr*>(&address->addr),
                   address->len);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) return std::nullopt;
  ucred peer{};
  socklen_t len = sizeof peer;
  if (::getsockopt(link.socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0 ||
      peer.uid != ::getuid())
    return std::nullopt;
  link.pidfd.reset(open_pidfd(peer.pid));
  if (!link.pidfd) return std::nullopt;
  return link;
}

// Starts tarnoffice in a session of its own, standard output and error going to the log, and
// waits until it listens. Only the ready pipe is passed on: nothing else this program holds
// reaches the office or what it starts.
bool start_worker(const office_paths& paths, const office_settings& settings, bool prime,
                  std::string* err) {
  const std::string program = settings.worker_program.string();
  const std::string log = paths.log_file().string();
  struct stat st;
  const bool log_too_long = ::stat(log.c_str(), &st) == 0 && st.st_size > kMaxLogSize;
  unique_fd log_fd(::open(
      log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (log_too_long ? O_TRUNC : 0), 0600));
  unique_fd null_fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  int ready[2];
  if (!log_fd || !null_fd || ::pipe2(ready, O_CLOEXEC) != 0) {
    *err = "can't prepare the office worker's start (" + log + "): " + std::strerror(errno);
    return false;
  }
  unique_fd ready_read(ready[0]), ready_write(ready[1]);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, null_fd.get(), 0);
  posix_spawn_file_actions_adddup2(&actions, log_fd.get(), 1);
  posix_spawn_file_actions_adddup2(&actions, log_fd.get(), 2);
  posix_spawn_file_actions_adddup2(&actions, ready_write.get(), 3);
  posix_spawn_file_actions_addclosefrom_np(&actions, 4);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  // Its own session: a Ctrl-C or a group kill meant for this run must not end the office.
  posix_spawnattr_setflags(&attr,
                           POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);

  std::vector<std::string> args = {program,
                                   "--runtime-dir",
                                   paths.dir.string(),
                                   "--max-conversions",
                                   std::to_string(settings.max_conversions),
                                   "--idle-seconds",
                                   std::to_string(settings.idle.count()),
                                   "--isolate-network",
                                   settings.isolate_network ? "1" : "0",
                                   "--ready-fd",
                                   "3"};
  if (prime) args.emplace_back("--prime");
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int rc = ::posix_spawn(&pid, program.c_str(), &actions, &attr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    *err = "can't start the office worker " + program + ": " + std::strerror(rc);
    return false;
  }
  ready_write.reset();

  pollfd p{ready_read.get(), POLLIN, 0};
  int polled;
  do {
    polled = ::poll(&p, 1, std::chrono::milliseconds(kReadyWait).count());
  } while (polled < 0 && errno == EINTR);
  char byte = 0;
  if (polled > 0 && ::read(ready_read.get(), &byte, 1) == 1) return true;
  if (polled == 0) ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  *err = "the office worker " + program + " did not start (see " + log + ")";
  return false;
}

// A worker to talk to: the running one, else one this call starts. The start lock keeps two
// runs that find no worker at the same moment from starting two.
std::optional<worker_link> connect_or_start(const office_paths& paths,
                                            const office_settings& settings, std::string* err,
                                            bool prime = false) {
  if (auto link = connect_worker(paths)) return link;
  unique_fd lock = lock_file(paths.start_lock(), /*wait=*/true, err);
  if (!lock) return std::nullopt;
  if (auto link = connect_worker(paths)) return link;
  if (!start_worker(paths, settings, prime, err)) return std::nullopt;
  if (auto link = connect_worker(paths)) return link;
  *err = "the office worker started but can't be reached at " + paths.socket().string();
  return std::nullopt;
}

std::string seconds_text(std::chrono::seconds s) {
  return std::to_string(s.count()) + (s.count() == 1 ? " second" : " seconds");
}

}  // namespace

bool warm_offices(const office_settings& settings, std::string* err) {
  auto runtime = office_runtime(err);
  if (!runtime) return false;
  const unsigned size = usable_pool_size(*runtime, settings);
  for (unsigned k = 0; k < size; ++k) {
    auto paths = slot_paths(*runtime, k, err);
    if (!paths || !connect_or_start(*paths, settings, err, /*prime=*/true)) return false;
  }
  return true;
}

office_outcome convert_with_office(const office_job& job, const office_settings& settings) {
  std::string err;
  auto runtime = office_runtime(&err);
  if (!runtime) return {office_status::unavailable, err};
  auto slot = take_office_slot(*runtime, settings, &err);
  if (!slot) return {office_status::unavailable, err};
  const office_paths* paths = &slot->paths;

  nlohmann::json request = {{"op", "convert"},
                            {"src", job.src.string()},
                            {"dst", job.dst.string()},
                            {"format", job.format},
                            {"by_content", job.by_content},
                            {"timeout_ms", std::chrono::milliseconds(settings.timeout).count()}};
  if (job.csv) request["csv"] = {{"separator", job.csv->separator}, {"charset", job.csv->charset}};

  for (int attempt = 0; attempt < 2; ++attempt) {
    auto link = connect_or_start(*paths, settings, &err);
    if (!link) return {office_status::unavailable, err};
    // A worker that exits after its last document closes connections still queued; those
    // go to a fresh worker.
    if (!send_message(link->socket.get(), request)) continue;
    line_reader reader;
    bool started = false;
    auto deadline = clock::now() + settings.timeout + kStartAllowance;
    for (;;) {
      std::string line;
      const auto status = reader.read(link->socket.get(), deadline, &line);
      if (status == line_reader::status::timeout) {
        kill_worker(*link);
        return {office_status::timed_out,
                started ? "took longer than " + seconds_text(settings.timeout)
                        : "the office did not take it up within " +
                              seconds_text(settings.timeout + kStartAllowance)};
      }
      if (status != line_reader::status::line) {
        if (!started) break;
        return {office_status::lost,
                "the office ended while converting it (see " + paths->log_file().string() + ")"};
      }
      const auto message = parse_message(line);
      if (message.is_discarded()) {
        kill_worker(*link);
        return {office_status::lost, "the office answered something unreadable"};
      }
      if (message.contains("event")) {
        started = true;
        deadline = clock::now() + settings.timeout;
        continue;
      }
      const auto ok = message.find("ok");
      if (ok != message.end() && ok->is_boolean() && ok->get<bool>())
        return {office_status::ok, ""};
      const auto error = message.find("error");
      return {office_status::failed, error != message.end() && error->is_string()
                                         ? error->get<std::string>()
                                         : "the office could not convert it"};
    }
  }
  return {office_status::lost, "the office ended before it took the document up (see " +
                                   paths->log_file().string() + ")"};
}

bool stop_office(std::chrono::milliseconds wait, std::string* err) {
  auto runtime = office_runtime(err);
  if (!runtime) return false;
  bool all_ended = true;
  for (unsigned k = 0; k < kMaxOfficePool; ++k) {
    auto paths = slot_paths(*runtime, k, err);
    if (!paths) return false;
    auto link = connect_worker(*paths);
    if (!link) continue;
    send_message(link->socket.get(), {{"op", "quit"}});
    if (wait_for_exit(link->pidfd.get(), wait)) continue;
    kill_worker(*link);
    if (wait_for_exit(link->pidfd.get(), std::chrono::milliseconds(0))) continue;
    *err = "the office worker of " + paths->dir.string() + " did not end";
    all_ended = false;
  }
  return all_ended;
}

}  // namespace tarn
