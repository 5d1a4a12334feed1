// PDF work on qpdf, in-process: rewriting a PDF source, and judging a PDF the office made.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tarn {

enum class rewrite_status { ok, bad_source, write_failed };

// Reads `src` (repairing what qpdf can) and writes it anew to `dst`. Otherwise *err says why:
// a password is needed, the file is damaged beyond repair or has no pages (bad_source), or
// `dst` can't be written. `dst` may hold part of a file afterwards; the caller removes it.
rewrite_status rewrite_pdf(const std::filesystem::path& src, const std::filesystem::path& dst,
                           std::string* err);

// The number of pages of the PDF at `path`; nullopt with *err when qpdf can't read it.
std::optional<size_t> pdf_page_count(const std::filesystem::path& path, std::string* err);

}  // namespace tarn
