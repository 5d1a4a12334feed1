// Conversion support: temporary file names, the install folder, starting the conversion
// assistant and the print helper, and XPS conversion through the run-time library. Free
// functions that keep no state between calls; paths are UTF-8. The launch functions and
// ConvertXpsToPdf belong to the thread that runs tasks.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class QObject;

namespace tarn {

inline constexpr const char* kProductKey = "Software\\Vantu\\PDF\\V1";
inline constexpr const char* kGatewayKey = "Software\\Vantu\\PDF\\V1\\TarnGateWay";
inline constexpr const char* kAssistantProgram = "tarnassist";
inline constexpr const char* kPrintHelperProgram = "tarnprint";
// The folder of one assistant command's copies, in the private temporary folder, begins so.
inline constexpr const char* kAssistantCopiesPrefix = "tarnassist-";

// *buffer in: empty, or a file name whose extension (".xps", ".oxps" or ".pdf", any case,
// kept as spelt; anything else becomes ".pdf"; none stays none) the new name takes; out: a
// path "ss_<hex><ext>" in the private temporary folder that no file holds now. The name is
// free, not reserved. False when there is no private temporary folder or no free name.
bool GetUniqueTempFile(std::string* buffer);

// InstallPath of the machine store, always with a trailing "/". False (and *path empty) when
// it is missing or empty. `mode` 0 and 1 read the same value.
bool ReadInstallPath(std::string* path, int mode = 1);

// folder/subfolder/file_name if it exists, else folder/file_name if it exists, else "".
std::string FindInstalledFile(const std::string& folder, const std::string& file_name,
                              const std::string& subfolder);

// A line passes unless its first quoted text names neither an existing path nor an address
// (http://, https://, ftp:, file://); an empty or unclosed quote passes. A passing line is
// copied to *checked.
bool CheckCommandLine(const std::string& command_line, std::string* checked);

// Starts the install folder's tarnassist on the arguments of `command_line` (split by the
// Windows rules). Not modal: returns at once, nothing is kept. Modal: disables `parent` (a
// widget) and waits for the assistant while the event loop runs. Failures are traced only;
// false when the assistant wasn't started, so that the caller can take back what it prepared.
bool LaunchConverter(const std::string& command_line, bool modal, QObject* parent);

// How long a print helper may run before it is ended: print_helper_timeout (seconds) under
// the user's Software\Vantu\PDF\V1\TarnGateWay; without it 300 s, or the helper's own
// ConvertTimeoutSeconds (Software\Vantu\PDF\V1\TarnPrint) + 60 s when that is longer.
std::chrono::seconds print_helper_timeout();

// How long tarnprint lets one document take: its ConvertTimeoutSeconds (user, else machine),
// else 120 s.
std::chrono::seconds print_helper_convert_timeout();

// How one print helper run ended.
struct print_run {
  bool printed = false;          // exit 0 and the target exists
  std::optional<int> exit_code;  // none: it didn't start, or the gateway ended it
  bool timed_out = false;        // ended after `limit`
  std::chrono::seconds limit{0};
};

// PrintPDFWithHelper, telling how the run ended.
print_run RunPrintHelper(const std::string& source, const std::string& target, bool mode,
                         bool view);

// Runs `tarnprint /p "source" "target" /noviewpdf` (/m and /viewpdf for the flags) from the
// install folder and waits for it while the calling thread's event loop keeps running. A
// helper still running after print_helper_timeout() is ended (SIGTERM, then SIGKILL) and
// its partial target removed. True when it ended with 0 and the target exists.
bool PrintPDFWithHelper(const std::string& source, const std::string& target, bool mode, bool view,
                        int unused1 = 3, int unused2 = 0);

// Asks the install folder's print helper to start its offices now (`tarnprint /warm`), so that
// a conversion that follows finds them loaded. Returns at once; unused offices end by their
// idle rule. Failures are traced only.
void WarmPrintHelper();

// How many documents the print helper's offices convert at once: OfficePoolSize (1 to
// kMaxOfficePool) under Software\Vantu\PDF\V1\TarnPrint (HKCU, else HKLM), else one per core
// up to kMaxOfficePool. Each office takes about 300 MB and a core while it loads.
inline constexpr unsigned kMaxOfficePool = 4;
unsigned print_helper_parallelism();

// PrintPDFWithHelper for several (source, target) pairs at once: print_helper_parallelism()
// helpers run at the same time, each under its own time-out. Element i tells how the run for
// target i ended; an ended helper's target is removed and the others go on.
std::vector<print_run> PrintPDFsWithHelper(
    const std::vector<std::pair<std::string, std::string>>& jobs);

// Converts an XPS or OXPS file to PDF through tarnimage.so, loaded on first use from the
// program's folder or the install folder and kept for the process's life. False (and traced)
// when the library can't be loaded or the conversion fails; never throws.
bool ConvertXpsToPdf(const std::string& source, const std::string& target, int flags, int option1,
                     int option2);

}  // namespace tarn
