// Separable cosine window against truncation ringing, applied to centred k-space in place.

#include <cmath>
#include <vector>

#include "cTessel.h"
#include "dispatch.h"
#include "loops.h"

namespace {

constexpr float kTwoPi = 6.2831855f;

/// Window of `width` samples on an axis of N, centred at floor(N / 2), 0 outside. `strength` is how
/// far it falls at its edge, between 0 and 0.915.
std::vector<float> window(std::ptrdiff_t N, double strength, int width) {
  const double edge = strength > 0.915 ? 0.085 : strength < 0 ? 1.0 : 1 - strength;
  const double period = width * static_cast<double>(kTwoPi) * 0.5 / std::acos((edge - 0.54) / 0.46);
  const float half = static_cast<float>(width) * 0.5f;
  const auto first = -static_cast<std::ptrdiff_t>(std::floor(half)),
             last = static_cast<std::ptrdiff_t>(std::ceil(half)) - 1;
  std::vector<float> w(static_cast<std::size_t>(N), 0.0f);
  for (std::ptrdiff_t i = 0; i < N; ++i) {
    const std::ptrdiff_t j = i - N / 2;
    if (j < first || j > last) continue;
    const auto angle = static_cast<float>(kTwoPi * static_cast<double>(j) / period);
    w[static_cast<std::size_t>(i)] = static_cast<float>(0.54 + 0.46 * std::cos(angle));
  }
  return w;
}

/// A sample of exactly 0 stays as it is even where the weight is not a number.
CTESSEL_CLONES void weigh(float* re, float* im, const float* wxy, float wz, std::ptrdiff_t n) {
#pragma omp simd
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    const float w = wz * wxy[i];
    const bool zero = re[i] == 0 && im[i] == 0;
    re[i] = zero ? re[i] : re[i] * w;
    im[i] = zero ? im[i] : im[i] * w;
  }
}

CTESSEL_CLONES void weigh_real(float* re, const float* wxy, float wz, std::ptrdiff_t n) {
#pragma omp simd
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    re[i] = re[i] == 0 ? re[i] : re[i] * (wz * wxy[i]);
  }
}

}  // namespace

void TS_ringing_filter(float* re, float* im, int ndims, int* dims, double* strength, int* width) {
  const std::ptrdiff_t d0 = dims[0], d1 = dims[1], d2 = ndims > 2 ? dims[2] : 1;
  if (d0 <= 0 || d1 <= 0 || d2 <= 0) return;
  const std::vector<float> wx = window(d0, strength[0], width[0]),
                           wy = window(d1, strength[1], width[1]),
                           wz = window(d2, strength[2], width[2]);
  std::vector<float> wxy;
  wxy.reserve(static_cast<std::size_t>(d0 * d1));
  for (float y : wy) {
    for (float x : wx) wxy.push_back(y * x);
  }
  ctessel::for_each_chunk(ctessel::merged_outer(ndims, dims),
                          [&](std::int64_t begin, std::int64_t end) {
                            for (std::ptrdiff_t plane = static_cast<std::ptrdiff_t>(begin) * d2;
                                 plane < end * d2; ++plane) {
                              const std::ptrdiff_t at = d0 * d1 * plane;
                              const float z = wz[static_cast<std::size_t>(plane % d2)];
                              if (im) {
                                weigh(re + at, im + at, wxy.data(), z, d0 * d1);
                              } else {
                                weigh_real(re + at, wxy.data(), z, d0 * d1);
                              }
                            }
                          });
}
