#include <linux/capability.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <set>

#include "components/dms_local/dms_local_plugin.h"
#include "dms_local/doc_ref.h"
#include "dms_local/local_store.h"
#include "support/test_env.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using test::properties_of;
using test::select_item;

constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070002u);
constexpr HRESULT kInvalidData = static_cast<HRESULT>(0x8007000Du);
constexpr HRESULT kDiskFull = static_cast<HRESULT>(0x80070070u);

size_t entries_in(const fs::path& dir) {
  std::error_code ec;
  size_t count = 0;
  for (auto it = fs::directory_iterator(dir, ec); !ec && it != fs::directory_iterator(); ++it)
    ++count;
  return count;
}

size_t files_below(const fs::path& dir) {
  std::error_code ec;
  size_t count = 0;
  for (auto it = fs::recursive_directory_iterator(dir, ec);
       !ec && it != fs::recursive_directory_iterator(); ++it)
    if (it->is_regular_file()) ++count;
  return count;
}

int exit_status(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Root ignores file modes; without these capabilities the calling thread honours them.
class scoped_file_modes_honoured {
 public:
  scoped_file_modes_honoured() {
    if (syscall(SYS_capget, &header_, saved_) != 0) return;
    __user_cap_data_struct reduced[2];
    std::memcpy(reduced, saved_, sizeof reduced);
    reduced[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
    active_ = syscall(SYS_capset, &header_, reduced) == 0;
  }
  ~scoped_file_modes_honoured() {
    if (active_) syscall(SYS_capset, &header_, saved_);
  }

 private:
  __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct saved_[2]{};
  bool active_ = false;
};

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

  // Stores `file` and closes the new item, as the gateway does.
  HRESULT save(int32_t mode, const fs::path& file, const std::string& source_ref,
               const std::string& folder = "", const std::string& location = "",
               IDMSHelper* dms = nullptr) {
    if (dms == nullptr) dms = dms_.get();
    std::string item = "unset";
    const HRESULT hr = dms->SaveDocItem(mode, file.string(), "", location, folder,
                                        file.filename().string(), source_ref, 0, &item);
    if (SUCCEEDED(hr)) {
      EXPECT_FALSE(item.empty());
      EXPECT_EQ(dms->DocClose("", item, kCloseNormal), S_OK);
    } else {
      EXPECT_EQ(item, "");
    }
    return hr;
  }

  // The document's bytes as DocOpen hands them out, or "<none>".
  std::string content_of(IDMSHelper& dms, const std::string& ref) {
    const std::string item = select_item(dms, ref);
    if (item.empty() || dms.DocOpen("", item, kDocOpenForLocalUse) != S_OK) return "<none>";
    std::string path;
    EXPECT_EQ(dms.DocGetLocalFile("", item, &path), S_OK);
    std::string bytes = test::read_file(path);
    EXPECT_EQ(dms.DocClose("", item, kCloseNormal), S_OK);
    return bytes;
  }

  std::unique_ptr<local_store> store() {
    store_status status;
    std::string err;
    auto opened = local_store::open(kDefaultLibrary, false, &status, &err);
    EXPECT_TRUE(opened) << err;
    return opened;
  }

  std::vector<stored_version> documents() {
    std::vector<stored_version> out;
    auto opened = store();
    if (opened) {
      EXPECT_EQ(opened->list(std::nullopt, &out, nullptr), store_status::ok);
    }
    return out;
  }

  fs::path library_dir() const { return local_store::root_dir() / kDefaultLibrary; }
  fs::path cache_dir() const { return env_.tmp() / "dms_local"; }

  // The catalogue holds what its content folder holds, and no write is left half done.
  void expect_store_consistent(size_t versions) {
    // Looked at first: opening the store here would tidy incoming/ up itself.
    EXPECT_EQ(entries_in(library_dir() / "incoming"), 0u);
    auto opened = store();
    ASSERT_TRUE(opened);
    size_t counted = 0;
    std::vector<stored_version> docs, all;
    ASSERT_EQ(opened->list(std::nullopt, &docs, nullptr), store_status::ok);
    for (const auto& doc : docs) {
      ASSERT_EQ(opened->versions(doc.number, &all, nullptr), store_status::ok);
      for (const auto& v : all) {
        EXPECT_EQ(fs::file_size(opened->content_path(v)), static_cast<uintmax_t>(v.size))
            << v.ref();
        ++counted;
      }
    }
    EXPECT_EQ(counted, versions);
    EXPECT_EQ(entries_in(library_dir() / "content"), versions);
    sqlite_db db =
        sqlite_open((library_dir() / "catalogue.sqlite").string(), SQLITE_OPEN_READONLY, nullptr);
    auto check = sqlite_prepare(db.get(), "PRAGMA integrity_check", nullptr);
    ASSERT_EQ(sqlite3_step(check.get()), SQLITE_ROW);
    EXPECT_EQ(sqlite_column_text(check.get(), 0), "ok");
  }

  test::connector dms_;
};

TEST_F(dms_local_test, MakesOnlyItsOwnClassAndInterface) {
  const struct {
    const char* clsid;
    const char* iid;
    uint32_t abi;
    HRESULT hr;
  } cases[] = {
      {kClsidDmsConnector, kIidDmsHelper, kComponentAbiVersion, S_OK},
      {"{3d91bb51-50a8-4de6-a8ad-fe23da9e7c97}", "{4da6d6fd-203b-4e40-9419-0d58935d4c62}",
       kComponentAbiVersion, S_OK},
      {"{F3D21E10-ACE3-4CD1-AA63-7226F6416B06}", kIidDmsHelper, kComponentAbiVersion,
       CLASS_E_CLASSNOTAVAILABLE},
      {kClsidDmsConnector, "{0A9F733E-44F0-474C-9D73-ABB06B313DA2}", kComponentAbiVersion,
       E_NOINTERFACE},
      {kClsidDmsConnector, kIidDmsHelper, kComponentAbiVersion + 1, kErrorAbiMismatch},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.clsid) + " " + c.iid);
    void* object = reinterpret_cast<void*>(1);
    EXPECT_EQ(test::dms_local_entry()(c.clsid, c.iid, c.abi, &object), c.hr);
    EXPECT_EQ(object != nullptr, c.hr == S_OK);
    if (object != nullptr) {
      EXPECT_EQ(static_cast<IDMSHelper*>(object)->Release(), 0u);
    }
  }
}

