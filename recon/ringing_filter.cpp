// Separable cosine window against truncation ringing, applied to centred k-space in place.

#include <algorithm>
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

/// Windows of the three axes. What each sample is weighted with is wz (wy wx), rounded twice.
struct Windows {
  std::vector<float> x, y, z;
  bool finite() const {
    const auto all = [](const std::vector<float>& w) {
      return std::all_of(w.begin(), w.end(), [](float v) { return std::isfinite(v); });
    };
    return all(x) && all(y) && all(z);
  }
};

CTESSEL_CLONES void weigh_plane(float* part, const float* wx, std::ptrdiff_t nx, const float* wy,
                                std::ptrdiff_t ny, float wz) {
  for (std::ptrdiff_t y = 0; y < ny; ++y, part += nx) {
#pragma omp simd
    for (std::ptrdiff_t x = 0; x < nx; ++x) part[x] *= wz * (wy[y] * wx[x]);
  }
}

/// A sample of exactly 0 stays as it is even where the weight is not a number.
void weigh_sample(float* re, float* im, float w) {
  if (*re == 0 && (!im || *im == 0)) return;
  *re *= w;
  if (im) *im *= w;
}

/// Weights that are finite and not negative leave a 0 as it is. Then the parts go one after the
/// other: taken together they would keep two places of memory open for reading and for writing.
void filter_plane(float* re, float* im, const Windows& w, float wz) {
  const auto nx = static_cast<std::ptrdiff_t>(w.x.size()),
             ny = static_cast<std::ptrdiff_t>(w.y.size());
  weigh_plane(re, w.x.data(), nx, w.y.data(), ny, wz);
  if (im) weigh_plane(im, w.x.data(), nx, w.y.data(), ny, wz);
}

void filter_plane_with_nan(float* re, float* im, const Windows& w, float wz) {
  for (float wy : w.y) {
    for (float wx : w.x) {
      weigh_sample(re++, im, wz * (wy * wx));
      if (im) ++im;
    }
  }
}

}  // namespace

void TS_ringing_filter(float* re, float* im, int ndims, int* dims, double* strength, int* width) {
  const std::ptrdiff_t d0 = dims[0], d1 = dims[1], d2 = ndims > 2 ? dims[2] : 1;
  if (d0 <= 0 || d1 <= 0 || d2 <= 0) return;
  const Windows w{window(d0, strength[0], width[0]), window(d1, strength[1], width[1]),
                  window(d2, strength[2], width[2])};
  const auto filter = w.finite() ? filter_plane : filter_plane_with_nan;
  ctessel::for_each_chunk(
      ctessel::merged_outer(ndims, dims), [&](std::int64_t begin, std::int64_t end) {
        for (auto plane = static_cast<std::ptrdiff_t>(begin) * d2; plane < end * d2; ++plane) {
          const std::ptrdiff_t at = d0 * d1 * plane;
          filter(re + at, im ? im + at : nullptr, w, w.z[static_cast<std::size_t>(plane % d2)]);
        }
      });
}
