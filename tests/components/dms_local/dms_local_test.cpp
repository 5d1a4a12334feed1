#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <fstream>
#include <functional>
#include <map>
#include <set>

#include "components/dms_local/dms_local_plugin.h"
#include "dms_local/doc_ref.h"
#include "dms_local/local_store.h"
#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using test::select_item;
using names = std::set<std::string>;

int exit_status(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// "name|extension|doc_number|version|folder" as the connector describes `ref`; "" if refused.
std::string described(IDMSHelper& dms, const std::string& ref) {
  const property_array* found = nullptr;
  if (FAILED(dms.DocGetProperties("", "", ref, &found)) || found == nullptr) return "";
  std::map<std::string, std::string> props(found->begin(), found->end());
  return props["name"] + "|" + props["extension"] + "|" + props["doc_number"] + "|" +
         props["version"] + "|" + props["folder"];
}

class dms_local_test : public test::sandboxed_test {
 protected:
  void SetUp() override {
    dms_ = test::make_connector();
    ASSERT_TRUE(dms_);
  }

  fs::path input(const std::string& name, const std::string& bytes) {
    const fs::path path = env_.root() / "in" / name;
    test::write_file(path, bytes);
    return path;
  }

  HRESULT save(int32_t mode, const fs::path& file, const std::string& source_ref = "",
               IDMSHelper* dms = nullptr, const std::string& folder = "",
               const std::string& location = "") {
    return test::save_doc(dms ? *dms : *dms_, mode, file, source_ref, folder, location);
  }

  // Opens `ref` into the cache; *item is left open for the caller.
  fs::path open_copy(IDMSHelper& dms, const std::string& ref, std::string* item) {
    *item = select_item(dms, ref);
    std::string path;
    if (dms.DocOpen("", *item, kDocOpenForLocalUse) == S_OK) {
      EXPECT_EQ(dms.DocGetLocalFile("", *item, &path), S_OK);
    }
    return path;
  }

  // The document's bytes as DocOpen hands them out, or "<none>".
  std::string content_of(IDMSHelper& dms, const std::string& ref) {
    std::string item;
    const fs::path path = open_copy(dms, ref, &item);
    std::string bytes = path.empty() ? "<none>" : test::read_file(path);
    if (!item.empty()) {
      EXPECT_EQ(dms.DocClose("", item, kCloseNormal), S_OK);
    }
    return bytes;
  }

  std::unique_ptr<local_store> store() {
    std::string err;
    auto opened = local_store::open(kDefaultLibrary, false, nullptr, &err);
    EXPECT_TRUE(opened) << err;
    return opened;
  }

  fs::path library_dir() const { return local_store::root_dir() / kDefaultLibrary; }
  fs::path cache_dir() const { return env_.tmp() / "dms_local"; }

  // Every version has its whole content, and no write is left half done.
  void expect_store_consistent(size_t versions) {
    // Looked at first: opening the store here would tidy incoming/ up itself.
    EXPECT_EQ(test::names_in(library_dir() / "incoming"), names{});
    auto opened = store();
    ASSERT_TRUE(opened);
    size_t counted = 0;
    std::vector<stored_version> docs, all;
    ASSERT_EQ(opened->list(std::nullopt, &docs, nullptr), store_status::ok);
    for (const auto& doc : docs) {
      ASSERT_EQ(opened->versions(doc.number, &all, nullptr), store_status::ok);
      counted += all.size();
      for (const auto& v : all)
        EXPECT_EQ(fs::file_size(opened->content_path(v)), uintmax_t(v.size)) << v.ref();
    }
    EXPECT_EQ(counted, versions);
    EXPECT_EQ(test::names_in(library_dir() / "content").size(), versions);
    sqlite_db db =
        sqlite_open((library_dir() / "catalogue.sqlite").string(), SQLITE_OPEN_READONLY, nullptr);
    auto check = sqlite_prepare(db.get(), "PRAGMA integrity_check", nullptr);
    ASSERT_EQ(sqlite3_step(check.get()), SQLITE_ROW);
    EXPECT_EQ(sqlite_column_text(check.get(), 0), "ok");
  }

  test::connector dms_;
};

TEST_F(dms_local_test, MakesOnlyItsOwnClassAndInterface) {
  const char* kOther = "{F3D21E10-ACE3-4CD1-AA63-7226F6416B06}";
  const uint32_t kAbi = kComponentAbiVersion;
  const struct {
    const char* clsid;
    const char* iid;
    uint32_t abi;
    HRESULT hr;
  } cases[] = {
      {"{3d91bb51-50a8-4de6-a8ad-fe23da9e7c97}", kIidDmsHelper, kAbi, S_OK},
      {kClsidDmsConnector, kIidUnknown, kAbi, S_OK},
      {kOther, kIidDmsHelper, kAbi, CLASS_E_CLASSNOTAVAILABLE},
      {kClsidDmsConnector, kOther, kAbi, E_NOINTERFACE},
      {kClsidDmsConnector, kIidDmsHelper, kAbi + 1, kErrorAbiMismatch},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.clsid) + " " + c.iid);
    void* object = &object;
    EXPECT_EQ(test::dms_local_entry()(c.clsid, c.iid, c.abi, &object), c.hr);
    EXPECT_EQ(object != nullptr, c.hr == S_OK);
    if (object != nullptr) {
      EXPECT_EQ(static_cast<IDMSHelper*>(object)->Release(), 0u);
    }
  }
}