TEST_F(dms_local_test, SaveModesMakeDocumentsVersionsAndLinks) {
  ASSERT_EQ(save(kSaveNewDocument, input("report.docx", "docx bytes"), "", "Contracts"), S_OK);
  using props = std::map<std::string, std::string>;
  const struct {
    int32_t mode;
    const char* folder;
    const char* location;
    const char* ref;
    props expected;
  } cases[] = {
      {kSaveNewDocument,
       "",
       "Inbox",
       "2.1",
       {{"name", "report"},
        {"extension", "pdf"},
        {"doc_number", "2"},
        {"version", "1"},
        {"folder", "Inbox"}}},
      {kSaveNewRelatedDocument,
       "Contracts",
       "Inbox",
       "3.1",
       {{"name", "report"},
        {"extension", "pdf"},
        {"doc_number", "3"},
        {"version", "1"},
        {"folder", "Contracts"}}},
      // A version stays in its document's folder, whatever the caller names.
      {kSaveNewVersion,
       "Elsewhere",
       "",
       "1.2",
       {{"name", "report"},
        {"extension", "pdf"},
        {"doc_number", "1"},
        {"version", "2"},
        {"folder", "Contracts"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.ref);
    const std::string bytes = std::string("pdf made for ") + c.ref;
    ASSERT_EQ(save(c.mode, input("report.pdf", bytes), "1.1", c.folder, c.location), S_OK);
    EXPECT_EQ(properties_of(*dms_, c.ref), c.expected);
    EXPECT_EQ(content_of(*dms_, c.ref), bytes);
  }
  EXPECT_EQ(content_of(*dms_, "1.1"), "docx bytes");
  EXPECT_EQ(properties_of(*dms_, "1")["version"], "2");
  EXPECT_EQ(properties_of(*dms_, "1.1")["extension"], "docx");

  auto opened = store();
  std::vector<related_document> links;
  ASSERT_EQ(opened->related(1, &links, nullptr), store_status::ok);
  ASSERT_EQ(links.size(), 1u);
  EXPECT_EQ(links[0].relation, "derived");
  EXPECT_EQ(links[0].latest.number, 3);
  ASSERT_EQ(opened->related(3, &links, nullptr), store_status::ok);
  ASSERT_EQ(links.size(), 1u);
  EXPECT_EQ(links[0].relation, "source");
  EXPECT_EQ(links[0].latest.ref(), "1.2");
  ASSERT_EQ(opened->related(2, &links, nullptr), store_status::ok);
  EXPECT_TRUE(links.empty());
  expect_store_consistent(4);
}

TEST_F(dms_local_test, RefusedSavesStoreNothing) {
  ASSERT_EQ(save(kSaveNewDocument, input("a.txt", "a"), ""), S_OK);
  const fs::path pdf = input("b.pdf", "pdf");
  const struct {
    int32_t mode;
    fs::path file;
    const char* ref;
    const char* connection;
    HRESULT hr;
  } cases[] = {
      {kSaveNewRelatedDocument, pdf, "9.1", "", kNotFound},
      {kSaveNewVersion, pdf, "1.5", "", kNotFound},
      {kSaveNewVersion, pdf, "../1.1", "", E_INVALIDARG},
      {kSaveNewVersion, pdf, "", "", E_INVALIDARG},
      {kSaveNewVersion, pdf, "1.1", "other", kNotFound},
      {3, pdf, "1.1", "", E_INVALIDARG},
      {kSaveNewDocument, env_.root() / "in" / "missing.pdf", "1.1", "", kNotFound},
      {kSaveNewDocument, env_.root() / "in", "1.1", "", E_INVALIDARG},
      {kSaveNewDocument, pdf, "", "../default", E_INVALIDARG},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.mode) + " " + c.ref + " " + c.connection);
    std::string item = "unset";
    EXPECT_EQ(
        dms_->SaveDocItem(c.mode, c.file.string(), c.connection, "", "", "b.pdf", c.ref, 0, &item),
        c.hr);
    EXPECT_EQ(item, "");
  }
  expect_store_consistent(1);
  EXPECT_EQ(local_store::libraries(), std::vector<std::string>{kDefaultLibrary});
}

