// For the dialogs' QProcess children: they get no descriptor of the gateway beyond their
// standard three. QProcess passes on every descriptor not marked close-on-exec, and a listening
// socket inherited by a child keeps port 9090 busy for as long as the child lives.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <QProcess>

namespace tarn {

inline void keep_descriptors_from_child(QProcess& process) {
  const long max_fd = sysconf(_SC_OPEN_MAX);
  // Runs in the child between fork and exec: system calls only. The descriptors are marked,
  // not closed, so that QProcess still learns of a failed exec through its own pipe.
  process.setChildProcessModifier([max_fd] {
    if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
    for (long fd = 3; fd < max_fd; ++fd) fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC);
  });
}

}  // namespace tarn
