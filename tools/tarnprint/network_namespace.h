// Takes the office off the network: the process moves into a network namespace of its own,
// which holds only a loopback interface that is down, so nothing a document names can be
// reached. Unix sockets on the file system still work.
#pragma once

#include <string>

namespace tarn {

// Must be called while the process has a single thread. The superuser gets a network
// namespace directly; anyone else needs a user namespace first, in which the user keeps its
// own ids. False with *why when the system allows neither; the process is then as before.
bool leave_network(std::string* why);

}  // namespace tarn
