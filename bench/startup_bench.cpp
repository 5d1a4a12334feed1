// Start-up time and idle memory of tarngateway against baselines started the same way:
// a stock Thrift 0.17 THttpServer + TThreadedServer serving the same interface over JSON on
// port 9090 (this program in --stock-server mode), and, for memory, a bare QApplication on
// the offscreen platform (startup_bench_qt beside this program; kept apart so that the stock
// server doesn't load Qt). Time runs from posix_spawn to the first complete get_version reply;
// memory is VmRSS and VmHWM 300 ms after that reply.
//
//   build/bench/startup_bench [RUNS]      (port 9090 must be free)
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thrift/concurrency/ThreadFactory.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/THttpServer.h>
#include <thrift/transport/TServerSocket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "TarnGateWay.h"
#include "bench_support.h"

extern "C" {
#include <sys/pidfd.h>  // glibc 2.36's header lacks the extern "C" block
}

extern char** environ;

namespace {

using namespace std::chrono_literals;
using tarn::bench::median;
using clock_type = std::chrono::steady_clock;

constexpr int kPort = 9090;
const std::string kCall = R"([1,"get_version",1,0,{}])";
const std::string kVersion = "Vantu Tarn (version 5.0)";

// --- the stock server -------------------------------------------------------------------

class stock_handler : public TarnWwySrv::TarnGateWayIf {
 public:
  void get_version(std::string& version) override { version = kVersion; }
  void send_command(const TarnWwySrv::command_type::type, const std::string&, const std::string&,
                    const std::set<std::string>&) override {}
};

int run_stock_server() {
  using namespace apache::thrift;
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  auto server = std::make_shared<server::TThreadedServer>(
      std::make_shared<TarnWwySrv::TarnGateWayProcessor>(std::make_shared<stock_handler>()),
      std::make_shared<transport::TServerSocket>(kPort),
      std::make_shared<transport::THttpServerTransportFactory>(),
      std::make_shared<protocol::TJSONProtocolFactory>(),
      std::make_shared<concurrency::ThreadFactory>(false));
  std::thread stopper([&] {
    int signo = 0;
    sigwait(&stop_signals, &signo);
    server->stop();
  });
  server->serve();
  stopper.join();
  return 0;
}

// --- measuring ----------------------------------------------------------------------------

struct child {
  pid_t pid = -1;
  int pidfd = -1;
  int out = -1;  // the child's standard output
};

child spawn(const std::vector<std::string>& args) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<char*> argv;
  for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  child c;
  if (posix_spawn(&c.pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) c.pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  close(pipe_fds[1]);
  c.out = pipe_fds[0];
  if (c.pid > 0) c.pidfd = pidfd_open(c.pid, 0);
  return c;
}

bool exited(const child& c, int wait_ms) {
  pollfd p{c.pidfd, POLLIN, 0};
  return poll(&p, 1, wait_ms) > 0;
}

void end(child& c) {
  if (c.pid <= 0) return;
  pidfd_send_signal(c.pidfd, SIGTERM, nullptr, 0);
  if (!exited(c, 10000)) pidfd_send_signal(c.pidfd, SIGKILL, nullptr, 0);
  waitpid(c.pid, nullptr, 0);
  close(c.pidfd);
  close(c.out);
  c = child{};
}

// One get_version over a fresh connection; true when the whole reply came.
bool version_answered() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  timeval timeout{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool answered = false;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    const std::string request =
        "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(kCall.size()) + "\r\n\r\n" + kCall;
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
        static_cast<ssize_t>(request.size())) {
      std::string reply;
      char chunk[4096];
      ssize_t n;
      while (reply.find(kVersion + "\"}}]") == std::string::npos &&
             (n = recv(fd, chunk, sizeof chunk, 0)) > 0)
        reply.append(chunk, static_cast<size_t>(n));
      answered = reply.find(kVersion + "\"}}]") != std::string::npos;
    }
  }
  close(fd);
  return answered;
}

bool port_taken() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool taken = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return taken;
}

// VmRSS and VmHWM in MiB.
std::pair<double, double> memory_of(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  double rss = 0, hwm = 0;
  for (std::string line; std::getline(in, line);) {
    auto kib = [&line] {
      long value = 0;
      const char* digits = line.c_str() + line.find_first_of("0123456789");
      std::from_chars(digits, line.c_str() + line.size(), value);
      return value / 1024.0;
    };
    if (line.rfind("VmRSS:", 0) == 0) rss = kib();
    if (line.rfind("VmHWM:", 0) == 0) hwm = kib();
  }
  return {rss, hwm};
}

struct sample {
  double start_ms = 0;
  double rss_mb = 0;
  double hwm_mb = 0;
};

