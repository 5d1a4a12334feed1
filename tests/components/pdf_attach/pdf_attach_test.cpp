// The PDF joining component through its interface, loaded as the gateway loads it.
#include <sys/resource.h>
#include <sys/stat.h>

#include <qpdf/QPDF.hh>
#include <qpdf/QPDFOutlineDocumentHelper.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>

#include "components/pdf_attach/pdf_attach_fixture.h"
#include "dms/component_loader.h"
#include "support/run_program.h"

namespace tarn {
namespace {

using labels = std::vector<std::string>;

struct insert_args {
  std::string password, range, after, rotation, title;
  int32_t flags = 0;
};

class pdf_attach_test : public test::pdf_attach_fixture {
 protected:
  void SetUp() override {
    pdf_attach_fixture::SetUp();
    ASSERT_EQ(attach_.create(kClsidPdfAttach, kIidPdfAttach), S_OK);
  }
  int32_t open(const std::string& path) {
    int32_t handle = kNoAttachDocument;
    EXPECT_EQ(attach_->AttachOpen(path, &handle, ""), S_OK) << path;
    return handle;
  }
  HRESULT insert(int32_t handle, const std::string& path, const insert_args& a = {}) {
    return attach_->AttachInsert(handle, path, a.password, a.range, a.after, a.rotation, a.title,
                                 a.flags);
  }

