// Small real PDFs for tests, made and read back with qpdf: each page shows one label, so a
// test can check the pages of a joined file and their order.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tarn::test {

// Writes a PDF whose pages show "<label>.1", "<label>.2", ... Throws on failure.
void write_test_pdf(const std::filesystem::path& path, const std::string& label, int pages);

// The labels of the pages of a PDF, in page order; empty when qpdf can't read the file.
std::vector<std::string> pdf_page_labels(const std::filesystem::path& path);

}  // namespace tarn::test
