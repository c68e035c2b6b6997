// Unfolding matrices of eight neighbouring voxels, formed and inverted side by side.
//
// The steps in order: load, apply_covariance, form, invert, apply_inverse. Each works on W voxels at once, as
// many as a vector of the processor holds; sums run in the same order for each W.

#include "unfolding_matrices.h"

#include <cstring>
#include <utility>

#include "dispatch.h"
#include "hermitian_condition.h"
#include "lanes.h"
#include "sense_steps.h"

namespace {

using ctessel::ComplexLanes;
using ctessel::lane;
using ctessel::Lanes;
using ctessel::Mask;
using ctessel::VoxelBatch;
using std::int64_t;

/// W voxels of a batch: every array from the first of them on.
struct Slice {
  int64_t nc;
  double *s, *w, *b;  // S, W = S^H Psi^-1: entry (k, c) at k nc + c. Without Psi w holds S, too:
  double sign;        // imaginary parts of W change sign then
  double* u;          // U, pairs; slots are u_pitch apart
  int64_t u_pitch;
  const double* regularised;
  const int64_t* present;
  const double* psi_inverse;  // null for the identity
  double* noise;              // null where not wanted
  bool plain;                 // without regularisation
  double* gram(int64_t n) const { return noise + 4 * n * ctessel::kVoxels; }
  double* scratch(int64_t n) const { return gram(n) + 2 * n * n * ctessel::kVoxels; }
};

template <int W>
CTESSEL_INLINE const Mask<W>& there(const Slice& t, int64_t k) {
  return *reinterpret_cast<const Mask<W>*>(t.present + ctessel::kVoxels * k);
}

/// S from samples of one row of x, 0 where the alias is absent.
template <int W>
CTESSEL_INLINE void load(const Slice& t, int64_t n, const float* samples, int64_t pitch) {
  for (int64_t c = 0; c < t.nc; ++c) {
    for (int64_t k = 0; k < n; ++k) {
      const float* from = samples + 2 * ctessel::factor_slot(c, n, k) * pitch;
      for (int part = 0; part < 2; ++part) {
        using Singles = typename ctessel::Vectors<W>::Singles;
        const Singles v = *reinterpret_cast<const Singles*>(from + part * pitch);
        const Lanes<W> wide = __builtin_convertvector(v, Lanes<W>);
        lane<W>(t.s, 2 * (k * t.nc + c) + part) = there<W>(t, k) ? wide : Lanes<W>{};
      }
    }
  }
}

/// W = S^H Psi^-1 for C coils from c on.
template <int W, int C>
CTESSEL_INLINE void apply_covariance_to_coils(const Slice& t, int64_t k, int64_t c) {
  ComplexLanes<W> sum[C];
  for (int64_t d = 0; d < t.nc; ++d) {
    const ComplexLanes<W> s(t.s, k * t.nc + d);
    for (int i = 0; i < C; ++i) {
      const double* p = t.psi_inverse + 2 * ((c + i) * t.nc + d);
      sum[i].re += s.re * p[0] + s.im * p[1];
      sum[i].im += s.re * p[1] - s.im * p[0];
    }
  }
  for (int i = 0; i < C; ++i) sum[i].store(t.w, k * t.nc + c + i);
}

template <int W>
CTESSEL_INLINE void apply_covariance(const Slice& t, int64_t n) {
  for (int64_t k = 0; k < n; ++k) {
    int64_t c = 0;
    for (; c + 4 <= t.nc; c += 4) apply_covariance_to_coils<W, 4>(t, k, c);
    for (; c < t.nc; ++c) apply_covariance_to_coils<W, 1>(t, k, c);
  }
}

/// L entries of row k of W S + R, from column l on, with a 1 on the diagonal for absent aliases,
/// which then leave the others alone.
template <int W, int L>
CTESSEL_INLINE void form_entries(const Slice& t, int64_t n, int64_t k, int64_t l) {
  ComplexLanes<W> sum[L];
  for (int64_t c = 0; c < t.nc; ++c) {
    ComplexLanes<W> w(t.w, k * t.nc + c);
    w.im *= t.sign;
    for (int i = 0; i < L; ++i) sum[i].add_product(w, {t.s, (l + i) * t.nc + c});
  }
  for (int i = 0; i < L; ++i) {
    if (k == l + i) {
      const Lanes<W> gain = lane<W>(const_cast<double*>(t.regularised), k);
      sum[i].re = there<W>(t, k) ? sum[i].re + gain : Lanes<W>{} + 1.0;
    }
    sum[i].store(t.b, k * 2 * n + l + i);
  }
}

/// Entries of a row that are formed together.
constexpr int together(int aliases) { return aliases ? aliases : 4; }

/// b = (W S + R | 1): n rows of 2 n entries.
template <int W, int N>
CTESSEL_INLINE void form(const Slice& t, int64_t n) {
  constexpr int kTogether = together(N);
  for (int64_t k = 0; k < n; ++k) {
    int64_t l = 0;
    for (; l + kTogether <= n; l += kTogether) form_entries<W, kTogether>(t, n, k, l);
    for (; l < n; ++l) form_entries<W, 1>(t, n, k, l);
    for (l = 0; l < n; ++l) {
      lane<W>(t.b, 2 * (k * 2 * n + n + l)) = Lanes<W>{} + (k == l ? 1.0 : 0.0);
      lane<W>(t.b, 2 * (k * 2 * n + n + l) + 1) = Lanes<W>{};
    }
  }
}

template <int W>
CTESSEL_INLINE void square(const ComplexLanes<W>& v, Lanes<W>& out) {
  out = v.re * v.re + v.im * v.im;
}

/// Brings the largest remaining entry of column p into row p, each lane for itself.
template <int W>
CTESSEL_INLINE void choose_pivot(double* b, int64_t n, int64_t p) {
  Lanes<W> best, candidate;
  square<W>({b, p * 2 * n + p}, best);
  for (int64_t i = p + 1; i < n; ++i) {
    square<W>({b, i * 2 * n + p}, candidate);
    const Mask<W> swap = candidate > best;
    best = swap ? candidate : best;
    for (int64_t j = 2 * p; j < 4 * n; ++j) {
      Lanes<W>&upper = lane<W>(b, p * 4 * n + j), &lower = lane<W>(b, i * 4 * n + j);
      const Lanes<W> held = upper;
      upper = swap ? lower : upper;
      lower = swap ? held : lower;
    }
  }
}

/// Where the quotient's nearest multiple of 2^-20 times the pivot gives x back exactly, that multiple.
/// The sensitivities of equal aliases, or opposite ones, or ones that differ by a power of two, then
/// cancel exactly, as the exact quotient makes them; the pivot's rounded reciprocal leaves a rest.
template <int W>
CTESSEL_INLINE void make_exact(const ComplexLanes<W>& x, const ComplexLanes<W>& pivot,
                               ComplexLanes<W>& quotient) {
  constexpr double kToGrid = 0x1.8p32;  // 52 bits above 2^-20
  const Lanes<W> re = quotient.re + kToGrid - kToGrid, im = quotient.im + kToGrid - kToGrid;
  // As one comparison: the compiler takes the lanes apart to join two.
  const Lanes<W> off_re = re * pivot.re - im * pivot.im - x.re,
                 off_im = re * pivot.im + im * pivot.re - x.im;
  const Lanes<W> off = off_re == 0.0 ? off_im : off_re;
  quotient.re = off == 0.0 ? re : quotient.re;
  quotient.im = off == 0.0 ? im : quotient.im;
}

/// Divides row p by its pivot, scaled so that the pivot's square neither over- nor underflows.
template <int W>
CTESSEL_INLINE void divide_row(double* row, int64_t n, int64_t p) {
  const ComplexLanes<W> pivot(row, p);
  const Lanes<W> re = pivot.re, im = pivot.im;
  const Lanes<W> x = re < 0.0 ? -re : re, y = im < 0.0 ? -im : im, size = x > y ? x : y;
  const Lanes<W> r = re / size, i = im / size, squared = (r * r + i * i) * size;
  const Lanes<W> inv_re = r / squared, inv_im = -(i / squared);
  for (int64_t j = p + 1; j < 2 * n; ++j) {
    const ComplexLanes<W> a(row, j);
    ComplexLanes<W> quotient;
    quotient.re = a.re * inv_re - a.im * inv_im;
    quotient.im = a.re * inv_im + a.im * inv_re;
    if (j < n) make_exact<W>(a, pivot, quotient);
    quotient.store(row, j);
  }
}

/// Transforms (B | 1) to (1 | B^-1).
template <int W>
CTESSEL_INLINE void invert(double* b, int64_t n) {
  for (int64_t p = 0; p < n; ++p) {
    choose_pivot<W>(b, n, p);
    double* pivot_row = b + p * 4 * n * ctessel::kVoxels;
    divide_row<W>(pivot_row, n, p);
    for (int64_t i = 0; i < n; ++i) {
      if (i == p) continue;
      double* row = b + i * 4 * n * ctessel::kVoxels;
      const ComplexLanes<W> factor(row, p);
      for (int64_t j = p + 1; j < 2 * n; ++j) {
        const ComplexLanes<W> x(pivot_row, j);
        lane<W>(row, 2 * j) -= factor.re * x.re - factor.im * x.im;
        lane<W>(row, 2 * j + 1) -= factor.re * x.im + factor.im * x.re;
      }
    }
  }
}

/// Stores W complex numbers, real and imaginary parts alternating.
template <int W, std::size_t... I>
CTESSEL_INLINE void store_pairs(const Lanes<W>& re, const Lanes<W>& im, double* out,
                                std::index_sequence<I...>) {
  const Lanes<W> pairs[] = {__builtin_shufflevector(re, im, (I / 2 + I % 2 * W)...),
                            __builtin_shufflevector(re, im, (W / 2 + I / 2 + I % 2 * W)...)};
  std::memcpy(out, pairs, sizeof(pairs));
}

/// U = B^-1 W of alias k for C coils from c on, without Psi as the conjugate of conj(B^-1) S. No sum is -0:
/// nor is it after a change of sign.
template <int W, int C>
CTESSEL_INLINE void apply_to_coils(const Slice& t, int64_t n, int64_t k, int64_t c) {
  ComplexLanes<W> sum[C];
  for (int64_t l = 0; l < n; ++l) {
    ComplexLanes<W> b(t.b, k * 2 * n + n + l);
    b.im *= t.sign;
    for (int i = 0; i < C; ++i) sum[i].add_product(b, {t.w, l * t.nc + c + i});
  }
  for (int i = 0; i < C; ++i) {
    const Lanes<W> re = there<W>(t, k) ? sum[i].re : Lanes<W>{},
                   im = there<W>(t, k) ? t.sign * sum[i].im + 0.0 : Lanes<W>{};
    store_pairs<W>(re, im, t.u + t.u_pitch * ctessel::factor_slot(c + i, n, k),
                   std::make_index_sequence<W>());
  }
}

template <int W>
CTESSEL_INLINE void apply_inverse(const Slice& t, int64_t n) {
  for (int64_t k = 0; k < n; ++k) {
    int64_t c = 0;
    for (; c + 4 <= t.nc; c += 4) apply_to_coils<W, 4>(t, n, k, c);
    for (; c < t.nc; ++c) apply_to_coils<W, 1>(t, n, k, c);
  }
}

/// A = S^H Psi^-1 S, which the inversion uses up.
template <int W>
CTESSEL_INLINE void keep_gram(const Slice& t, int64_t n) {
  double* gram = t.gram(n);
  for (int64_t k = 0; k < n; ++k) {
    for (int64_t j = 0; j < 2 * n; ++j) lane<W>(gram, 2 * k * n + j) = lane<W>(t.b, 4 * k * n + j);
    Lanes<W>& own = lane<W>(gram, 2 * (k * n + k));
    if (!t.plain) {  // afresh: what regularisation adds may be far larger
      own = Lanes<W>{};
      for (int64_t c = k * t.nc; c < (k + 1) * t.nc; ++c) {
        own += lane<W>(t.w, 2 * c) * lane<W>(t.s, 2 * c) -
               t.sign * lane<W>(t.w, 2 * c + 1) * lane<W>(t.s, 2 * c + 1);
      }
    }
    own = there<W>(t, k) ? own : Lanes<W>{};
  }
}

/// Alias k of U Psi U^H = B^-1 A B^-1 and of U S = B^-1 A, on the diagonals.
template <int W>
CTESSEL_INLINE void propagate(const Slice& t, int64_t n, int64_t k, Lanes<W>& variance,
                              Lanes<W>& response) {
  double* inverse = t.b + 2 * (k * 2 * n + n) * ctessel::kVoxels;
  variance = lane<W>(inverse, 2 * k) + 0.0;  // no -0
  response = Lanes<W>{} + 1.0;
  if (t.plain) return;
  variance = Lanes<W>{};
  for (int64_t j = 0; j < n; ++j) {
    ComplexLanes<W> sum;
    for (int64_t l = 0; l < n; ++l) sum.add_product({inverse, l}, {t.gram(n), l * n + j});
    if (j == k) response = sum.re;
    variance += sum.re * lane<W>(inverse, 2 * j) + sum.im * lane<W>(inverse, 2 * j + 1);
  }
}

/// Condition of A without the aliases that have no signal, each of which gets the largest entry of the
/// diagonal there: that lies between the other eigenvalues.
template <int W>
CTESSEL_INLINE void find_condition_of_gram(const Slice& t, int64_t n, Lanes<W>& condition) {
  double* gram = t.gram(n);
  Lanes<W> largest{}, trace{};
  for (int64_t k = 0; k < n; ++k) {
    const Lanes<W>& own = lane<W>(gram, 2 * (k * n + k));
    largest = own > largest ? own : largest;
  }
  for (int64_t k = 0; k < n; ++k) {
    Lanes<W>& own = lane<W>(gram, 2 * (k * n + k));
    own = own == 0.0 ? largest : own;
    trace += own;
  }
  const Lanes<W> scale = 1.0 / trace;
  for (int64_t j = 0; j < 2 * n * n; ++j) lane<W>(gram, j) *= scale;
  ctessel::find_condition<W>(gram, n, t.scratch(n), condition);
}

/// Standard deviation, that of the alias alone, condition and response: 0 without signal.
template <int W>
CTESSEL_INLINE void describe_noise(const Slice& t, int64_t n) {
  for (int64_t k = 0; k < n; ++k) {
    Lanes<W>&sd = lane<W>(t.noise, 4 * k), &alone = lane<W>(t.noise, 4 * k + 1);
    alone = lane<W>(t.gram(n), 2 * (k * n + k));
    propagate<W>(t, n, k, sd, lane<W>(t.noise, 4 * k + 3));
    ctessel::take_root<W>(sd);
  }
  Lanes<W> condition = Lanes<W>{} + 1.0;
  if (n > 1) find_condition_of_gram<W>(t, n, condition);
  for (int64_t k = 0; k < n; ++k) {
    const Mask<W> empty = lane<W>(t.noise, 4 * k + 1) == 0.0;
    Lanes<W>& alone = lane<W>(t.noise, 4 * k + 1);
    ctessel::take_root<W>(alone);
    alone = 1.0 / alone;
    lane<W>(t.noise, 4 * k + 2) = condition;
    for (int64_t j = 4 * k; j < 4 * k + 4; ++j)
      lane<W>(t.noise, j) = empty ? Lanes<W>{} : lane<W>(t.noise, j);
  }
}

/// All steps, with loops of fixed length for up to N aliases.
template <int W, int N>
CTESSEL_INLINE void solve_slice(const Slice& t, int64_t aliases, const float* samples,
                                int64_t pitch) {
  if constexpr (N > 0) {
    if (aliases != N) return solve_slice<W, N - 1>(t, aliases, samples, pitch);
  }
  const int64_t n = N ? N : aliases;
  load<W>(t, n, samples, pitch);
  if (t.psi_inverse) apply_covariance<W>(t, n);
  form<W, N>(t, n);
  if (t.noise) keep_gram<W>(t, n);
  invert<W>(t.b, n);
  apply_inverse<W>(t, n);
}

template <int W>
CTESSEL_INLINE void solve_batch(VoxelBatch& batch, const float* samples, int64_t pitch,
                                std::complex<double>* u, int64_t u_pitch) {
  const auto* psi_inverse = reinterpret_cast<const double*>(batch.psi_inverse);
  for (int64_t first = 0; first < ctessel::kVoxels; first += W) {
    const auto from = [first](auto& entries) {
      return entries.empty() ? nullptr : entries[0].voxel + first;
    };
    const Slice t{batch.coils,
                  from(batch.sensitivity),
                  from(psi_inverse ? batch.weighted : batch.sensitivity),
                  from(batch.matrix),
                  psi_inverse ? 1.0 : -1.0,
                  reinterpret_cast<double*>(u + first),
                  2 * u_pitch,
                  from(batch.regularised),
                  from(batch.present),
                  psi_inverse,
                  from(batch.noise),
                  batch.plain};
    solve_slice<W, 4>(t, batch.aliases, samples + first, pitch);
    if (t.noise) describe_noise<W>(t, batch.aliases);
  }
}

CTESSEL_BY_WIDTH(void solve_here(VoxelBatch& batch, const float* samples, int64_t pitch,
                                 std::complex<double>* u, int64_t u_pitch),
                 solve_batch, (batch, samples, pitch, u, u_pitch))

}  // namespace

ctessel::VoxelBatch::VoxelBatch(int64_t nc, int64_t most, const std::complex<double>* inverse,
                                bool with_noise)
    : coils(nc), psi_inverse(inverse) {
  const auto n = static_cast<std::size_t>(most), entries = entry(most, 0);
  present.resize(n);
  regularised.resize(n);
  sensitivity.resize(entries);
  if (inverse) weighted.resize(entries);
  matrix.resize(4 * n * n);
  if (!with_noise) return;
  noise.resize(10 * n + 2 * n * n);
}

void ctessel::solve(VoxelBatch& batch, const float* samples, int64_t pitch, std::complex<double>* u,
                    int64_t u_pitch) {
  solve_here(batch, samples, pitch, u, u_pitch);
}
