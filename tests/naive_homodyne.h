// Homodyne operations written straight down, one sample at a time: the reference for tests and the
// yardstick of the benchmarks. Parts are separate; an empty imaginary part makes real data.
#pragma once

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "cTessel.h"

namespace naive {

struct Volume {
  std::vector<int> dims;
  std::vector<float> re, im;
  int extent(std::size_t d) const { return d < dims.size() ? dims[d] : 1; }
  std::size_t outer() const {
    std::size_t n = 1;
    for (std::size_t d = 3; d < dims.size(); ++d) n *= static_cast<std::size_t>(dims[d]);
    return n;
  }
};

/// For ranges whose values fit int with room to spare.
inline int calculate_filter(int N, const double* range, float* weights, int* bounds) {
  const int r0 = static_cast<int>(range[0]), r1 = static_cast<int>(range[1]);
  const int kstart = static_cast<int>(std::ceil(static_cast<float>(N) * -0.5f));
  const int kend = static_cast<int>(std::ceil(static_cast<float>(N) * 0.5f));
  const int den = r0 > r1 ? 2 * r0 + 1 : 2 * r1 + 1;
  const double fraction = static_cast<double>(r1 - r0 + 1) / den;
  int start = 0, mirror = 0, centre = 0;
  for (int k = kstart, p = 0; k < kend - 1; ++k, ++p) {
    if (k == r0) start = p;
    if (k == -r0) mirror = p;
    if (k == 0) centre = p;
  }
  if (fraction < 0.55 || fraction >= 1.0 || std::isnan(fraction)) return 0;
  const int D = mirror - centre;
  for (int n = 0; n < N; ++n) {
    if (n <= start) weights[n] = 0.0f;
    if (n >= mirror) weights[n] = 2.0f;
    if (start < n && n < centre) {
      const double t = static_cast<double>(centre - n) / D;
      weights[n] = static_cast<float>(2 - (t * t + 1));
    }
    if (centre <= n && n < mirror) {
      const double t = static_cast<double>(n - centre) / D;
      weights[n] = static_cast<float>(1 + t * t);
    }
  }
  bounds[0] = start;
  bounds[1] = mirror;
  return 1;
}

/// ranges[d] is empty or [first, last]. Returns the centre block and weights data.
inline Volume filter(Volume& data, const std::vector<double> (&ranges)[3]) {
  std::vector<float> w[3];
  int bounds[3][2], filtered = 0;
  for (std::size_t d = 0; d < 3; ++d) {
    const int N = data.extent(d);
    w[d].assign(static_cast<std::size_t>(N), 1.0f);
    bounds[d][0] = 0;
    bounds[d][1] = N - 1;
    if (ranges[d].empty()) continue;
    const double s = ranges[d][0] + ranges[d][1];
    if ((-1 <= s && s <= 1) || std::isnan(s)) continue;
    bounds[d][1] = 0;
    filtered += naive::calculate_filter(N, ranges[d].data(), w[d].data(), bounds[d]);
  }
  Volume out;
  out.dims = data.dims;
  for (std::size_t d = 0; d < 3 && d < out.dims.size(); ++d)
    out.dims[d] = bounds[d][1] - bounds[d][0] + 1;
  const int nx = data.extent(0), ny = data.extent(1), nz = data.extent(2);
  for (std::size_t r = 0; r < data.outer(); ++r)
    for (int z = bounds[2][0]; z <= bounds[2][1]; ++z)
      for (int y = bounds[1][0]; y <= bounds[1][1]; ++y)
        for (int x = bounds[0][0]; x <= bounds[0][1]; ++x) {
          const std::size_t i = static_cast<std::size_t>(x + nx * (y + ny * z)) +
                                r * static_cast<std::size_t>(nx * ny * nz);
          out.re.push_back(data.re[i]);
          out.im.push_back(data.im.empty() ? 0.0f : data.im[i]);
        }
  const float e = static_cast<float>(1.0 / filtered);
  std::size_t i = 0;
  for (std::size_t r = 0; r < data.outer(); ++r)
    for (int z = 0; z < nz; ++z)
      for (int y = 0; y < ny; ++y)
        for (int x = 0; x < nx; ++x, ++i) {
          const double product = static_cast<double>(w[0][static_cast<std::size_t>(x)]) *
                                 w[1][static_cast<std::size_t>(y)] *
                                 w[2][static_cast<std::size_t>(z)];
          const float weight = powf(static_cast<float>(product), e);
          data.re[i] *= weight;
          if (!data.im.empty()) data.im[i] *= weight;
        }
  return out;
}

inline void multiply(Volume& data, Volume& low) {
  const bool same = data.dims == low.dims;
  int ldims[] = {low.extent(0), low.extent(1), low.extent(2)};
  const int nx = data.extent(0), ny = data.extent(1), nz = data.extent(2);
  const std::unique_ptr<float[]> yq(TS_linspace(0, static_cast<float>(ldims[1] - 1), ny));
  const std::unique_ptr<float[]> xq(TS_linspace(0, static_cast<float>(ldims[0] - 1), nx));
  const std::unique_ptr<float[]> zq(TS_linspace(0, static_cast<float>(ldims[2] - 1), nz));
  const std::size_t volume = static_cast<std::size_t>(ldims[0] * ldims[1] * ldims[2]);
  std::size_t i = 0;
  for (std::size_t r = 0; r < data.outer(); ++r)
    for (int z = 0; z < nz; ++z)
      for (int y = 0; y < ny; ++y)
        for (int x = 0; x < nx; ++x, ++i) {
          const auto at = [&](std::vector<float>& part) {
            if (part.empty()) return 0.0f;
            if (same) return part[i];
            return TS_linear_interpolation(part.data() + r * volume, yq[static_cast<unsigned>(y)],
                                           xq[static_cast<unsigned>(x)],
                                           zq[static_cast<unsigned>(z)], ldims);
          };
          const double lr = at(low.re), li = at(low.im);
          const double m = std::sqrt(lr * lr + li * li);
          const double s = low.im.empty() ? 0 : -li / m, c = lr / m;
          const double dr = data.re[i];
          data.re[i] = static_cast<float>(data.im.empty() ? c * dr : c * dr - s * data.im[i]);
          if (!data.im.empty()) data.im[i] = 0.0f;
        }
}

}  // namespace naive
