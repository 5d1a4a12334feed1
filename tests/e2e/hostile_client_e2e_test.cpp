// Port 9090 tried as an attacker would: a client that sends too much, holds connections,
// trickles, never reads or comes from elsewhere. The real gateway must stay within its memory,
// threads and time, and serve the next honest client.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <thread>

#include "e2e_fixture.h"
#include "platform/unique_fd.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using clock = std::chrono::steady_clock;

const std::string kCommandReply = R"json([1,"send_command",2,0,{}])json";

// A connection to port 9090 at `address`, v4 or v6. Each wait on it ends within 30 s, which
// fails the case instead of hanging the test.
unique_fd connect_to(const char* address) {
  sockaddr_in6 v6{.sin6_family = AF_INET6, .sin6_port = htons(kPort)};
  sockaddr_in v4{.sin_family = AF_INET, .sin_port = htons(kPort)};
  const bool is_v6 = inet_pton(AF_INET6, address, &v6.sin6_addr) == 1;
  inet_pton(AF_INET, address, &v4.sin_addr);
  unique_fd fd(::socket(is_v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval watchdog{30, 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &watchdog, sizeof(watchdog));
  ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &watchdog, sizeof(watchdog));
  const int connected = is_v6 ? ::connect(fd.get(), reinterpret_cast<sockaddr*>(&v6), sizeof(v6))
                              : ::connect(fd.get(), reinterpret_cast<sockaddr*>(&v4), sizeof(v4));
  EXPECT_EQ(connected, 0) << address;
  return fd;
}

// Sends `request` and reads until the server closes: "" when it closed without a byte.
std::string exchange_on(const unique_fd& fd, const std::string& request) {
  ::send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL);
  ::shutdown(fd.get(), SHUT_WR);
  std::string all;
  char buffer[65536];
  for (ssize_t n; (n = ::recv(fd.get(), buffer, sizeof(buffer), 0)) > 0;) all.append(buffer, n);
  return all;
}

using hostile_client_e2e_test = e2e_test;