TEST_F(dms_local_test, OpenCopiesUnderTheDocumentsNameAndCloseRemovesTheCopy) {
  std::string long_name;
  for (int i = 0; i < 120; ++i) long_name += "\xC3\xA9";  // 240 bytes of "é"
  const struct {
    std::string file_name;
    std::string local_name;
  } cases[] = {
      {"Übersicht 報告.docx", "Übersicht 報告.docx"},
      {"it's \"quoted\" & <odd>.pdf", "it's \"quoted\" & <odd>.pdf"},
      {"noext", "noext"},
      {"a.tar.gz", "a.tar.gz"},
      {long_name + ".docx", long_name.substr(0, 234) + ".docx"},
  };
  int number = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file_name);
    const std::string bytes = "content of " + c.file_name;
    ASSERT_EQ(save(kSaveNewDocument, input(c.file_name, bytes), ""), S_OK);
    const std::string item = select_item(*dms_, std::to_string(++number));
    ASSERT_NE(item, "");
    std::string path = "unset";
    EXPECT_TRUE(FAILED(dms_->DocGetLocalFile("", item, &path)));
    EXPECT_EQ(path, "");

    ASSERT_EQ(dms_->DocOpen("", item, kDocOpenForLocalUse), S_OK);
    ASSERT_EQ(dms_->DocGetLocalFile("", item, &path), S_OK);
    EXPECT_EQ(fs::path(path).filename().string(), c.local_name);
    EXPECT_EQ(fs::path(path).parent_path().parent_path().parent_path(), cache_dir());
    EXPECT_EQ(test::read_file(path), bytes);
    EXPECT_EQ(dms_->DocOpen("", item, kDocOpenForLocalUse), S_OK);

    EXPECT_EQ(dms_->DocClose("", item, kCloseNormal), S_OK);
    EXPECT_FALSE(fs::exists(fs::path(path).parent_path()));
    EXPECT_TRUE(FAILED(dms_->DocClose("", item, kCloseNormal)));
    EXPECT_TRUE(FAILED(dms_->DocOpen("", item, kDocOpenForLocalUse)));
  }

  // A connector released with items still open takes their copies with it.
  const std::string item = select_item(*dms_, "1");
  ASSERT_EQ(dms_->DocOpen("", item, kDocOpenForLocalUse), S_OK);
  EXPECT_EQ(files_below(cache_dir()), 1u);
  dms_.release()->Release();
  EXPECT_EQ(entries_in(cache_dir()), 0u);
}

