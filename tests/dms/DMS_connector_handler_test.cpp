#include "dms/DMS_connector_handler.h"

#include "dms/com_text.h"
#include "dms/fault_connector/fault_connector_probe.h"
#include "dms/log_lines.h"
#include "support/register_component.h"
#include "support/test_env.h"

namespace tarn {
namespace {

// What a create-PDF command does with one document; the number of items it closed.
int run_create_pdf(DMS_connector_handler& dms, const std::filesystem::path& pdf) {
  auto info = dms.get_file_info("lib", "ws", "4711.3");
  if (!info) return 0;
  const std::string item = dms.download_file("lib", "ws", "4711.3");
  if (!item.empty()) dms.get_localfilename("lib", item);
  const std::string saved = dms.save_file_to_DMS(kSaveNewRelatedDocument, pdf, "lib", "ws",
                                                 info->folder, info->pdf_name(), "4711.3");
  int closed = 0;
  for (const auto& id : {item, saved})
    if (!id.empty()) closed += dms.close_dms_file("lib", id);
  return closed;
}

class DMS_connector_handler_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    test::register_component(reg_root::local_machine, kClsidDmsConnector, FAULT_CONNECTOR);
    test::write_file(pdf_, "%PDF-1.4\n");
  }
  // The texts below write "DMS_connector_handler::" at the start of a line as "::", the PDF's
  // path as {PDF} and the private temporary folder as {TMP}.
  std::string expand(const std::string& text) {
    std::string out = "\n" + text;
    for (const auto& [from, to] :
         {std::pair<std::string, std::string>{"\n::", "\nDMS_connector_handler::"},
          {"{PDF}", pdf_.string()},
          {"{TMP}", std::filesystem::temp_directory_path().string()}})
      for (size_t at = out.find(from); at != std::string::npos; at = out.find(from, at + to.size()))
        out.replace(at, from.size(), to);
    return out.substr(1);
  }

  test::fault_connector_probe connector_;
  const std::filesystem::path pdf_ = env_.tmp() / "report.pdf";
  std::shared_ptr<simple_log> log_ = std::make_shared<simple_log>("start");
};

constexpr const char* kInitFailed =
    "::init\n"
    "ERROR: DMS_connector_handler::init() -> 0x8007000e (Not enough memory resources are "
    "available to complete this operation.)\n"
    "::init() IID: {4DA6D6FD-203B-4E40-9419-0D58935D4C62}, CLSID: "
    "{3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97}\n";
constexpr const char* kNotDownloaded = "::download_file() -> \"\"\n";
constexpr const char* kNotSaved = "::save_file_to_DMS() -> \n";
constexpr const char* kClosing = "::~DMS_connector_handler\n";
// Each argument in its place.
constexpr const char* kCalls = R"(DocGetProperties(lib, ws, 4711.3)
SelectDocItem(lib, ws, 4711.3)
DocOpen(lib, item1, 2)
DocGetLocalFile(lib, item1)
SaveDocItem(1, {PDF}, lib, ws, Reports, Bericht ü.pdf, 4711.3, 0)
DocClose(lib, item1, 0)
DocClose(lib, saved2, 0)
)";

