#include "network_namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/unique_fd.h"

namespace tarn {
namespace {

bool write_proc(const char* file, const std::string& text) {
  unique_fd fd(::open(file, O_WRONLY | O_CLOEXEC));
  return fd && ::write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool enter_namespaces(std::string* why) {
  const uid_t uid = ::geteuid();
  const gid_t gid = ::getegid();
  if (uid == 0) {
    if (::unshare(CLONE_NEWNET) == 0) return true;
    *why = std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno);
    return false;
  }
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
    *why = std::string("user namespaces are not allowed here: ") + std::strerror(errno);
    return false;
  }
  if (!write_proc("/proc/self/setgroups", "deny") ||
      !write_proc("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1") ||
      !write_proc("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1")) {
    *why = std::string("a user namespace can't keep this user's ids: ") + std::strerror(errno);
    return false;
  }
  return true;
}

// A user namespace that can't map the user's ids leaves the process under the overflow id,
// for good, so a child tries first and says why it failed through a pipe.
bool namespaces_work(std::string* why) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    *why = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  unique_fd reason_read(fds[0]), reason_write(fds[1]);
  const pid_t child = ::fork();
  if (child < 0) {
    *why = std::string("fork: ") + std::strerror(errno);
    return false;
  }
  if (child == 0) {
    std::string reason;
    if (enter_namespaces(&reason)) ::_exit(0);
    (void)!::write(reason_write.get(), reason.data(), reason.size());
    ::_exit(1);
  }
  reason_write.reset();
  char text[512];
  ssize_t got;
  do {
    got = ::read(reason_read.get(), text, sizeof text);
  } while (got < 0 && errno == EINTR);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  *why = got > 0 ? std::string(text, static_cast<size_t>(got)) : "the trial child failed";
  return false;
}

}  // namespace

bool leave_network(std::string* why) {
  if (::geteuid() != 0 && !namespaces_work(why)) return false;
  return enter_namespaces(why);
}

}  // namespace tarn
