// What a source file holds, judged by its first bytes rather than its name: a name can lie,
// and LibreOffice "converts" any bytes it can't read as text.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tarn {

enum class source_kind {
  empty,
  pdf,      // goes through qpdf
  package,  // zip (OOXML, ODF), OLE2 (doc, xls, ppt) or RTF: LibreOffice reads these
  image,    // PNG, JPEG, GIF, TIFF
  text,     // text, HTML, CSV, flat XML documents
  unknown,  // other binary data: refused
};

// How LibreOffice should split a CSV file: the field separator and the text encoding, both as
// its import options number them.
struct csv_layout {
  int separator = ',';
  int charset = 76;  // 76 UTF-8, 1 Windows-1252, 65535 UTF-16 with a byte-order mark
};

// Judges `head`, the first bytes of a file (up to kSniffBytes; fewer for a shorter file).
source_kind sniff_source(std::string_view head);
constexpr size_t kSniffBytes = 64 * 1024;

// For a text file named *.csv: the separator that occurs most in its first line (',' when
// none does) and its encoding. Nullopt for any other name.
std::optional<csv_layout> csv_layout_of(const std::filesystem::path& name, std::string_view head);

// Valid UTF-8; `allow_cut_end` accepts a sequence cut off by the end of `text`, as in the first
// bytes of a file.
bool is_utf8(std::string_view text, bool allow_cut_end = false);

}  // namespace tarn
