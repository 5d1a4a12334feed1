// Mixed traffic against the real gateway on port 9090 for a number of minutes, watching its
// resident memory, open descriptors and threads: get_version from 8 Thrift clients on kept-alive
// connections, GETs of the web folder and "/logs", malformed requests, oversized calls, and
// send_command naming references the local store refuses. The baseline is the gateway itself at
// the start (after a warm-up): each sample is printed with its difference from the start, and a
// least-squares slope per hour. Requests a real client sends must all be answered.
//
//   build/bench/soak_bench [--minutes M] [--interval S]      (port 9090 must be free)
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thrift/Thrift.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/transport/THttpClient.h>
#include <thrift/transport/TSocket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TarnGateWay.h"
#include "bench_support.h"
#include "platform/child_process.h"
#include "platform/unique_fd.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr int kPort = 9090;
const std::string kVersion = "Vantu Tarn (version 5.0)";

struct bench_failure {
  std::string why;
};
[[noreturn]] void fail(const std::string& why) { throw bench_failure{why}; }

// --- the wire ------------------------------------------------------------------------------

// One TCP connection to the gateway; every wait ends after 10 s.
class wire {
 public:
  wire() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    timeval timeout{10, 0};
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ =
        ::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  bool connected() const { return connected_; }

  // False when the gateway closed the connection first.
  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
  }

  // One reply with a Content-Length: its status line, or "" when none came whole.
  std::string reply_status() {
    size_t end;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos)
      if (!read_some()) return "";
    const size_t at = pending_.find("Content-Length: ");
    const size_t length = at < end ? std::stoul(pending_.substr(at + 16)) : 0;
    while (pending_.size() < end + 4 + length)
      if (!read_some()) return "";
    std::string status = pending_.substr(0, pending_.find("\r\n"));
    pending_.erase(0, end + 4 + length);
    return status;
  }

  // True when the gateway ends the connection or begins a reply before the time-out: either
  // way the request didn't leave the connection hanging.
  bool settles() {
    for (;;) {
      if (pending_.find("\r\n\r\n") != std::string::npos) return true;
      char buffer[4096];
      const ssize_t n = ::recv(fd_.get(), buffer, sizeof buffer, 0);
      if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
      if (n < 0) return false;
      pending_.append(buffer, static_cast<size_t>(n));
    }
  }

 private:
  bool read_some() {
    char buffer[65536];
    const ssize_t n = ::recv(fd_.get(), buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    pending_.append(buffer, static_cast<size_t>(n));
    return true;
  }

  unique_fd fd_;
  bool connected_ = false;
  std::string pending_;
};

std::string post(const std::string& body) {
  return "POST / HTTP/1.1\r\nHost: localhost:9090\r\nContent-Type: application/x-thrift\r\n"
         "Content-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

// A send_command call as the web client encodes it.
std::string send_command_body(const std::string& connection, const std::vector<std::string>& refs) {
  std::string list;
  for (const auto& ref : refs) list += ",\"" + ref + "\"";
  return R"([1,"send_command",1,0,{"1":{"i32":0},"2":{"str":")" + connection +
         R"("},"3":{"str":"Offers"},"4":{"set":["str",)" + std::to_string(refs.size()) + list +
         "]}}]";
}

// --- the traffic ---------------------------------------------------------------------------

// What one kind of traffic did: requests answered as a client expects, and the others.
struct tally {
  const char* label;
  bool real_client;  // a kind a real client sends: nothing of it may fail
  std::atomic<long> ok{0};
  std::atomic<long> failed{0};
};

using thrift_client = TarnWwySrv::TarnGateWayClient;

std::unique_ptr<thrift_client> connect_client(
    std::shared_ptr<apache::thrift::transport::THttpClient>& http) {
  auto socket = std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", kPort);
  socket->setRecvTimeout(30000);
  http = std::make_shared<apache::thrift::transport::THttpClient>(socket, "localhost", "/");
  http->open();
  return std::make_unique<thrift_client>(
      std::make_shared<apache::thrift::protocol::TJSONProtocol>(http));
}

