// For the tests of the conversion path: small XPS packages, judges of PDF files, and stand-ins
// for the product's helper programs at their command-line contract.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace tarn::test {

// One page per text, each a line in DejaVu Sans embedded as the font; OXPS namespaces if `oxps`.
void write_xps(const std::filesystem::path& file, const std::vector<std::string>& page_texts,
               bool oxps = false);
void write_zip(const std::filesystem::path& file,
               const std::vector<std::pair<std::string, std::string>>& entries);

bool pdf_is_valid(const std::filesystem::path& pdf);     // qpdf --check
std::string pdf_text(const std::filesystem::path& pdf);  // pdftotext

// True once `pid` has ended (or never ran); the limit only keeps a broken test from hanging.
bool process_ended(pid_t pid, std::chrono::milliseconds limit = std::chrono::seconds(60));

// Ends the warm offices that the real tarnprint started below the private temporary folder `tmp`.
void end_office_worker(const std::filesystem::path& tmp);

// Started as "tarnprint" or "tarnassist", this process plays that program: true, and its exit
// code. Both write their arguments, one a line, to $TARN_FAKE_RECORD when set. tarnprint /p SRC
// DST acts on SRC's first line: "FAIL" exits 2 with a message; "SILENT" exits 0 writing nothing;
// "HANG" writes a PDF and waits for a signal; "BLOCK <fifo>" first reads the FIFO to its end;
// else it writes a small PDF. tarnassist with $TARN_FAKE_BLOCK set reads that FIFO first.
bool play_helper_program(int argc, char** argv, int* exit_code);

}  // namespace tarn::test
