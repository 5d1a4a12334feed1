// Collects the diagnostic lines this process writes to standard error while it lives, as
// "LEVEL TEXT" (0 progress, 1 warning, 2 failure); other programs' lines are left out.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <sstream>

#include "support/test_env.h"

namespace tarn::test {

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

}  // namespace tarn::test