// Runs `call` through a kept-alive Thrift client, reconnecting after a failure.
void thrift_loop(const std::atomic<bool>& stop, tally& t, std::chrono::milliseconds pause,
                 const std::function<bool(thrift_client&)>& call) {
  std::shared_ptr<apache::thrift::transport::THttpClient> http;
  std::unique_ptr<thrift_client> client;
  while (!stop.load(std::memory_order_relaxed)) {
    try {
      if (!client) client = connect_client(http);
      (call(*client) ? t.ok : t.failed).fetch_add(1, std::memory_order_relaxed);
    } catch (const std::exception&) {
      t.failed.fetch_add(1, std::memory_order_relaxed);
      client.reset();
      std::this_thread::sleep_for(100ms);
    }
    if (pause.count() > 0) std::this_thread::sleep_for(pause);
  }
}

// Every file of the web folder and "/logs" in turn, each on a connection of its own: the
// gateway ends the connection after a GET's reply.
void get_loop(const std::atomic<bool>& stop, tally& t) {
  const std::vector<std::string> uris = {"/", "/index.html", "/style.css", "/gateway.js",
                                         "/try_it.js", "/logs"};
  for (size_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
    wire w;
    const bool ok = w.connected() &&
                    w.send("GET " + uris[i % uris.size()] +
                           " HTTP/1.1\r\nHost: localhost:9090\r\n\r\n") &&
                    w.reply_status() == "HTTP/1.1 200 OK";
    (ok ? t.ok : t.failed).fetch_add(1, std::memory_order_relaxed);
    std::this_thread::sleep_for(20ms);
  }
}

// Requests no client should send, each on a fresh connection: the gateway must answer or end
// each one, never leave it hanging, and go on serving.
void malformed_loop(const std::atomic<bool>& stop, tally& t) {
  const std::vector<std::string> requests = {
      "garbage\r\n\r\n",
      "GET /../../etc/passwd HTTP/1.1\r\n\r\n",
      "BREW / HTTP/1.1\r\n\r\n",
      "GET / HTTP/1.1\r\nno colon here\r\n\r\n",
      "POST / HTTP/1.1\r\nContent-Length: 12x\r\n\r\n",
      post("[1,\"get_version\",1,0,{}"),
      post("{not json at all}"),
      post("[1,\"no_such_call\",1,0,{}]"),
      "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n\r\n",
      "GET /" + std::string(70000, 'a') + " HTTP/1.1\r\n\r\n",
      std::string(2000, '\0') + "\r\n\r\n",
  };
  for (size_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
    wire w;
    const bool ok = w.connected() && (w.send(requests[i % requests.size()]), w.settles());
    (ok ? t.ok : t.failed).fetch_add(1, std::memory_order_relaxed);
    std::this_thread::sleep_for(50ms);
  }
}

// Calls far larger than any real one: a body announced over every limit, and a send_command
// whose connection string is 2 MiB and whose 65 references each repeat it in the log.
void oversized_loop(const std::atomic<bool>& stop, tally& t) {
  std::vector<std::string> refs;
  for (int i = 0; i < 65; ++i) refs.push_back("9" + std::to_string(900000 + i));
  const std::string amplifying = post(send_command_body(std::string(2 << 20, 'c'), refs));
  for (size_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
    wire w;
    bool ok = w.connected();
    if (ok && i % 2 == 0) {
      ok = w.send("POST / HTTP/1.1\r\nContent-Length: 4000000000\r\n\r\n[1,") && w.settles();
    } else if (ok) {
      // Refused before its end is as good as answered.
      ok = !w.send(amplifying) || w.settles();
    }
    (ok ? t.ok : t.failed).fetch_add(1, std::memory_order_relaxed);
    for (int s = 0; s < 20 && !stop.load(std::memory_order_relaxed); ++s)
      std::this_thread::sleep_for(100ms);
  }
}

// --- watching the gateway ------------------------------------------------------------------

struct sample {
  double minutes = 0;
  long served = 0;
  double rss_mb = 0;
  long fds = 0;
  long threads = 0;
};

sample read_sample(pid_t pid, double minutes, long served) {
  sample s{minutes, served};
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) s.rss_mb = std::stod(line.substr(6)) / 1024.0;
    if (line.rfind("Threads:", 0) == 0) s.threads = std::stol(line.substr(8));
  }
  std::error_code ec;
  for (auto it = fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
       !ec && it != fs::directory_iterator(); it.increment(ec))
    ++s.fds;
  return s;
}

