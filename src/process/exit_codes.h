// What the gateway's exit code means. The systemd user unit counts kExitAlreadyRunning as a
// success and doesn't restart after kExitUsage or kExitServerEdition.
#pragma once

namespace tarn {

enum exit_code : int {
  kExitOk = 0,               // stopped by SIGTERM, SIGINT or SIGHUP
  kExitFailure = 1,          // the service couldn't be built
  kExitUsage = 2,            // an unknown command-line argument
  kExitAlreadyRunning = 3,   // another gateway answers on port 9090; this one gave up
  kExitServerEdition = 4,    // this machine is a server; the gateway doesn't run there
  kExitPortUnavailable = 5,  // port 9090 couldn't be listened on, or the server ended by itself
};

}  // namespace tarn
