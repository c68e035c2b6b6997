// Unfolding of one multi-coil volume with interpolated combination factors.
//
// Rows of x are the innermost loops. Factors are read slot by slot for a block of folded lines that
// have their aliases in common: the rows of a slot are blended between slices once, then between
// rows for each line, interpolated along x, and multiplied with the folded samples of their coil
// while they are in the cache. Each pixel adds its coils up in ascending order.

#include <algorithm>
#include <cmath>
#include <complex>
#include <utility>
#include <vector>

#include "cTessel.h"
#include "conversion.h"
#include "dispatch.h"
#include "loops.h"
#include "row_interpolation.h"
#include "sense_steps.h"

namespace {

using ctessel::Corners;
using ctessel::Range;
using ctessel::RowGrid;
using ctessel::UnfoldAxis;
using std::int64_t;

constexpr int64_t kTile = 256;  // columns at a time: keeps the rows in work in the first cache
constexpr int kBlock = 8;       // folded lines at a time

struct Problem {
  const float *fold_re, *fold_im;
  int64_t nx, ny, nz, nc;
  const std::complex<double>* factors;
  int64_t factor_count;
  int64_t fx, fy, fz, voxels;
  int64_t X, Y;
  float *out_re, *out_im;
  int64_t out_size;
  UnfoldAxis y, z;
  RowGrid x;
};

CTESSEL_CLONES
void blend(const double* slot, const Corners& corners, int64_t length, double* out) {
  const double* rows[4];
  for (int r = 0; r < corners.count; ++r) rows[r] = slot + 2 * corners.offset[r];
  ctessel::blend_rows(rows, corners.weight, corners.count, 2 * length, out);
}

/// u += M v along a row whose pixels have consecutive factors; weights come in equal pairs.
CTESSEL_CLONES
void apply_regular(const double* __restrict row, const double* __restrict low,
                   const double* __restrict high, const float* __restrict v_re,
                   const float* __restrict v_im, int64_t length, float* __restrict m,
                   float* __restrict u_re, float* __restrict u_im) {
  for (int64_t i = 0; i < 2 * length; ++i) {
    m[i] = static_cast<float>(low[i] * row[i] + high[i] * row[i + 2]);
  }
  for (int64_t i = 0; i < length; ++i) {
    u_re[i] += m[2 * i] * v_re[i] - m[2 * i + 1] * v_im[i];
    u_im[i] += m[2 * i] * v_im[i] + m[2 * i + 1] * v_re[i];
  }
}

/// The same for pixels between arbitrary factors; `index` counts from the row's start.
CTESSEL_CLONES
void apply_between(const double* __restrict row, const int* __restrict index,
                   const double* __restrict low, const double* __restrict high,
                   const float* __restrict v_re, const float* __restrict v_im, int64_t length,
                   float* __restrict u_re, float* __restrict u_im) {
  for (int64_t i = 0; i < length; ++i) {
    const double* at = row + 2 * index[i];
    const float re = static_cast<float>(low[2 * i] * at[0] + high[2 * i] * at[2]);
    const float im = static_cast<float>(low[2 * i] * at[1] + high[2 * i] * at[3]);
    u_re[i] += re * v_re[i] - im * v_im[i];
    u_im[i] += re * v_im[i] + im * v_re[i];
  }
}

/// A folded line in work.
struct Line {
  int y;
  double fraction;  // between its two rows
  double slice_fraction;
  Corners around;       // rows of a slot around it, of both slices
  int64_t low, high;    // the same rows among those blended between slices
  unsigned char* mask;  // by alias and column
  float* u;             // by alias, part and column
};

/// Unfolds some columns x.
class Columns {
 public:
  Columns(const Problem& problem, Range columns)
      : p_(problem),
        x0_(columns.begin),
        width_(columns.end - columns.begin),
        first_(p_.x.index[size(x0_)]),
        span_(p_.x.index[size(columns.end - 1)] - first_ + 1),
        row_(size(2 * (span_ + 1))),
        blended_(size(2 * kBlock * 2 * span_)),
        matrix_(size(2 * width_)),
        u_(size(kBlock * 2 * room() * width_)),
        mask_(size(kBlock * room() * width_)),
        zeros_(size(width_)) {
    for (int64_t i = x0_; i < columns.end; ++i) {
      const double f = p_.x.fraction[size(i)];
      index_.push_back(p_.x.index[size(i)] - static_cast<int>(first_));
      low_.insert(low_.end(), 2, 1 - f);
      high_.insert(high_.end(), 2, f);
    }
    block_.reserve(kBlock);
    rows_.reserve(2 * kBlock);
  }

