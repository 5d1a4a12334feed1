// What the local document store's safety costs: importing, fetching (DocOpen, DocGetLocalFile,
// DocClose through the built dms_local.so) and saving new versions of small documents, each
// against plain file copies of the same files in the same run.
//   dms_store_bench [--docs N] [--size BYTES] [--reps N]
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>
#include <CLI/CLI.hpp>

#include "bench_support.h"
#include "dms/IDMSHelper.h"
#include "dms_local/file_copy.h"
#include "dms_local/local_store.h"
#include "platform/sqlite_handle.h"

namespace fs = std::filesystem;
using namespace tarn;
using bench::median;
using bench::time_ms;

namespace {

struct settings {
  int docs = 1000;
  int size = 4096;
  int reps = 3;
};

[[noreturn]] void die(const std::string& text) {
  std::fprintf(stderr, "dms_store_bench: %s\n", text.c_str());
  std::exit(1);
}

void check(bool ok, const std::string& what) {
  if (!ok) die(what);
}

// Plain copies with fsync into a fresh folder: the least a durable copy costs.
void copy_all(const std::vector<fs::path>& files, const fs::path& into, bool sync) {
  fs::create_directories(into);
  for (const auto& file : files) {
    copy_result copied = copy_into_new_file(file, into / file.filename(), sync);
    check(copied.ok, copied.text);
  }
}

// The same copies, each followed by one row committed to a SQLite file on its own.
void copy_and_insert_all(const std::vector<fs::path>& files, const fs::path& into) {
  fs::create_directories(into);
  std::string err;
  sqlite_db db = sqlite_open((into / "rows.sqlite").string(),
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, &err);
  check(db && sqlite_exec(db.get(),
                          "PRAGMA synchronous = FULL;"
                          "CREATE TABLE rows(name TEXT, size INTEGER)",
                          &err),
        err);
  auto insert = sqlite_prepare(db.get(), "INSERT INTO rows VALUES(?1, ?2)", &err);
  for (const auto& file : files) {
    copy_result copied = copy_into_new_file(file, into / file.filename(), true);
    check(copied.ok, copied.text);
    sqlite3_reset(insert.get());
    sqlite_bind_text(insert.get(), 1, file.filename().string());
    sqlite3_bind_int64(insert.get(), 2, copied.size);
    check(sqlite3_step(insert.get()) == SQLITE_DONE, sqlite3_errmsg(db.get()));
  }
}

struct plugin {
  plugin() {
    void* lib = dlopen(TARN_DIST_DIR "/dms_local.so", RTLD_NOW | RTLD_LOCAL);
    check(lib != nullptr, std::string("can't load dms_local.so: ") + (lib ? "" : dlerror()));
    auto entry = reinterpret_cast<component_entry_fn>(dlsym(lib, kComponentEntryPoint));
    void* object = nullptr;
    check(entry != nullptr &&
              entry(kClsidDmsConnector, kIidDmsHelper, kComponentAbiVersion, &object) == S_OK,
          "can't create the connector");
    dms = static_cast<IDMSHelper*>(object);
    check(dms->InitMgr() == S_OK, "InitMgr failed");
  }
  ~plugin() {
    dms->TermMgr();
    dms->Release();
  }
  IDMSHelper* dms = nullptr;
};

void print_row(const std::string& name, const std::vector<double>& baseline,
               const std::vector<double>& ours, int docs) {
  const double base_ms = median(baseline);
  const double ours_ms = median(ours);
  std::printf("%-44s %12.1f %10.1f %7.3f %12.0f\n", name.c_str(), base_ms, ours_ms,
              ours_ms / base_ms, docs / (ours_ms / 1000.0));
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  settings set;
  CLI::App app{"Times the local document store's import, open and save against plain copies.",
               "dms_store_bench"};
  app.add_option("--docs", set.docs, "documents")->check(CLI::Range(1, 1000000));
  app.add_option("--size", set.size, "bytes a document")->check(CLI::Range(1, 1 << 30));
  app.add_option("--reps", set.reps, "timed repetitions")->check(CLI::Range(1, 1000));
  CLI11_PARSE(app, argc, argv);

  // A private home on the same disk as the usual temporary folder.
  tarn::bench::sandbox box("dms-store-bench");
  const fs::path root = box.root();

  std::vector<fs::path> files;
  for (int i = 0; i < set.docs; ++i) {
    files.push_back(root / "src" / ("doc" + std::to_string(i) + ".docx"));
    fs::create_directories(files.back().parent_path());
    std::ofstream(files.back(), std::ios::binary)
        << std::string(static_cast<size_t>(set.size), static_cast<char>('a' + i % 26));
  }
  const std::string what = std::to_string(set.docs) + " x " + std::to_string(set.size) + " B";
  std::printf("%d repetitions after a warm-up, medians\n", set.reps);
  std::printf("%-44s %12s %10s %7s %12s\n", "case", "baseline ms", "ours ms", "ratio",
              "ours docs/s");

  std::vector<double> copy_ms, copy_insert_ms, import_ms, open_ms, plain_ms, save_ms, save_base_ms;
  for (int rep = 0; rep <= set.reps; ++rep) {
    const bool warm_up = rep == 0;
    const std::string library = "bench" + std::to_string(rep);
    const fs::path out = root / ("copies" + std::to_string(rep));
    const double copy = time_ms([&] { copy_all(files, out / "import", true); });
    const double copy_insert = time_ms([&] { copy_and_insert_all(files, out / "rows"); });
    const double import = time_ms([&] {
      store_status status;
      std::string err;
      auto store = local_store::open(library, true, &status, &err);
      check(store != nullptr, err);
      for (const auto& file : files) {
        stored_version v;
        new_content content{file, file.stem().string(), "docx", ""};
        check(store->add_document(content, std::nullopt, &v, &err) == store_status::ok, err);
      }
    });

    plugin connector;
    IDMSHelper& dms = *connector.dms;
    const double plain = time_ms([&] {
      for (int i = 1; i <= set.docs; ++i) {
        const fs::path target = root / "tmp" / ("plain" + std::to_string(i) + ".docx");
        copy_result copied = copy_into_new_file(files[static_cast<size_t>(i - 1)], target, false);
        check(copied.ok, copied.text);
        fs::remove(target);
      }
    });
    const double open = time_ms([&] {
      for (int i = 1; i <= set.docs; ++i) {
        std::string item, path;
        const std::string ref = library + ":" + std::to_string(i) + ".1";
        check(dms.SelectDocItem("", "", ref, &item) == S_OK && !item.empty(), "select " + ref);
        check(dms.DocOpen("", item, kDocOpenForLocalUse) == S_OK, "DocOpen " + ref);
        check(dms.DocGetLocalFile("", item, &path) == S_OK, "DocGetLocalFile " + ref);
        check(dms.DocClose("", item, kCloseNormal) == S_OK, "DocClose " + ref);
      }
    });
    const double save_base = time_ms([&] { copy_all(files, out / "save", true); });
    const double save = time_ms([&] {
      for (int i = 1; i <= set.docs; ++i) {
        std::string item;
        const std::string ref = library + ":" + std::to_string(i) + ".1";
        check(dms.SaveDocItem(kSaveNewVersion, files[static_cast<size_t>(i - 1)].string(), "", "",
                              "", "doc.pdf", ref, 0, &item) == S_OK,
              "SaveDocItem " + ref);
        check(dms.DocClose("", item, kCloseNormal) == S_OK, "DocClose " + item);
      }
    });
    if (warm_up) continue;
    copy_ms.push_back(copy);
    copy_insert_ms.push_back(copy_insert);
    import_ms.push_back(import);
    plain_ms.push_back(plain);
    open_ms.push_back(open);
    save_base_ms.push_back(save_base);
    save_ms.push_back(save);
  }
  print_row("import " + what + " vs cp+fsync", copy_ms, import_ms, set.docs);
  print_row("import " + what + " vs cp+fsync+SQLite row", copy_insert_ms, import_ms, set.docs);
  print_row("DocOpen+GetLocalFile+Close vs cp", plain_ms, open_ms, set.docs);
  print_row("SaveDocItem new version vs cp+fsync", save_base_ms, save_ms, set.docs);
  return 0;
}
