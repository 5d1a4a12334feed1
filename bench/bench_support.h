// What every benchmark shares: wall-clock times in milliseconds, their medians, and a private
// sandbox for the programs under test.
#pragma once

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::bench {

// The median of `values` (the mean of the middle two for an even count); 0 for none.
inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n == 0 ? 0 : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

inline double millis_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

// How long one run of `work` takes.
inline double time_ms(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return millis_since(start);
}

// The median time of `runs` runs of `work`, after one untimed warm-up run.
inline double median_ms(int runs, const std::function<void()>& work) {
  work();
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) times.push_back(time_ms(work));
  return median(std::move(times));
}

// For a benchmark that takes no options: --help prints `about`, anything else is refused.
// The exit code to end with, or nothing to go on.
inline std::optional<int> no_options(int argc, char** argv, const char* about) {
  if (argc < 2) return std::nullopt;
  const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
  if (help)
    std::printf("%s\n", about);
  else
    std::fprintf(stderr, "%s: takes no arguments (\"%s\"); see --help\n", argv[0], argv[1]);
  return help ? 0 : 2;
}

// A fresh folder below the temporary folder that is HOME, the XDG folders, TMPDIR (0700), the
// machine store and a desktop machine-info for this process and every program it starts, so
// that a benchmark never touches the user's own settings, store or warm office. Removed at the
// end unless keep() was called (a failed run keeps it for a look).
class sandbox {
 public:
  explicit sandbox(const std::string& name) {
    std::string pattern = (std::filesystem::temp_directory_path() / (name + "-XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr)
      throw std::runtime_error("can't create a folder like " + pattern);
    root_ = pattern;
    for (const char* dir : {"home", "run", "tmp"}) {
      std::filesystem::create_directories(root_ / dir);
      std::filesystem::permissions(root_ / dir, std::filesystem::perms::owner_all);
    }
    std::ofstream(root_ / "machine-info") << "CHASSIS=desktop\n";
    const auto home = root_ / "home";
    for (const auto& [name, path] : {std::pair{"HOME", home},
                                     {"XDG_CONFIG_HOME", home / ".config"},
                                     {"XDG_DATA_HOME", home / ".local/share"},
                                     {"XDG_STATE_HOME", home / ".local/state"},
                                     {"XDG_CACHE_HOME", home / ".cache"},
                                     {"XDG_RUNTIME_DIR", root_ / "run"},
                                     {"TMPDIR", root_ / "tmp"},
                                     {"TARN_MACHINE_REGISTRY", root_ / "machine.sqlite"},
                                     {"TARN_MACHINE_INFO", root_ / "machine-info"}})
      setenv(name, path.c_str(), 1);
  }
  ~sandbox() {
    std::error_code ec;
    if (!keep_) std::filesystem::remove_all(root_, ec);
  }
  sandbox(const sandbox&) = delete;
  sandbox& operator=(const sandbox&) = delete;

  const std::filesystem::path& root() const { return root_; }
  std::filesystem::path tmp() const { return root_ / "tmp"; }
  void keep(bool yes = true) { keep_ = yes; }

 private:
  std::filesystem::path root_;
  bool keep_ = false;
};

}  // namespace tarn::bench