  /// False if a position fell outside its volume.
  bool run() {
    bool inside = true;
    for (int y = 0; y < p_.y.lines;) {
      int end = y + 1;
      while (end < p_.y.lines && end < y + kBlock && p_.y.count[size(end)] == p_.y.count[size(y)]) {
        ++end;
      }
      for (int z = 0; z < p_.z.lines; ++z) inside &= unfold_block(y, end, z);
      y = end;
    }
    return inside;
  }

 private:
  static std::size_t size(int64_t n) { return static_cast<std::size_t>(n); }
  int64_t room() const { return int64_t{p_.y.room} * p_.z.room; }

  bool unfold_block(int begin, int end, int z) {
    n_ = int64_t{p_.y.count[size(begin)]} * p_.z.count[size(z)];
    start_block(begin, end, z);
    if (block_.empty()) return true;
    if (p_.nc < 1) return false;  // no sample to unfold
    std::fill(u_.begin(), u_.end(), 0.0f);
    for (int64_t c = 0; c < p_.nc; ++c) {
      for (int64_t k = 0; k < n_; ++k) apply_slot(c, k, z);
    }
    bool inside = true;
    for (const Line& line : block_) inside &= deliver(line, z);
    return inside;
  }

  /// Lists the lines that have an alias present, and the rows of a slot around them.
  void start_block(int begin, int end, int z) {
    block_.clear();
    rows_.clear();
    for (int y = begin; y < end; ++y) {
      const int64_t at = static_cast<int64_t>(block_.size()) * room() * width_;
      const float py = p_.y.coord[size(y)];
      Line line{y,
                static_cast<double>(py) - ctessel::to_int(py),
                slice_fraction(z),
                corners(y, z),
                0,
                0,
                mask_.data() + at,
                u_.data() + 2 * at};
      if (!find_present(line, z)) continue;
      line.low = row_number(line.around.offset[0]);
      line.high = row_number(line.around.offset[1]);
      block_.push_back(line);
    }
  }

  /// Place of a row among the block's.
  int64_t row_number(int64_t offset) {
    const auto known = std::find(rows_.begin(), rows_.end(), offset);
    const int64_t number = known - rows_.begin();
    if (known == rows_.end()) rows_.push_back(offset);
    return number;
  }

  /// Marks the aliases whose factor at the nearest grid point is not 0; false if there is none.
  bool find_present(const Line& line, int z) {
    const int64_t row =
        TS_round(p_.y.coord[size(line.y)]) * p_.fx + TS_round(p_.z.coord[size(z)]) * p_.fx * p_.fy;
    bool any = false;
    for (int64_t k = 0; k < n_; ++k) {
      for (int64_t i = 0; i < width_; ++i) {
        const int64_t at = row + k * p_.voxels + p_.x.nearest[size(x0_ + i)];
        const bool there = at >= 0 && at < p_.factor_count && p_.factors[at] != 0.0;
        line.mask[k * width_ + i] = there;
        any |= there;
      }
    }
    return any;
  }

  Corners corners(int y, int z) const {
    const float py = p_.y.coord[size(y)], pz = p_.z.coord[size(z)];
    const int iy = ctessel::to_int(py), iz = ctessel::to_int(pz);
    return ctessel::corner_rows(first_ + p_.fx * (iy + p_.fy * iz), p_.fx, p_.fx * p_.fy, p_.voxels,
                                static_cast<double>(py) - iy, static_cast<double>(pz) - iz);
  }

  double slice_fraction(int z) const {
    return static_cast<double>(p_.z.coord[size(z)]) - ctessel::to_int(p_.z.coord[size(z)]);
  }

  /// Blends the block's rows of a slot between slice and next slice.
  void blend_slices(const double* slot, int z) {
    const double fc = slice_fraction(z);
    for (std::size_t r = 0; r < rows_.size(); ++r) {
      Corners slices{{rows_[r], rows_[r] + p_.fx * p_.fy}, {1 - fc, fc}, 0};
      while (slices.count < 2 && slices.offset[slices.count] < p_.voxels) ++slices.count;
      blend(slot, slices, span_, blended_.data() + size(2 * span_) * r);
    }
  }