TEST_F(dms_local_test, UnknownOrMalformedReferencesAreNoDocument) {
  ASSERT_EQ(save(kSaveNewDocument, input("a.txt", "a"), ""), S_OK);
  const struct {
    std::string connection;
    std::string ref;
    bool found;
  } cases[] = {
      {"", "1.1", true},
      {"", "1", true},
      {"default", "1.1", true},
      {"", "default:1.1", true},
      {"default", "default:1", true},
      {"", "2.1", false},
      {"", "1.2", false},
      {"", "0.1", false},
      {"", "1.0", false},
      {"", "01.1", false},
      {"", "-1.1", false},
      {"", "+1.1", false},
      {"", "1.", false},
      {"", ".1", false},
      {"", "1.1.1", false},
      {"", " 1.1", false},
      {"", "1.1 ", false},
      {"", "1.1\n", false},
      {"", std::string("1\0.1", 4), false},
      {"", "\"1.1\"", false},
      {"", "'1.1'", false},
      {"", "1/1", false},
      {"", "../1.1", false},
      {"", "../default:1.1", false},
      {"", "default/../default:1.1", false},
      {"", "Default:1.1", false},
      {"", "other:1.1", false},
      {"", "\xEF\xBC\x91.\xEF\xBC\x91", false},  // full-width digits
      {"", "\xC3\xA9:1.1", false},
      {"", "99999999999999999999.1", false},
      {"", "1.99999999999", false},
      {"", std::string(5000, '1'), false},
      {"", "", false},
      {"other", "1.1", false},
      {"../default", "1.1", false},
      {"default/..", "1.1", false},
      {"default", "other:1.1", false},
      {"DEFAULT", "1.1", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("\"" + c.connection + "\" \"" + c.ref + "\"");
    const std::string item = select_item(*dms_, c.ref, c.connection);
    EXPECT_EQ(!item.empty(), c.found);
    if (!item.empty()) {
      EXPECT_EQ(dms_->DocClose(c.connection, item, kCloseNormal), S_OK);
    }
    const property_array* props = reinterpret_cast<const property_array*>(1);
    const HRESULT hr = dms_->DocGetProperties(c.connection, "", c.ref, &props);
    EXPECT_EQ(SUCCEEDED(hr), c.found);
    EXPECT_EQ(props != nullptr, c.found);
  }
  // Nothing was made by asking.
  EXPECT_EQ(entries_in(local_store::root_dir()), 1u);
}

TEST_F(dms_local_test, DamagedContentFailsTheOpenAndLeavesNoCopy) {
  const struct {
    const char* what;
    std::function<void(const fs::path&)> damage;
    HRESULT hr;
  } cases[] = {
      {"deleted", [](const fs::path& p) { fs::remove(p); }, kNotFound},
      {"truncated", [](const fs::path& p) { fs::resize_file(p, 3); }, kInvalidData},
  };
  int number = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(save(kSaveNewDocument, input("a.docx", "0123456789"), ""), S_OK);
    const std::string ref = std::to_string(++number) + ".1";
    stored_version v;
    ASSERT_EQ(store()->find(number, 1, &v, nullptr), store_status::ok);
    c.damage(store()->content_path(v));

    EXPECT_EQ(properties_of(*dms_, ref)["name"], "a");
    const std::string item = select_item(*dms_, ref);
    ASSERT_NE(item, "");
    EXPECT_EQ(dms_->DocOpen("", item, kDocOpenForLocalUse), c.hr);
    std::string path;
    EXPECT_TRUE(FAILED(dms_->DocGetLocalFile("", item, &path)));
    EXPECT_EQ(files_below(cache_dir()), 0u);
    EXPECT_EQ(dms_->DocClose("", item, kCloseNormal), S_OK);
  }
}

TEST_F(dms_local_test, ReadOnlyStoreServesDocumentsAndRefusesChanges) {
  ASSERT_EQ(save(kSaveNewDocument, input("a.docx", "kept"), ""), S_OK);
  dms_.reset();
  for (const auto& dir : {library_dir() / "content", library_dir() / "incoming", library_dir()}) {
    for (const auto& entry : fs::directory_iterator(dir))
      if (entry.is_regular_file()) fs::permissions(entry.path(), fs::perms::owner_read);
    fs::permissions(dir, fs::perms::owner_read | fs::perms::owner_exec);
  }
  const fs::path pdf = input("a.pdf", "pdf");
  {
    scoped_file_modes_honoured honoured;
    ASSERT_FALSE(std::ofstream(library_dir() / "probe")) << "file modes are not honoured";
    auto dms = test::make_connector();
    EXPECT_EQ(properties_of(*dms, "1.1")["name"], "a");
    EXPECT_EQ(content_of(*dms, "1.1"), "kept");
    for (int32_t mode : {kSaveNewDocument, kSaveNewRelatedDocument, kSaveNewVersion}) {
      SCOPED_TRACE(mode);
      EXPECT_EQ(save(mode, pdf, "1.1", "", "", dms.get()), E_ACCESSDENIED);
    }
  }
  expect_store_consistent(1);
}