// Least-squares slope of `value` over the samples, per hour.
double slope_per_hour(const std::vector<sample>& samples,
                      const std::function<double(const sample&)>& value) {
  double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (const auto& s : samples) {
    const double x = s.minutes / 60.0, y = value(s);
    n += 1, sx += x, sy += y, sxx += x * x, sxy += x * y;
  }
  const double d = n * sxx - sx * sx;
  return d == 0 ? 0 : (n * sxy - sx * sy) / d;
}

void print_sample(const char* label, const sample& s, const sample& start) {
  std::printf("%-8s %7.2f %12ld %9.1f %+8.1f %6ld %+5ld %8ld %+5ld\n", label, s.minutes, s.served,
              s.rss_mb, s.rss_mb - start.rss_mb, s.fds, s.fds - start.fds, s.threads,
              s.threads - start.threads);
  std::fflush(stdout);
}

void must_run(const std::vector<std::string>& argv) {
  unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
  auto child = child_process::start(argv, {.stdout_fd = null.get()});
  const auto code = child ? child->wait_for(60s) : std::nullopt;
  if (code != 0) fail(argv[0] + " " + argv[1] + " failed");
}

bool port_answers() { return wire().connected(); }

int run(double minutes, double interval_seconds, double warmup_seconds) {
  if (port_answers()) fail("something already listens on port 9090; stop it first");
  bench::sandbox box("soak-bench");
  box.keep();  // until the run is through
  std::cerr << "working in " << box.root() << " (kept when the run fails)\n";
  // No display: the commands' questions are answered by the remembered choices.
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "TARN_TRACE"})
    unsetenv(name);
  const std::string dist = TARN_DIST_DIR;
  must_run({dist + "/tarnctl", "setup"});
  must_run({dist + "/tarnctl", "reg", "add", "HKCU\\Software\\Vantu\\PDF\\V1\\TarnGateWay", "/v",
            "Tarn_GateWay_fetatures", "/t", "REG_DWORD", "/d", "4", "/f"});

  const fs::path err = box.root() / "gateway.err";
  unique_fd err_fd(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  auto gateway = child_process::start({dist + "/tarngateway"},
                                      {.stdout_fd = err_fd.get(), .stderr_fd = err_fd.get()});
  if (!gateway) fail("can't start " + dist + "/tarngateway");
  for (const auto give_up = clock_type::now() + 30s; !port_answers();) {
    if (clock_type::now() > give_up || gateway->poll_exit()) fail("the gateway didn't start");
    std::this_thread::sleep_for(20ms);
  }

  tally versions{"get_version, 8 clients", true}, gets{"GET web folder and /logs", true},
      commands{"send_command, refused refs", true}, malformed{"malformed requests", false},
      oversized{"oversized calls", false};
  std::vector<tally*> tallies = {&versions, &gets, &commands, &malformed, &oversized};
  std::atomic<bool> stop{false};
  std::vector<std::thread> traffic;
  std::this_thread::sleep_for(300ms);  // let it go idle
  const sample idle = read_sample(gateway->pid(), 0, 0);
  for (int i = 0; i < 8; ++i)
    traffic.emplace_back([&] {
      thrift_loop(stop, versions, 0ms, [](thrift_client& c) {
        std::string version;
        c.get_version(version);
        return version == kVersion;
      });
    });
  traffic.emplace_back([&] { get_loop(stop, gets); });
  traffic.emplace_back([&] { malformed_loop(stop, malformed); });
  traffic.emplace_back([&] { oversized_loop(stop, oversized); });
  traffic.emplace_back([&] {
    // Numbers the store never gave, a malformed reference and one in a library it lacks.
    const std::set<std::string> refs = {"987654.1", "not-a-ref", "NOLIB:1.1"};
    int round = 0;
    thrift_loop(stop, commands, 500ms, [&](thrift_client& c) {
      const auto cmd = ++round % 2 ? TarnWwySrv::command_type::CREATE_PDF
                                   : TarnWwySrv::command_type::CONVERT_WITH_ASSISTANT;
      c.send_command(cmd, "", "Offers", refs);
      return true;
    });
  });

  auto served = [&] {
    long n = 0;
    for (const tally* t : tallies) n += t->ok + t->failed;
    return n;
  };
  std::exception_ptr failure;
  std::vector<sample> samples;
  try {
    std::this_thread::sleep_for(std::chrono::duration<double>(warmup_seconds));
    const auto start = clock_type::now();
    const long served_at_start = served();
    auto take = [&] {
      const double m = std::chrono::duration<double>(clock_type::now() - start).count() / 60;
      if (gateway->poll_exit()) fail("the gateway ended during the run; see " + err.string());
      samples.push_back(read_sample(gateway->pid(), m, served() - served_at_start));
      return samples.back();
    };
    std::printf("%-8s %7s %12s %9s %8s %6s %5s %8s %5s\n", "sample", "minutes", "requests",
                "RSS MiB", "change", "fds", "chg", "threads", "chg");
    print_sample("idle", idle, idle);
    const sample start_sample = take();
    print_sample("start", start_sample, start_sample);
    const auto end = start + std::chrono::duration<double>(minutes * 60);
    for (auto next = start + std::chrono::duration<double>(interval_seconds); next < end;
         next += std::chrono::duration<double>(interval_seconds)) {
      std::this_thread::sleep_until(next);
      print_sample("", take(), start_sample);
    }
    std::this_thread::sleep_until(end);
    print_sample("end", take(), start_sample);
  } catch (...) {
    failure = std::current_exception();
  }
  stop = true;
  for (auto& t : traffic) t.join();
  gateway->signal(SIGTERM);
  const auto exit_code = gateway->wait_for(10s);
  if (failure) std::rethrow_exception(failure);

  std::printf("\nslope per hour (least squares over %zu samples): RSS %+.2f MiB, fds %+.1f, "
              "threads %+.1f\n",
              samples.size(), slope_per_hour(samples, [](const sample& s) { return s.rss_mb; }),
              slope_per_hour(samples, [](const sample& s) { return double(s.fds); }),
              slope_per_hour(samples, [](const sample& s) { return double(s.threads); }));
  std::printf("\n%-28s %12s %10s\n", "traffic", "answered", "failed");
  long real_failures = 0;
  for (const tally* t : tallies) {
    std::printf("%-28s %12ld %10ld%s\n", t->label, t->ok.load(), t->failed.load(),
                t->real_client ? "" : "   (ended by the gateway counts as answered; failed: hung 10 s)");
    if (t->real_client) real_failures += t->failed;
  }
  std::printf("goals: RSS slope < 1 MiB/hour, fds and threads flat, no real client's request "
              "failed (%ld did)\n",
              real_failures);
  std::printf("gateway exit after SIGTERM: %s\n",
              exit_code ? std::to_string(*exit_code).c_str() : "still running after 10 s");
  box.keep(false);
  return 0;
}

}  // namespace
}  // namespace tarn

