// Associated Legendre functions, their lookup table, polar coordinates of a point, and the factors
// of one term of a solid harmonic expansion.
//
// theta from +z (0..pi), phi from +x towards +y (0..2 pi), in radians. P_l^m carries the
// Condon-Shortley phase (-1)^m and no normalisation; geometry_correction.cpp cancels the phase.
// Recurrence in l: NIST Digital Library of Mathematical Functions, 14.10.3.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "cTessel.h"
#include "dispatch.h"
#include "legendre.h"

namespace {

constexpr float kHalfPi = 1.5707964f, kPi = 3.1415927f, kTwoPi = 6.2831855f,
                kThreeHalfPi = 4.712389f;

/// sqrt(1 - x^2), kept in float: that rounding shows in every P_l^m with m > 0.
double sine_of(double x) { return static_cast<float>(std::sqrt((1.0 - x) * (1.0 + x))); }

bool power_of_two(int n) { return (n & (n - 1)) == 0; }

float polar_angle(float z, float r) {
  if (z > 0) return std::acos(z / r);
  if (z < 0) return std::asin(-z / r) + kHalfPi;
  return kHalfPi;
}

/// The second and fourth quadrants take the arctangent in double, the others in float: the last bit
/// of an angle, and of every position that comes from it, depends on which.
float azimuth(float x, float y) {
  const double slope = static_cast<double>(y) / x;
  if (x > 0) return y >= 0 ? std::atan(y / x) : static_cast<float>(std::atan(slope) + kTwoPi);
  if (x < 0) return y >= 0 ? static_cast<float>(std::atan(slope) + kPi) : std::atan(y / x) + kPi;
  if (y > 0) return kHalfPi;
  return y < 0 ? kThreeHalfPi : 0.0f;
}

/// Here and not under its outer name: the choice between versions would show outside the library.
CTESSEL_CLONES
void recur(ctessel::LegendreLanes& lanes, int m, int orders, float (*out)[ctessel::kLanes]) {
  using ctessel::kLanes;
  double now[kLanes], before[kLanes];
  for (int j = 0; j < kLanes; ++j) {
    if (m > 0) lanes.diagonal[j] *= -(2.0 * m - 1) * lanes.sine[j];
    now[j] = lanes.diagonal[j];
    before[j] = 0;
    out[0][j] = static_cast<float>(now[j]);
  }
  for (int l = m + 1; l < orders; ++l) {
    const double a = 2.0 * l - 1, b = l + (m - 1.0), divisor = l - m;
    for (int j = 0; j < kLanes; ++j) {
      const double sum = lanes.x[j] * a * now[j] - b * before[j];
      before[j] = now[j];
      now[j] = sum;
    }
    if (power_of_two(l - m)) {  // the product is the exact quotient, and cheaper
      for (int j = 0; j < kLanes; ++j) now[j] *= 1 / divisor;
    } else {
      for (int j = 0; j < kLanes; ++j) now[j] /= divisor;
    }
    for (int j = 0; j < kLanes; ++j) out[l - m][j] = static_cast<float>(now[j]);
  }
}

/// Writes the samples i0 .. i0 + count - 1 of the table: |x| <= 1 decides sample by sample.
void write_samples(const ctessel::LegendreLanes& lanes, const float (*column)[ctessel::kLanes],
                   std::int64_t count, int length, std::int64_t stride, float* out) {
  for (int j = 0; j < count; ++j, out += stride) {
    const bool inside = std::abs(lanes.x[j]) <= 1;
    for (int l = 0; l < length; ++l) out[l] = inside ? column[l][j] : 0.0f;
  }
}

}  // namespace

namespace ctessel {

void legendre_start(LegendreLanes& lanes, const float* x) {
  for (int j = 0; j < kLanes; ++j) {
    lanes.x[j] = x[j];
    lanes.sine[j] = sine_of(x[j]);
    lanes.diagonal[j] = 1;
  }
}

void legendre_degree(LegendreLanes& lanes, int m, int orders, float (*out)[kLanes]) {
  recur(lanes, m, orders, out);
}

}  // namespace ctessel

double plgndr(int l, int m, float x) {
  if (m < 0 || m > l || std::abs(x) > 1) std::exit(1);
  const double sine = sine_of(x);
  double now = 1, before = 0;
  for (int i = 1; i <= m; ++i) now *= -(2.0 * i - 1) * sine;
  for (int k = m + 1; k <= l; ++k) {
    const double next = (x * (2.0 * k - 1) * now - (k + (m - 1.0)) * before) / (k - m);
    before = now;
    now = next;
  }
  return now;
}

void create_plgndr_lookup(int nl, int nm, int npts, float* table) {
  using namespace ctessel;
  const float step = lookup_step(npts);
  const std::int64_t degree = nl, sample = degree * nm;
  if (npts < 1 || nl < 1 || nm < 1) return;
  std::fill_n(table, npts * sample, 0.0f);  // entries with m > l stay 0
  std::vector<float> columns(static_cast<std::size_t>(nl) * kLanes);
  auto* column = reinterpret_cast<float(*)[kLanes]>(columns.data());
  for (std::int64_t i = 0; i < npts; i += kLanes) {
    float x[kLanes];
    for (int j = 0; j < kLanes; ++j) x[j] = lookup_sample(i + j, step);
    LegendreLanes lanes;
    legendre_start(lanes, x);
    float* first = table + i * sample;
    for (int m = 0; m < std::min(nm, nl); ++m) {
      legendre_degree(lanes, m, nl, column);
      write_samples(lanes, column, std::min<std::int64_t>(kLanes, npts - i), nl - m, sample,
                    first + m * degree + m);
    }
  }
}

void getRadiusThetaPhi(float x, float y, float z, float* out) {
  const double xx = x, yy = y, zz = z;
  out[0] = static_cast<float>(std::sqrt(xx * xx + yy * yy + zz * zz));
  out[1] = polar_angle(z, out[0]);
  out[2] = azimuth(x, y);
}

float radialFactor(float r, float r0, int n) {
  // Square and multiply, lowest bit of n first: the order decides the last bit of the power.
  float square = r / r0;
  unsigned left = n < 0 ? 0u - static_cast<unsigned>(n) : static_cast<unsigned>(n);
  float power = left % 2 ? square : 1.0f;
  while (left >>= 1) {
    square *= square;
    if (left % 2) power *= square;
  }
  return n < 0 ? 1.0f / power : power;
}

float funcYS(int n, int m, float r, float phi, float r0, float p) {
  return std::sin(static_cast<float>(m) * phi) * (radialFactor(r, r0, n) * p);
}

float funcYC(int n, int m, float r, float phi, float r0, float p) {
  return std::cos(static_cast<float>(m) * phi) * (radialFactor(r, r0, n) * p);
}