TEST_F(dms_local_test, SaveModesMakeDocumentsVersionsAndLinksAndRefusalsStoreNothing) {
  ASSERT_EQ(save(kSaveNewDocument, input("report.docx", "docx bytes"), "", nullptr, "Contracts"),
            S_OK);
  const struct {
    int32_t mode;
    const char* folder;
    const char* location;
    const char* ref;
    const char* described;
  } cases[] = {
      {kSaveNewDocument, "", "Inbox", "2.1", "report|pdf|2|1|Inbox"},
      {kSaveNewRelatedDocument, "Contracts", "Inbox", "3.1", "report|pdf|3|1|Contracts"},
      // A version stays in its document's folder, whatever the caller names.
      {kSaveNewVersion, "Elsewhere", "", "1.2", "report|pdf|1|2|Contracts"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.ref);
    const std::string bytes = std::string("pdf made for ") + c.ref;
    ASSERT_EQ(save(c.mode, input("report.pdf", bytes), "1.1", nullptr, c.folder, c.location), S_OK);
    EXPECT_EQ(described(*dms_, c.ref), c.described);
    EXPECT_EQ(content_of(*dms_, c.ref), bytes);
  }
  EXPECT_EQ(described(*dms_, "1.1"), "report|docx|1|1|Contracts");
  EXPECT_EQ(described(*dms_, "1"), "report|pdf|1|2|Contracts");
  EXPECT_EQ(content_of(*dms_, "1.1"), "docx bytes");
  auto opened = store();
  for (const auto& [number, relation, other] :
       {std::tuple{1, "derived", "3.1"}, std::tuple{3, "source", "1.2"}}) {
    std::vector<related_document> links;
    ASSERT_EQ(opened->related(number, &links, nullptr), store_status::ok);
    ASSERT_EQ(links.size(), 1u);
    EXPECT_EQ(links[0].relation, relation);
    EXPECT_EQ(links[0].latest.ref(), other);
  }

  const fs::path pdf = input("b.pdf", "pdf");
  const struct {
    int32_t mode;
    fs::path file;
    const char* ref;
    const char* connection;
    HRESULT hr;
  } refused[] = {
      {kSaveNewRelatedDocument, pdf, "9.1", "", kHrFileNotFound},
      {kSaveNewVersion, pdf, "../1.1", "", E_INVALIDARG},
      {kSaveNewVersion, pdf, "1.1", "other", kHrFileNotFound},
      {3, pdf, "1.1", "", E_INVALIDARG},
      {kSaveNewDocument, env_.root() / "in" / "missing.pdf", "1.1", "", kHrFileNotFound},
      {kSaveNewDocument, env_.root() / "in", "1.1", "", E_INVALIDARG},
      {kSaveNewDocument, pdf, "", "../default", E_INVALIDARG},
  };
  for (const auto& c : refused) {
    SCOPED_TRACE(std::to_string(c.mode) + " " + c.ref + " " + c.connection);
    std::string item = "unset";
    EXPECT_EQ(
        dms_->SaveDocItem(c.mode, c.file.string(), c.connection, "", "", "b.pdf", c.ref, 0, &item),
        c.hr);
    EXPECT_EQ(item, "");
  }
  expect_store_consistent(4);
  EXPECT_EQ(local_store::libraries(), std::vector<std::string>{kDefaultLibrary});
}