TEST_F(hostile_client_e2e_test, MemoryStaysBoundedWhateverIsSent) {
  auto gateway = start_listening("gateway");
  for (int i = 0; i < 20; ++i) ASSERT_EQ(call(kVersionCall), kVersionReply);
  const long idle_kib = facts_of(gateway->pid()).rss_kib;

  // A body just under the size limit is served; sixteen at once share one budget, so some are
  // refused. One over the limit is refused before it is read, and the log keeps each entry
  // short: the server's and the log's own tests.
  const std::string big =
      send_command_message(kCreatePdf, std::string(1900 * 1024, 'c'), "", {"1.1"}, 0);
  EXPECT_EQ(call(big), kCommandReply);
  std::vector<std::thread> clients;
  for (int i = 0; i < 16; ++i) clients.emplace_back([&] { call(big); });
  for (auto& client : clients) client.join();
  EXPECT_LT(facts_of(gateway->pid()).rss_kib - idle_kib, 64 * 1024) << "16 big bodies at once";

  // One connection, many requests, pipelined: its buffers hold one request, not all.
  constexpr int kRequests = 300'000;
  const std::string batch = version_calls(1000);
  const long before_kib = facts_of(gateway->pid()).rss_kib;
  raw_http_client client(kPort);
  std::atomic<int> replies{0};
  std::thread reader([&] {
    while (replies < kRequests && client.read_reply().ends_with(kVersionReply)) ++replies;
  });
  for (int sent = 0; sent < kRequests && client.send(batch); sent += 1000) {
    while (sent - replies > 20'000) std::this_thread::sleep_for(1ms);
  }
  reader.join();
  EXPECT_EQ(replies, kRequests);
  EXPECT_LE(facts_of(gateway->pid()).rss_kib - before_kib, 5 * 1024);
  stop(*gateway);
}

TEST_F(hostile_client_e2e_test, ThreadsAndTimeAreBounded) {
  // Short limits, so that each deadline shows within seconds.
  for (const auto& [name, seconds] : {std::pair{"IdleTimeoutSeconds", 2},
                                      {"ReceiveTimeoutSeconds", 2},
                                      {"RequestTimeoutSeconds", 4},
                                      {"SendTimeoutSeconds", 2}})
    set_dword(name, static_cast<DWORD>(seconds));
  auto gateway = start_listening("gateway");
  const size_t idle_threads = facts_of(gateway->pid()).threads;

  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = std::max<rlim_t>(files.rlim_cur, std::min<rlim_t>(files.rlim_max, 4096));
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
  {
    std::vector<unique_fd> held;
    for (int i = 0; i < 1000; ++i) {
      held.push_back(connect_to("127.0.0.1"));
      ::send(held.back().get(), "P", 1, MSG_NOSIGNAL);  // begun, so that accept() takes it
    }
    std::this_thread::sleep_for(500ms);
    EXPECT_LE(facts_of(gateway->pid()).threads, idle_threads + 64 + 2);
  }
  EXPECT_EQ(call(kVersionCall), kVersionReply) << "a fresh client once they have gone";

  // Each kind of slow client ends by its own deadline: it sends its bytes, a piece at a time,
  // then reads until the server closes the connection, which stays free for others.
  const struct {
    const char* name;
    std::string bytes;
    size_t piece;  // a byte is sent a second; 0: all at once
    double at_most_seconds;
  } clients[] = {
      {"idle after a request", post_request(kVersionCall), 0, 2 + 1.5},
      {"one byte a second", "POST / HTTP/1.1\r\nContent-Length: 24\r\n", 1, 4 + 3.5},
      {"never reads", version_calls(200'000), 0, 2 + 8.0},
  };
  for (const auto& c : clients) {
    const unique_fd fd = connect_to("127.0.0.1");
    const auto start = clock::now();
    const size_t piece = c.piece ? c.piece : c.bytes.size();
    for (size_t at = 0; at < c.bytes.size(); at += piece) {
      if (::send(fd.get(), c.bytes.data() + at, piece, MSG_NOSIGNAL) <= 0) break;
      if (c.piece == 1) std::this_thread::sleep_for(1s);
    }
    char buffer[4096];
    while (::recv(fd.get(), buffer, sizeof(buffer), 0) > 0) {
    }
    EXPECT_LT(std::chrono::duration<double>(clock::now() - start).count(), c.at_most_seconds)
        << c.name;
    EXPECT_EQ(call(kVersionCall), kVersionReply) << "served after " << c.name;
  }
  stop(*gateway);
}

// An ordinary user gets a network namespace through a user namespace that keeps its own ids;
// the capabilities that brings last only until exec, so the links are set up here, in process.
void enter_network_of_own(const char* extra_address) {
  const std::string uid = std::to_string(::geteuid()), gid = std::to_string(::getegid());
  ASSERT_EQ(::unshare(CLONE_NEWUSER | CLONE_NEWNET), 0) << std::strerror(errno);
  std::ofstream("/proc/self/setgroups") << "deny";
  std::ofstream("/proc/self/uid_map") << uid << ' ' << uid << " 1";
  std::ofstream("/proc/self/gid_map") << gid << ' ' << gid << " 1";
  const unique_fd sock(::socket(AF_INET, SOCK_DGRAM, 0));
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
  ASSERT_EQ(::ioctl(sock.get(), SIOCSIFFLAGS, &request), 0) << std::strerror(errno);
  std::strcpy(request.ifr_name, "lo:1");
  auto* address = reinterpret_cast<sockaddr_in*>(&request.ifr_addr);
  address->sin_family = AF_INET;
  ASSERT_EQ(::inet_pton(AF_INET, extra_address, &address->sin_addr), 1);
  ASSERT_EQ(::ioctl(sock.get(), SIOCSIFADDR, &request), 0) << std::strerror(errno);
}

// Who may call: this machine, by any of its names, from the listed origins; other hosts only
// when the machine's policy allows. The test moves into a network namespace of its own with a
// second address on its loopback device, so that a peer from another host can be played.
TEST_F(hostile_client_e2e_test, ServesThisMachineItsNamesAndTheListedOriginsOtherHostsByPolicy) {
  ASSERT_NO_FATAL_FAILURE(enter_network_of_own("192.0.2.10"));
  CConvRegKey origins(reg_root::current_user, kGatewayKey, "AllowedOrigins", std::nullopt);
  ASSERT_EQ(origins.write_text("http://localhost:8080 https://dms.example"), kErrorSuccess);
  char name[256] = {};
  gethostname(name, sizeof(name) - 1);
  const auto body_from = [](const char* address, const std::string& head) {
    return body_of(exchange_on(connect_to(address), "POST / HTTP/1.1\r\nContent-Length: 24\r\n" +
                                                        head + "\r\n" + kVersionCall));
  };
  auto gateway = start_listening("as-shipped");
  const struct {
    const char* address;
    std::string head;  // header lines behind the request line
    bool served;
  } cases[] = {
      {"127.0.0.1", "Host: localhost:9090\r\n", true},
      {"::1", "Host: [::1]:9090\r\n", true},
      {"127.0.0.1", std::string("Host: ") + name + ":9090\r\n", true},
      {"127.0.0.1", "Host: rebound.example:9090\r\n", false},
      {"127.0.0.1", "Origin: HTTPS://DMS.example\r\n", true},
      {"127.0.0.1", "Origin: https://evil.example\r\n", false},
      {"192.0.2.10", "Host: localhost:9090\r\n", false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(body_from(c.address, c.head), c.served ? kVersionReply : "") << c.address << c.head;
  // A preflight or a GET from any page is answered; only its POST is held to the list.
  EXPECT_THAT(exchange_on(connect_to("127.0.0.1"),
                          "OPTIONS / HTTP/1.1\r\nOrigin: https://evil.example\r\n\r\n"),
              HasSubstr("200 OK"));
  const std::string err = gateway->error_output();
  EXPECT_THAT(err, HasSubstr("Request refused: Host \"rebound.example:9090\" names another"));
  EXPECT_THAT(err, HasSubstr("Request refused: Origin \"https://evil.example\" is not allowed"));
  EXPECT_THAT(err, HasSubstr("Connection from ::ffff:192.0.2.10 refused: only this machine"));
  stop(*gateway);

  set_dword("AllowRemoteClients", 1, "Software\\Policies\\Vantu\\Tarn 5.0\\Gateway",
            reg_root::local_machine);
  gateway = start_listening("allowed");
  EXPECT_EQ(body_from("192.0.2.10", "Host: localhost:9090\r\n"), kVersionReply);
  stop(*gateway);
}

}  // namespace
}  // namespace tarn::test