  /// Interpolates slot j between rows, with the sample after the last one of a row.
  void blend_lines(int64_t j, const Line& line, bool between_slices) {
    if (between_slices) {
      const Corners rows{
          {line.low * span_, line.high * span_}, {1 - line.fraction, line.fraction}, 2};
      blend(blended_.data(), rows, span_, row_.data());
    } else {
      blend(reinterpret_cast<const double*>(p_.factors + j * p_.voxels), line.around, span_,
            row_.data());
    }
    const std::complex<double> past = sample_past(j, line, between_slices);
    row_[size(2 * span_)] = past.real();
    row_[size(2 * span_ + 1)] = past.imag();
  }

  /// The sample after the last one of a row, which may be the next row's first. Blended in the same
  /// order as the others, so that results do not depend on where a thread's columns end.
  std::complex<double> sample_past(int64_t j, const Line& line, bool between_slices) const {
    const auto at = [&](int r) { return past_of_corner(j, line.around, r); };
    if (!between_slices) return line.around.weight[0] * at(0) + line.around.weight[1] * at(1);
    const double fa = line.fraction, ga = 1 - fa, fc = line.slice_fraction, gc = 1 - fc;
    return ga * (gc * at(0) + fc * at(2)) + fa * (gc * at(1) + fc * at(3));
  }

  std::complex<double> past_of_corner(int64_t j, const Corners& around, int r) const {
    // A grid of one row per slice counts its corners so that the second row may read one sample
    // of the next slot.
    const int64_t at = around.offset[r] + span_;
    const bool inside =
        r < around.count && (at < p_.voxels || (r == 1 && p_.fy == 1 && around.count > 2));
    return inside && j * p_.voxels + at < p_.factor_count ? p_.factors[j * p_.voxels + at] : 0.0;
  }

  /// u += M v of the block's lines for coil c and alias k.
  void apply_slot(int64_t c, int64_t k, int z) {
    const int64_t j = ctessel::factor_slot(c, n_, k);
    const bool between_slices = p_.fz > 1;
    if (between_slices) {
      blend_slices(reinterpret_cast<const double*>(p_.factors + j * p_.voxels), z);
    }
    for (const Line& line : block_) {
      blend_lines(j, line, between_slices);
      const int64_t at = x0_ + p_.nx * (line.y + p_.ny * (z + p_.nz * c));
      const float* v_re = p_.fold_re + at;
      const float* v_im = p_.fold_im ? p_.fold_im + at : zeros_.data();
      float *u_re = line.u + 2 * k * width_, *u_im = u_re + width_;
      if (p_.x.regular) {
        apply_regular(row_.data(), low_.data(), high_.data(), v_re, v_im, width_, matrix_.data(),
                      u_re, u_im);
      } else {
        apply_between(row_.data(), index_.data(), low_.data(), high_.data(), v_re, v_im, width_,
                      u_re, u_im);
      }
    }
  }

  /// Output position of alias k at this thread's first column.
  int64_t target(int y, int z, int64_t k) const {
    const int nz = p_.z.count[size(z)];
    return x0_ + p_.X * (p_.y.full[size(y * p_.y.room + k / nz)] +
                         p_.Y * p_.z.full[size(z * p_.z.room + k % nz)]);
  }

  bool deliver(const Line& line, int z) {
    const auto first = [&](int64_t position) { return target(line.y, z, position); };
    const auto put = [&](int64_t k, int64_t position, int64_t i, int64_t count) {
      const float* u = line.u + 2 * k * width_ + i;
      std::copy_n(u, count, p_.out_re + first(position) + i);
      std::copy_n(u + width_, count, p_.out_im + first(position) + i);
    };
    return ctessel::deliver(n_, width_, p_.out_size, line.mask, first, put);
  }

  const Problem& p_;
  const int64_t x0_, width_, first_, span_;  // columns, and the factor samples they span
  int64_t n_ = 0;                            // aliases of the lines in work
  std::vector<Line> block_;
  std::vector<int64_t> rows_;  // offsets of the rows around the block's lines
  std::vector<int> index_;
  ctessel::LineVector<double> low_, high_, row_, blended_;
  ctessel::LineVector<float> matrix_, u_;
  std::vector<unsigned char> mask_;
  const std::vector<float> zeros_;
};

}  // namespace

