#include "task_fixture.h"

#include <regex>
#include <sstream>

#include "convutils/CConvRegKey.h"
#include "convutils/ConvUtils.h"
#include "dms/IDMSHelper.h"
#include "dms/IPdfAttach.h"
#include "dms/log_lines.h"
#include "dms_local/doc_ref.h"
#include "platform/self_exe.h"
#include "support/conversion.h"
#include "support/register_component.h"
#include "support/run_program.h"
#include "support/test_pdf.h"

namespace tarn::test {

namespace fs = std::filesystem;
namespace {

constexpr std::string_view kStandInPdf = "%PDF-1.4\n% printed from ";

// Which source the stand-in printed, the page labels of a test PDF, or the text of another.
std::string pdf_summary(const fs::path& pdf) {
  const std::string bytes = read_file(pdf);
  if (bytes.starts_with(kStandInPdf)) {
    const std::string source =
        bytes.substr(kStandInPdf.size(), bytes.find_last_not_of('\n') + 1 - kStandInPdf.size());
    return "printed " + fs::path(source).filename().string();
  }
  std::string labels;
  for (const auto& label : pdf_page_labels(pdf)) labels += (labels.empty() ? "" : " ") + label;
  if (labels.find('?') == std::string::npos) return labels;
  std::istringstream text(pdf_text(pdf));
  std::string word, words;
  while (text >> word) words += (words.empty() ? "" : " ") + word;
  return words;
}

}  // namespace

void task_fixture::SetUp() {
  register_component(reg_root::local_machine, kClsidDmsConnector, dist_program("dms_local.so"));
  register_component(reg_root::local_machine, kClsidPdfAttach, dist_program("pdf_attach.so"));
  CConvRegKey(reg_root::local_machine, kProductKey, "InstallPath", std::nullopt)
      .write_text(install_.string() + "/");
  // No reporter processes outliving the sandbox.
  CConvRegKey(reg_root::current_user, kProductKey, "AnalyticsEnabled", DWORD{0}).write_number(0);
  fs::create_directories(install_);
  fs::create_symlink(dist_program("tarnimage.so"), install_ / "tarnimage.so");
  install_helpers(helper::stand_in);
  dms_ = std::make_shared<DMS_connector_handler>(log_);
  store_status status;
  std::string err;
  store_ = local_store::open(kDefaultLibrary, true, &status, &err);
  ASSERT_NE(store_, nullptr) << err;
}

void task_fixture::install_helpers(helper which) {
  for (const char* program : {kPrintHelperProgram, kAssistantProgram}) {
    fs::remove(install_ / program);
    fs::create_symlink(which == helper::real ? fs::path(dist_program(program)) : self_exe_path(),
                       install_ / program);
  }
}

void task_fixture::use_fault_connector() {
  register_component(reg_root::local_machine, kClsidDmsConnector, FAULT_CONNECTOR);
}

std::string task_fixture::add_document(const std::string& name, const std::string& extension,
                                       const std::string& content) {
  const fs::path file = env_.root() / "sources" / (name + "." + extension);
  fs::create_directories(file.parent_path());
  std::smatch kind;
  if (std::regex_match(content, kind, std::regex("pdf (.) (.)"))) {
    write_test_pdf(file, kind[1], std::stoi(kind[2]));
  } else if (std::regex_match(content, kind, std::regex("(o?xps) (.*)"))) {
    write_xps(file, {kind[2]}, kind[1] == "oxps");
  } else {
    write_file(file, content);
  }
  stored_version added;
  std::string err;
  EXPECT_EQ(store_->add_document({file, name, extension, "in " + name}, std::nullopt, &added, &err),
            store_status::ok)
      << err;
  if (content == "gone") fs::remove(store_->content_path(added));
  return added.ref();
}

std::vector<std::string> task_fixture::store_summary() {
  std::vector<std::string> lines;
  std::vector<stored_version> documents, all;
  std::vector<related_document> links;
  std::string err;
  EXPECT_EQ(store_->list(std::nullopt, &documents, &err), store_status::ok) << err;
  for (const auto& document : documents) {
    store_->versions(document.number, &all, &err);
    store_->related(document.number, &links, &err);
    for (const auto& v : all) {
      std::string line = v.ref() + " " + v.file_name() + " " + v.folder;
      for (const auto& link : links)
        line += " [" + link.relation + " " + std::to_string(link.latest.number) + "]";
      const std::string what =
          v.extension == "pdf" ? pdf_summary(store_->content_path(v)) : std::string();
      if (!what.empty()) line += ": " + what;
      lines.push_back(line);
    }
  }
  return lines;
}

std::vector<std::string> task_fixture::log_texts(const std::string& prefix) const {
  std::vector<std::string> texts;
  for (const auto& line : log_lines(*log_))
    if (line.substr(line.find("] ") + 2).starts_with(prefix))
      texts.push_back(line.substr(line.find("] ") + 2));
  return texts;
}

}  // namespace tarn::test
