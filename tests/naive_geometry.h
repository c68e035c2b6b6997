// Naive version of the geometry correction: one recurrence from its start per table entry
// and per term near the poles, one table row per point. Slow and plain; the library must give the
// same bits.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace naive {

inline double plgndr(int l, int m, float x) {
  double pmm = 1;
  const float s = static_cast<float>(std::sqrt((1.0 - x) * (1.0 + x)));
  double f = 1;
  for (int i = 0; i < m; ++i, f += 2) pmm *= -f * s;
  if (l == m) return pmm;
  double p = x * (2.0 * m + 1) * pmm, before = pmm;
  for (int k = m + 2; k <= l; ++k) {
    const double next = (x * (2.0 * k - 1) * p - (k + m - 1.0) * before) / (k - m);
    before = p;
    p = next;
  }
  return p;
}

inline void create_plgndr_lookup(int nl, int nm, int npts, float* table) {
  const float step = static_cast<float>(2.0 / (npts - 1.0));
  for (int i = 0; i < npts; ++i) {
    const float x = static_cast<float>(static_cast<double>(i) * step - 1);
    for (int m = 0; m < nm; ++m)
      for (int l = 0; l < nl; ++l)
        *table++ = m <= l && std::fabs(x) <= 1 ? static_cast<float>(plgndr(l, m, x)) : 0.0f;
  }
}

inline float power(float q, int n) {
  unsigned left = n < 0 ? -static_cast<unsigned>(n) : static_cast<unsigned>(n);
  float y = left % 2 ? q : 1.0f;
  while (left >>= 1) {
    q *= q;
    if (left % 2) y *= q;
  }
  return n < 0 ? 1 / y : y;
}

struct Polar {
  float r, theta, phi;
};

inline Polar polar(float x, float y, float z) {
  const float half_pi = 1.5707964f, pi = 3.1415927f, two_pi = 6.2831855f;
  const double xx = x, yy = y, zz = z;
  const float r = static_cast<float>(std::sqrt(xx * xx + yy * yy + zz * zz));
  float theta = half_pi, phi = 0;
  if (z > 0) theta = std::acos(z / r);
  if (z < 0) theta = std::asin(-z / r) + half_pi;
  if (x > 0 && y >= 0) {
    phi = std::atan(y / x);
  } else if (x > 0) {
    phi = static_cast<float>(std::atan(yy / xx) + two_pi);
  } else if (x < 0 && y >= 0) {
    phi = static_cast<float>(std::atan(yy / xx) + pi);
  } else if (x < 0) {
    phi = std::atan(y / x) + pi;
  } else if (y > 0) {
    phi = half_pi;
  } else if (y < 0) {
    phi = 4.712389f;
  }
  return {r, theta, phi};
}

constexpr int samples = 10000, nm = 12, nl = 17;

inline std::vector<float> lookup() {
  std::vector<float> table(static_cast<std::size_t>(samples) * nm * nl);
  naive::create_plgndr_lookup(nl, nm, samples, table.data());
  return table;
}

inline void geometry_correction(const float* x, const float* y, const float* z, float* xd,
                                float* yd, float* zd, int npts, const float (*coeff_y)[12],
                                const float (*coeff_x)[12], const float (*coeff_z)[1], float r0,
                                const std::vector<float>& table = lookup()) {
  const float step = static_cast<float>(2.0 / (samples - 1));
  for (int i = 0; i < npts; ++i) {
    const Polar p = polar(x[i], y[i], z[i]);
    const float c = std::cos(p.theta);
    const bool tabulated = -0.9f < c && c < 0.9f;
    const int row = tabulated ? std::clamp(static_cast<int>((c + 1.0) / step), 0, samples - 1) : 0;
    const float* entry = &table[static_cast<std::size_t>(row) * nm * nl];
    float rho[17];
    for (int n = 0; n <= 16; ++n) rho[n] = power(p.r / r0, n);
    float sx = 0, sy = 0, sz = 0;
    for (int m = 1; m <= 11; ++m) {
      const float angle = static_cast<float>(m) * p.phi, sign = m % 2 ? -1.0f : 1.0f;
      float s, k;
      sincosf(angle, &s, &k);
      for (int n = m; n <= 13; ++n) {
        float P =
            sign * (tabulated ? entry[m * nl + n] : static_cast<float>(naive::plgndr(n, m, c)));
        P *= rho[n];
        sx += k * P * coeff_x[n][m];
        sy += P * s * coeff_y[n][m];
      }
    }
    for (int n = 1; n <= 16; ++n) {
      const float P = tabulated ? entry[n] : static_cast<float>(naive::plgndr(n, 0, c));
      sz += P * rho[n] * coeff_z[n][0];
    }
    xd[i] = r0 / coeff_x[1][1] * sx;
    yd[i] = r0 / coeff_y[1][1] * sy;
    zd[i] = r0 / coeff_z[1][0] * sz;
  }
}

}  // namespace naive
