// Grids, trilinear interpolation, and the choice of an interpolation coordinate next to a jump.

#include <cstddef>

#include "cTessel.h"
#include "conversion.h"
#include "samples.h"

namespace {

/// Place of a query in a volume: linear offset of its first corner and the three fractions.
struct Query {
  std::ptrdiff_t base;
  double fa, fb, fc;
};

/// Weighted sum of the eight corners, read by `volume` from linear offsets. `total` ends the volume;
/// `readable` ends the memory.
template <class Sum, class Volume>
Sum sum_corners(const Volume& volume, const Query& q, std::ptrdiff_t nx, std::ptrdiff_t plane,
                std::ptrdiff_t total, std::ptrdiff_t readable) {
  const double ga = 1 - q.fa, gb = 1 - q.fb, gc = 1 - q.fc;
  const std::ptrdiff_t step[] = {0, 1, nx, nx + 1, plane, plane + 1, nx + plane, nx + plane + 1};
  const double weight[] = {gb * ga * gc,   q.fb * ga * gc,   gb * q.fa * gc,   q.fb * q.fa * gc,
                           gb * ga * q.fc, q.fb * ga * q.fc, gb * q.fa * q.fc, q.fb * q.fa * q.fc};
  int corners = 8;
  while (corners > 0 && q.base + step[corners - 1] >= total) --corners;
  Sum sum{};
  for (int i = 0; i < corners; ++i) {
    // With rows or planes of one sample an early corner can lie past a later one.
    if (q.base + step[i] < readable) sum += weight[i] * Sum(volume(q.base + step[i]));
  }
  return sum;
}

template <class Volume, class Extent>
float interpolate_at(const Volume& volume, float a, float b, float c, const Extent* dims,
                     std::ptrdiff_t readable) {
  const std::ptrdiff_t nx = dims[0], plane = nx * dims[1], total = plane * dims[2];
  const int ia = static_cast<int>(a), ib = static_cast<int>(b), ic = static_cast<int>(c);
  const Query q{nx * ia + ib + plane * ic, static_cast<double>(a) - ia, static_cast<double>(b) - ib,
                static_cast<float>(static_cast<double>(c) - ic)};  // this fraction alone is a float
  return static_cast<float>(
      sum_corners<double>(volume, q, nx, plane, total, readable < 0 ? total : readable));
}

float interpolate(const float* volume, float a, float b, float c, const int* dims,
                  std::ptrdiff_t readable) {
  return interpolate_at([=](std::ptrdiff_t i) { return volume[i]; }, a, b, c, dims, readable);
}

}  // namespace

void ctessel::interpolate(const ConstSamples& volume, const std::array<const float*, 3>& at,
                          std::ptrdiff_t n, float* out) {
  const Extents dims{volume.extent(Dim::x), volume.extent(Dim::y), volume.extent(Dim::z)};
  const auto value = [&](const float* part, std::ptrdiff_t i) {
    const auto sample = [&](std::ptrdiff_t k) { return part[offset_of(volume, 0, k)]; };
    return interpolate_at(sample, at[1][i], at[0][i], at[2][i], dims.data(), -1);
  };
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    *out++ = value(volume.re, i);
    if (volume.im) *out++ = value(volume.im, i);
  }
}

float* TS_linspace(float start, float stop, int n) {
  float* grid = new float[static_cast<std::size_t>(n > 0 ? n : 0)];
  const double step =
      (static_cast<double>(stop) - start) / (static_cast<double>(static_cast<float>(n)) - 1.0);
  double value = start;
  for (int i = 0; i < n; ++i) {
    grid[i] = static_cast<float>(value);
    value += step;  // added up, not start + i * step: the two differ in the last bit
  }
  return grid;
}

float TS_linear_interpolation(float* volume, float a, float b, float c, int* dims) {
  return interpolate(volume, a, b, c, dims, -1);
}

float TS_linear_interpolation(float* volume, float a, float b, float c,
                              const Eigen::VectorXi& dims) {
  return interpolate(volume, a, b, c, dims.data(), -1);
}

float TS_linear_interpolation(const Eigen::VectorXf& volume, float a, float b, float c,
                              const Eigen::VectorXi& dims) {
  return interpolate(volume.data(), a, b, c, dims.data(), volume.size());
}

std::complex<double> TS_linear_interpolation(const Eigen::VectorXcd& volume,
                                             const Eigen::VectorXi& dims, int base, double fa,
                                             double fb, double fc, int P, int T) {
  return sum_corners<std::complex<double>>([&](std::ptrdiff_t i) { return volume.data()[i]; },
                                           Query{base, fa, fb, fc}, dims[0], P, T, volume.size());
}

double pos2interpolate(double pos, int idx, const float* A, const float* B) {
  using ctessel::to_int;
  const bool first = A[0] != -1 && B[0] != -1, second = A[1] != -1 && B[1] != -1;
  const double a0 = A[0], a1 = A[1], b0 = B[0], b1 = B[1];
  // The pairs alternate, and which of several matching rules comes first decides the result.
  if (first && to_int(a0) == idx) return b0;
  if (second && to_int(a1 + 1) == idx) return b1 + 1;
  if (first && idx < to_int(a0) && pos > to_int(b0)) return b0;
  if (second && idx > to_int(a1) && to_int(b1 + 1) > pos) return b1 + 1;
  if (first && to_int(a0 + 1) == idx) return b0 + 1;
  if (second && to_int(a1) == idx) return b1;
  if (first && idx > to_int(a0) && to_int(b0 + 1) > pos) return b0 + 1;
  if (second && idx < to_int(a1) && pos > to_int(b1)) return b1;
  return pos;
}
