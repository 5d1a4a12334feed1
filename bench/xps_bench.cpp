// XPS to PDF: tarnimage.so called in process, as the gateway calls it, against libgxps's own
// xpstopdf program on the same package. Prints the median of each, the ratio and pages/s.
#include <dlfcn.h>

#include <cstdio>
#include <filesystem>
#include <vector>

#include "bench_support.h"
#include "convutils/DynLoadDll.h"
#include "support/conversion.h"
#include "support/run_program.h"
#include "support/test_env.h"

namespace {

constexpr int kPages = 40;
constexpr int kRuns = 7;

}  // namespace

int main(int argc, char** argv) {
  if (auto code = tarn::bench::no_options(
          argc, argv,
          "usage: xps_bench\nConverts a 40-page XPS to PDF through tarnimage.so, in process, and "
          "with xpstopdf;\nprints the median of each, the ratio and pages/s."))
    return *code;
  tarn::test::scoped_test_env env;
  std::vector<std::string> pages;
  for (int i = 1; i <= kPages; ++i) pages.push_back("Page " + std::to_string(i) + " of the bench");
  const auto source = env.tmp() / "bench.xps";
  tarn::test::write_xps(source, pages);
  const auto target = env.tmp() / "out.pdf";

  void* handle = dlopen(tarn::test::dist_program("tarnimage.so").c_str(), RTLD_NOW | RTLD_LOCAL);
  tarn::TarnImageDll dll;
  std::string err;
  if (handle == nullptr || !dll.attach(tarn::module_handle(handle), &err)) {
    std::fprintf(stderr, "xps_bench: can't load tarnimage.so: %s\n",
                 handle ? err.c_str() : dlerror());
    return 1;
  }
  if (!std::filesystem::exists("/usr/bin/xpstopdf")) {
    std::fprintf(stderr, "xps_bench: the baseline /usr/bin/xpstopdf is missing (libgxps-utils)\n");
    return 1;
  }
  const double baseline = tarn::bench::median_ms(kRuns, [&] {
    tarn::test::run_program({"/usr/bin/xpstopdf", source.string(), target.string()});
  });
  const double ours = tarn::bench::median_ms(kRuns, [&] {
    if (dll.XpsToPdfConvert(source.c_str(), target.c_str(), 15, 0, 0) != kPages)
      std::fprintf(stderr, "xps_bench: conversion failed\n");
  });
  std::printf("%-34s %12s %9s %7s %9s\n", "case", "baseline ms", "ours ms", "ratio", "pages/s");
  std::printf("%-34s %12.1f %9.1f %7.3f %9.0f\n",
              (std::to_string(kPages) + "-page XPS -> PDF (xpstopdf)").c_str(), baseline, ours,
              ours / baseline, kPages / (ours / 1000.0));
  return 0;
}
