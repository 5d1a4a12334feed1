#include "process/CTarnGateWayApp.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QTimer>
#include <filesystem>
#include <thread>

#include "canned_http_server.h"
#include "support/test_env.h"
#include "web/raw_http_client.h"

namespace tarn {
namespace {

using namespace std::chrono_literals;
using test::canned_http_server;
using test::kVersionCall;
using test::kVersionReply;
using test::post_request;
using test::raw_http_client;

const std::string kStartPage =
    canned_http_server::reply("200 OK", "text/html", "<title>Vantu Tarn gateway</title>");
// Ends the whole run (SIGALRM) when a step hangs: a join that never returns can't be unblocked.
struct watchdog {
  explicit watchdog(std::chrono::seconds limit) { alarm(static_cast<unsigned>(limit.count())); }
  ~watchdog() { alarm(0); }
};

// The TCP sockets of this process that a program it starts would inherit.
std::vector<int> inheritable_tcp_sockets() {
  std::vector<int> fds;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int fd = std::stoi(entry.path().filename().string());
    int domain = 0;
    socklen_t size = sizeof domain;
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
        (domain == AF_INET || domain == AF_INET6) && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0)
      fds.push_back(fd);
  }
  return fds;
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
    if (c.probes == 1) {
      EXPECT_EQ(requests[0].substr(0, 16), "GET / HTTP/1.1\r\n");
    }
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

  EXPECT_EQ(inheritable_tcp_sockets(), std::vector<int>());

  EXPECT_EQ(app.ExitInstance(kExitOk), kExitOk);
  EXPECT_TRUE(idle.closed_by_server()) << "the idle connection outlived the server";
  EXPECT_EQ(app.listening_port(), 0);
}

}  // namespace
}  // namespace tarn
