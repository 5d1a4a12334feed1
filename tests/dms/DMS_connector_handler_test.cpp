#include "dms/DMS_connector_handler.h"

#include <dlfcn.h>

#include <sstream>
#include <tuple>

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
constexpr const char* kStarting = R"(::get_file_info("lib", "ws", "4711.3")
::init
)";
constexpr const char* kInitFailed =
    "::init\n"
    "ERROR: DMS_connector_handler::init() -> 0x8007000e (Not enough memory resources are "
    "available to complete this operation.)\n"
    "::init() IID: {4DA6D6FD-203B-4E40-9419-0D58935D4C62}, CLSID: "
    "{3D91BB51-50A8-4DE6-A8AD-FE23DA9E7C97}\n";
constexpr const char* kUnnamed = "::get_file_info() -> retval.name: \n";
constexpr const char* kDownloading = "::download_file(\"lib\", \"ws, \"4711.3\", 2)\n";
constexpr const char* kNotDownloaded = "::download_file() -> \"\"\n";
constexpr const char* kFetched = R"(::download_file() -> item1
::get_localfilename("lib", "item1")
::get_localfilename() -> {TMP}/item1.docx
)";
constexpr const char* kSaving =
    "::save_file_to_DMS(\"{PDF}\", \"lib, \"ws, \"Reports\", \"Bericht \xc3\xbc.pdf\", "
    "\"4711.3\")\n";
constexpr const char* kUnnamedSaving =
    R"(::save_file_to_DMS("{PDF}", "lib, "ws, "", ".pdf", "4711.3")
)";
constexpr const char* kNotSaved = "::save_file_to_DMS() -> \n";
constexpr const char* kInitMgrFailed = "pDMSHelper->InitMgr() -> 0x80004005 (Unspecified error)\n";
constexpr const char* kClosedBoth = R"(::close_dms_file("lib", "item1")
::close_dms_file() -> S_OK
::close_dms_file("lib", "saved2")
::close_dms_file() -> S_OK
)";
constexpr const char* kClosing = "::~DMS_connector_handler\n";

TEST_F(DMS_connector_handler_test, EveryFailureGivesTheEmptyResultAndItsLogLines) {
  const std::string described = std::string(kStarting) +
                                "::get_file_info() -> retval.name: Bericht \xc3\xbc\n" +
                                kDownloading;
  const std::string fetched_saved =
      described + kFetched + kSaving + "::save_file_to_DMS() -> saved2\n";
  const std::string not_fetched_saved =
      std::string(kNotDownloaded) + kSaving + R"(::save_file_to_DMS() -> saved1
::close_dms_file("lib", "saved1")
::close_dms_file() -> S_OK
)";
  const std::string unnamed_saved = std::string(kStarting) + kUnnamed + kDownloading + kFetched +
                                    kUnnamedSaving + "::save_file_to_DMS() -> saved2\n" +
                                    kClosedBoth;
  const struct {
    const char* faults;
    std::string log;  // after the constructor's line and until the destructor's
    int closed;
    int open_after;
  } cases[] = {
      {"", fetched_saved + kClosedBoth, 2, 0},
      {"create",
       std::string("::get_file_info(\"lib\", \"ws\", \"4711.3\")\n") + kInitFailed + kUnnamed +
           kDownloading + kInitFailed + kNotDownloaded + kUnnamedSaving + kInitFailed + kNotSaved,
       0, 0},
      {"InitMgr",
       std::string(kStarting) + kInitMgrFailed + kUnnamed + kDownloading + "::init\n" +
           kInitMgrFailed + kNotDownloaded + kUnnamedSaving + "::init\n" + kInitMgrFailed +
           kNotSaved,
       0, 0},
      {"empty_item", described + not_fetched_saved, 1, 0},
      {"SelectDocItem",
       described +
           R"(pDMSHelper->SelectDocItem("lib", "ws", "4711.3") -> 0x80070057 (The parameter is incorrect.)
)" + not_fetched_saved,
       1, 0},
      {"DocOpen",
       described + R"(pDMSHelper->DocOpen("lib", "item1", 2) -> 0x80070005 (Access is denied.)
)" + replace_all(not_fetched_saved, "saved1", "saved2"),
       1, 0},
      {"DocGetLocalFile",
       described + R"(::download_file() -> item1
::get_localfilename("lib", "item1")
pDMSHelper->DocGetLocalFile("lib", "item1") -> 0x80070002 (The system cannot find the file specified.)
::get_localfilename() -> ""
)" + kSaving +
           "::save_file_to_DMS() -> saved2\n" + kClosedBoth,
       2, 0},
      {"null_properties", unnamed_saved, 2, 0},
      {"no_known_keys", unnamed_saved, 2, 0},
      {"DocGetProperties",
       std::string(kStarting) +
           R"(pDMSHelper->DocGetProperties("lib", "ws", "4711.3") -> 0x80004005 (Unspecified error)
)",
       0, 0},
      {"SaveDocItem",
       described + kFetched + kSaving +
           R"(::save_file_to_DMS() -> 0x80070070 (There is not enough space on the disk.)
::close_dms_file("lib", "item1")
::close_dms_file() -> S_OK
)",
       1, 0},
      {"DocClose", fetched_saved + R"(::close_dms_file("lib", "item1")
pDMSHelper->DocClose("lib", "item1", DMSConnector::CLOSE_NORMAL) -> 0x8000ffff (Catastrophic failure)
::close_dms_file() -> 0x8000ffff (Catastrophic failure)
::close_dms_file("lib", "saved2")
pDMSHelper->DocClose("lib", "saved2", DMSConnector::CLOSE_NORMAL) -> 0x8000ffff (Catastrophic failure)
::close_dms_file() -> 0x8000ffff (Catastrophic failure)
)",
       0, 2},
      {"close_false", fetched_saved + R"(::close_dms_file("lib", "item1")
::close_dms_file() -> 0x1 (Incorrect function.)
::close_dms_file("lib", "saved2")
::close_dms_file() -> 0x1 (Incorrect function.)
)",
       2, 0},
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
    EXPECT_EQ(log_texts(*log), expand(kCreated + c.log + kClosing));
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
  EXPECT_EQ(log_texts(*log_), expand(std::string(kCreated) +
                                     R"(::download_file("lib", "ws, "1.1", 2)
)" + kInitFailed + kNotDownloaded + R"(::download_file("lib", "ws, "1.1", 2)
::init
::download_file() -> item1
::close_dms_file("lib", "item1")
::close_dms_file() -> S_OK
)"));
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
  EXPECT_EQ(log_texts(*log_), expand(std::string(kCreated) + R"(::close_dms_file("lib", "")
::init
pDMSHelper->DocClose("lib", "", DMSConnector::CLOSE_NORMAL) -> 0x80004005 (Unspecified error)
::close_dms_file() -> 0x80004005 (Unspecified error)
::get_localfilename("lib", "")
::get_localfilename() -> ""
::save_file_to_DMS("{TMP}/gone.pdf", "lib, "ws, "F", "gone.pdf", "")
)" + kNotSaved + "::save_file_to_DMS(\"" +
                                     too_long +
                                     "\", \"lib, \"ws, \"F\", \"x.pdf\", \"\")\n"
                                     "ERROR: DMS_connector_handler::save_file_to_DMS() "
                                     "can't test \"" +
                                     too_long + "\": File name too long\n" + kNotSaved + kClosing));
}

