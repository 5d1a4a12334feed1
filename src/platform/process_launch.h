// Starting other programs of the product. A command line written the Windows way is split
// into arguments by the rules the started program applies to its own command line, and a
// detached start leaves a program running on its own, outliving the caller.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarn {

// Splits a command line by the C runtime's rules: blanks and tabs separate arguments; "..."
// groups; 2n backslashes before a quote give n backslashes and the quote opens or closes a
// group, 2n+1 give n backslashes and a literal quote; "" inside a group is a literal quote;
// other backslashes are literal.
std::vector<std::string> split_command_line(std::string_view line);

// The argument in quotes, escaped so that split_command_line gives it back unchanged.
// A text without quotes or trailing backslashes only gains the two quote marks.
std::string quote_argument(std::string_view arg);

struct detached_options {
  int nice_increment = 0;  // added to the started program's nice value
};

// Starts argv[0] (a path, not looked up in PATH) with the caller's environment, standard input
// on /dev/null, standard output and error shared, every other descriptor closed, signals at
// their defaults, in a session of its own. The caller keeps no handle and never has a zombie:
// an intermediate process starts the program and is reaped at once, so that the program is
// adopted by the session's reaper. False with the reason in *err when it could not be started.
bool spawn_detached(const std::vector<std::string>& argv, const detached_options& options = {},
                    std::string* err = nullptr);

}  // namespace tarn