int main(int argc, char** argv) {
  using namespace tarn;
  CLI::App app{
      "Runs mixed traffic against the real gateway on port 9090 (get_version from 8 Thrift\n"
      "clients, GETs of the web folder and /logs, malformed requests, oversized calls,\n"
      "send_command of references the store refuses) and prints the gateway's resident memory,\n"
      "open descriptors and threads at the start (after a warm-up), at each interval and at the\n"
      "end, against the start, with their slope per hour and how many requests each kind of\n"
      "traffic had answered. Port 9090 must be free.",
      "soak_bench"};
  double minutes = 10, interval = 60, warmup = 10;
  app.add_option("--minutes", minutes, "how long the traffic runs after the warm-up")
      ->check(CLI::Range(0.05, 1440.0));
  app.add_option("--interval", interval, "seconds between samples")->check(CLI::Range(1.0, 3600.0));
  app.add_option("--warmup", warmup, "seconds of traffic before the start sample")
      ->check(CLI::Range(0.0, 600.0));
  CLI11_PARSE(app, argc, argv);
  // Thrift prints each refused connection of the oversized and malformed traffic.
  apache::thrift::GlobalOutput.setOutputFunction([](const char*) {});
  signal(SIGPIPE, SIG_IGN);
  try {
    return run(minutes, interval, warmup);
  } catch (const bench_failure& failure) {
    std::cerr << "soak_bench: " << failure.why << "\n";
  } catch (const std::exception& e) {
    std::cerr << "soak_bench: " << e.what() << "\n";
  }
  return 1;
}
