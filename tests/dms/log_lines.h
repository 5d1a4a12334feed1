// The entries of a simple_log as the tests compare them.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "log/simple_log.h"

namespace tarn::test {

// One line an entry, "[N] text" or "[...] text": without the start entry and the times.
inline std::vector<std::string> log_lines(const simple_log& log) {
  std::istringstream in(log.render());
  std::string line;
  std::vector<std::string> lines;
  std::getline(in, line);  // start entry
  std::getline(in, line);  // rule
  while (std::getline(in, line))
    lines.push_back(line.substr(0, line.find("] ") + 2) + line.substr(line.find(", ") + 2));
  return lines;
}

}  // namespace tarn::test
