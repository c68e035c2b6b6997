// Unfolding matrices of every folded voxel, on the grid of the sensitivity maps.
//
// Everything but the samples themselves is the same along a row of x, so rows are gathered whole
// and the matrices of eight neighbouring voxels are formed and inverted side by side, one voxel per
// vector lane. Each lane does what a voxel on its own would do: results do not depend on where a
// row is cut.

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <complex>
#include <utility>
#include <vector>

#include "cTessel.h"
#include "conversion.h"
#include "dispatch.h"
#include "loops.h"
#include "sense_steps.h"

#define CTESSEL_INLINE __attribute__((always_inline)) inline

namespace {

using ctessel::Corners;
using ctessel::Range;
using std::int64_t;

constexpr int kLanes = 8;
constexpr int64_t kTile = 256;  // columns gathered at a time: keeps a row's samples in the cache

typedef double Lanes __attribute__((vector_size(64), aligned(8), may_alias));
typedef int64_t Mask __attribute__((vector_size(64), aligned(8), may_alias));
typedef float Singles __attribute__((vector_size(32), aligned(4), may_alias));

/// Aliases of every folded line along one axis, on the grid of the maps.
struct Axis {
  int lines, room;
  std::vector<int> count, nearest;
  std::vector<float> coord;
  std::size_t entry(int line, int64_t k) const {
    return static_cast<std::size_t>(int64_t{line} * room + k);
  }
};

Axis list_aliases(int lines, int room, int map_len, int full_len, int fold_len) {
  Axis axis{lines, room, {}, {}, {}};
  const Eigen::VectorXf to_folded = ctessel::even_grid(lines, fold_len - 1, fold_len - 1);
  const Eigen::VectorXf to_map = ctessel::even_grid(full_len, map_len - 1, map_len - 1);
  Eigen::VectorXi positions(room);  // lines beyond its room have no slot among the factors either
  for (int i = 0; i < lines; ++i) {
    const int n = TS_get_unfolded_positions(full_len, fold_len, TS_round(to_folded[i]), positions);
    axis.count.push_back(n);
    for (int k = 0; k < room; ++k) {
      axis.coord.push_back(k < n ? to_map[positions[k]] : -1.0f);
      axis.nearest.push_back(TS_round(axis.coord.back()));
    }
  }
  return axis;
}

Eigen::VectorXf coordinates(const Axis& axis, int line) {
  return Eigen::Map<const Eigen::VectorXf>(axis.coord.data() + line * axis.room, axis.room);
}

/// Puts the lines before the first two jumps into edges, in ascending order.
void record_edges(const Axis& axis, float* edges) {
  int found = 0;
  for (int i = 1; i < axis.lines && found < 2; ++i) {
    if (find_edges(coordinates(axis, i), coordinates(axis, i - 1), axis.count[i], axis.count[i - 1],
                   axis.lines)) {
      edges[found++] = static_cast<float>(i - 1);
    }
  }
}

void sort_edges(float* edges) {
  if (edges[0] > edges[1]) std::swap(edges[0], edges[1]);
}

struct Problem {
  const float *re, *im;
  int64_t nx, ny, nz, nc, volume;
  Axis y, z;
  const std::complex<double>* psi_inverse;  // null for the identity
  double lambda;
  const Eigen::VectorXf& reference;
  std::complex<double>* factors;
  int64_t grid;  // voxels of the factor grid
};

// ---- Samples along a row ----

template <int Rows>
CTESSEL_INLINE void blend_rows(const float* volume, const Corners& corners, int64_t length,
                               float* __restrict out) {
  for (int64_t i = 0; i < length; ++i) {
    double sum = 0;
    for (int r = 0; r < Rows; ++r) sum += corners.weight[r] * volume[corners.offset[r] + i];
    out[i] = static_cast<float>(sum);
  }
}

CTESSEL_CLONES
void blend(const float* volume, const Corners& corners, int64_t length, float* out) {
  switch (corners.count) {
    case 4:
      return blend_rows<4>(volume, corners, length, out);
    case 3:
      return blend_rows<3>(volume, corners, length, out);
    case 2:
      return blend_rows<2>(volume, corners, length, out);
    default:
      return blend_rows<1>(volume, corners, length, out);
  }
}

CTESSEL_CLONES
void take_in_neighbours(float* row, int64_t length) {
  for (int64_t i = 0; i < length; ++i) row[i] += 0.0f * row[i + 1];
}

/// Interpolates `length` samples of a map row, from corners that start at its first sample.
void sample_row(const float* map, int64_t volume, const Corners& corners, int64_t length,
                float* out) {
  blend(map, corners, length, out);
  double past = 0;
  for (int r = 0; r < corners.count; ++r) {
    const int64_t at = corners.offset[r] + length;
    if (at < volume) past += corners.weight[r] * map[at];
  }
  out[length] = static_cast<float>(past);
  // Interpolation has each next sample with weight 0, which shows where that one is not finite.
  take_in_neighbours(out, length);
}

// ---- Matrices of eight voxels ----

/// Arrays of lanes; complex entries are pairs (real, imaginary).
struct Batch {
  int64_t nc, n;
  double *s, *w, *u;          // sensitivities S, W = S^H Psi^-1 and U: entry (k, c) at k nc + c
  double* b;                  // n rows of 2 n entries: the matrix and, once inverted, its inverse
  double* diagonal;           // regularisation, n
  int64_t* present;           // all bits set where an alias takes part, n
  const double* psi_inverse;  // null for the identity
};

CTESSEL_INLINE Lanes& lane(double* p, int64_t i) { return reinterpret_cast<Lanes*>(p)[i]; }
CTESSEL_INLINE Mask& mask(int64_t* p, int64_t i) { return reinterpret_cast<Mask*>(p)[i]; }

/// W = S^H Psi^-1 for C coils from c on.
template <int C>
CTESSEL_INLINE void weight_coils(const Batch& t, int64_t k, int64_t c) {
  Lanes re[C] = {}, im[C] = {};
  for (int64_t d = 0; d < t.nc; ++d) {
    const Lanes x = lane(t.s, 2 * (k * t.nc + d)), y = lane(t.s, 2 * (k * t.nc + d) + 1);
    for (int i = 0; i < C; ++i) {
      const double* p = t.psi_inverse + 2 * ((c + i) * t.nc + d);
      re[i] += x * p[0] + y * p[1];
      im[i] += x * p[1] - y * p[0];
    }
  }
  for (int i = 0; i < C; ++i) {
    lane(t.w, 2 * (k * t.nc + c + i)) = re[i];
    lane(t.w, 2 * (k * t.nc + c + i) + 1) = im[i];
  }
}

CTESSEL_INLINE void weight(const Batch& t, int64_t n) {
  for (int64_t k = 0; k < n; ++k) {
    int64_t c = 0;
    if (!t.psi_inverse) {
      for (; c < t.nc; ++c) {
        lane(t.w, 2 * (k * t.nc + c)) = lane(t.s, 2 * (k * t.nc + c));
        lane(t.w, 2 * (k * t.nc + c) + 1) = -lane(t.s, 2 * (k * t.nc + c) + 1);
      }
    }
    for (; c + 4 <= t.nc; c += 4) weight_coils<4>(t, k, c);
    for (; c < t.nc; ++c) weight_coils<1>(t, k, c);
  }
}

/// b = (W S + R | 1), with a 1 on the diagonal for absent aliases, which then leave the others
/// alone.
CTESSEL_INLINE void form(const Batch& t, int64_t n) {
  for (int64_t k = 0; k < n; ++k) {
    for (int64_t l = 0; l < n; ++l) {
      Lanes re = {}, im = {};
      for (int64_t c = 0; c < t.nc; ++c) {
        const Lanes wr = lane(t.w, 2 * (k * t.nc + c)), wi = lane(t.w, 2 * (k * t.nc + c) + 1);
        const Lanes sr = lane(t.s, 2 * (l * t.nc + c)), si = lane(t.s, 2 * (l * t.nc + c) + 1);
        re += wr * sr - wi * si;
        im += wr * si + wi * sr;
      }
      if (k == l) re = mask(t.present, k) ? re + lane(t.diagonal, k) : Lanes{} + 1.0;
      lane(t.b, 2 * (k * 2 * n + l)) = re;
      lane(t.b, 2 * (k * 2 * n + l) + 1) = im;
      lane(t.b, 2 * (k * 2 * n + n + l)) = Lanes{} + (k == l ? 1.0 : 0.0);
      lane(t.b, 2 * (k * 2 * n + n + l) + 1) = Lanes{};
    }
  }
}

/// Brings the largest remaining entry of column p into row p, each lane for itself.
CTESSEL_INLINE void choose_pivot(double* b, int64_t n, int64_t p) {
  auto norm = [&](int64_t i, Lanes & out) __attribute__((always_inline)) {
    const Lanes re = lane(b, 2 * (i * 2 * n + p)), im = lane(b, 2 * (i * 2 * n + p) + 1);
    out = re * re + im * im;
  };
  Lanes best, candidate;
  norm(p, best);
  for (int64_t i = p + 1; i < n; ++i) {
    norm(i, candidate);
    const Mask swap = candidate > best;
    best = swap ? candidate : best;
    for (int64_t j = 2 * p; j < 4 * n; ++j) {
      Lanes &upper = lane(b, p * 4 * n + j), &lower = lane(b, i * 4 * n + j);
      const Lanes held = upper;
      upper = swap ? lower : upper;
      lower = swap ? held : lower;
    }
  }
}

/// Divides row p by its pivot, scaled so that the pivot's square neither over- nor underflows.
CTESSEL_INLINE void divide_row(double* row, int64_t n, int64_t p) {
  const Lanes re = lane(row, 2 * p), im = lane(row, 2 * p + 1);
  const Lanes x = re < 0.0 ? -re : re, y = im < 0.0 ? -im : im, size = x > y ? x : y;
  const Lanes r = re / size, i = im / size, square = (r * r + i * i) * size;
  const Lanes inv_re = r / square, inv_im = -(i / square);
  for (int64_t j = p; j < 2 * n; ++j) {
    const Lanes a = lane(row, 2 * j), c = lane(row, 2 * j + 1);
    lane(row, 2 * j) = a * inv_re - c * inv_im;
    lane(row, 2 * j + 1) = a * inv_im + c * inv_re;
  }
}

/// Turns (B | 1) into (1 | B^-1). No test for singularity: a pivot of 0 gives NaN throughout.
CTESSEL_INLINE void invert(double* b, int64_t n) {
  for (int64_t p = 0; p < n; ++p) {
    choose_pivot(b, n, p);
    double* pivot_row = b + p * 4 * n * kLanes;
    divide_row(pivot_row, n, p);
    for (int64_t i = 0; i < n; ++i) {
      if (i == p) continue;
      double* row = b + i * 4 * n * kLanes;
      const Lanes fr = lane(row, 2 * p), fi = lane(row, 2 * p + 1);
      for (int64_t j = p + 1; j < 2 * n; ++j) {
        const Lanes xr = lane(pivot_row, 2 * j), xi = lane(pivot_row, 2 * j + 1);
        lane(row, 2 * j) -= fr * xr - fi * xi;
        lane(row, 2 * j + 1) -= fr * xi + fi * xr;
      }
    }
  }
}

/// U = B^-1 W, exactly 0 for absent aliases; lanes are stored as complex numbers.
CTESSEL_INLINE void apply_inverse(const Batch& t, int64_t n) {
  for (int64_t k = 0; k < n; ++k) {
    const Mask there = mask(t.present, k);
    for (int64_t c = 0; c < t.nc; ++c) {
      Lanes re = {}, im = {};
      for (int64_t l = 0; l < n; ++l) {
        const Lanes br = lane(t.b, 2 * (k * 2 * n + n + l)),
                    bi = lane(t.b, 2 * (k * 2 * n + n + l) + 1);
        const Lanes wr = lane(t.w, 2 * (l * t.nc + c)), wi = lane(t.w, 2 * (l * t.nc + c) + 1);
        re += br * wr - bi * wi;
        im += br * wi + bi * wr;
      }
      re = there ? re : Lanes{};
      im = there ? im : Lanes{};
      lane(t.u, 2 * (k * t.nc + c)) = __builtin_shufflevector(re, im, 0, 8, 1, 9, 2, 10, 3, 11);
      lane(t.u, 2 * (k * t.nc + c) + 1) =
          __builtin_shufflevector(re, im, 4, 12, 5, 13, 6, 14, 7, 15);
    }
  }
}

/// Samples of one row of x to doubles, 0 where the alias is absent.
CTESSEL_INLINE void load(const Batch& t, int64_t n, const float* samples, int64_t pitch) {
  for (int64_t c = 0; c < t.nc; ++c) {
    for (int64_t k = 0; k < n; ++k) {
      const float* from = samples + 2 * ctessel::factor_slot(c, n, k) * pitch;
      for (int part = 0; part < 2; ++part) {
        const Singles v = *reinterpret_cast<const Singles*>(from + part * pitch);
        const Lanes wide = __builtin_convertvector(v, Lanes);
        lane(t.s, 2 * (k * t.nc + c) + part) = mask(t.present, k) ? wide : Lanes{};
      }
    }
  }
}

/// All steps, with loops of fixed length where N is not 0.
template <int N>
CTESSEL_INLINE void solve_with(const Batch& t, const float* samples, int64_t pitch) {
  const int64_t n = N ? N : t.n;
  load(t, n, samples, pitch);
  weight(t, n);
  form(t, n);
  invert(t.b, n);
  apply_inverse(t, n);
}

CTESSEL_CLONES
void solve(const Batch& t, const float* samples, int64_t pitch) {
  switch (t.n) {
    case 1:
      return solve_with<1>(t, samples, pitch);
    case 2:
      return solve_with<2>(t, samples, pitch);
    case 3:
      return solve_with<3>(t, samples, pitch);
    case 4:
      return solve_with<4>(t, samples, pitch);
    default:
      return solve_with<0>(t, samples, pitch);
  }
}

// ---- Columns of one thread ----

/// Works through all folded voxels of some columns x.
class Columns {
 public:
  Columns(const Problem& problem, Range columns)
      : p_(problem),
        x0_(columns.begin),
        width_(columns.end - columns.begin),
        pitch_((width_ + kLanes) / kLanes * kLanes + kLanes),
        included_(static_cast<std::size_t>(aliases() * pitch_)),
        samples_(static_cast<std::size_t>(2 * aliases() * p_.nc * pitch_)),
        store_(static_cast<std::size_t>(
            kLanes * (6 * aliases() * p_.nc + 4 * aliases() * aliases() + aliases() + 1))),
        present_(static_cast<std::size_t>(kLanes * aliases())) {
    const int64_t matrix = 2 * aliases() * p_.nc * kLanes;
    batch_ = {p_.nc,
              0,
              store_.data(),
              store_.data() + matrix,
              store_.data() + 2 * matrix,
              store_.data() + 3 * matrix,
              nullptr,
              present_.data(),
              reinterpret_cast<const double*>(p_.psi_inverse)};
    batch_.diagonal = batch_.b + 4 * aliases() * aliases() * kLanes;
  }

