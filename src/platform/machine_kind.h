// Tells a workstation from a server: the gateway is a per-user desktop process and refuses
// to run on a server. TARN_MACHINE_INFO and TARN_DMI_DIR name other places for the two
// files read, for tests.
#pragma once

namespace tarn {

// True when /etc/machine-info says CHASSIS=server or, without a CHASSIS line, when the DMI
// chassis type is a server, rack-mount or blade type. Unreadable files count as workstation.
bool is_server_edition();

}  // namespace tarn
