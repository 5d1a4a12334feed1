// One blocking HTTP request over cpprestsdk; the start-up probe (probe.h) is its only user
// and the process's only outgoing HTTP request.
#pragma once

#include <cpprest/http_msg.h>
#include <cpprest/uri.h>

#include <cstdint>
#include <memory>
#include <string>

namespace tarn {

class simple_http_request {
 public:
  struct response {
    int32_t status = 0;
    utility::string_t body;
  };

  // `verb` is matched without regard to case against the methods cpprestsdk names; anything
  // else means GET. Throws std::invalid_argument "verb is empty" or "uri_string is empty"
  // (the verb is tested first), or web::uri_exception for a malformed URI.
  simple_http_request(const std::string& uri_string, const std::string& verb);
  virtual ~simple_http_request();
  simple_http_request(const simple_http_request&) = delete;
  simple_http_request& operator=(const simple_http_request&) = delete;

  // Blocks until the whole body is in, with the library's default time-out. An HTTP-level
  // failure (refused, broken, timed out) throws std::runtime_error with the library's text;
  // a body that isn't text throws the library's own exception.
  response send();

  const web::http::method& method() const { return params_->method; }

 private:
  struct parameters {
    web::uri uri;
    web::http::method method;
  };
  std::unique_ptr<parameters> params_;
};

}  // namespace tarn