  void run() {
    for (int y = 0; y < p_.y.lines; ++y) {
      for (int z = 0; z < p_.z.lines; ++z) {
        batch_.n = int64_t{p_.y.count[y]} * p_.z.count[z];
        gather(y, z);
        const int64_t voxel = x0_ + p_.nx * (y + int64_t{p_.y.lines} * z);
        for (int64_t i = 0; i < width_; i += kLanes) finish(i, voxel + i, y, z);
      }
    }
  }

 private:
  int64_t aliases() const { return int64_t{p_.y.room} * p_.z.room; }

  /// First sample of this thread's columns in the map row nearest to an alias.
  int64_t nearest(int y, int z, int64_t k) const {
    const int64_t ky = k / p_.z.count[z], kz = k % p_.z.count[z];
    return x0_ +
           p_.nx * (p_.y.nearest[p_.y.entry(y, ky)] + p_.ny * p_.z.nearest[p_.z.entry(z, kz)]);
  }

  /// Corners around an alias, from the first of this thread's columns on.
  Corners corners(int y, int z, int64_t k) const {
    const float a = p_.y.coord[p_.y.entry(y, k / p_.z.count[z])];
    const float c = p_.z.coord[p_.z.entry(z, k % p_.z.count[z])];
    const int ia = static_cast<int>(a), ic = static_cast<int>(c);
    const int64_t plane = p_.nx * p_.ny;
    return ctessel::corner_rows(x0_ + p_.nx * ia + plane * ic, p_.nx, plane, p_.volume,
                                static_cast<double>(a) - ia, static_cast<double>(c) - ic);
  }

