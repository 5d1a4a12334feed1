#include "web/access_rules.h"

#include <gtest/gtest.h>
#include <netdb.h>

namespace tarn {
namespace {

TEST(access_rules, PeerIsLoopbackOnlyFromThisMachine) {
  const std::pair<const char*, bool> cases[] = {
      {"127.0.0.1", true},          {"127.255.0.9", true}, {"192.0.2.10", false},
      {"10.0.0.1", false},          {"::1", true},         {"::ffff:127.0.0.1", true},
      {"::ffff:192.0.2.10", false}, {"fe80::1", false},    {"::", false}};
  for (const auto& [text, loopback] : cases) {
    const addrinfo hints{.ai_flags = AI_NUMERICHOST};
    addrinfo* address = nullptr;
    ASSERT_EQ(getaddrinfo(text, nullptr, &hints, &address), 0) << text;
    EXPECT_EQ(is_loopback_peer(address->ai_addr, address->ai_addrlen), loopback) << text;
    freeaddrinfo(address);
  }
}

TEST(access_rules, HostMustNameThisMachine) {
  const std::vector<std::string> own = {"desk7.corp.example", "desk7"};
  for (const char* host :
       {"localhost", "LocalHost:9090", "localhost.:9090", " 127.0.0.1:9090 ", "127.8.9.1",
        "[::1]:9090", "[::1]", "[::ffff:127.0.0.1]", "desk7", "DESK7.corp.example:9090"})
    EXPECT_TRUE(host_allowed(host, own)) << host;
  for (const char* host :
       {"", ":9090", "evil.example", "localhost.evil.example", "127.0.0.1.evil.example", "127.1",
        "192.0.2.10:9090", "[::2]:9090", "::1", "desk7x"})
    EXPECT_FALSE(host_allowed(host, own)) << host;
}

TEST(access_rules, OriginListIsParsedAndMatchedWhole) {
  const auto list = parse_origin_list(" https://dms.example/, http://localhost:8080;;http://a ");
  EXPECT_EQ(list,
            (std::vector<std::string>{"https://dms.example", "http://localhost:8080", "http://a"}));
  EXPECT_TRUE(origin_allowed("HTTPS://DMS.example", list));
  EXPECT_TRUE(origin_allowed("anything", {}));
  for (const char* other : {"https://dms.example.evil", "http://dms.example", "null", ""})
    EXPECT_FALSE(origin_allowed(other, list)) << other;
}

}  // namespace
}  // namespace tarn
