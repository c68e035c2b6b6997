// A made-up head seen by a ring of receive coils, for where no measured data are at hand.
#pragma once

#include <cmath>
#include <complex>

#include "cfl.h"

/// Signal of the head at (x, y), both in -1..1: ellipses that add up, after Shepp and Logan
/// (IEEE Trans. Nucl. Sci., 1974) with the contrast raised.
inline float head_signal(double x, double y) {
  struct Ellipse {
    double level, a, b, x0, y0, degrees;
  };
  static const Ellipse ellipses[] = {
      {1, .69, .92, 0, 0, 0},       {-.6, .66, .87, 0, -.02, 0}, {-.2, .11, .31, .22, 0, -18},
      {-.2, .16, .41, -.22, 0, 18}, {.3, .21, .25, 0, .35, 0},   {.2, .05, .05, 0, .1, 0},
      {.3, .05, .02, -.08, -.6, 0}, {.3, .03, .03, 0, -.6, 0},   {.3, .02, .05, .06, -.6, 0}};
  double level = 0;
  for (const Ellipse& e : ellipses) {
    const double turn = e.degrees * 3.14159265358979 / 180, dx = x - e.x0, dy = y - e.y0;
    const double u = (dx * std::cos(turn) + dy * std::sin(turn)) / e.a,
                 v = (dy * std::cos(turn) - dx * std::sin(turn)) / e.b;
    if (u * u + v * v <= 1) level += e.level;
  }
  return static_cast<float>(level);
}

/// Sensitivity of coil c of n at (x, y): strongest next to the coil, with its own smooth phase.
inline std::complex<float> coil_sensitivity(int c, int n, double x, double y) {
  const double angle = 2 * 3.14159265358979 * c / n;
  const double dx = x - 1.2 * std::cos(angle), dy = y - 1.2 * std::sin(angle);
  return std::complex<float>(
      std::polar(1 / (0.4 + dx * dx + dy * dy), angle + 0.6 * std::atan2(dy, dx + 3)));
}

/// Images of n x n samples of the head, one for each coil: extents (n, n, 1, coils).
inline ComplexArray phantom_images(int n, int coils) {
  ComplexArray a({n, n, 1, coils});
  std::size_t i = 0;
  for (int c = 0; c < coils; ++c) {
    for (int iy = 0; iy < n; ++iy) {
      for (int ix = 0; ix < n; ++ix, ++i) {
        const double x = (ix - n / 2) * 2.0 / n, y = (iy - n / 2) * 2.0 / n;
        const std::complex<float> v = head_signal(x, -y) * coil_sensitivity(c, coils, x, y);
        a.re[i] = v.real();
        a.im[i] = v.imag();
      }
    }
  }
  return a;
}