// The same operations against the shipped connector and its store on this machine.
class DMS_connector_handler_local_store_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    test::register_component(reg_root::local_machine, kClsidDmsConnector,
                             std::string(TARN_DIST_DIR) + "/dms_local.so");
    source_ = env_.root() / "in" / "report.docx";
    test::write_file(source_, "the report");
    pdf_ = env_.root() / "out" / "report.pdf";
    test::write_file(pdf_, "%PDF-1.4 the report as PDF");
  }
  // The local copies the connector holds open, under the private temporary folder.
  std::vector<std::filesystem::path> local_copies() {
    std::vector<std::filesystem::path> copies;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(env_.tmp() / "dms_local", ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
      if (it->is_regular_file()) copies.push_back(it->path());
    return copies;
  }

  std::filesystem::path source_, pdf_;
  std::shared_ptr<simple_log> log_ = std::make_shared<simple_log>("start");
};

TEST_F(DMS_connector_handler_local_store_test, StoresThePdfInEachModeAndClosesEverything) {
  auto dms = std::make_unique<DMS_connector_handler>(log_);
  const std::string seeded =
      dms->save_file_to_DMS(kSaveNewDocument, source_, "", "Inbox", "", "report.docx", "");
  ASSERT_EQ(seeded, "1.1@1");
  EXPECT_TRUE(dms->close_dms_file("", seeded));

  flow_result related = run_create_pdf(*dms, pdf_, "", "Inbox", "1.1", kSaveNewRelatedDocument);
  EXPECT_EQ(related.saved_item_id, "2.1@3");
  EXPECT_EQ(related.closed, 2);
  flow_result version = run_create_pdf(*dms, pdf_, "", "Inbox", "1.1", kSaveNewVersion);
  EXPECT_EQ(version.saved_item_id, "1.2@5");
  EXPECT_EQ(local_copies(), std::vector<std::filesystem::path>{});

  // The local copy lay in the connector's cache and had the stored content.
  const std::string cache = (env_.tmp() / "dms_local").string() + "/";
  EXPECT_EQ(related.local_file.string().rfind(cache, 0), 0u) << related.local_file;
  EXPECT_EQ(related.local_file.filename(), "report.docx");
  EXPECT_FALSE(std::filesystem::exists(related.local_file));

  for (const auto& [ref, extension, version_text] :
       {std::tuple{"2.1", "pdf", "1"}, std::tuple{"1.2", "pdf", "2"},
        std::tuple{"1.1", "docx", "1"}}) {
    SCOPED_TRACE(ref);
    auto info = dms->get_file_info("", "Inbox", ref);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->name, "report");
    EXPECT_EQ(info->extension, extension);
    EXPECT_EQ(info->version, version_text);
    EXPECT_EQ(info->folder, "Inbox");
  }
  dms.reset();

  const std::string one_flow = R"(::get_file_info("", "Inbox", "1.1")
