// What every test file uses: thread counts, guarded arrays, seeded random data, bit comparison.
#pragma once

#include <omp.h>

#if __has_include(<catch2/catch.hpp>)
#include <catch2/catch.hpp>
#else  // Catch2 3
#include <catch2/catch_approx.hpp>
#include <catch2/catch_test_macros.hpp>
#include <catch2/generators/catch_generators.hpp>
#include <catch2/generators/catch_generators_range.hpp>
#include <catch2/matchers/catch_matchers.hpp>
#include <catch2/matchers/catch_matchers_string.hpp>
using Catch::Approx;
#endif
#include <cstdlib>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "guarded.h"

/// Empty where all bits are the same; otherwise the first values that differ. A failing check of the
/// arrays themselves would print them whole.
template <class T>
std::string differences(const std::vector<T>& got, const std::vector<T>& want) {
  std::ostringstream text;
  text.precision(std::numeric_limits<double>::max_digits10);
  if (got.size() != want.size()) text << got.size() << " values, not " << want.size() << "; ";
  std::size_t differ = 0;
  for (std::size_t i = 0; i < std::min(got.size(), want.size()); ++i) {
    if (std::memcmp(&got[i], &want[i], sizeof(T)) == 0 || ++differ > 5) continue;
    text << "[" << i << "] is " << got[i] << ", not " << want[i] << "; ";
  }
  if (differ > 0) text << differ << " differ";
  return text.str();
}

/// Runs f with 1, 2, 3 and 7 threads.
template <class F>
void with_thread_counts(const F& f) {
  const int before = omp_get_max_threads();
  for (int threads : {1, 2, 3, 7}) {
    omp_set_num_threads(threads);
    CAPTURE(threads);
    f();
  }
  omp_set_num_threads(before);
}

/// Seed of this run: CTESSEL_SEED, or a new one. Shown with every failure that captures it.
inline unsigned run_seed() {
  static const unsigned seed = [] {
    const char* given = std::getenv("CTESSEL_SEED");
    return given ? static_cast<unsigned>(std::stoul(given)) : std::random_device{}();
  }();
  return seed;
}

class Random {
 public:
  explicit Random(unsigned salt = 0) : engine_(run_seed() + salt) {}
  int integer(int low, int high) { return std::uniform_int_distribution<int>(low, high)(engine_); }
  float real(float low = -1, float high = 1) {
    return std::uniform_real_distribution<float>(low, high)(engine_);
  }
  std::vector<float> reals(std::size_t n, float low = -1, float high = 1) {
    std::vector<float> v(n);
    for (float& x : v) x = real(low, high);
    return v;
  }

 private:
  std::mt19937 engine_;
};
