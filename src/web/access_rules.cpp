#include "web/access_rules.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "platform/ascii_text.h"

namespace tarn {
namespace {

bool is_loopback_literal(std::string_view host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    const std::string inner(host.substr(1, host.size() - 2));
    in6_addr v6{};
    if (inet_pton(AF_INET6, inner.c_str(), &v6) != 1) return false;
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = v6;
    return is_loopback_peer(reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  }
  in_addr v4{};
  // inet_pton takes dotted quads only, not the short forms ("127.1") inet_aton allows.
  return inet_pton(AF_INET, std::string(host).c_str(), &v4) == 1 && (ntohl(v4.s_addr) >> 24) == 127;
}

}  // namespace

bool is_loopback_peer(const sockaddr* address, socklen_t length) {
  if (address == nullptr) return false;
  if (address->sa_family == AF_INET && length >= static_cast<socklen_t>(sizeof(sockaddr_in))) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    return (ntohl(v4->sin_addr.s_addr) >> 24) == 127;
  }
  if (address->sa_family == AF_INET6 && length >= static_cast<socklen_t>(sizeof(sockaddr_in6))) {
    const in6_addr& v6 = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (IN6_IS_ADDR_LOOPBACK(&v6)) return true;
    return IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127;
  }
  return false;
}

bool host_allowed(std::string_view host_value, const std::vector<std::string>& own_names) {
  std::string_view host = trim(host_value, " \t");
  // The port goes; a bracketed IPv6 literal keeps its colons.
  const size_t colon = host.rfind(':');
  if (colon != std::string_view::npos && host.find(']', colon) == std::string_view::npos &&
      (host.front() == '[' || host.find(':') == colon)) {
    host = host.substr(0, colon);
  }
  if (host.empty()) return false;
  if (host.back() == '.') host.remove_suffix(1);
  if (ascii_iequals(host, "localhost")) return true;
  if (is_loopback_literal(host)) return true;
  for (const auto& name : own_names) {
    if (!name.empty() && ascii_iequals(host, name)) return true;
  }
  return false;
}

std::vector<std::string> parse_origin_list(std::string_view text) {
  std::vector<std::string> origins;
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = std::min(text.find_first_of(" \t,;", at), text.size());
    std::string_view item = text.substr(at, end - at);
    while (!item.empty() && item.back() == '/') item.remove_suffix(1);
    if (!item.empty()) origins.emplace_back(item);
    at = end + 1;
  }
  return origins;
}

bool origin_allowed(std::string_view origin, const std::vector<std::string>& allowed) {
  if (allowed.empty()) return true;
  origin = trim(origin, " \t");
  for (const auto& item : allowed) {
    if (ascii_iequals(origin, item)) return true;
  }
  return false;
}

std::vector<std::string> own_host_names() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof(name) - 1) != 0 || name[0] == '\0') return {};
  std::vector<std::string> names{name};
  const std::string_view full(name);
  if (const size_t dot = full.find('.'); dot != std::string_view::npos && dot > 0)
    names.emplace_back(full.substr(0, dot));
  return names;
}

}  // namespace tarn