  /// Flags from the nearest samples of coil 0. Never cleared within a column: an alias once in the
  /// object stays in, so that holes in a map do not tear it.
  bool include(const float* nearest_row, unsigned char* flags) const {
    bool any = false;
    for (int64_t i = 0; i < width_; ++i) {
      if (p_.im && nearest_row[i] != 0) flags[i] = 1;
      any |= flags[i] != 0;
    }
    return any;
  }

  void gather(int y, int z) {
    for (int64_t k = 0; k < batch_.n; ++k) {
      if (!include(p_.re + nearest(y, z, k), included_.data() + k * pitch_)) continue;
      const Corners around = corners(y, z, k);
      for (int64_t c = 0; c < p_.nc; ++c) {
        float* out = samples_.data() + 2 * ctessel::factor_slot(c, batch_.n, k) * pitch_;
        sample_row(p_.re + c * p_.volume, p_.volume, around, width_, out);
        sample_row(p_.im + c * p_.volume, p_.volume, around, width_, out + pitch_);
      }
    }
  }

  double regularisation(int64_t at) const {
    const double expected = at < p_.reference.size() ? p_.reference.data()[at] : 0.0f;
    return expected != 0 ? 1.0 / (std::pow(expected, 2.0) * p_.lambda) : 0.0;
  }