TEST_F(DMS_connector_handler_test, EveryFailureGivesTheEmptyResultAndItsLogLines) {
  const struct {
    const char* faults;
    int closed, open_after;
    std::string lines;  // the whole log without a fault, else a block of it
  } cases[] = {
      {"", 2, 0, R"(::get_file_info("lib", "ws", "4711.3")
::init
::get_file_info() -> retval.name: Bericht ü
::download_file("lib", "ws, "4711.3", 2)
::download_file() -> item1
::get_localfilename("lib", "item1")
::get_localfilename() -> {TMP}/item1.docx
::save_file_to_DMS("{PDF}", "lib, "ws, "Reports", "Bericht ü.pdf", "4711.3")
::save_file_to_DMS() -> saved2
::close_dms_file("lib", "item1")
::close_dms_file() -> S_OK
::close_dms_file("lib", "saved2")
::close_dms_file() -> S_OK
)"},
      // The failed start is logged by every operation, each of which tries again.
      {"create", 0, 0,
       std::string(kInitFailed) + kNotDownloaded +
           R"(::save_file_to_DMS("{PDF}", "lib, "ws, "", ".pdf", "4711.3")
)" + kInitFailed +
           kNotSaved},
      {"InitMgr", 0, 0,
       "::init\npDMSHelper->InitMgr() -> 0x80004005 (Unspecified error)\n" +
           std::string(kNotSaved)},
      {"empty_item", 1, 0, kNotDownloaded},
      {"SelectDocItem", 1, 0,
       R"(pDMSHelper->SelectDocItem("lib", "ws", "4711.3") -> 0x80070057 (The parameter is incorrect.)
)" + std::string(kNotDownloaded)},
      {"DocOpen", 1, 0, R"(pDMSHelper->DocOpen("lib", "item1", 2) -> 0x80070005 (Access is denied.)
)" + std::string(kNotDownloaded)},
      {"DocGetLocalFile", 2, 0,
       R"(pDMSHelper->DocGetLocalFile("lib", "item1") -> 0x80070002 (The system cannot find the file specified.)
::get_localfilename() -> ""
)"},
      {"null_properties", 2, 0, R"(::get_file_info() -> retval.name: 
::download_file("lib", "ws, "4711.3", 2)
)"},
      {"no_known_keys", 2, 0, R"(::save_file_to_DMS("{PDF}", "lib, "ws, "", ".pdf", "4711.3")
::save_file_to_DMS() -> saved2
)"},
      {"DocGetProperties", 0, 0,
       R"(pDMSHelper->DocGetProperties("lib", "ws", "4711.3") -> 0x80004005 (Unspecified error)
)" + std::string(kClosing)},
      {"SaveDocItem", 1, 0,
       "::save_file_to_DMS() -> 0x80070070 (There is not enough space on the disk.)\n"},
      {"DocClose", 0, 2,
       R"(pDMSHelper->DocClose("lib", "saved2", DMSConnector::CLOSE_NORMAL) -> 0x8000ffff (Catastrophic failure)
::close_dms_file() -> 0x8000ffff (Catastrophic failure)
)"},
      {"close_false", 2, 0, "::close_dms_file() -> 0x1 (Incorrect function.)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("TARN_FAULT=") + c.faults);
    env_.set_env("TARN_FAULT", c.faults);
    connector_.reset();
    auto log = std::make_shared<simple_log>("start");
    int closed = 0;
    {
      DMS_connector_handler dms(log);
      closed = run_create_pdf(dms, pdf_);
    }
    std::string texts;
    for (const auto& line : test::log_lines(*log)) texts += line.substr(6) + "\n";  // "[...] "
    if (*c.faults == '\0') {
      EXPECT_EQ(texts, expand("::DMS_connector_handler\n" + c.lines + kClosing));
      EXPECT_EQ(connector_.calls(), expand(kCalls));
    } else {
      EXPECT_NE(texts.find(expand(c.lines)), std::string::npos) << texts;
    }
    EXPECT_EQ(closed, c.closed);
    EXPECT_EQ(connector_.open_items(), c.open_after);
    // TermMgr only for a connector that started.
    const bool started = std::string(c.faults) != "create" && std::string(c.faults) != "InitMgr";
    EXPECT_EQ(connector_.term_calls(), started ? 1 : 0);
  }
}

TEST_F(DMS_connector_handler_test, EmptyIdsAndMissingFilesNeverReachTheConnector) {
  const std::string too_long = (env_.tmp() / std::string(300, 'x')).string();
  {
    DMS_connector_handler dms(log_);
    EXPECT_FALSE(dms.close_dms_file("lib", ""));
    EXPECT_EQ(dms.get_localfilename("lib", ""), "");
    EXPECT_EQ(dms.save_file_to_DMS(0, env_.tmp() / "gone.pdf", "lib", "ws", "F", "gone.pdf", ""),
              "");
    // A test that fails otherwise than by a missing file ends the same way, with its reason.
    EXPECT_EQ(dms.save_file_to_DMS(0, too_long, "lib", "ws", "F", "x.pdf", ""), "");
  }
  EXPECT_EQ(connector_.calls(), "");
  EXPECT_NE(log_->render().find("ERROR: DMS_connector_handler::save_file_to_DMS() can't test \"" +
                                too_long + "\": File name too long\n"),
            std::string::npos)
      << log_->render();
}

// The known codes and the ids show in the log lines above.
TEST(com_text_test, UnknownResultCodesReadAsTheirNumber) {
  EXPECT_EQ(hresult_text(static_cast<HRESULT>(0x80041234u)), "0x80041234 (unknown error)");
  EXPECT_EQ(hresult_text(2), "0x2 (unknown error)");
}

}  // namespace
}  // namespace tarn
