// Condition of small Hermitian matrices, one to a lane. Householder's reflections make each
// tridiagonal; Laguerre's method finds its extreme eigenvalues from outside.
#pragma once

#include <cmath>

#include "lanes.h"

namespace ctessel {

template <int W>
CTESSEL_INLINE void take_root(Lanes<W>& v) {
  for (int i = 0; i < W; ++i) v[i] = std::sqrt(v[i]);
}

/// Reflects rows and columns behind k of a Hermitian matrix so that column k keeps one entry below
/// its diagonal, of which `beside` gets the squared magnitude. scratch: 4 n entries.
template <int W>
CTESSEL_INLINE void reflect(double* a, std::int64_t n, std::int64_t k, double* scratch,
                            Lanes<W>& beside) {
  double *v = scratch, *p = scratch + 2 * n * kVoxels;
  Lanes<W> rest{};
  for (std::int64_t i = k + 1; i < n; ++i) {
    const ComplexLanes<W> entry(a, i * n + k);
    entry.store(v, i);
    if (i > k + 1) rest += entry.re * entry.re + entry.im * entry.im;
  }
  Lanes<W>&first_re = lane<W>(v, 2 * (k + 1)), &first_im = lane<W>(v, 2 * (k + 1) + 1);
  Lanes<W> first = first_re * first_re + first_im * first_im;
  beside = first + rest;
  Lanes<W> length = beside;
  take_root<W>(length);
  take_root<W>(first);
  first_re = first > 0.0 ? first_re * (1.0 + length / first) : length;
  first_im = first > 0.0 ? first_im * (1.0 + length / first) : Lanes<W>{};
  const Lanes<W> scale = rest > 0.0 ? 1.0 / (length * (length + first)) : Lanes<W>{};
  Lanes<W> along{};
  for (std::int64_t i = k + 1; i < n; ++i) {
    ComplexLanes<W> sum;
    for (std::int64_t j = k + 1; j < n; ++j) sum.add_product({a, i * n + j}, {v, j});
    lane<W>(p, 2 * i) = scale * sum.re;
    lane<W>(p, 2 * i + 1) = scale * sum.im;
    along += lane<W>(v, 2 * i) * sum.re + lane<W>(v, 2 * i + 1) * sum.im;
  }
  along *= 0.5 * scale * scale;
  for (std::int64_t i = 2 * (k + 1); i < 2 * n; ++i) lane<W>(p, i) -= along * lane<W>(v, i);
  for (std::int64_t i = k + 1; i < n; ++i) {
    const ComplexLanes<W> x(v, i), y(p, i);
    for (std::int64_t j = k + 1; j < n; ++j) {
      const ComplexLanes<W> w(v, j), q(p, j);
      lane<W>(a, 2 * (i * n + j)) -= x.re * q.re + x.im * q.im + y.re * w.re + y.im * w.im;
      lane<W>(a, 2 * (i * n + j) + 1) -= x.im * q.re - x.re * q.im + y.im * w.re - y.re * w.im;
    }
  }
}

/// Values of the characteristic polynomial of a tridiagonal matrix and its first two derivatives.
template <int W>
struct Polynomial {
  Lanes<W> p = Lanes<W>{} + 1.0, slope{}, bend{}, p_before{}, slope_before{}, bend_before{};

  CTESSEL_INLINE void take_row(const Lanes<W>& d, const Lanes<W>& e) {
    const Lanes<W> p_next = d * p - e * p_before, slope_next = d * slope - p - e * slope_before,
                   bend_next = d * bend - 2.0 * slope - e * bend_before;
    p_before = p, slope_before = slope, bend_before = bend;
    p = p_next, slope = slope_next, bend = bend_next;
  }

  /// Laguerre's step from outside of all roots.
  CTESSEL_INLINE void find_step(double degree, Lanes<W>& step) const {
    Lanes<W> root = (degree - 1) * ((degree - 1) * slope * slope - degree * p * bend);
    root = root > 0.0 ? root : Lanes<W>{};
    take_root<W>(root);
    step = p == 0.0 ? Lanes<W>{} : degree * p / (slope < 0.0 ? slope - root : slope + root);
  }
};

/// Moves both ends towards the extreme roots where they still move.
template <int W>
CTESSEL_INLINE void approach_extremes(double* diagonal, double* beside, std::int64_t n,
                                      Lanes<W> (&x)[2], Mask<W> (&moving)[2]) {
  constexpr double kEnough = 1e-4;  // the error is some cube of the last step
  Polynomial<W> side[2];
  Lanes<W> e{}, step;
  for (std::int64_t i = 0; i < n; ++i) {
    for (int k = 0; k < 2; ++k) side[k].take_row(lane<W>(diagonal, i) - x[k], e);
    e = lane<W>(beside, i);
  }
  for (int k = 0; k < 2; ++k) {
    side[k].find_step(static_cast<double>(n), step);
    x[k] = moving[k] ? x[k] - step : x[k];
    moving[k] &= (step < 0.0 ? -step : step) > (x[k] < 0.0 ? -x[k] : x[k]) * kEnough;
  }
}

/// The smallest and the largest eigenvalue of a tridiagonal matrix.
template <int W>
CTESSEL_INLINE void find_extremes(double* diagonal, double* beside, std::int64_t n,
                                  Lanes<W> (&x)[2]) {
  constexpr int kMostSteps = 16;
  const double share = 1 / static_cast<double>(n);
  Lanes<W> mean{}, spread{};
  for (std::int64_t i = 0; i < n; ++i) mean += lane<W>(diagonal, i) * share;
  for (std::int64_t i = 0; i < n; ++i) {
    const Lanes<W> d = lane<W>(diagonal, i) - mean;
    spread += d * d;
    if (i > 0) spread += 2.0 * lane<W>(beside, i - 1);
  }
  spread *= 1 - share;
  take_root<W>(spread);
  x[0] = mean - spread;  // all lie between; with two rows these are the two
  x[1] = mean + spread;
  Mask<W> moving[] = {mean == mean, mean == mean};
  for (int i = 0; i < kMostSteps && n > 2; ++i) {
    approach_extremes<W>(diagonal, beside, n, x, moving);
    std::int64_t any = 0;
    for (int j = 0; j < W; ++j) any |= moving[0][j] | moving[1][j];
    if (any == 0) break;
  }
}

/// Largest over smallest eigenvalue of Hermitian matrices of n rows without negative eigenvalues, at
/// most 2^52. `a`, pairs row by row, is used up; scratch: 6 n entries.
template <int W>
CTESSEL_INLINE void find_condition(double* a, std::int64_t n, double* scratch, Lanes<W>& out) {
  double *diagonal = scratch + 4 * n * kVoxels, *beside = diagonal + n * kVoxels;
  for (std::int64_t k = 0; k < n; ++k) {
    if (k + 2 < n) reflect<W>(a, n, k, scratch, lane<W>(beside, k));
    if (k + 2 == n) {
      const ComplexLanes<W> entry(a, n * n - 2);
      lane<W>(beside, k) = entry.re * entry.re + entry.im * entry.im;
    }
    if (k + 1 == n) lane<W>(beside, k) = Lanes<W>{};
    lane<W>(diagonal, k) = lane<W>(a, 2 * (k * n + k));
  }
  Lanes<W> ends[2];
  find_extremes<W>(diagonal, beside, n, ends);
  const Lanes<W> least = ends[1] * 0x1p-52;
  out = ends[1] / (ends[0] < least ? least : ends[0]);
}

}  // namespace ctessel