  /// Sets up presence and regularisation of the voxels from column i on; false if all are empty.
  bool prepare(int64_t i, int y, int z) {
    bool any = false;
    for (int64_t k = 0; k < batch_.n; ++k) {
      const unsigned char* flags = included_.data() + k * pitch_ + i;
      const int64_t at = nearest(y, z, k) + i;
      for (int64_t j = 0; j < kLanes; ++j) {
        const bool there = flags[j] != 0;
        any |= there;
        batch_.present[k * kLanes + j] = there ? -1 : 0;
        batch_.diagonal[k * kLanes + j] = there && p_.lambda != 0 ? regularisation(at + j) : 0.0;
      }
    }
    return any;
  }

  void finish(int64_t i, int64_t voxel, int y, int z) {
    const int64_t used = std::min<int64_t>(kLanes, width_ - i);
    const bool any = prepare(i, y, z);
    if (any) solve(batch_, samples_.data() + i, pitch_);
    const auto* u = reinterpret_cast<const std::complex<double>*>(batch_.u);
    for (int64_t c = 0; c < p_.nc; ++c) {
      for (int64_t k = 0; k < batch_.n; ++k) {
        auto* out = p_.factors + voxel + ctessel::factor_slot(c, batch_.n, k) * p_.grid;
        if (any) {
          std::copy_n(u + (k * p_.nc + c) * kLanes, used, out);
        } else {
          std::fill_n(out, used, 0.0);
        }
      }
    }
  }

