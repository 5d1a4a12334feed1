#include "support/test_pdf.h"

#include <qpdf/Buffer.hh>
#include <qpdf/Pl_Buffer.hh>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <qpdf/QPDFPageObjectHelper.hh>
#include <qpdf/QPDFWriter.hh>
#include <regex>

namespace tarn::test {

void write_test_pdf(const std::filesystem::path& path, const std::string& label, int pages) {
  QPDF pdf;
  pdf.emptyPDF();
  QPDFObjectHandle font = pdf.makeIndirectObject(QPDFObjectHandle::parse(
      "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>"));
  QPDFPageDocumentHelper doc(pdf);
  for (int i = 1; i <= pages; ++i) {
    const std::string content =
        "BT /F1 24 Tf 72 720 Td (" + label + "." + std::to_string(i) + ") Tj ET\n";
    QPDFObjectHandle page = pdf.makeIndirectObject(QPDFObjectHandle::parse(
        "<< /Type /Page /MediaBox [0 0 612 792] /Resources << /Font << /F1 null >> >> >>"));
    page.getKey("/Resources").getKey("/Font").replaceKey("/F1", font);
    page.replaceKey("/Contents", QPDFObjectHandle::newStream(&pdf, content));
    doc.addPage(page, false);
  }
  QPDFWriter writer(pdf, path.c_str());
  writer.write();
}

std::vector<std::string> pdf_page_labels(const std::filesystem::path& path) {
  std::vector<std::string> labels;
  try {
    QPDF pdf;
    pdf.setSuppressWarnings(true);
    pdf.processFile(path.c_str());
    for (auto& page : QPDFPageDocumentHelper(pdf).getAllPages()) {
      Pl_Buffer buffer("contents");
      page.pipeContents(&buffer);
      auto bytes = buffer.getBufferSharedPointer();
      const std::string text(reinterpret_cast<const char*>(bytes->getBuffer()), bytes->getSize());
      std::smatch label;
      labels.push_back(std::regex_search(text, label, std::regex(R"(\((.*?)\))")) ? label.str(1)
                                                                                  : "?");
    }
  } catch (const std::exception&) {
    labels.clear();
  }
  return labels;
}

}  // namespace tarn::test