// Starts a server program, times it to its first get_version reply, reads its memory.
std::optional<sample> measure_server(const std::vector<std::string>& args) {
  const auto t0 = clock_type::now();
  child c = spawn(args);
  if (c.pid <= 0) return std::nullopt;
  std::optional<sample> result;
  const auto deadline = t0 + 10s;
  while (clock_type::now() < deadline) {
    if (version_answered()) {
      sample s;
      s.start_ms = std::chrono::duration<double, std::milli>(clock_type::now() - t0).count();
      std::this_thread::sleep_for(300ms);  // let it go idle
      std::tie(s.rss_mb, s.hwm_mb) = memory_of(c.pid);
      result = s;
      break;
    }
    if (exited(c, 1)) break;
  }
  end(c);
  return result;
}

// Starts the bare QApplication, waits for its "ready", reads its memory.
std::optional<sample> measure_bare_qt(const std::string& program) {
  child c = spawn({program});
  if (c.pid <= 0) return std::nullopt;
  pollfd p{c.out, POLLIN, 0};
  char buffer[16];
  std::optional<sample> result;
  if (poll(&p, 1, 10000) > 0 && read(c.out, buffer, sizeof buffer) > 0) {
    std::this_thread::sleep_for(300ms);
    sample s;
    std::tie(s.rss_mb, s.hwm_mb) = memory_of(c.pid);
    result = s;
  }
  end(c);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--stock-server") == 0) return run_stock_server();
  if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::printf(
        "usage: startup_bench [RUNS]\n"
        "Times tarngateway from start to its first get_version reply and reads its\n"
        "idle memory, against a stock Thrift HTTP server and a bare QApplication.\n"
        "Port 9090 must be free.\n");
    return 0;
  }
  int runs = 9;
  if (argc > 1) {
    auto [end, ec] = std::from_chars(argv[1], argv[1] + std::strlen(argv[1]), runs);
    if (ec != std::errc() || *end != '\0' || runs < 1 || runs > 1000) {
      std::fprintf(stderr, "startup_bench: RUNS must be a number from 1 to 1000, not '%s'\n",
                   argv[1]);
      return 2;
    }
  }
  if (port_taken()) {
    std::fprintf(stderr, "startup_bench: port 9090 is taken; stop whatever listens there\n");
    return 1;
  }
  tarn::bench::sandbox box("startup-bench");
  setenv("QT_QPA_PLATFORM", "offscreen", 1);
  unsetenv("TARN_TRACE");
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string gateway = std::string(TARN_DIST_DIR) + "/tarngateway";
  const std::string bare_qt = std::filesystem::path(self).parent_path() / "startup_bench_qt";

  std::vector<double> stock_ms, stock_rss, stock_hwm, ours_ms, ours_rss, ours_hwm, qt_rss, qt_hwm;
  int failures = 0;
  for (int i = 0; i <= runs; ++i) {  // run 0 warms the caches and isn't counted
    std::fprintf(stderr, "\rrun %d of %d", i, runs);
    auto stock = measure_server({self, "--stock-server"});
    auto ours = measure_server({gateway});
    auto qt = measure_bare_qt(bare_qt);
    if (!stock || !ours || !qt) {
      ++failures;
      continue;
    }
    if (i == 0) continue;
    stock_ms.push_back(stock->start_ms);
    stock_rss.push_back(stock->rss_mb);
    stock_hwm.push_back(stock->hwm_mb);
    ours_ms.push_back(ours->start_ms);
    ours_rss.push_back(ours->rss_mb);
    ours_hwm.push_back(ours->hwm_mb);
    qt_rss.push_back(qt->rss_mb);
    qt_hwm.push_back(qt->hwm_mb);
  }
  std::fprintf(stderr, "\r%*s\r", 20, "");
  if (stock_ms.empty()) {
    std::fprintf(stderr, "startup_bench: no run completed (%d failed); is %s built?\n", failures,
                 gateway.c_str());
    return 1;
  }

  auto row = [](const char* label, double base, double ours) {
    std::printf("%-44s %10.1f %10.1f %7.2f\n", label, base, ours, ours / base);
  };
  std::printf("median of %zu runs; baseline: stock Thrift THttpServer + TThreadedServer, JSON\n",
              stock_ms.size());
  std::printf("%-44s %10s %10s %7s\n", "case", "baseline", "ours", "ratio");
  row("start to get_version answered, ms", median(stock_ms), median(ours_ms));
  row("VmRSS idle, MiB", median(stock_rss), median(ours_rss));
  row("VmHWM, MiB", median(stock_hwm), median(ours_hwm));
  std::printf("baseline: bare QApplication, offscreen platform\n");
  row("VmRSS idle, MiB", median(qt_rss), median(ours_rss));
  row("VmHWM, MiB", median(qt_hwm), median(ours_hwm));
  std::printf("goals: start under 300 ms, idle memory under 30 MiB\n");
  if (failures > 0) std::printf("(%d runs failed and were left out)\n", failures);
  return 0;
}
