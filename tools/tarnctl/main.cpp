// tarnctl: the administrator's tool for the gateway's settings and stores.
#include <CLI/CLI.hpp>

#include <algorithm>

#include "tarnctl_commands.h"

int main(int argc, char** argv) {
  CLI::App app{
      "tarnctl: administer the Vantu Tarn gateway on this machine.\n"
      "Exit codes: 0 success, 1 the operation failed or found nothing, 2 bad command line."};
  app.name("tarnctl");
  app.require_subcommand(1);
  int exit_code = tarn::kExitOk;
  tarn::add_reg_command(app, &exit_code);
  tarn::add_setup_command(app, &exit_code);
  tarn::add_call_command(app, &exit_code);
  tarn::add_dms_command(app, &exit_code);
  try {
    std::vector<std::string> args = tarn::translate_reg_switches(argc, argv);
    std::reverse(args.begin(), args.end());  // CLI11 takes its vector last-first
    app.parse(args);
  } catch (const CLI::ParseError& e) {
    int code = app.exit(e);
    return code == 0 ? tarn::kExitOk : tarn::kExitUsage;
  }
  return exit_code;
}
