// What fuzzing targets draw from their bytes, and how they end.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

inline void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "violated: %s\n", what);
  std::abort();
}

inline float any_float(FuzzedDataProvider& input) {
  constexpr float kSpecial[] = {0.0f, -0.0f, 1.0f, INFINITY, -INFINITY, NAN, 3e38f, 1e-45f};
  if (input.ConsumeIntegralInRange(0, 7) == 0) return input.PickValueInArray(kSpecial);
  return static_cast<float>(input.ConsumeIntegral<std::int8_t>()) / 8;
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
