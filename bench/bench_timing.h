// What every benchmark measures with: wall-clock times in milliseconds and their medians.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
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

}  // namespace tarn::bench
