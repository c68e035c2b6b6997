// Ratios measured in one run: a yardstick and a kernel take turns, and medians are compared. The
// machine's speed drifts; the ratio of neighbours in time does not.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

namespace bench {

template <class F>
double seconds(const F& f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  benchmark::ClobberMemory();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double median(std::vector<double> v) {
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
  return v[v.size() / 2];
}

/// Times `kernel` and after it `yardstick`; the counter `name` gets how many times faster the
/// kernel is than the yardstick, times `scale`: for a yardstick that moves other bytes, the
/// kernel's bytes over the yardstick's.
template <class Yardstick, class Kernel>
void against(benchmark::State& state, const std::string& name, const Yardstick& yardstick,
             const Kernel& kernel, double scale = 1) {
  std::vector<double> mine, theirs;
  kernel();
  yardstick();
  for (auto _ : state) {
    mine.push_back(seconds(kernel));
    state.SetIterationTime(mine.back());
    theirs.push_back(seconds(yardstick));
  }
  state.counters[name] = scale * median(theirs) / median(mine);
}

/// memcpy of `bytes` from one array to another, both touched before: reads and writes each byte.
class Memcpy {
 public:
  explicit Memcpy(std::size_t bytes) : from_(bytes, 1), to_(bytes, 2) {}
  void operator()() { std::memcpy(to_.data(), from_.data(), from_.size()); }
  double moved() const { return 2.0 * static_cast<double>(from_.size()); }

 private:
  std::vector<char> from_, to_;
};

}  // namespace bench
