// Runs a program to its end for a test, feeding standard input and collecting both outputs.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace tarn::test {

struct program_result {
  int exit_code = -1;  // 128 + signal when killed by one; 127 when it can't be started
  std::string out;
  std::string err;
};

// args[0] is the program's path. The child is killed (SIGKILL) after `timeout`.
program_result run_program(const std::vector<std::string>& args, const std::string& input = "",
                           std::chrono::milliseconds timeout = std::chrono::seconds(120));

// The path of a program of the flat install folder, e.g. dist_program("tarnctl").
std::string dist_program(const std::string& name);

}  // namespace tarn::test
