// A sandbox for the tests of the two tasks: the real dms_local.so and pdf_attach.so registered
// in the machine store, and an install folder holding the real tarnimage.so and, as tarnprint
// and tarnassist, either the real programs or this test binary playing them
// (support/conversion.h).
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "dialogs/scripted_user_questions.h"
#include "dms/DMS_connector_handler.h"
#include "dms/fault_connector/fault_connector_probe.h"
#include "dms_local/local_store.h"
#include "log/simple_log.h"
#include "support/test_env.h"

namespace tarn::test {

class task_fixture : public sandboxed_test {
 protected:
  enum class helper { stand_in, real };

  void SetUp() override;

  // Installs tarnprint (and tarnassist) as the real program or as the stand-in.
  void install_helpers(helper which);
  // Connects the fault connector of tests/dms instead of dms_local.so.
  void use_fault_connector();

  // Stores a new document "<name>.<extension>" in the folder "in <name>" and gives its
  // reference ("N.1"). `content` is "pdf LABEL PAGES", "xps TEXT" or "oxps TEXT" for a real
  // file, "gone" for a document whose content is lost, else the file's text.
  std::string add_document(const std::string& name, const std::string& extension,
                           const std::string& content);
  // Every version in the store, one line each: "2.1 report.pdf Inbox [source 1]: what", where
  // what is the stand-in helper's source file, the page labels or the text of a PDF.
  std::vector<std::string> store_summary();

  // The texts of the log's entries that begin with `prefix`, without the time stamps.
  std::vector<std::string> log_texts(const std::string& prefix = "") const;
  // Files (not folders) below the private temporary folder, but for the warm office's.
  std::vector<std::string> files_in_temp() const { return files_below(env_.tmp(), "tarnoffice"); }

  const std::filesystem::path install_ = env_.root() / "inst";
  std::shared_ptr<simple_log> log_ = std::make_shared<simple_log>("start");
  std::shared_ptr<DMS_connector_handler> dms_;
  std::shared_ptr<scripted_user_questions> questions_ = std::make_shared<scripted_user_questions>();
  std::unique_ptr<local_store> store_;
};

}  // namespace tarn::test
