// One run of the print helper: turns one source file into a PDF at the target path. The PDF is
// written under a temporary name beside the target and renamed only once it is judged good,
// so a failed run leaves neither a partial target nor a temporary file.
#pragma once

#include <filesystem>
#include <string>

#include "office_settings.h"

namespace tarn {

// Exit codes of tarnprint.
enum print_exit : int {
  kPrintOk = 0,
  kPrintBadSource = 1,     // missing, unreadable, empty, damaged, password-protected, unknown kind
  kPrintUsage = 2,         // bad command line
  kPrintBadTarget = 3,     // the target can't be written
  kPrintTimedOut = 4,      // the conversion took longer than the time-out
  kPrintOfficeFailed = 5,  // the office could not be started, or ended during the conversion
};

struct print_result {
  print_exit code = kPrintOk;
  std::string message;  // one line naming the path or value at fault, when code isn't kPrintOk
};

print_result print_to_pdf(const std::filesystem::path& src, const std::filesystem::path& dst,
                          const office_settings& settings);

// Removes the temporary file of the run in progress; safe inside a signal handler.
void remove_print_temp_file();

}  // namespace tarn
