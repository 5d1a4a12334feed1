// Small real PDFs whose pages each show a label, so a test can check a joined file's pages.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarn::test {

// Pages labelled "<label>.1", "<label>.2", ...; throws on failure.
void write_test_pdf(const std::filesystem::path& path, const std::string& label, int pages);

// The labels in page order; empty when qpdf can't read the file.
std::vector<std::string> pdf_page_labels(const std::filesystem::path& path);

}  // namespace tarn::test
