// Unfolding matrices of one folded line after another, for some columns x on the grid of the maps.
#pragma once

#include <Eigen/Core>
#include <complex>
#include <cstdint>
#include <span>
#include <vector>

#include "loops.h"
#include "row_interpolation.h"
#include "samples.h"
#include "sense_steps.h"
#include "unfolding_matrices.h"

namespace ctessel {

/// An array on the grid of the maps or images, and its steps from sample to sample. im may be null.
template <class Float>
struct BasicVolume {
  Float *re = nullptr, *im = nullptr;
  std::int64_t x = 1, y = 0, z = 0, coil = 0, set = 0;
  /// Floats to line y of slice z. Slices of the second set follow the nz of the first one.
  std::int64_t line(std::int64_t row, std::int64_t slice, std::int64_t nz) const {
    return row * y + slice % nz * z + slice / nz * set;
  }
};
using Volume = BasicVolume<const float>;

/// n samples of a row to parts without gaps.
inline void load_row(const float* re, const float* im, std::int64_t step, std::int64_t n,
                     float* to_re, float* to_im) {
  load_row({re, im, static_cast<std::ptrdiff_t>(step), static_cast<std::ptrdiff_t>(n)}, to_re,
           to_im);
}

/// Aliases of every folded line along one axis, on the grid of the maps.
struct AliasAxis {
  int lines, room;
  std::vector<int> count, nearest;
  std::vector<float> coord;
  bool same_grid;  // aliases are the maps' own lines, each of which belongs to one folded line
  std::size_t entry(int line, std::int64_t k) const {
    return static_cast<std::size_t>(std::int64_t{line} * room + k);
  }
};

/// What the factors of one location are made of.
struct FactorProblem {
  FactorProblem(const Eigen::VectorXi& sens_dims, const Eigen::MatrixXcd& psi,
                const Eigen::Vector3f& reduction, const Eigen::VectorXi& folded,
                const Eigen::VectorXi& full);
  /// Factors that are there already.
  FactorProblem(const Eigen::VectorXcd& factors, const Eigen::VectorXi& dims, std::int64_t coils,
                int room_y, int room_z)
      : nx(dims[0]),
        ny(0),
        nz(0),
        nc(coils),
        y{dims[1], room_y, {}, {}, {}, false},
        z{dims[2], room_z, {}, {}, {}, false},
        nowhere(true),
        stored(factors.data(), static_cast<std::size_t>(factors.size())) {}
  /// Takes aliases from lists of offsets; the maps must have the image's lines along both axes. Those
  /// of all sets follow each other.
  void list(const std::vector<int>& offsets_y, const std::vector<int>& offsets_z,
            std::int64_t sets);
  std::int64_t aliases() const { return alias_count(listed, y.room, z.room); }
  /// Aliases of a folded line.
  std::int64_t count(int line_y, int line_z) const {
    return alias_count(listed, y.count[static_cast<std::size_t>(line_y)],
                       z.count[static_cast<std::size_t>(line_z)]);
  }
  /// Entries of alias k among the axes' lists.
  struct Entries {
    std::size_t y, z;
  };
  Entries entries(int line_y, int line_z, std::int64_t k) const {
    const AliasEntries of = alias_entries(listed, k, z.count[static_cast<std::size_t>(line_z)]);
    return {y.entry(line_y, of.y), z.entry(line_z, of.z)};
  }
  std::int64_t slots() const { return aliases() * nc; }
  /// Slots of a line, with two for the noise of every alias behind those of the factors.
  std::int64_t all_slots() const { return slots() + (noise ? 2 * aliases() : 0); }
  void record_edges(float* edges_y, float* edges_z) const;

  std::int64_t nx, ny, nz, nc, sets = 1;
  AliasAxis y, z;
  bool listed = false;
  bool nowhere;  // maps of no samples: an entry behind the coils is 0
  std::span<const std::complex<double>> stored = {};  // instead of maps
  Eigen::MatrixXcd psi_inverse;                       // empty for the identity
  Volume maps;
  Volume mask;      // without: the rule of coil 0's real parts
  Volume expected;  // magnitude, of complex or real values
  std::int64_t expected_size = 0;
  double lambda = 0;
  bool noise = false;  // whether lines also hold the noise of the aliases
};

/// Works through folded voxels of some columns x, which are all of one row.
class FactorLines {
 public:
  FactorLines(const FactorProblem& problem, Range columns);

  /// Factors of folded line (y, z): slot j of column i goes to out[j pitch + i]. Slots that the
  /// line does not have stay as they are. With noise, slot slots() + k holds the standard deviation of
  /// alias k and what it would be alone as the two parts of a number, slot slots() + aliases() + k
  /// condition and response. With `direct`, maps and images must have one grid, and
  /// samples that interpolation takes with weight 0 are left out: the same if all are finite.
  void form(int y, int z, bool direct, std::complex<double>* out, std::int64_t pitch);

  /// Whether every sample that the direct lines have met was finite.
  bool finite() const;

 private:
  struct Parts {
    const float *re, *im;
  };
  std::int64_t offset(std::int64_t row) const;
  Parts row(std::int64_t row, std::int64_t c, std::int64_t n, int scratch);
  Parts past(std::int64_t row, std::int64_t c) const;
  void prefetch(std::int64_t row, std::int64_t c) const;
  void find_first();
  bool include(int y, int z, std::int64_t k);
  void gather(int y, int z);
  void gather_direct(int y, int z);
  void interpolate(const Corners& around, std::int64_t c, float* out);
  double regularisation(int y, int z, std::int64_t k, std::int64_t i) const;
  bool prepare(std::int64_t i, int y, int z);
  void finish(std::int64_t i, int y, int z, std::complex<double>* out, std::int64_t pitch);
  void finish_noise(std::int64_t i, bool any, std::complex<double>* out, std::int64_t pitch) const;

  const FactorProblem& p_;
  const std::int64_t x0_, width_, pitch_;
  std::vector<int> first_;               // by alias and column: the line that brings it in
  std::vector<unsigned char> included_;  // by alias and column, of the line in work
  std::vector<float> met_, zeros_;       // 0, or NaN for a column with a sample that is not finite
  LineVector<float> samples_, scratch_;  // by slot, part and column
  LineVector<std::complex<double>> last_;  // factors of the last columns where they fill no batch
  VoxelBatch batch_;
};

}  // namespace ctessel
