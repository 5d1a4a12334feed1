// Who may talk to port 9090. Any web page the user opens can make the browser send requests
// to it, and so can every host on the network: the peer address, the Host header and the
// Origin header each shut out one of them.
#pragma once

#include <sys/socket.h>

#include <string>
#include <string_view>
#include <vector>

namespace tarn {

// 127.0.0.0/8, ::1, and 127.x mapped into IPv6 (an IPv4 peer of a dual-stack socket).
bool is_loopback_peer(const sockaddr* address, socklen_t length);

// A Host header value (host, optionally ":port") names this machine: "localhost", a loopback
// literal ("127.0.0.1", "[::1]") or one of `own_names`, compared without case. A page whose
// name was rebound to 127.0.0.1 sends its own name and fails here.
bool host_allowed(std::string_view host_value, const std::vector<std::string>& own_names);

// The allowed origins of a list written as text: separated by blanks, commas or semicolons,
// without a trailing slash.
std::vector<std::string> parse_origin_list(std::string_view text);

// True when `allowed` is empty (no list set) or holds `origin`, compared without case.
bool origin_allowed(std::string_view origin, const std::vector<std::string>& allowed);

// This machine's own names: its host name, and that name's first label.
std::vector<std::string> own_host_names();

}  // namespace tarn
