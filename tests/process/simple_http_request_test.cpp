#include "process/simple_http_request.h"

#include <gmock/gmock.h>

#include <stdexcept>

#include "canned_http_server.h"
#include "process/probe.h"

namespace tarn {
namespace {

using test::canned_http_server;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

TEST(simple_http_request_test, VerbsMapToMethodsAndEmptyArgumentsThrow) {
  // Any case of a known method; anything else is a GET.
  const std::pair<const char*, const char*> verbs[] = {
      {"Put", "PUT"}, {"pAtCh", "PATCH"}, {"delete", "DELETE"}, {"fetch", "GET"}, {"DEL", "GET"}};
  for (const auto& [verb, method] : verbs)
    EXPECT_EQ(simple_http_request("http://127.0.0.1:1", verb).method(), method) << verb;

  EXPECT_THAT([] { simple_http_request("http://127.0.0.1:1", ""); },
              ThrowsMessage<std::invalid_argument>(StrEq("verb is empty")));
  EXPECT_THAT([] { simple_http_request("", "get"); },
              ThrowsMessage<std::invalid_argument>(StrEq("uri_string is empty")));
}

TEST(simple_http_request_test, ProbeCountsOnlyStatus200WithTheWordInTheBody) {
  const struct {
    const char* label;
    std::string reply;
    bool answers;
  } cases[] = {
      {"start page", canned_http_server::reply("200 OK", "text/html", "<title>Vantu Tarn</title>"),
       true},
      {"word at the end", canned_http_server::reply("200 OK", "text/plain", "made by Vantu"), true},
      {"upper case", canned_http_server::reply("200 OK", "text/html", "VANTU"), false},
      {"status 500", canned_http_server::reply("500 Internal Server Error", "text/html", "Vantu"),
       false},
      {"connection closed without a reply", "", false},
      {"garbage instead of HTTP", "Vantu Vantu Vantu\r\n\r\n", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    canned_http_server server(c.reply);
    EXPECT_EQ(another_gateway_answers(server.uri()), c.answers);
    EXPECT_EQ(server.requests().size(), 1u);
  }
  EXPECT_FALSE(another_gateway_answers("http://127.0.0.1:1")) << "nothing listens on port 1";
  EXPECT_FALSE(another_gateway_answers("not a uri at all ::"));
}

}  // namespace
}  // namespace tarn
