// Separable cosine window against truncation ringing, applied to centred k-space in place.

#include <algorithm>
#include <cmath>
#include <vector>

#include "cTessel.h"
#include "loops.h"
#include "weighting.h"

using ctessel::Dim;

namespace ctessel {

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

/// The combination along a run, by the axis that it runs along.
void fill(const Windows& w, const WeightRows& rows, float* out) {
  std::ptrdiff_t at[] = {rows.first[0], rows.first[1], rows.first[2]};
  for (std::ptrdiff_t j = 0; j < rows.rows; ++j, ++at[rows.next], out += rows.n) {
    const float *x = w.x.data() + at[0], *y = w.y.data() + at[1], *z = w.z.data() + at[2];
    const auto run = [&](auto weight) {
      for (std::ptrdiff_t i = 0; i < rows.n; ++i) out[i] = weight(i);
    };
    if (rows.run == 0) run([&](std::ptrdiff_t i) { return *z * (*y * x[i]); });
    if (rows.run == 1) run([&](std::ptrdiff_t i) { return *z * (y[i] * *x); });
    if (rows.run == 2) run([&](std::ptrdiff_t i) { return z[i] * (*y * *x); });
  }
}

void filter(const ConstSamples& from, const Samples& to, const double* strength, const int* width,
            Share share) {
  const Windows w{window(to.extent(Dim::x), strength[0], width[0]),
                  window(to.extent(Dim::y), strength[1], width[1]),
                  window(to.extent(Dim::z), strength[2], width[2])};
  // Weights that are finite and not negative leave a 0 as it is by themselves.
  const auto rows = [&](const WeightRows& r, float* out) { fill(w, r, out); };
  apply_weights(from, to, {rows, !w.finite()}, share);
}

}  // namespace

void ringing_filter(const ConstSamples& data, const Samples& out, const RingingWindow& window) {
  require_same_extents(data, out, "ringing_filter: data and out");
  require_same_kind(data, out, "ringing_filter: data and out");
  filter(data, out, window.strength.data(), window.width.data(), Share::planes);
}

}  // namespace ctessel

void TS_ringing_filter(float* re, float* im, int ndims, int* dims, double* strength, int* width) {
  const ctessel::Samples data = ctessel::volumes(re, im, ndims, dims);
  if (data.extent(Dim::x) <= 0 || data.extent(Dim::y) <= 0 || data.extent(Dim::z) <= 0) return;
  ctessel::filter(data, data, strength, width, ctessel::Share::volumes);
}
