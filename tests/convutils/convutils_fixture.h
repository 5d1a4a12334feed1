// What the conversion utilities' tests share: their trace and the product's install folder.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <sstream>

#include "convutils/CConvRegKey.h"
#include "convutils/ConvUtils.h"
#include "support/test_env.h"

namespace tarn::test {

// Collects the diagnostic lines this process writes to standard error while it lives, as
// "LEVEL TEXT" (0 progress, 1 warning, 2 failure); other programs' lines are left out.
class trace_capture {
 public:
  explicit trace_capture(std::filesystem::path file) : file_(std::move(file)) {
    int fd = open(file_.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
  ~trace_capture() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }

  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    std::istringstream in(read_file(file_));
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("[85] ", 0) != 0) continue;
      const char level = line[5] == 'i' ? '0' : line[5] == 'w' ? '1' : '2';
      out.push_back(std::string(1, level) + " " + line.substr(line.find(": ") + 2));
    }
    return out;
  }

 private:
  std::filesystem::path file_;
  const int saved_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
};

class convutils_fixture : public sandboxed_test {
 protected:
  static void set_install_path(const std::string& path) {
    CConvRegKey(reg_root::local_machine, kProductKey, "InstallPath", std::nullopt).write_text(path);
  }
  trace_capture capture() { return trace_capture(env_.root() / "trace"); }
};

}  // namespace tarn::test