// Damaged content fails the open, leaves no copy and keeps the document's description.
TEST_F(dms_local_test, OpenCopiesUnderTheDocumentsNameAndCloseOrEndRemovesThem) {
  std::string long_name;
  for (int i = 0; i < 120; ++i) long_name += "\xC3\xA9";  // 240 bytes of "é"
  const struct {
    std::string file_name;
    std::string local_name;
    std::function<void(const fs::path&)> damage = nullptr;
    HRESULT hr = S_OK;
  } cases[] = {
      {"Übersicht 報告.docx", "Übersicht 報告.docx"},
      {"noext", "noext"},
      {long_name + ".docx", long_name.substr(0, 234) + ".docx"},
      {"deleted.docx", "", [](const fs::path& p) { fs::remove(p); }, kHrFileNotFound},
      {"truncated.docx", "", [](const fs::path& p) { fs::resize_file(p, 3); }, kHrInvalidData},
  };
  int number = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file_name);
    const std::string bytes = "content of " + c.file_name;
    ASSERT_EQ(save(kSaveNewDocument, input(c.file_name, bytes)), S_OK);
    const std::string ref = std::to_string(++number);
    stored_version v;
    ASSERT_EQ(store()->find(number, 1, &v, nullptr), store_status::ok);
    if (c.damage) c.damage(store()->content_path(v));
    const std::string item = select_item(*dms_, ref);
    std::string path = "unset";
    EXPECT_TRUE(FAILED(dms_->DocGetLocalFile("", item, &path)));
    EXPECT_EQ(path, "");
    ASSERT_EQ(dms_->DocOpen("", item, kDocOpenForLocalUse), c.hr);
    if (FAILED(c.hr)) {
      EXPECT_TRUE(FAILED(dms_->DocGetLocalFile("", item, &path)));
      EXPECT_THAT(test::files_below(cache_dir(), ""), ::testing::IsEmpty());
      EXPECT_EQ(dms_->DocClose("", item, kCloseNormal), S_OK);
      EXPECT_NE(described(*dms_, ref), "");
      continue;
    }
    ASSERT_EQ(dms_->DocGetLocalFile("", item, &path), S_OK);
    EXPECT_EQ(fs::path(path).filename().string(), c.local_name);
    EXPECT_EQ(fs::path(path).parent_path().parent_path().parent_path(), cache_dir());
    EXPECT_EQ(test::read_file(path), bytes);
    EXPECT_EQ(dms_->DocOpen("", item, kDocOpenForLocalUse), S_OK);
    EXPECT_EQ(dms_->DocClose("", item, kCloseNormal), S_OK);
    EXPECT_THAT(test::files_below(cache_dir(), ""), ::testing::IsEmpty());
    EXPECT_TRUE(FAILED(dms_->DocClose("", item, kCloseNormal)));
    EXPECT_TRUE(FAILED(dms_->DocOpen("", item, kDocOpenForLocalUse)));
  }

  // Equal names never meet, and a file the gateway made beside a copy stays where it is.
  ASSERT_EQ(save(kSaveNewDocument, input("noext", "other")), S_OK);
  std::string first_item, second_item, third_item;
  const fs::path first = open_copy(*dms_, "2", &first_item);
  const fs::path second = open_copy(*dms_, "6", &second_item);
  EXPECT_EQ(test::read_file(first), "content of noext");
  EXPECT_EQ(test::read_file(second), "other");
  test::write_file(first.parent_path() / "noext.pdf", "converted");
  EXPECT_EQ(dms_->DocClose("", first_item, kCloseNormal), S_OK);
  const fs::path third = open_copy(*dms_, "1", &third_item);
  EXPECT_NE(third.parent_path(), first.parent_path());
  EXPECT_EQ(test::read_file(first.parent_path() / "noext.pdf"), "converted");
  EXPECT_EQ(test::read_file(second), "other");

  // A new connector removes the copies of dead processes only; TermMgr removes its own
  // connector's, and so does a release with items still open.
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  exit_status(dead);
  const fs::path abandoned = cache_dir() / (std::to_string(dead) + "-abcdef");
  test::write_file(abandoned / "1" / "x.docx", "left behind");
  auto other = test::make_connector();
  EXPECT_FALSE(fs::exists(abandoned));
  EXPECT_TRUE(fs::exists(second));
  std::string other_item, path;
  const fs::path other_copy = open_copy(*other, "1", &other_item);
  EXPECT_EQ(dms_->TermMgr(), S_OK);
  EXPECT_FALSE(fs::exists(second));
  EXPECT_TRUE(FAILED(dms_->DocGetLocalFile("", second_item, &path)));
  EXPECT_TRUE(fs::exists(other_copy));
  other.release()->Release();
  dms_.reset();
  EXPECT_EQ(test::names_in(cache_dir()), names{});
}

