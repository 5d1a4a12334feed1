// The table of dynamic pages: URI -> a callable that makes the page's text at each request.
// Filled before the server starts and only read afterwards, so it needs no lock.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace tarn {

class dynamic_uri_handler {
 public:
  using page_fn = std::function<std::string()>;

  // Registers or replaces a page; start-up only.
  void add_page(const std::string& uri, page_fn make_page);
  // The page's text when `uri` is registered exactly as given, else nothing.
  std::optional<std::string> lookup(const std::string& uri) const;

 private:
  std::map<std::string, page_fn> pages_;
};

}  // namespace tarn
