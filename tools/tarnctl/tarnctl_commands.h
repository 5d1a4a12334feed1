// The subcommands of tarnctl. Each adds itself to the application and, when it runs, stores
// its exit code in *exit_code.
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace tarn {

// Exit codes of every subcommand.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the operation failed or found nothing
constexpr int kExitUsage = 2;   // the command line was wrong

// reg.exe's switches (/v NAME, /ve, /f, ...) as the options the reg subcommands declare
// (--v=NAME, --ve, --f); other arguments pass unchanged. Returns argv[1..] in order.
std::vector<std::string> translate_reg_switches(int argc, char** argv);

void add_reg_command(CLI::App& app, int* exit_code);
void add_setup_command(CLI::App& app, int* exit_code);
void add_call_command(CLI::App& app, int* exit_code);
void add_dms_command(CLI::App& app, int* exit_code);

}  // namespace tarn
