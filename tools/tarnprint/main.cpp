// tarnprint: the print helper. `tarnprint /p "SOURCE" "TARGET" /noviewpdf` writes TARGET as a
// PDF of SOURCE and exits 0; anything else exits non-zero with one line on standard error.
#include <signal.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "platform/ascii_text.h"
#include "office_client.h"
#include "print_job.h"

namespace {

constexpr const char* kHelp =
    "tarnprint: print a document to a PDF file.\n"
    "\n"
    "Usage: tarnprint /p SOURCE TARGET [/noviewpdf]\n"
    "       tarnprint /warm   start the offices now, so that the next documents find them loaded\n"
    "\n"
    "SOURCE may be a PDF (rewritten through qpdf), an office document (doc, docx, odt, rtf, txt,\n"
    "html, xls, xlsx, ods, csv, ppt, pptx, odp) or an image (png, jpg, gif, tiff), which go\n"
    "through LibreOffice. The kind is judged by the file's content, not its name. TARGET is\n"
    "written only when the whole PDF is good.\n"
    "\n"
    "Documents go to a pool of LibreOffices kept running for this user (tarnoffice), started\n"
    "on first use; runs at the same time convert on different offices. Settings, DWORD values\n"
    "under HKCU (else HKLM) Software\\Vantu\\PDF\\V1\\TarnPrint:\n"
    "  OfficePoolSize         offices at most (1 to 4, default one per core; fewer when memory\n"
    "                         is short)\n"
    "  ConvertTimeoutSeconds  time one document may take (default 120)\n"
    "  OfficeMaxConversions   documents before the office is restarted (default 50)\n"
    "  OfficeIdleSeconds      idle time before the office exits (default 600)\n"
    "  OfficeNetworkIsolation 1: the office runs without network where the system allows\n"
    "                         it; 0: it shares the machine's network (default 1)\n"
    "\n"
    "Exit codes: 0 the PDF was written; 1 the source can't be read or converted; 2 bad command\n"
    "line; 3 the target can't be written; 4 the conversion took longer than the time-out;\n"
    "5 the office could not be started or ended during the conversion.\n";

void on_signal(int sig) {
  tarn::remove_print_temp_file();
  ::signal(sig, SIG_DFL);
  ::raise(sig);
}

int usage_error(const std::string& text) {
  std::cerr << "tarnprint: " << text << " (usage: tarnprint /p SOURCE TARGET /noviewpdf)\n";
  return tarn::kPrintUsage;
}

}  // namespace

int main(int argc, char** argv) {
  // The switches are read in the slash syntax the callers use, in any case; everything else is
  // a path, even one that begins with "/" or "-".
  bool print = false;
  std::vector<std::string> paths;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = tarn::ascii_lower(argv[i]);
    if (arg == "--help" || arg == "-h" || arg == "/?") {
      std::cout << kHelp;
      return tarn::kPrintOk;
    }
    if (arg == "/warm") {
      std::string err;
      if (tarn::warm_offices(tarn::read_office_settings(), &err)) return tarn::kPrintOk;
      std::cerr << "tarnprint: can't start the offices: " << err << "\n";
      return tarn::kPrintOfficeFailed;
    }
    if (arg == "/p") {
      print = true;
    } else if (arg == "/m") {
      return usage_error("/m is not supported");
    } else if (arg == "/viewpdf") {
      return usage_error("/viewpdf is not supported: tarnprint only writes the PDF");
    } else if (arg != "/noviewpdf") {
      paths.push_back(argv[i]);
    }
  }
  if (!print) return usage_error("the switch /p is missing");
  if (paths.size() < 2) return usage_error("SOURCE and TARGET are both needed");
  if (paths.size() > 2) {
    // Name the argument most likely meant as a switch.
    auto odd = std::find_if(paths.begin(), paths.end(), [](const std::string& p) {
      return p.size() > 1 && (p[0] == '-' || (p[0] == '/' && p.find('/', 1) == std::string::npos));
    });
    return usage_error("unexpected argument \"" + (odd != paths.end() ? *odd : paths[2]) + "\"");
  }

  for (int sig : {SIGINT, SIGTERM, SIGHUP}) ::signal(sig, on_signal);
  const tarn::print_result result =
      tarn::print_to_pdf(paths[0], paths[1], tarn::read_office_settings());
  if (result.code != tarn::kPrintOk) std::cerr << "tarnprint: " << result.message << "\n";
  return result.code;
}