::get_file_info() -> retval.name: report
::download_file("", "Inbox, "1.1", 2)
::download_file() -> 1.1@{I}
::get_localfilename("", "1.1@{I}")
::get_localfilename() -> {LOCAL}
::save_file_to_DMS("{PDF}", ", "Inbox, "Inbox", "report.pdf", "1.1")
::save_file_to_DMS() -> {S}
::close_dms_file("", "1.1@{I}")
::close_dms_file() -> S_OK
::close_dms_file("", "{S}")
::close_dms_file() -> S_OK
)";
  auto flow_log = [&](const flow_result& r) {
    std::string text = replace_all(one_flow, "{I}", r.item_id.substr(r.item_id.find('@') + 1));
    text = replace_all(text, "{LOCAL}", r.local_file.string());
    return replace_all(text, "{S}", r.saved_item_id);
  };
  std::string expected = std::string(kCreated) + "::save_file_to_DMS(\"" + source_.string() +
                         R"(", ", "Inbox, "", "report.docx", "")
::init
::save_file_to_DMS() -> 1.1@1
::close_dms_file("", "1.1@1")
::close_dms_file() -> S_OK
)" + flow_log(related) + flow_log(version);
  for (const char* ref : {"2.1", "1.2", "1.1"}) {
    expected += std::string("::get_file_info(\"\", \"Inbox\", \"") + ref +
                "\")\n::get_file_info() -> retval.name: report\n";
  }
  EXPECT_EQ(log_texts(*log_), expand(expected + kClosing, pdf_));
}

TEST_F(DMS_connector_handler_local_store_test, BadReferencesAndLostContentFailWithTheirLines) {
  {
    DMS_connector_handler dms(log_);
    ASSERT_EQ(dms.save_file_to_DMS(kSaveNewDocument, source_, "", "", "", "report.docx", ""),
              "1.1@1");
    EXPECT_TRUE(dms.close_dms_file("", "1.1@1"));
    log_ = std::make_shared<simple_log>("start");
  }
  // A new handler on the fresh log, so that the lines below are all of it.
  DMS_connector_handler dms(log_);
  EXPECT_EQ(dms.get_file_info("", "", "99.1"), nullptr);
  EXPECT_EQ(dms.download_file("", "", "not-a-ref"), "");
  EXPECT_EQ(dms.save_file_to_DMS(kSaveNewVersion, pdf_, "", "", "", "x.pdf", "99.1"), "");
  EXPECT_FALSE(dms.close_dms_file("", "1.1@1"));  // closed already
  // The stored content vanished: the document is described but can't be fetched.
  const auto store = env_.home() / ".local/share/vantu/dms";
  for (const auto& entry : std::filesystem::recursive_directory_iterator(store))
    if (entry.is_regular_file() && entry.path().string().find("/content/") != std::string::npos)
      std::filesystem::remove(entry.path());
  EXPECT_EQ(dms.download_file("", "", "1.1"), "");
  EXPECT_EQ(local_copies(), std::vector<std::filesystem::path>{});

  EXPECT_EQ(log_texts(*log_), expand(std::string(kCreated) + R"(::get_file_info("", "", "99.1")
::init
pDMSHelper->DocGetProperties("", "", "99.1") -> 0x80070002 (The system cannot find the file specified.)
::download_file("", ", "not-a-ref", 2)
::download_file() -> ""
::save_file_to_DMS("{PDF}", ", ", "", "x.pdf", "99.1")
::save_file_to_DMS() -> 0x80070002 (The system cannot find the file specified.)
::close_dms_file("", "1.1@1")
pDMSHelper->DocClose("", "1.1@1", DMSConnector::CLOSE_NORMAL) -> 0x80070057 (The parameter is incorrect.)
::close_dms_file() -> 0x80070057 (The parameter is incorrect.)
::download_file("", ", "1.1", 2)
pDMSHelper->DocOpen("", "1.1@1", 2) -> 0x80070002 (The system cannot find the file specified.)
::download_file() -> ""
)",
                                     pdf_));
}

}  // namespace
}  // namespace tarn