  component<IPdfAttach> attach_;
};

// Each page's label, with "@degrees" when it is turned and "#title" where a bookmark points.
labels layout(const std::string& path) {
  labels shown = test::pdf_page_labels(path);
  QPDF pdf;
  pdf.processFile(path.c_str());
  auto pages = QPDFPageDocumentHelper(pdf).getAllPages();
  for (size_t i = 0; i < pages.size() && i < shown.size(); ++i) {
    auto rotate = pages[i].getAttribute("/Rotate", false);
    if (rotate.isInteger() && rotate.getIntValueAsInt() != 0)
      shown[i] += "@" + std::to_string(rotate.getIntValueAsInt());
  }
  QPDFOutlineDocumentHelper outlines(pdf);
  for (auto& item : outlines.getTopLevelOutlines()) {
    const auto target = item.getDest().getArrayItem(0).getObjGen();
    for (size_t i = 0; i < pages.size() && i < shown.size(); ++i)
      if (pages[i].getObjectHandle().getObjGen() == target) shown[i] += "#" + item.getTitle();
  }
  return shown;
}

TEST_F(pdf_attach_test, InsertPlacesThePagesAsAsked) {
  const struct {
    const char* name;
    insert_args args;
    labels pages;
  } cases[] = {
      {"defaults", {}, {"a.1", "a.2", "b.1", "b.2", "b.3"}},
      {"range", {.range = "3,1"}, {"a.1", "a.2", "b.3", "b.1"}},
      {"last page, after the last", {.range = "z", .after = "2"}, {"a.1", "a.2", "b.3"}},
      {"in front", {.after = "0"}, {"b.1", "b.2", "b.3", "a.1", "a.2"}},
      {"in between", {.range = "2-3", .after = "1"}, {"a.1", "b.2", "b.3", "a.2"}},
      {"rotated twice", {.range = "1,1", .rotation = "90"}, {"a.1", "a.2", "b.1@90", "b.1@90"}},
      {"bookmark", {.after = "1", .title = "B ä"}, {"a.1", "b.1#B ä", "b.2", "b.3", "a.2"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string target = pdf("a", 2);
    const int32_t handle = open(target);
    EXPECT_EQ(insert(handle, pdf("b", 3), c.args), S_OK);
    EXPECT_EQ(attach_->AttachSave(target, handle, 0), S_OK);
    EXPECT_EQ(layout(target), c.pages);
  }
}

TEST_F(pdf_attach_test, ABadInsertFailsAndLeavesTheDocumentAsItWas) {
  const std::string target = pdf("a", 1);
  const std::string b = pdf("b", 2);
  const std::string garbage = (env_.tmp() / "garbage.pdf").string();
  test::write_file(garbage, "%PDF-1.4\nnot really\n");
  // A PDF whose cross-reference offset is wrong: qpdf repairs it, with a warning.
  std::string damaged_bytes = test::read_file(b);
  damaged_bytes.replace(damaged_bytes.rfind("startxref") + 10, 1, "9");
  const std::string damaged = (env_.tmp() / "damaged.pdf").string();
  test::write_file(damaged, damaged_bytes);
  const std::string locked = (env_.tmp() / "locked.pdf").string();
  const auto qpdf =
      test::run_program({"/usr/bin/qpdf", "--encrypt", "user", "owner", "256", "--", b, locked});
  ASSERT_EQ(qpdf.exit_code, 0) << qpdf.err;

  const int32_t handle = open(target);
  const struct {
    const char* name;
    int32_t handle;
    std::string path;
    insert_args args;
    HRESULT hr;
  } cases[] = {
      {"page beyond the end", handle, b, {.range = "3"}, E_INVALIDARG},
      {"range syntax", handle, b, {.range = "one"}, E_INVALIDARG},
      {"insert beyond the end", handle, b, {.after = "2"}, E_INVALIDARG},
      {"negative position", handle, b, {.after = "-1"}, E_INVALIDARG},
      {"odd rotation", handle, b, {.rotation = "45"}, E_INVALIDARG},
      {"missing file", handle, (env_.tmp() / "none.pdf").string(), {}, kHrFileNotFound},
      {"not a PDF", handle, garbage, {}, E_FAIL},
      {"damaged, strict", handle, damaged, {.flags = kAttachInsertStrict}, E_INVALIDARG},
      {"no password", handle, locked, {}, kHrInvalidPassword},
      {"unknown document", handle + 1, b, {}, kHrInvalidHandle},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(insert(c.handle, c.path, c.args), c.hr);
  }
  EXPECT_EQ(insert(handle, damaged), S_OK);
  EXPECT_EQ(insert(handle, locked, {.password = "user", .range = "2"}), S_OK);
  EXPECT_EQ(attach_->AttachSave(target, handle, 0), S_OK);
  EXPECT_EQ(test::pdf_page_labels(target), (labels{"a.1", "b.1", "b.2", "b.2"}));
}

TEST_F(pdf_attach_test, SaveReplacesTheFileWholeAndKeepsItsPermissions) {
  ASSERT_EQ(attach_->AttachInit("Tarn test"), S_OK);
  const std::string target = pdf("a", 1);
  ASSERT_EQ(chmod(target.c_str(), 0640), 0);
  const int32_t handle = open(target);
  ASSERT_EQ(insert(handle, pdf("b", 1)), S_OK);

  const std::string elsewhere = (env_.tmp() / "no" / "such" / "out.pdf").string();
  EXPECT_EQ(attach_->AttachSave(elsewhere, handle, 0), kHrFileNotFound);
  std::filesystem::create_directory(env_.tmp() / "folder");
  EXPECT_TRUE(FAILED(attach_->AttachSave((env_.tmp() / "folder").string(), handle, 0)));
  EXPECT_EQ(attach_->AttachSave(target, kNoAttachDocument, 0), kHrInvalidHandle);
  EXPECT_EQ(test::pdf_page_labels(target), labels{"a.1"});

  ASSERT_EQ(attach_->AttachSave(target, handle, kAttachSaveLinearize | kAttachSaveFlush), S_OK);
  struct stat st;
  ASSERT_EQ(stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  QPDF saved;
  saved.processFile(target.c_str());
  EXPECT_TRUE(saved.isLinearized());
  EXPECT_EQ(saved.getTrailer().getKey("/Info").getKey("/Producer").getUTF8Value(), "Tarn test");
  EXPECT_EQ(test::pdf_page_labels(target), (labels{"a.1", "b.1"}));

  EXPECT_EQ(test::names_in(env_.tmp()), (std::set<std::string>{"a.pdf", "b.pdf", "folder"}));

  EXPECT_EQ(attach_->AttachTerm(), S_OK);
  EXPECT_EQ(attach_->AttachSave(target, handle, 0), kHrInvalidHandle);
}

// Past a number of sources the component reopens files on demand instead of holding them, so
// a long series fits in a small file descriptor limit.
TEST_F(pdf_attach_test, JoinsMoreFilesThanTheDescriptorLimit) {
  constexpr int kFiles = 260;
  // Each case runs in a process of its own, which the lower limit ends with.
  struct rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = 200;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);

  const std::string target = pdf("f0", 1);
  const int32_t handle = open(target);
  labels expected{"f0.1"};
  for (int i = 1; i < kFiles; ++i) {
    const std::string label = "f" + std::to_string(i);
    ASSERT_EQ(insert(handle, pdf(label, 1)), S_OK) << label;
    expected.push_back(label + ".1");
  }
  ASSERT_EQ(attach_->AttachSave(target, handle, 0), S_OK);
  EXPECT_EQ(test::pdf_page_labels(target), expected);
}

}  // namespace
}  // namespace tarn
