// What fuzzing targets draw from their bytes, and how they end.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <omp.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

inline void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "violated: %s\n", what);
  std::abort();
}

inline float any_float(FuzzedDataProvider& input) {
  constexpr float kSpecial[] = {0.0f, -0.0f, 1.0f, INFINITY, -INFINITY, NAN, 3e38f, 1e-45f};
  const int kind = input.ConsumeIntegralInRange(0, 15);
  if (kind <= 1) return input.PickValueInArray(kSpecial);
  if (kind == 2) {
    const auto pattern = input.ConsumeIntegral<std::uint32_t>();
    float value;
    std::memcpy(&value, &pattern, sizeof value);
    return value;
  }
  return static_cast<float>(input.ConsumeIntegral<std::int8_t>()) / 8;
}

/// The first values are the input's, the others repeat them: long arrays cost few bytes.
inline std::vector<float> any_floats(FuzzedDataProvider& input, std::size_t n) {
  std::vector<float> v(n);
  const std::size_t own = input.ConsumeIntegralInRange<std::size_t>(1, 32);
  for (std::size_t i = 0; i < n; ++i) v[i] = i < own ? any_float(input) : v[i - own];
  return v;
}

/// The same bits, or both not a number.
inline bool same(float a, float b) {
  return std::isnan(b) ? std::isnan(a) : a == b && std::signbit(a) == std::signbit(b);
}

inline bool same(const std::vector<float>& a, const std::vector<float>& b) {
  for (std::size_t i = 0; i < b.size(); ++i) {
    if (!same(a[i], b[i])) return false;
  }
  return a.size() == b.size();
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("KMP_BLOCKTIME", "0", 1);  // threads of an idle team sleep at once
  return 0;
}

/// What the run does, 0 to 255. Starting a team takes longer than a kernel on small arrays, so few
/// runs have one.
inline int start(FuzzedDataProvider& input) {
  omp_set_num_threads(input.ConsumeIntegral<std::uint8_t>() == 1 ? 3 : 1);
  return input.ConsumeIntegral<std::uint8_t>();
}
