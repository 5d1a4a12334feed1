#include "pdf_file.h"

#include <qpdf/QPDF.hh>
#include <qpdf/QPDFExc.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <qpdf/QPDFWriter.hh>

namespace tarn {
namespace {

std::string describe(const QPDFExc& e) {
  if (e.getErrorCode() == qpdf_e_password) return "is protected by a password";
  return "is damaged: " + e.getMessageDetail();
}

// Opens `path` quietly: warnings about repairs go nowhere, failures throw.
void open_pdf(QPDF& pdf, const std::filesystem::path& path) {
  pdf.setSuppressWarnings(true);
  pdf.processFile(path.c_str());
}

}  // namespace

rewrite_status rewrite_pdf(const std::filesystem::path& src, const std::filesystem::path& dst,
                           std::string* err) {
  QPDF pdf;
  try {
    open_pdf(pdf, src);
    if (QPDFPageDocumentHelper(pdf).getAllPages().empty()) {
      *err = "has no pages";
      return rewrite_status::bad_source;
    }
  } catch (const QPDFExc& e) {
    *err = describe(e);
    return rewrite_status::bad_source;
  } catch (const std::exception& e) {
    *err = std::string("can't be read as a PDF: ") + e.what();
    return rewrite_status::bad_source;
  }
  try {
    QPDFWriter writer(pdf, dst.c_str());
    writer.write();
    return rewrite_status::ok;
  } catch (const QPDFExc& e) {
    // Objects are read lazily, so damage may first show while writing.
    *err = describe(e);
    return rewrite_status::bad_source;
  } catch (const std::exception& e) {
    *err = e.what();
    return rewrite_status::write_failed;
  }
}

std::optional<size_t> pdf_page_count(const std::filesystem::path& path, std::string* err) {
  try {
    QPDF pdf;
    open_pdf(pdf, path);
    return QPDFPageDocumentHelper(pdf).getAllPages().size();
  } catch (const QPDFExc& e) {
    *err = describe(e);
  } catch (const std::exception& e) {
    *err = std::string("can't be read as a PDF: ") + e.what();
  }
  return std::nullopt;
}

}  // namespace tarn
