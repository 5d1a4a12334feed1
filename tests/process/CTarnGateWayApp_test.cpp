#include "process/CTarnGateWayApp.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QTimer>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <thread>

#include "canned_http_server.h"
#include "support/test_env.h"
#include "web/raw_http_client.h"

extern char** environ;

namespace tarn {
namespace {

using namespace std::chrono_literals;
using test::canned_http_server;
using test::raw_http_client;

const std::string kStartPage =
    canned_http_server::reply("200 OK", "text/html", "<title>Vantu Tarn gateway</title>");
const std::string kVersionCall = R"([1,"get_version",1,0,{}])";
const std::string kVersionReply =
    R"json([1,"get_version",2,0,{"0":{"str":"Vantu Tarn (version 5.0)"}}])json";

std::string post_request(const std::string& body) {
  return "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// Ends the whole run (SIGALRM) when a step hangs: a join that never returns can't be unblocked.
struct watchdog {
  explicit watchdog(std::chrono::seconds limit) { alarm(static_cast<unsigned>(limit.count())); }
  ~watchdog() { alarm(0); }
};

// Socket inodes of the TCP sockets whose local port is `port`: the listener and the
// accepted connections.
std::set<std::string> server_socket_inodes(int port) {
  std::set<std::string> inodes;
  char hex_port[8];
  std::snprintf(hex_port, sizeof hex_port, ":%04X", port);
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream in(table);
    for (std::string line; std::getline(in, line);) {
      std::istringstream fields(line);
      const std::vector<std::string> f{std::istream_iterator<std::string>(fields), {}};
      if (f.size() > 9 && f[1].ends_with(hex_port)) inodes.insert(f[9]);
    }
  }
  return inodes;
}

std::set<std::string> socket_inodes_of(pid_t pid) {
  std::set<std::string> inodes;
  std::error_code ec;
  for (const auto& fd :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
    const std::string target = std::filesystem::read_symlink(fd, ec).string();
    if (target.starts_with("socket:[")) inodes.insert(target.substr(8, target.size() - 9));
  }
  return inodes;
}

class CTarnGateWayApp_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    test::write_file(env_.root() / "machine-info", "CHASSIS=desktop\n");
    env_.set_env("TARN_MACHINE_INFO", (env_.root() / "machine-info").string());
  }

  // Port 0 for the server, and a probe that finds nothing.
  CTarnGateWayApp::settings free_port() { return CTarnGateWayApp::settings{0, nothing_.uri()}; }

  canned_http_server nothing_{""};
};

TEST_F(CTarnGateWayApp_test, TheServerTestComesBeforeTheProbeAndRefusalsStartNothing) {
  const struct {
    const char* label;
    const char* chassis;
    std::string page;
    exit_code code;
    size_t probes;
  } cases[] = {
      {"server with a gateway on the port", "server", kStartPage, kExitServerEdition, 0},
      {"workstation with a gateway on the port", "desktop", kStartPage, kExitAlreadyRunning, 1},
      {"workstation with a foreign page on the port", "desktop",
       canned_http_server::reply("200 OK", "text/html", "<title>other</title>"), kExitOk, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    test::write_file(env_.root() / "machine-info", std::string("CHASSIS=") + c.chassis + "\n");
    canned_http_server other(c.page);
    CTarnGateWayApp app(CTarnGateWayApp::settings{0, other.uri()});
    EXPECT_EQ(app.InitInstance(), c.code);
    const auto requests = other.requests();
    ASSERT_EQ(requests.size(), c.probes);
    if (c.probes == 1) EXPECT_EQ(requests[0].substr(0, 16), "GET / HTTP/1.1\r\n");
    if (c.code != kExitOk) {
      EXPECT_EQ(app.task_worker(), nullptr);
      EXPECT_EQ(app.listening_port(), 0);
    } else {
      EXPECT_NE(app.listening_port(10s), 0);
    }
    EXPECT_EQ(app.ExitInstance(c.code), c.code);
  }
}

TEST_F(CTarnGateWayApp_test, AnExitRightAfterTheStartNeverLeavesTheServerRunning) {
  watchdog guard(60s);
  for (int i = 0; i < 40; ++i) {
    SCOPED_TRACE(i);
    CTarnGateWayApp app(free_port());
    ASSERT_EQ(app.InitInstance(), kExitOk);
    // Spreads the exit over the server thread's phases: assembling, starting, listening.
    std::this_thread::sleep_for(std::chrono::microseconds(i * 150));
    EXPECT_EQ(app.ExitInstance(kExitOk), kExitOk);
    EXPECT_EQ(app.listening_port(), 0);
  }
}

TEST_F(CTarnGateWayApp_test, APortTakenByAnotherProgramEndsTheEventLoopWithItsCode) {
  watchdog guard(30s);
  canned_http_server squatter(canned_http_server::reply("404 Not Found", "text/html", "no"));
  CTarnGateWayApp app(CTarnGateWayApp::settings{squatter.port(), nothing_.uri()});
  ASSERT_EQ(app.InitInstance(), kExitOk);
  QTimer::singleShot(10000, [] { QCoreApplication::exit(-1); });
  EXPECT_EQ(QCoreApplication::exec(), kExitPortUnavailable);
  EXPECT_EQ(app.ExitInstance(kExitPortUnavailable), kExitPortUnavailable);
}

TEST_F(CTarnGateWayApp_test, ChildrenInheritNoSocketAndTheExitEndsConnectionsClientsHold) {
  watchdog guard(30s);
  CTarnGateWayApp app(free_port());
  ASSERT_EQ(app.InitInstance(), kExitOk);
  const int port = app.listening_port(10s);
  ASSERT_NE(port, 0);
  // Half a request: the listener defers the accept until bytes arrive, and the connection's
  // thread then blocks reading the rest.
  raw_http_client idle(port);
  ASSERT_TRUE(idle.send("POST / HTTP/1.1\r\nContent-Le"));
  raw_http_client caller(port);
  ASSERT_TRUE(caller.send(post_request(kVersionCall)));
  const std::string reply = caller.read_reply();
  EXPECT_TRUE(reply.ends_with(kVersionReply)) << reply;

  const std::set<std::string> server_sockets = server_socket_inodes(port);
  ASSERT_GE(server_sockets.size(), 2u) << "expected the listener and accepted connections";
  pid_t child = 0;
  const char* argv[] = {"/bin/sleep", "30", nullptr};
  ASSERT_EQ(posix_spawn(&child, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ), 0);
  const std::set<std::string> inherited = socket_inodes_of(child);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  for (const auto& inode : server_sockets)
    EXPECT_EQ(inherited.count(inode), 0u) << "socket inode " << inode << " leaked into a child";

  EXPECT_EQ(app.ExitInstance(kExitOk), kExitOk);
  EXPECT_TRUE(idle.closed_by_server()) << "the idle connection outlived the server";
  EXPECT_EQ(app.listening_port(), 0);
}

}  // namespace
}  // namespace tarn
