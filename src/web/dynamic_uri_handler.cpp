#include "web/dynamic_uri_handler.h"

#include <utility>

namespace tarn {

void dynamic_uri_handler::add_page(const std::string& uri, page_fn make_page) {
  pages_[uri] = std::move(make_page);
}

std::optional<std::string> dynamic_uri_handler::lookup(const std::string& uri) const {
  auto it = pages_.find(uri);
  if (it == pages_.end() || !it->second) return std::nullopt;
  return it->second();
}

}  // namespace tarn