TEST_F(dms_local_test, UnknownOrMalformedReferencesAreNoDocument) {
  ASSERT_EQ(save(kSaveNewDocument, input("a.txt", "a")), S_OK);
  using ref = std::pair<std::string, std::string>;  // connection, doc_ref
  const std::vector<ref> found = {
      {"", "1.1"}, {"", "1"}, {"default", "1.1"}, {"", "default:1.1"}, {"default", "default:1"}};
  std::vector<ref> unknown = {
      {"other", "1.1"},   {"../default", "1.1"},         {"default", "other:1.1"},
      {"DEFAULT", "1.1"}, {"", std::string("1\0.1", 4)}, {"", std::string(5000, '1')}};
  for (const char* doc_ref :
       {"2.1", "1.2", "1.0", "01.1", "1.", "1.1.1", "\"1.1\"", "../1.1", "../default:1.1",
        "Default:1.1", "other:1.1", "\xEF\xBC\x91.\xEF\xBC\x91", "99999999999999999999.1",
        "1.99999999999", ""})
    unknown.push_back({"", doc_ref});
  for (const auto& [refs, expected] : {std::pair{found, true}, std::pair{unknown, false}}) {
    for (const auto& [connection, doc_ref] : refs) {
      SCOPED_TRACE("\"" + connection + "\" \"" + doc_ref + "\"");
      const std::string item = select_item(*dms_, doc_ref, connection);
      EXPECT_EQ(!item.empty(), expected);
      if (!item.empty()) {
        EXPECT_EQ(dms_->DocClose(connection, item, kCloseNormal), S_OK);
      }
      const property_array* props = reinterpret_cast<const property_array*>(&item);
      EXPECT_EQ(SUCCEEDED(dms_->DocGetProperties(connection, "", doc_ref, &props)), expected);
      EXPECT_EQ(props != nullptr, expected);
    }
  }
  EXPECT_EQ(test::names_in(local_store::root_dir()), names{kDefaultLibrary})
      << "asking made a folder";
}

