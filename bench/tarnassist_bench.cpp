// What tarnassist adds per file: a list of N documents through tarnassist against N direct runs
// of the same print helper, a stand-in that writes a small PDF (this program, started under
// the name tarnprint), so that only the assistant's own work differs.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <vector>

#include "bench_support.h"
#include "platform/child_process.h"
#include "platform/self_exe.h"
#include "support/conversion.h"
#include "support/run_program.h"
#include "support/test_env.h"

namespace {

namespace fs = std::filesystem;
constexpr int kFiles = 20;
constexpr int kRuns = 7;

}  // namespace

int main(int argc, char** argv) {
  if (int code = 0; tarn::test::play_helper_program(argc, argv, &code)) return code;
  if (auto code = tarn::bench::no_options(
          argc, argv,
          "usage: tarnassist_bench\nConverts a list of documents through tarnassist and through "
          "direct runs of the same\nprint helper; prints the medians, the ratio and the "
          "assistant's overhead a file."))
    return *code;
  tarn::test::scoped_test_env env;
  const fs::path install = env.root() / "inst";
  fs::create_directories(install);
  fs::copy_file(tarn::test::dist_program("tarnassist"), install / "tarnassist");
  fs::create_symlink(tarn::self_exe_path(), install / "tarnprint");
  const fs::path out = env.home() / "Documents" / "Tarn PDF";

  std::string list = "[FILES]\r\nCount=" + std::to_string(kFiles) + "\r\n";
  std::vector<fs::path> sources;
  for (int i = 0; i < kFiles; ++i) {
    sources.push_back(env.tmp() / ("document " + std::to_string(i) + ".docx"));
    tarn::test::write_file(sources.back(), "text\n");
    list += std::to_string(i + 1) + "=\"" + sources.back().string() + "\"\r\n";
  }
  const fs::path list_file = env.tmp() / "ss_bench.txt";
  tarn::test::write_file(list_file, list);

  const double baseline = tarn::bench::median_ms(kRuns, [&] {
    for (int i = 0; i < kFiles; ++i) {
      const fs::path target = env.tmp() / ("direct " + std::to_string(i) + ".pdf");
      tarn::child_process::start({(install / "tarnprint").string(), "/p", sources[i].string(),
                                  target.string(), "/noviewpdf"})
          ->wait();
    }
  });
  const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const double ours = tarn::bench::median_ms(kRuns, [&] {
    fs::remove_all(out);
    if (tarn::child_process::start({(install / "tarnassist").string(), list_file.string()},
                                   {.stdout_fd = null_fd})
            ->wait() != 0)
      std::fprintf(stderr, "tarnassist_bench: tarnassist failed\n");
  });
  close(null_fd);
  std::printf("%-34s %12s %9s %7s %16s\n", "case", "baseline ms", "ours ms", "ratio",
              "overhead ms/file");
  std::printf("%-34s %12.1f %9.1f %7.3f %16.2f\n",
              (std::to_string(kFiles) + " files, helper direct/assist").c_str(), baseline, ours,
              ours / baseline, (ours - baseline) / kFiles);
  return 0;
}
