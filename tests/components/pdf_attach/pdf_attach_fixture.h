// A sandbox whose machine registry names the built PDF joining component, and real PDFs to join.
#pragma once

#include "dms/IPdfAttach.h"
#include "support/register_component.h"
#include "support/test_env.h"
#include "support/test_pdf.h"

namespace tarn::test {

class pdf_attach_fixture : public sandboxed_test {
 protected:
  void SetUp() override {
    register_component(reg_root::local_machine, kClsidPdfAttach,
                       std::string(TARN_DIST_DIR) + "/pdf_attach.so");
  }
  // Pages labelled "<label>.1", "<label>.2", ... in folder_.
  std::filesystem::path pdf(const std::string& label, int pages) {
    const auto path = folder_ / (label + ".pdf");
    write_test_pdf(path, label, pages);
    return path;
  }

  std::filesystem::path folder_ = env_.tmp();
};

}  // namespace tarn::test
