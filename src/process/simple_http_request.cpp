#include "process/simple_http_request.h"

#include <cpprest/http_client.h>
#include <pplx/threadpool.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <mutex>
#include <stdexcept>

#include "process/probe.h"

namespace tarn {
namespace {

// cpprestsdk starts 40 pool threads on first use and keeps them for the life of the process;
// one request at start-up needs one.
void use_one_pool_thread() {
  static std::once_flag once;
  std::call_once(once, [] {
    try {
      crossplat::threadpool::initialize_with_threads(1);
    } catch (const std::exception&) {
      // Someone used the pool first; it keeps its size.
    }
  });
}

web::http::method method_of(const std::string& verb) {
  using methods = web::http::methods;
  std::string upper(verb);
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  const std::array<const web::http::method*, 10> known = {
      &methods::GET,     &methods::POST, &methods::PUT,     &methods::DEL,   &methods::HEAD,
      &methods::OPTIONS, &methods::TRCE, &methods::CONNECT, &methods::MERGE, &methods::PATCH};
  for (const web::http::method* m : known) {
    if (upper == *m) return *m;
  }
  return methods::GET;
}

}  // namespace

simple_http_request::simple_http_request(const std::string& uri_string, const std::string& verb)
    : params_(std::make_unique<parameters>(parameters{web::uri(uri_string), method_of(verb)})) {
  if (verb.empty()) throw std::invalid_argument("verb is empty");
  if (uri_string.empty()) throw std::invalid_argument("uri_string is empty");
}

simple_http_request::~simple_http_request() = default;

simple_http_request::response simple_http_request::send() {
  use_one_pool_thread();
  response result;
  web::http::client::http_client client(params_->uri);
  try {
    client.request(params_->method, params_->uri.to_string())
        .then([&result](web::http::http_response reply) {
          result.status = reply.status_code();
          return reply.extract_string();
        })
        .then([&result](utility::string_t body) { result.body = std::move(body); })
        .wait();
  } catch (const web::http::http_exception& e) {
    throw std::runtime_error(e.what());
  }
  return result;
}

bool another_gateway_answers() { return another_gateway_answers(kProbeUri); }

bool another_gateway_answers(const std::string& uri) {
  try {
    utility::string_t text;
    {
      simple_http_request request(uri, "get");
      simple_http_request::response reply = request.send();
      if (reply.status == 200) text = std::move(reply.body);
    }
    return text.find("Vantu") != utility::string_t::npos;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace tarn
