// The start-up probe: a gateway that already serves port 9090 answers "GET /" with its start
// page, which holds "Vantu". Callers need no cpprestsdk headers.
#pragma once

#include <string>

namespace tarn {

// The address the probe asks.
inline constexpr const char* kProbeUri = "http://localhost:9090";

// True when a gateway answers at kProbeUri: status 200 and a body holding "Vantu" (case
// counts). Every failure reads as "nothing runs"; it reports nothing and never throws.
bool another_gateway_answers();
// The same against another address; for tests, which can't own port 9090.
bool another_gateway_answers(const std::string& uri);

}  // namespace tarn