ctessel::UnfoldAxis ctessel::list_lines(int folded_len, int full_len, int room, int factor_len,
                                        const float* edges) {
  UnfoldAxis axis{folded_len, room, {}, {}, {}};
  float compartments[] = {-1, -1};
  if (folded_len > 0) get_compartments(full_len, folded_len, compartments);
  const Eigen::VectorXf plain = even_grid(folded_len, factor_len - 1, 0);
  Eigen::VectorXi lines(room);
  for (int i = 0; i < folded_len; ++i) {
    axis.count.push_back(TS_get_unfolded_positions(full_len, folded_len, i, lines));
    axis.full.insert(axis.full.end(), lines.begin(), lines.end());
    const float at = static_cast<float>(pos2interpolate(plain[i], i, compartments, edges));
    axis.coord.push_back(at < 0 ? 0 : at);
  }
  return axis;
}

std::vector<int> ctessel::listed_lines(int folded_len, int full_len,
                                       const std::vector<int>& offsets) {
  std::vector<int> lines;
  const int64_t first = (int64_t{full_len} - folded_len + 1) / 2;
  for (int i = 0; i < folded_len; ++i) {
    for (int offset : offsets) {
      const int64_t line = (first + i + offset) % full_len;
      lines.push_back(static_cast<int>(line < 0 ? line + full_len : line));
    }
  }
  return lines;
}

ctessel::RowGrid ctessel::row_grid(int folded_len, int factor_len) {
  RowGrid grid{{}, {}, {}, folded_len == factor_len};
  const Eigen::VectorXf plain = even_grid(folded_len, factor_len - 1, 0);
  for (float x : plain) {
    x = x < 0 ? 0 : x;
    grid.index.push_back(to_int(x));
    grid.nearest.push_back(TS_round(x));
    grid.fraction.push_back(static_cast<double>(x) - grid.index.back());
    grid.regular &= grid.index.back() + 1 == static_cast<int>(grid.index.size());
  }
  return grid;
}

int ctessel::most_aliases(int full_len, int folded_len) {
  if (folded_len < 1) return 0;
  return to_int(std::ceil(static_cast<float>(full_len) / static_cast<float>(folded_len)));
}

int unfold(float* fold_re, float* fold_im, Eigen::VectorXi& fold4, Eigen::VectorXcd& factors,
           Eigen::VectorXi& factor_dims, Eigen::VectorXi& /*sens4*/, Eigen::VectorXi full_size,
           float* edges_y, float* edges_z, float* out_re, float* out_im) {
  const int64_t fx = factor_dims[0], fy = factor_dims[1], fz = factor_dims[2], nc = fold4[3];
  if (std::min({fx, fy, fz}) < 1 || fold4.minCoeff() < 0 || full_size.minCoeff() < 0) return 1;
  // Aliases along z that the factors have no slot for are left out: data of two dimensions are
  // unfolded with one slice however many the full size names.
  const int64_t voxels = fx * fy * fz, slots = factors.size() / voxels;
  const int Ay = ctessel::most_aliases(full_size[1], fold4[1]);
  const int64_t room_z = slots / std::max<int64_t>(1, std::max<int64_t>(1, nc) * Ay);
  const int Az =
      static_cast<int>(std::min<int64_t>(ctessel::most_aliases(full_size[2], fold4[2]), room_z));
  const Problem problem{fold_re,
                        fold_im,
                        fold4[0],
                        fold4[1],
                        fold4[2],
                        nc,
                        factors.data(),
                        factors.size(),
                        fx,
                        fy,
                        fz,
                        voxels,
                        full_size[0],
                        full_size[1],
                        out_re,
                        out_im,
                        int64_t{full_size[0]} * full_size[1] * full_size[2],
                        ctessel::list_lines(fold4[1], full_size[1], Ay, factor_dims[1], edges_y),
                        ctessel::list_lines(fold4[2], full_size[2], Az, factor_dims[2], edges_z),
                        ctessel::row_grid(fold4[0], factor_dims[0])};
  int status = 1;
  ctessel::for_each_chunk(problem.nx, [&](int64_t begin, int64_t end) {
    for (int64_t x = begin; x < end; x += kTile) {
      if (Columns(problem, {x, std::min(x + kTile, end)}).run()) continue;
#pragma omp atomic write
      status = -1;
    }
  });
  return status;
}
