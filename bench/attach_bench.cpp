// Joins 10 and 100 PDFs of 7 pages each through attach_handler (pdf_attach.so, loaded by class
// id as the gateway loads it) and with `qpdf --empty --pages ... -- out.pdf`, on the same
// files in the same run, and prints the median times and their ratio.
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <CLI/CLI.hpp>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <qpdf/QPDFWriter.hh>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "bench_support.h"
#include "dms/IPdfAttach.h"
#include "dms/attach_handler.h"
#include "dms/component_loader.h"
#include "platform/registry_store.h"

extern char** environ;

namespace fs = std::filesystem;

namespace tarn {
namespace {

using bench::median;
using bench::millis_since;

constexpr int kPagesPerFile = 7;

void write_pdf(const fs::path& path, int number) {
  QPDF pdf;
  pdf.emptyPDF();
  QPDFObjectHandle font = pdf.makeIndirectObject(
      QPDFObjectHandle::parse("<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>"));
  for (int page_number = 1; page_number <= kPagesPerFile; ++page_number) {
    std::string content = "BT /F1 11 Tf 72 760 Td 14 TL\n";
    for (int line = 0; line < 45; ++line) {
      content += "(Document " + std::to_string(number) + ", page " + std::to_string(page_number) +
                 ", line " + std::to_string(line) +
                 ": the quick brown fox jumps over the lazy dog) '\n";
    }
    content += "ET\n";
    QPDFObjectHandle page = pdf.makeIndirectObject(QPDFObjectHandle::parse(
        "<< /Type /Page /MediaBox [0 0 595 842] /Resources << /Font << /F1 null >> >> >>"));
    page.getKey("/Resources").getKey("/Font").replaceKey("/F1", font);
    page.replaceKey("/Contents", QPDFObjectHandle::newStream(&pdf, content));
    QPDFPageDocumentHelper(pdf).addPage(page, false);
  }
  QPDFWriter writer(pdf, path.c_str());
  writer.setCompressStreams(true);
  writer.write();
}

int page_count(const fs::path& path) {
  QPDF pdf;
  pdf.processFile(path.c_str());
  return static_cast<int>(QPDFPageDocumentHelper(pdf).getAllPages().size());
}

bool run_qpdf(const std::vector<fs::path>& inputs, const fs::path& out) {
  std::vector<std::string> args = {"qpdf", "--empty", "--pages"};
  for (const auto& input : inputs) args.push_back(input.string());
  args.push_back("--");
  args.push_back(out.string());
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawnp(&pid, "qpdf", nullptr, nullptr, argv.data(), environ) != 0) return false;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Joins into a copy of the first file, as the create-PDF task joins into its first PDF.
bool run_attach(const std::vector<fs::path>& inputs, const fs::path& first) {
  bool all = true;
  {
    attach_handler attach;
    all = attach.attach_file(first);
    for (size_t i = 1; i < inputs.size(); ++i) all = attach.attach_file(inputs[i]) && all;
  }
  return all;
}

}  // namespace
}  // namespace tarn

int main(int argc, char** argv) {
  using namespace tarn;
  CLI::App app{
      "attach_bench: joins 10 and 100 PDFs through the PDF joining component and with "
      "the qpdf command, and prints median times and their ratio (ours / qpdf)."};
  int repeats = 7;
  std::string component = std::string(TARN_DIST_DIR) + "/pdf_attach.so";
  app.add_option("--repeat", repeats, "timed runs per case, after one warm-up")
      ->check(CLI::Range(1, 1000));
  app.add_option("--component", component, "the pdf_attach.so to load")->check(CLI::ExistingFile);
  CLI11_PARSE(app, argc, argv);

  // A private machine store that registers the component under test.
  bench::sandbox box("attach-bench");
  const fs::path work = box.root();
  std::string err;
  auto store = registry_store::open(reg_root::local_machine, registry_store::access::write, &err);
  if (!store || !store->set(inproc_server_key(kClsidPdfAttach), "", kRegSz,
                            reg_sz_bytes(fs::absolute(component).string()), &err)) {
    std::cerr << "attach_bench: can't register " << component << ": " << err << "\n";
    return 1;
  }
  store.reset();

  std::cerr << "making 100 PDFs of " << kPagesPerFile << " pages in " << work.string() << "\n";
  std::vector<fs::path> all;
  for (int i = 0; i < 100; ++i) {
    all.push_back(work / ("doc" + std::to_string(i) + ".pdf"));
    write_pdf(all.back(), i);
  }

  std::printf("%-28s %12s %9s %7s\n", "case", "baseline ms", "ours ms", "ratio");
  for (int count : {10, 100}) {
    const std::vector<fs::path> inputs(all.begin(), all.begin() + count);
    const fs::path out = work / "qpdf-out.pdf";
    const fs::path first = work / "first.pdf";
    std::vector<double> baseline, ours;
    for (int run = 0; run <= repeats; ++run) {
      auto start = std::chrono::steady_clock::now();
      if (!run_qpdf(inputs, out)) {
        std::cerr << "attach_bench: the qpdf command failed\n";
        return 1;
      }
      const double command_ms = millis_since(start);

      fs::copy_file(inputs[0], first, fs::copy_options::overwrite_existing);
      start = std::chrono::steady_clock::now();
      if (!run_attach(inputs, first)) {
        std::cerr << "attach_bench: the component failed (TARN_TRACE=85 shows why)\n";
        return 1;
      }
      const double ours_ms = millis_since(start);
      if (run == 0) {  // warm-up, and a check that both made the same document
        if (page_count(first) != count * kPagesPerFile ||
            page_count(out) != count * kPagesPerFile) {
          std::cerr << "attach_bench: joined files have the wrong page count\n";
          return 1;
        }
        continue;
      }
      baseline.push_back(command_ms);
      ours.push_back(ours_ms);
    }
    const std::string name = std::to_string(count) + " PDFs (" +
                             std::to_string(count * kPagesPerFile) + " pages) joined";
    std::printf("%-28s %12.1f %9.1f %7.3f\n", name.c_str(), median(baseline), median(ours),
                median(ours) / median(baseline));
  }
  return 0;
}
