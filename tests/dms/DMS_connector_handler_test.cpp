#include "dms/DMS_connector_handler.h"

#include <dlfcn.h>

#include <sstream>

#include "support/register_component.h"
#include "support/test_env.h"

namespace tarn {
namespace {

// The texts of the log's entries, one a line, without the start entry and the time stamps.
std::string log_texts(const simple_log& log) {
  std::istringstream lines(log.render());
  std::string line, texts;
  std::getline(lines, line);  // start entry
  std::getline(lines, line);  // rule
  while (std::getline(lines, line)) texts += line.substr(line.find(", ") + 2) + "\n";
  return texts;
}

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

// The log texts below write "DMS_connector_handler::" at the start of a line as "::", the PDF's
// path as {PDF} and the private temporary folder as {TMP}.
std::string expand(const std::string& text, const std::filesystem::path& pdf) {
  std::string out = replace_all("\n" + text, "\n::", "\nDMS_connector_handler::").substr(1);
  out = replace_all(out, "{PDF}", pdf.string());
  return replace_all(out, "{TMP}", std::filesystem::temp_directory_path().string());
}

// What a create-PDF command does with one document, closing every item it was given.
struct flow_result {
  std::string item_id, saved_item_id;
  std::filesystem::path local_file;
  int closed = 0;
};

flow_result run_create_pdf(DMS_connector_handler& dms, const std::filesystem::path& pdf,
                           const std::string& connection = "lib",
                           const std::string& location = "ws",
                           const std::string& doc_ref = "4711.3",
                           int32_t mode = kSaveNewRelatedDocument) {
  flow_result r;
  auto info = dms.get_file_info(connection, location, doc_ref);
  if (!info) return r;
  r.item_id = dms.download_file(connection, location, doc_ref);
  if (!r.item_id.empty()) r.local_file = dms.get_localfilename(connection, r.item_id);
  r.saved_item_id = dms.save_file_to_DMS(mode, pdf, connection, location, info->folder,
                                         info->pdf_name(), doc_ref);
  if (!r.item_id.empty()) r.closed += dms.close_dms_file(connection, r.item_id);
  if (!r.saved_item_id.empty()) r.closed += dms.close_dms_file(connection, r.saved_item_id);
  return r;
}

class DMS_connector_handler_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    test::register_component(reg_root::local_machine, kClsidDmsConnector, FAULT_CONNECTOR);
    // The same instance the loader gets, kept loaded so that its counters outlive a handler.
    connector_ = dlopen(FAULT_CONNECTOR, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(connector_, nullptr) << dlerror();
    call<void>("fault_connector_reset");
    pdf_ = env_.tmp() / "report.pdf";
    test::write_file(pdf_, "%PDF-1.4\n");
  }
  void TearDown() override {
    if (connector_ != nullptr) dlclose(connector_);
  }

  template <class R>
  R call(const char* name) {
    auto fn = reinterpret_cast<R (*)()>(dlsym(connector_, name));
    EXPECT_NE(fn, nullptr) << name;
    return fn();
  }
  std::string expand(const std::string& text) { return tarn::expand(text, pdf_); }

  void* connector_ = nullptr;
  std::filesystem::path pdf_;
  std::shared_ptr<simple_log> log_ = std::make_shared<simple_log>("start");
};

constexpr const char* kCreated = "::DMS_connector_handler\n";
constexpr const char* kInitFailed =
    "::init\n"
    "ERROR: DMS_connector_handler::init() -> 0x8007000e (Not enough memory resources are "
    "available to complete this operation.)\n"
    "::init() IID: {4DA6D6FD-203B-4E40-9419-0D58935D4C62}, CLSID: "
    "{3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97}\n";
constexpr const char* kNotDownloaded = "::download_file() -> \"\"\n";
constexpr const char* kNotSaved = "::save_file_to_DMS() -> \n";
constexpr const char* kClosing = "::~DMS_connector_handler\n";

TEST_F(DMS_connector_handler_test, EveryFailureGivesTheEmptyResultAndItsLogLines) {
  const struct {
    const char* faults;
    std::string lines;  // the whole log without a fault, else a block of it
    int closed;
    int open_after;
  } cases[] = {
      {"", R"(::get_file_info("lib", "ws", "4711.3")
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
)",
       2, 0},
      // The failed start is logged by every operation, each of which tries again.
      {"create",
       std::string(kInitFailed) + kNotDownloaded +
           R"(::save_file_to_DMS("{PDF}", "lib, "ws, "", ".pdf", "4711.3")
)" + kInitFailed +
           kNotSaved,
       0, 0},
      {"InitMgr",
       "::init\npDMSHelper->InitMgr() -> 0x80004005 (Unspecified error)\n" + std::string(kNotSaved),
       0, 0},
      {"empty_item", kNotDownloaded, 1, 0},
      {"SelectDocItem",
       R"(pDMSHelper->SelectDocItem("lib", "ws", "4711.3") -> 0x80070057 (The parameter is incorrect.)
)" + std::string(kNotDownloaded),
       1, 0},
      {"DocOpen", R"(pDMSHelper->DocOpen("lib", "item1", 2) -> 0x80070005 (Access is denied.)
)" + std::string(kNotDownloaded),
       1, 0},
      {"DocGetLocalFile",
       R"(pDMSHelper->DocGetLocalFile("lib", "item1") -> 0x80070002 (The system cannot find the file specified.)
::get_localfilename() -> ""
)",
       2, 0},
      {"null_properties", R"(::get_file_info() -> retval.name: 
::download_file("lib", "ws, "4711.3", 2)
)",
       2, 0},
      {"no_known_keys", R"(::save_file_to_DMS("{PDF}", "lib, "ws, "", ".pdf", "4711.3")
::save_file_to_DMS() -> saved2
)",
       2, 0},
      {"DocGetProperties",
       R"(pDMSHelper->DocGetProperties("lib", "ws", "4711.3") -> 0x80004005 (Unspecified error)
)" + std::string(kClosing),
       0, 0},
      {"SaveDocItem", R"(::save_file_to_DMS() -> 0x80070070 (There is not enough space on the disk.)
)",
       1, 0},
      {"DocClose",
       R"(pDMSHelper->DocClose("lib", "saved2", DMSConnector::CLOSE_NORMAL) -> 0x8000ffff (Catastrophic failure)
::close_dms_file() -> 0x8000ffff (Catastrophic failure)
)",
       0, 2},
      {"close_false", "::close_dms_file() -> 0x1 (Incorrect function.)\n", 2, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string("TARN_FAULT=") + c.faults);
    env_.set_env("TARN_FAULT", c.faults);
    call<void>("fault_connector_reset");
    auto log = std::make_shared<simple_log>("start");
    flow_result r;
    {
      DMS_connector_handler dms(log);
      r = run_create_pdf(dms, pdf_);
    }
    const std::string texts = log_texts(*log);
    if (*c.faults == '\0') {
      EXPECT_EQ(texts, expand(kCreated + c.lines + kClosing));
    } else {
      EXPECT_NE(texts.find(expand(c.lines)), std::string::npos) << texts;
    }
    EXPECT_EQ(r.closed, c.closed);
    EXPECT_EQ(call<int>("fault_connector_open_items"), c.open_after);
    // TermMgr only for a connector that started.
    const bool started = std::string(c.faults) != "create" && std::string(c.faults) != "InitMgr";
    EXPECT_EQ(call<int>("fault_connector_term_calls"), started ? 1 : 0);
  }
}

