// Collects the diagnostic channel's lines that this process writes to standard error while
// the object lives, as "LEVEL TEXT" with the level as a number (0 progress, 1 warning,
// 2 failure). Lines of other programs sharing standard error are left out.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_env.h"

namespace tarn::test {

class trace_capture {
 public:
  explicit trace_capture(std::filesystem::path file) : file_(std::move(file)) {
    saved_ = dup(STDERR_FILENO);
    int fd = open(file_.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
  ~trace_capture() { restore(); }

  std::vector<std::string> lines() {
    restore();
    std::vector<std::string> out;
    std::istringstream in(read_file(file_));
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("[85] ", 0) != 0) continue;
      const auto level_end = line.find(' ', 5);
      const std::string level = line.substr(5, level_end - 5);
      const auto text = line.find(": ", level_end);
      out.push_back((level == "info" ? "0 " : level == "warning" ? "1 " : "2 ") +
                    line.substr(text + 2));
    }
    return out;
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    saved_ = -1;
  }

  std::filesystem::path file_;
  int saved_ = -1;
};

}  // namespace tarn::test