// Writers killed before and after their commit, a full disk, then a store that may not be
// written: none loses what was stored, and the store goes on serving it.
TEST_F(dms_local_test, DeadWritersAndRefusedSavesLoseNothing) {
  const std::string kept(1000, 'a');
  ASSERT_EQ(save(kSaveNewDocument, input("a.txt", kept)), S_OK);
  for (const std::string point : {"before-commit", "after-commit"}) {
    SCOPED_TRACE(point);
    const fs::path file = input("a.txt", "saved at " + point);
    int stalled[2];
    ASSERT_EQ(pipe(stalled), 0);
    const pid_t child = fork();
    if (child == 0) {
      close(stalled[0]);
      setenv("TARN_DMS_TEST_STALL", (point + ":" + std::to_string(stalled[1])).c_str(), 1);
      save(kSaveNewVersion, file, "1", test::make_connector().get());
      _exit(1);  // the hook never returns
    }
    close(stalled[1]);
    char byte = 0;
    ASSERT_EQ(read(stalled[0], &byte, 1), 1) << "the save never reached " << point;
    close(stalled[0]);
    kill(child, SIGKILL);
    EXPECT_EQ(exit_status(child), 128 + SIGKILL);

    auto dms = test::make_connector();
    const bool committed = point == "after-commit";
    EXPECT_EQ(described(*dms, "1"), committed ? "a|txt|1|2|" : "a|txt|1|1|");
    EXPECT_EQ(content_of(*dms, "1.1"), kept);
    EXPECT_EQ(content_of(*dms, "1.2"), committed ? "saved at after-commit" : "<none>");
    // The next change tidies up what the dead writer left in incoming/.
    ASSERT_EQ(save(kSaveNewRelatedDocument, input("b.pdf", "b"), "1.1", dms.get()), S_OK);
  }
  // A child process whose files may not grow past 256 KiB finds the disk full there.
  const fs::path big = input("big.bin", std::string(1 << 20, 'b'));
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{256 << 10, 256 << 10};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(save(kSaveNewDocument, big, "", test::make_connector().get()) != kHrDiskFull);
  }
  EXPECT_EQ(exit_status(child), 0);
  ASSERT_EQ(save(kSaveNewDocument, input("c.txt", "c")), S_OK);
  dms_.reset();

  for (const auto& dir : {library_dir() / "content", library_dir() / "incoming", library_dir()}) {
    for (const auto& entry : fs::directory_iterator(dir))
      if (entry.is_regular_file()) fs::permissions(entry.path(), fs::perms::owner_read);
    fs::permissions(dir, fs::perms::owner_read | fs::perms::owner_exec);
  }
  {
    ASSERT_FALSE(std::ofstream(library_dir() / "probe")) << "file modes are not honoured (root?)";
    auto dms = test::make_connector();
    EXPECT_EQ(described(*dms, "1.1"), "a|txt|1|1|");
    EXPECT_EQ(content_of(*dms, "1.1"), kept);
    EXPECT_EQ(content_of(*dms, "4.1"), "c");
    for (int32_t mode : {kSaveNewDocument, kSaveNewRelatedDocument, kSaveNewVersion})
      EXPECT_EQ(save(mode, input("a.pdf", "pdf"), "1.1", dms.get()), E_ACCESSDENIED) << mode;
  }
  expect_store_consistent(5);
}

TEST_F(dms_local_test, TwoProcessesSavingAtOnceGetTheirOwnNumbers) {
  constexpr int kEach = 15;
  names expected;
  auto name = [](int p, int i) { return "p" + std::to_string(p) + "-" + std::to_string(i); };
  for (int p = 0; p < 2; ++p)
    for (int i = 0; i < kEach; ++i) expected.insert(input(name(p, i), name(p, i)).filename());
  int start[2];
  ASSERT_EQ(pipe(start), 0);
  pid_t children[2];
  for (int p = 0; p < 2; ++p) {
    children[p] = fork();
    if (children[p] != 0) continue;
    close(start[1]);
    char go;
    [[maybe_unused]] ssize_t n = read(start[0], &go, 1);  // ends when the parent closes
    auto dms = test::make_connector();
    int failures = 0;
    for (int i = 0; i < kEach; ++i)
      failures += save(kSaveNewDocument, env_.root() / "in" / name(p, i), "", dms.get()) != S_OK;
    dms.reset();
    _exit(failures);
  }
  close(start[0]);
  close(start[1]);
  EXPECT_EQ(exit_status(children[0]), 0);
  EXPECT_EQ(exit_status(children[1]), 0);
  names stored;
  for (int number = 1; number <= 2 * kEach; ++number)
    stored.insert(content_of(*dms_, std::to_string(number) + ".1"));
  EXPECT_EQ(stored, expected);
  expect_store_consistent(2 * kEach);
}

}  // namespace
}  // namespace tarn