// A file system with little room for the store: a tmpfs where this process may mount one.
class scoped_small_tmpfs {
 public:
  explicit scoped_small_tmpfs(const fs::path& dir) : dir_(dir) {
    fs::create_directories(dir_);
    mounted_ =
        mount("tmpfs", dir_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=256k,mode=0700") == 0;
  }
  ~scoped_small_tmpfs() {
    if (mounted_) umount2(dir_.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }

 private:
  fs::path dir_;
  bool mounted_ = false;
};

TEST_F(dms_local_test, FullDiskFailsTheSaveAndKeepsWhatWasStored) {
  scoped_small_tmpfs small(env_.root() / "small");
  env_.set_env("XDG_DATA_HOME", (env_.root() / "small").string());
  auto dms = test::make_connector();
  ASSERT_EQ(save(kSaveNewDocument, input("a.txt", std::string(1000, 'a')), "", "", "", dms.get()),
            S_OK);
  const fs::path big = input("big.bin", std::string(1 << 20, 'b'));
  if (small.mounted()) {
    RecordProperty("full_disk", "tmpfs of 256 KiB");
    EXPECT_EQ(save(kSaveNewDocument, big, "", "", "", dms.get()), kDiskFull);
    // Not a byte left: neither content nor catalogue journal can be written.
    {
      std::FILE* filler = std::fopen((env_.root() / "small" / "filler").c_str(), "wb");
      ASSERT_NE(filler, nullptr);
      const std::string block(4096, 'f');
      while (std::fwrite(block.data(), 1, block.size(), filler) == block.size() &&
             std::fflush(filler) == 0) {
      }
      std::fclose(filler);
    }
    EXPECT_EQ(save(kSaveNewVersion, input("b.txt", "b"), "1.1", "", "", dms.get()), kDiskFull);
    fs::remove(env_.root() / "small" / "filler");
  } else {
    // Without the right to mount: a child process whose files may not grow past 256 KiB.
    RecordProperty("full_disk", "RLIMIT_FSIZE of 256 KiB");
    const pid_t child = fork();
    if (child == 0) {
      signal(SIGXFSZ, SIG_IGN);
      const rlimit limit{256 << 10, 256 << 10};
      setrlimit(RLIMIT_FSIZE, &limit);
      auto in_child = test::make_connector();
      std::string item;
      const HRESULT hr = in_child->SaveDocItem(kSaveNewDocument, big.string(), "", "", "",
                                               "big.bin", "", 0, &item);
      _exit(hr == kDiskFull && item.empty() ? 0 : 1);
    }
    EXPECT_EQ(exit_status(child), 0);
  }
  ASSERT_EQ(save(kSaveNewDocument, input("c.txt", "c"), "", "", "", dms.get()), S_OK);
  EXPECT_EQ(content_of(*dms, "2.1"), "c");
  EXPECT_EQ(content_of(*dms, "1.1"), std::string(1000, 'a'));
  dms.reset();
  expect_store_consistent(2);
}

TEST_F(dms_local_test, TwoProcessesSavingAtOnceGetTheirOwnNumbers) {
  constexpr int kEach = 15;
  std::set<std::string> expected;
  for (int p = 0; p < 2; ++p)
    for (int i = 0; i < kEach; ++i) {
      const std::string name = "p" + std::to_string(p) + "-" + std::to_string(i) + ".txt";
      input(name, name);
      expected.insert(name);
    }
  int start[2];
  ASSERT_EQ(pipe(start), 0);
  pid_t children[2];
  for (int p = 0; p < 2; ++p) {
    children[p] = fork();
    if (children[p] == 0) {
      close(start[1]);
      char go;
      [[maybe_unused]] ssize_t n = read(start[0], &go, 1);  // ends when the parent closes
      auto dms = test::make_connector();
      int failures = 0;
      for (int i = 0; i < kEach; ++i) {
        const std::string name = "p" + std::to_string(p) + "-" + std::to_string(i) + ".txt";
        std::string item;
        if (dms->SaveDocItem(kSaveNewDocument, (env_.root() / "in" / name).string(), "", "", "",
                             name, "", 0, &item) != S_OK ||
            dms->DocClose("", item, kCloseNormal) != S_OK)
          ++failures;
      }
      dms.reset();
      _exit(failures);
    }
  }
  close(start[0]);
  close(start[1]);
  EXPECT_EQ(exit_status(children[0]), 0);
  EXPECT_EQ(exit_status(children[1]), 0);

  std::set<std::string> stored;
  int64_t number = 0;
  for (const auto& v : documents()) {
    EXPECT_EQ(v.number, ++number);
    stored.insert(content_of(*dms_, v.ref()));
  }
  EXPECT_EQ(stored, expected);
  expect_store_consistent(2 * kEach);
}

TEST_F(dms_local_test, KilledInTheMiddleOfASaveLosesNothing) {
  ASSERT_EQ(save(kSaveNewDocument, input("a.txt", "version 1"), ""), S_OK);
  const struct {
    const char* point;
    const char* latest;
  } cases[] = {
      {"before-commit", "1"},
      {"after-commit", "2"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.point);
    const fs::path file = input("a.txt", std::string("saved at ") + c.point);
    int stalled[2];
    ASSERT_EQ(pipe(stalled), 0);
    const pid_t child = fork();
    if (child == 0) {
      close(stalled[0]);
      setenv("TARN_DMS_TEST_STALL",
             (std::string(c.point) + ":" + std::to_string(stalled[1])).c_str(), 1);
      auto dms = test::make_connector();
      std::string item;
      dms->SaveDocItem(kSaveNewVersion, file.string(), "", "", "", "a.txt", "1", 0, &item);
      _exit(1);  // the hook never returns
    }
    close(stalled[1]);
    char signal_byte = 0;
    ASSERT_EQ(read(stalled[0], &signal_byte, 1), 1) << "the save never reached " << c.point;
    close(stalled[0]);
    kill(child, SIGKILL);
    EXPECT_EQ(exit_status(child), 128 + SIGKILL);

    auto dms = test::make_connector();
    EXPECT_EQ(properties_of(*dms, "1")["version"], c.latest);
    EXPECT_EQ(content_of(*dms, "1.1"), "version 1");
    if (std::string(c.latest) == "2") {
      EXPECT_EQ(content_of(*dms, "1.2"), "saved at after-commit");
    }
    // The next change tidies up what the dead writer left in incoming/.
    ASSERT_EQ(save(kSaveNewRelatedDocument, input("b.pdf", "b"), "1.1", "", "", dms.get()), S_OK);
  }
  dms_.reset();
  expect_store_consistent(4);
}

TEST_F(dms_local_test, EndingTheConnectorRemovesItsCopiesAndThoseOfDeadProcesses) {
  ASSERT_EQ(save(kSaveNewDocument, input("a.docx", "a"), ""), S_OK);
  ASSERT_EQ(save(kSaveNewDocument, input("b.docx", "b"), ""), S_OK);
  std::vector<std::string> items;
  std::vector<fs::path> copies;
  for (const char* ref : {"1.1", "2.1"}) {
    items.push_back(select_item(*dms_, ref));
    ASSERT_EQ(dms_->DocOpen("", items.back(), kDocOpenForLocalUse), S_OK);
    std::string path;
    ASSERT_EQ(dms_->DocGetLocalFile("", items.back(), &path), S_OK);
    copies.push_back(path);
  }

  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  exit_status(dead);
  const fs::path abandoned = cache_dir() / (std::to_string(dead) + "-abcdef");
  const fs::path alive = cache_dir() / (std::to_string(getpid()) + "-other0");
  test::write_file(abandoned / "1" / "x.docx", "left behind");
  test::write_file(alive / "1" / "y.docx", "in use");
  auto other = test::make_connector();
  EXPECT_FALSE(fs::exists(abandoned));
  EXPECT_TRUE(fs::exists(alive));
  EXPECT_TRUE(fs::exists(copies[0]));

  EXPECT_EQ(dms_->TermMgr(), S_OK);
  for (size_t i = 0; i < items.size(); ++i) {
    EXPECT_FALSE(fs::exists(copies[i]));
    std::string path;
    EXPECT_TRUE(FAILED(dms_->DocGetLocalFile("", items[i], &path)));
  }
}

}  // namespace
}  // namespace tarn
