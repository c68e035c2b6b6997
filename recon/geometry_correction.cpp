// Positions that non-linear gradients encode, from a solid spherical-harmonic expansion.
//
// Janke et al., Magnetic Resonance in Medicine 52:115-122, 2004.
//
// The method samples its Legendre functions on a table of 10000 values of cos(theta), except near
// the poles. Which sample a point falls on is part of the results; how its values come about is
// not. So a short list of points computes the samples it needs, a long one keeps a packed table of
// the rows that can be reached, and both give the same bits.
//
// Points are worked on in batches of kLanes. A batch is either all tabulated or all computed, and
// every point's sums run in order, in single precision, inside its own lane.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

#include "block_sincos.h"
#include "cTessel.h"
#include "dispatch.h"
#include "legendre.h"
#include "loops.h"
#include "simd.h"

namespace {

using ctessel::kLanes;

constexpr int kSamples = 10000;
constexpr int kOrders = 14, kDegrees = 12, kZonalOrders = 17;  // one more than the highest
constexpr int kTesseral = 88, kZonal = kZonalOrders - 1, kTerms = kTesseral + kZonal;
constexpr float kPole = 0.9f;                       // from here on the table is too coarse
constexpr int kFirstRow = 499, kRows = 9499 - 498;  // that |cos theta| < kPole falls on
constexpr int kLongList = 20000;                    // points from which on the table pays

using Terms = float[kTerms][kLanes];  // tesseral terms degree by degree, then the zonal ones

struct Expansion {
  float cosine[kTesseral], sine[kTesseral], zonal[kZonal];
  float scale_x, scale_y, scale_z;
  float r0;
};

Expansion pack(float (*coeff_y)[12], float (*coeff_x)[12], float (*coeff_z)[1], float r0) {
  Expansion e;
  realign_corr_coeffs(e.cosine, e.sine, e.zonal, kDegrees, kOrders, kZonalOrders, coeff_x, coeff_y,
                      coeff_z);
  // Cancels the phase (-1)^m of the Legendre functions. A change of sign is exact, wherever it
  // stands in a product.
  for (int m = 1, k = 0; m < kDegrees; ++m)
    for (int n = m; n < kOrders; ++n, ++k) {
      if (m % 2 == 0) continue;
      e.cosine[k] = -e.cosine[k];
      e.sine[k] = -e.sine[k];
    }
  e.scale_x = r0 / coeff_x[1][1];
  e.scale_y = r0 / coeff_y[1][1];
  e.scale_z = r0 / coeff_z[1][0];
  e.r0 = r0;
  return e;
}

/// All terms at the arguments x, one recurrence per degree.
void compute_terms(const float* x, Terms& terms) {
  ctessel::LegendreLanes lanes;
  ctessel::legendre_start(lanes, x);
  float zonal[kZonalOrders][kLanes];
  ctessel::legendre_degree(lanes, 0, kZonalOrders, zonal);
  std::memcpy(terms + kTesseral, zonal + 1, kZonal * sizeof *zonal);
  for (int m = 1, k = 0; m < kDegrees; k += kOrders - m, ++m)
    ctessel::legendre_degree(lanes, m, kOrders, terms + k);
}

/// Terms of every reachable row, a row's kTerms values side by side.
std::unique_ptr<float[]> build_table(float step) {
  std::unique_ptr<float[]> table(new float[static_cast<std::size_t>(kRows) * kTerms]);
  Terms terms;
  for (int first = 0; first < kRows; first += kLanes) {
    float x[kLanes];
    for (int j = 0; j < kLanes; ++j) x[j] = ctessel::lookup_sample(kFirstRow + first + j, step);
    compute_terms(x, terms);
    for (int j = 0; j < std::min(kLanes, kRows - first); ++j) {
      float* row = &table[static_cast<std::size_t>(first + j) * kTerms];
      for (int t = 0; t < kTerms; ++t) row[t] = terms[t][j];
    }
  }
  return table;
}

/// The terms of one table row per lane, transposed four rows by four terms at a time.
void look_up_terms(const float* const* rows, Terms& terms) {
  static_assert(kTerms % 4 == 0 && kLanes % 4 == 0);
  for (int lane = 0; lane < kLanes; lane += 4) {
    const char* four[4];
    for (int i = 0; i < 4; ++i) four[i] = reinterpret_cast<const char*>(rows[lane + i]);
    for (int term = 0; term < kTerms; term += 4) {
      ctessel::transpose_square(std::uint32_t{}, four, term * std::ptrdiff_t{sizeof(float)},
                                reinterpret_cast<char*>(&terms[term][lane]), sizeof terms[term]);
    }
  }
}

/// Points that wait for their sums. Lanes that no point has taken keep harmless values.
struct Batch {
  int count = 0;
  std::int64_t point[kLanes];
  float ratio[kLanes] = {};       // r / r0
  float azimuth[kLanes] = {};     // phi
  float x[kLanes] = {};           // argument of the Legendre functions, for a computed batch
  const float* row[kLanes] = {};  // row of the table, for a tabulated one
};

/// (r / r0)^n, multiplied in radialFactor's order: the highest bit of n comes last.
void raise(const float* ratio, float (*rho)[kLanes]) {
  for (int j = 0; j < kLanes; ++j) rho[0][j] = 1.0f;
  std::copy(ratio, ratio + kLanes, rho[1]);
  for (int top = 2; top < kZonalOrders; top *= 2) {
    for (int j = 0; j < kLanes; ++j) rho[top][j] = rho[top / 2][j] * rho[top / 2][j];
    for (int n = top + 1; n < std::min(2 * top, kZonalOrders); ++n)
      for (int j = 0; j < kLanes; ++j) rho[n][j] = rho[n - top][j] * rho[top][j];
  }
}

struct Angles {
  float sin[kDegrees][kLanes], cos[kDegrees][kLanes];  // of m phi
};

void multiples(const float* azimuth, Angles& angles) {
  for (int m = 1; m < kDegrees; ++m) {
    float angle[kLanes];
    for (int j = 0; j < kLanes; ++j) angle[j] = static_cast<float>(m) * azimuth[j];
    ctessel::block_sincos(angle, angles.sin[m], angles.cos[m]);
  }
}

struct Sums {
  float x[kLanes] = {}, y[kLanes] = {}, z[kLanes] = {};
};

/// Adds the terms up in order and in single precision: both show in the last bits of the result.
CTESSEL_CLONES
void add_up(const Expansion& e, const float* ratio, const Angles& angles, const Terms& terms,
            Sums& sums) {
  float rho[kZonalOrders][kLanes];
  raise(ratio, rho);
  for (int m = 1, k = 0; m < kDegrees; ++m)
    for (int n = m; n < kOrders; ++n, ++k)
      for (int j = 0; j < kLanes; ++j) {
        const float p = terms[k][j] * rho[n][j];
        sums.x[j] += angles.cos[m][j] * p * e.cosine[k];
        sums.y[j] += p * angles.sin[m][j] * e.sine[k];
      }
  for (int n = 1; n < kZonalOrders; ++n)
    for (int j = 0; j < kLanes; ++j)
      sums.z[j] += terms[kTesseral + n - 1][j] * rho[n][j] * e.zonal[n - 1];
}

/// Everything a thread needs to find the positions of points. table is null for a short list.
struct Task {
  const Expansion& e;
  const float *x, *y, *z;
  float *xd, *yd, *zd;
  float step;
  const float* table;
};

/// Completes the points of a batch and empties it.
void finish(const Task& task, const Terms& terms, Batch& batch) {
  Angles angles;
  multiples(batch.azimuth, angles);
  Sums sums;
  add_up(task.e, batch.ratio, angles, terms, sums);
  for (int j = 0; j < batch.count; ++j) {
    task.xd[batch.point[j]] = task.e.scale_x * sums.x[j];
    task.yd[batch.point[j]] = task.e.scale_y * sums.y[j];
    task.zd[batch.point[j]] = task.e.scale_z * sums.z[j];
  }
  batch.count = 0;
}

void finish_computed(const Task& task, Batch& batch) {
  Terms terms;
  compute_terms(batch.x, terms);
  finish(task, terms, batch);
}

void finish_tabulated(const Task& task, Batch& batch) {
  std::fill(batch.row + batch.count, batch.row + kLanes, batch.row[0]);
  Terms terms;
  look_up_terms(batch.row, terms);
  finish(task, terms, batch);
}

/// The row at or below c, which lies strictly between -kPole and kPole.
int row_of(float c, float step) { return static_cast<int>((c + 1.0) / step); }

const float* fetch_row(const float* table, int row) {
  const float* values = table + static_cast<std::ptrdiff_t>(row - kFirstRow) * kTerms;
  for (int t = 0; t < kTerms; t += 16) __builtin_prefetch(values + t);
  return values;
}

void correct(const Task& task, std::int64_t begin, std::int64_t end) {
  Batch tabulated, computed;
  for (std::int64_t i = begin; i < end; ++i) {
    float polar[3];
    getRadiusThetaPhi(task.x[i], task.y[i], task.z[i], polar);
    const float c = std::cos(polar[1]);
    const bool sampled = -kPole < c && c < kPole;  // not so for a c that is not a number
    Batch& batch = sampled && task.table ? tabulated : computed;
    const int j = batch.count++;
    batch.point[j] = i;
    batch.ratio[j] = polar[0] / task.e.r0;
    batch.azimuth[j] = polar[2];
    const int row = sampled ? row_of(c, task.step) : 0;
    batch.x[j] = sampled ? ctessel::lookup_sample(row, task.step) : c;
    if (&batch == &tabulated) batch.row[j] = fetch_row(task.table, row);
    if (tabulated.count == kLanes) finish_tabulated(task, tabulated);
    if (computed.count == kLanes) finish_computed(task, computed);
  }
  if (tabulated.count > 0) finish_tabulated(task, tabulated);
  if (computed.count > 0) finish_computed(task, computed);
}

}  // namespace

void realign_corr_coeffs(float* a_out, float* b_out, float* z_out, int nm, int nn, int nz,
                         float (*ca)[12], float (*cb)[12], float (*cz)[1]) {
  for (int m = 1; m < nm; ++m)
    for (int n = m; n < nn; ++n) {
      *a_out++ = ca[n][m];
      *b_out++ = cb[n][m];
    }
  for (int j = 1; j < nz; ++j) *z_out++ = cz[j][0];
}

void TS_geometry_correction(float* x, float* y, float* z, float* xd, float* yd, float* zd, int npts,
                            float (*coeff_y)[12], float (*coeff_x)[12], float (*coeff_z)[1],
                            float r0) {
  const Expansion e = pack(coeff_y, coeff_x, coeff_z, r0);
  const float step = ctessel::lookup_step(kSamples);
  std::unique_ptr<float[]> table;
  if (npts >= kLongList) table = build_table(step);
  const Task task = {e, x, y, z, xd, yd, zd, step, table.get()};
  ctessel::for_each_chunk(npts,
                          [&](std::int64_t begin, std::int64_t end) { correct(task, begin, end); });
}