TEST_F(DMS_connector_handler_test, ArgumentsReachTheConnectorInTheirPlaces) {
  {
    DMS_connector_handler dms(log_);
    run_create_pdf(dms, pdf_);
  }
  EXPECT_EQ(call<const char*>("fault_connector_calls"), expand(R"(DocGetProperties(lib, ws, 4711.3)
SelectDocItem(lib, ws, 4711.3)
DocOpen(lib, item1, 2)
DocGetLocalFile(lib, item1)
SaveDocItem(1, {PDF}, lib, ws, Reports, Bericht ü.pdf, 4711.3, 0)
DocClose(lib, item1, 0)
DocClose(lib, saved2, 0)
)"));
}

TEST_F(DMS_connector_handler_test, AFailedStartIsTriedAgainByTheNextOperation) {
  DMS_connector_handler dms(log_);
  env_.set_env("TARN_FAULT", "create");
  EXPECT_EQ(dms.download_file("lib", "ws", "1.1"), "");
  env_.set_env("TARN_FAULT", std::nullopt);
  EXPECT_EQ(dms.download_file("lib", "ws", "1.1"), "item1");
  EXPECT_TRUE(dms.close_dms_file("lib", "item1"));
  EXPECT_EQ(call<int>("fault_connector_created"), 2);
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
  EXPECT_STREQ(call<const char*>("fault_connector_calls"), "");
  EXPECT_NE(log_->render().find("ERROR: DMS_connector_handler::save_file_to_DMS() can't test \"" +
                                too_long + "\": File name too long\n"),
            std::string::npos)
      << log_->render();
}

// The shipped connector in both save modes: every item it hands out is closed again.
TEST_F(DMS_connector_handler_test, DrivesTheShippedConnector) {
  test::register_component(reg_root::local_machine, kClsidDmsConnector,
                           std::string(TARN_DIST_DIR) + "/dms_local.so");
  const auto source = env_.root() / "in" / "report.docx";
  test::write_file(source, "the report");
  DMS_connector_handler dms(log_);
  const std::string seeded =
      dms.save_file_to_DMS(kSaveNewDocument, source, "", "Inbox", "", "report.docx", "");
  ASSERT_EQ(seeded, "1.1@1");
  EXPECT_TRUE(dms.close_dms_file("", seeded));
  for (const auto& [mode, saved] :
       {std::pair{kSaveNewRelatedDocument, "2.1@3"}, std::pair{kSaveNewVersion, "1.2@5"}}) {
    SCOPED_TRACE(saved);
    const flow_result r = run_create_pdf(dms, pdf_, "", "Inbox", "1.1", mode);
    EXPECT_EQ(r.local_file.filename(), "report.docx");
    EXPECT_EQ(r.saved_item_id, saved);
    EXPECT_EQ(r.closed, 2);
  }
  auto info = dms.get_file_info("", "", "1");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->pdf_name(), "report.pdf");
  EXPECT_EQ(info->folder, "Inbox");
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(env_.tmp() / "dms_local", ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
    EXPECT_FALSE(it->is_regular_file()) << "copy left open: " << it->path();
}

}  // namespace
}  // namespace tarn
