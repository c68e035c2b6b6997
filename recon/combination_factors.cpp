// Unfolding matrices of every folded voxel, on the grid of the sensitivity maps.
//
// Everything but the samples themselves is the same along a row of x, so rows are gathered whole
// and solved eight voxels at a time. The steps in order, for every folded line: gather, prepare,
// solve (unfolding_matrices.cpp), write.

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
#include "unfolding_matrices.h"

namespace {

using ctessel::Corners;
using ctessel::Range;
using std::int64_t;

constexpr int kLanes = ctessel::VoxelBatch::kVoxels;
constexpr int64_t kTile = 256;  // columns gathered at a time: keeps a row's samples in the cache

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
  bool nowhere;  // maps of no samples: an entry of the extents behind the coils is 0
};

// ---- Samples along a row ----

CTESSEL_CLONES
void blend(const float* volume, const Corners& corners, int64_t length, float* out) {
  ctessel::blend_rows<1>(volume, corners, length, out);
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
        batch_(p_.nc, aliases(), p_.psi_inverse) {}

  void run() {
    for (int y = 0; y < p_.y.lines; ++y) {
      for (int z = 0; z < p_.z.lines; ++z) {
        batch_.aliases = int64_t{p_.y.count[y]} * p_.z.count[z];
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
    if (p_.nowhere) return false;
    for (int64_t i = 0; i < width_; ++i) {
      if (p_.im && nearest_row[i] != 0) flags[i] = 1;
      any |= flags[i] != 0;
    }
    return any;
  }

  /// Asks for the rows of the next coil: they lie a volume further, where the processor's own
  /// prefetching does not look.
  void prefetch(const float* map, const Corners& around) const {
    constexpr int64_t kCacheLine = 16;
    for (int r = 0; r < around.count; ++r) {
      for (int64_t i = 0; i < width_; i += kCacheLine) {
        __builtin_prefetch(map + around.offset[r] + i);
      }
    }
  }

  void gather(int y, int z) {
    for (int64_t k = 0; k < batch_.aliases; ++k) {
      if (!include(p_.re + nearest(y, z, k), included_.data() + k * pitch_)) continue;
      const Corners around = corners(y, z, k);
      for (int64_t c = 0; c < p_.nc; ++c) {
        float* out = samples_.data() + 2 * ctessel::factor_slot(c, batch_.aliases, k) * pitch_;
        const int64_t next = c + 1 < p_.nc ? (c + 1) * p_.volume : 0;
        prefetch(p_.re + next, around);
        prefetch(p_.im + next, around);
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
    for (int64_t k = 0; k < batch_.aliases; ++k) {
      const unsigned char* flags = included_.data() + k * pitch_ + i;
      const int64_t at = nearest(y, z, k) + i;
      for (int64_t j = 0; j < kLanes; ++j) {
        const bool there = flags[j] != 0;
        any |= there;
        const auto slot = static_cast<std::size_t>(k);
        batch_.present[slot].voxel[j] = there ? -1 : 0;
        batch_.regularised[slot].voxel[j] = there && p_.lambda != 0 ? regularisation(at + j) : 0.0;
      }
    }
    return any;
  }

  /// Factors of the voxels from column i on, which are `voxel` on of the grid.
  void finish(int64_t i, int64_t voxel, int y, int z) {
    const bool any = prepare(i, y, z);
    if (any) solve(batch_, samples_.data() + i, pitch_);
    const int64_t used = std::min<int64_t>(kLanes, width_ - i);
    for (int64_t c = 0; c < p_.nc; ++c) {
      for (int64_t k = 0; k < batch_.aliases; ++k) {
        auto* out = p_.factors + voxel + ctessel::factor_slot(c, batch_.aliases, k) * p_.grid;
        if (any) {
          std::copy_n(batch_.u(k, c), used, out);
        } else {
          std::fill_n(out, used, 0.0);
        }
      }
    }
  }

  const Problem& p_;
  const int64_t x0_, width_, pitch_;
  std::vector<unsigned char> included_;  // by alias and column
  ctessel::LineVector<float> samples_;   // by slot, part and column
  ctessel::VoxelBatch batch_;
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
                        nx * nyF * nzF,
                        (sens_dims.array() == 0).any()};
  ctessel::for_each_chunk(nx, [&](int64_t begin, int64_t end) {
    for (int64_t x = begin; x < end; x += kTile) {
      Columns(problem, {x, std::min(x + kTile, end)}).run();
    }
  });
  return problem.nowhere && voxels > 0 ? -1 : 1;
}