  const Problem& p_;
  const int64_t x0_, width_, pitch_;
  std::vector<unsigned char> included_;  // by alias and column
  std::vector<float> samples_;           // by slot, part and column
  std::vector<double> store_;
  std::vector<int64_t> present_;
  Batch batch_;
};

/// Number of lines that a reduction leaves of `length`, or of aliases for a length of 1.
int reduced(int length, float by) {
  return ctessel::to_int(std::ceil(static_cast<float>(length) / by));
}

}  // namespace

int find_edges(Eigen::VectorXf a, Eigen::VectorXf b, int na, int nb, int N) {
  if (na != nb) return 1;
  for (int i = 0; i < na; ++i) {
    if (std::abs(a[i] - b[i]) > static_cast<float>(N / 2)) return 1;
  }
  return 0;
}

int get_combination_factors(float* sens_re, float* sens_im, const Eigen::VectorXi& sens_dims,
                            const Eigen::MatrixXcd& psi, const Eigen::Vector3f& reduction,
                            double lambda, const Eigen::VectorXf& reference,
                            Eigen::VectorXcd& factors, Eigen::VectorXi& folded,
                            Eigen::VectorXi full, float* edges_y, float* edges_z) {
  const int64_t nx = sens_dims[0], ny = sens_dims[1], nz = sens_dims[2], nc = sens_dims[3];
  const int cRy = ctessel::to_int(std::ceil(reduction[1]));
  const int cRz = ctessel::to_int(std::ceil(reduction[2]));
  const int nyF = reduced(sens_dims[1], reduction[1]), nzF = reduced(sens_dims[2], reduction[2]);
  // Compared as doubles, which hold the product of any extents.
  const double voxels = static_cast<double>(nx) * nyF * nzF;
  if (psi.rows() != nc || psi.cols() != nc || sens_dims.minCoeff() < 0 ||
      std::min({cRy, cRz, nyF, nzF}) < 0 ||
      static_cast<double>(factors.size()) < voxels * static_cast<double>(nc) * cRy * cRz) {
    return 0;
  }
  const Axis y = list_aliases(nyF, cRy, sens_dims[1], full[1], folded[1]);
  const Axis z = list_aliases(nzF, cRz, sens_dims[2], full[2], folded[2]);
  if (nx > 0) record_edges(y, edges_y);
  if (nx > 0 && nyF > 0) record_edges(z, edges_z);
  sort_edges(edges_y);
  sort_edges(edges_z);
  // The coordinates end at the last row and slice of the maps, so only maps of no coils, which have
  // no sample at all, can be overrun.
  if (nc == 0) return voxels > 0 ? -1 : 1;

  const Eigen::MatrixXcd inverse = Eigen::PartialPivLU<Eigen::MatrixXcd>(psi).inverse();
  const bool identity = inverse == Eigen::MatrixXcd::Identity(psi.rows(), psi.cols());
  const Problem problem{sens_re,
                        sens_im,
                        nx,
                        ny,
                        nz,
                        nc,
                        nx * ny * nz,
                        y,
                        z,
                        identity ? nullptr : inverse.data(),
                        lambda,
                        reference,
                        factors.data(),
                        nx * nyF * nzF};
  ctessel::for_each_chunk(nx, [&](int64_t begin, int64_t end) {
    for (int64_t x = begin; x < end; x += kTile) {
      Columns(problem, {x, std::min(x + kTile, end)}).run();
    }
  });
  return 1;
}
