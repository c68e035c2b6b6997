// Gathers the samples of a folded line's aliases, eight voxels of a row to a batch, and solves them.
//
// Everything but the samples themselves is the same along a row of x, so rows are gathered whole.
// The steps in order: gather, prepare, solve (unfolding_matrices.cpp), deliver.

#include "factor_lines.h"

#include <Eigen/LU>
#include <algorithm>
#include <climits>
#include <cmath>

#include "cTessel.h"
#include "conversion.h"
#include "dispatch.h"

namespace {

using std::int64_t;

constexpr int kLanes = ctessel::kVoxels;
constexpr int kNever = INT_MAX;

std::size_t size(int64_t n) { return static_cast<std::size_t>(n); }

ctessel::AliasAxis list_aliases(int lines, int room, int map_len, int full_len, int fold_len) {
  ctessel::AliasAxis axis{lines, room, {}, {}, {}, map_len == full_len && lines == fold_len};
  int listed = 0;
  const Eigen::VectorXf to_folded = ctessel::even_grid(lines, fold_len - 1, fold_len - 1);
  const Eigen::VectorXf to_map = ctessel::even_grid(full_len, map_len - 1, map_len - 1);
  Eigen::VectorXi positions(room);  // lines beyond its room have no slot among the factors either
  for (int i = 0; i < lines; ++i) {
    const int n = TS_get_unfolded_positions(full_len, fold_len, TS_round(to_folded[i]), positions);
    axis.count.push_back(n);
    listed += n;
    for (int k = 0; k < room; ++k) {
      axis.coord.push_back(k < n ? to_map[positions[k]] : -1.0f);
      axis.nearest.push_back(TS_round(axis.coord.back()));
    }
  }
  axis.same_grid &= listed == full_len;
  return axis;
}

void take_list(ctessel::AliasAxis& axis, const std::vector<int>& lines) {
  axis.room = static_cast<int>(lines.size() / size(axis.lines));
  axis.count.assign(size(axis.lines), axis.room);
  axis.nearest = lines;
  axis.coord.assign(lines.begin(), lines.end());
}

Eigen::VectorXf coordinates(const ctessel::AliasAxis& axis, int line) {
  return Eigen::Map<const Eigen::VectorXf>(axis.coord.data() + int64_t{line} * axis.room,
                                           axis.room);
}

/// Puts the lines before the first two jumps into edges, in ascending order.
void find_jumps(const ctessel::AliasAxis& axis, float* edges) {
  int found = 0;
  for (int i = 1; i < axis.lines && found < 2; ++i) {
    if (find_edges(coordinates(axis, i), coordinates(axis, i - 1), axis.count[size(i)],
                   axis.count[size(i - 1)], axis.lines)) {
      edges[found++] = static_cast<float>(i - 1);
    }
  }
}

/// Number of lines that a reduction leaves of `length`.
int reduced(int length, float by) {
  return ctessel::to_int(std::ceil(static_cast<float>(length) / by));
}

CTESSEL_CLONES
void blend(const float* const* rows, const double* weight, int count, int64_t n, float* out) {
  ctessel::blend_rows(rows, weight, count, n, out);
}

CTESSEL_CLONES
void take_in_neighbours(float* row, int64_t length) {
  for (int64_t i = 0; i < length; ++i) row[i] += 0.0f * row[i + 1];
}

/// Copies a row as interpolation with whole coordinates does: -0 becomes 0.
CTESSEL_CLONES
void take(const float* __restrict from, int64_t n, float* __restrict out, float* __restrict met) {
  for (int64_t i = 0; i < n; ++i) {
    out[i] = from[i] + 0.0f;
    met[i] += 0.0f * from[i];
  }
}

CTESSEL_CLONES
void note_first(const float* __restrict row, int64_t n, int line, int* __restrict first) {
  for (int64_t i = 0; i < n; ++i) {
    const int found = row[i] != 0 ? line : kNever;
    first[i] = first[i] < found ? first[i] : found;
  }
}

}  // namespace

ctessel::FactorProblem::FactorProblem(const Eigen::VectorXi& sens_dims, const Eigen::MatrixXcd& psi,
                                      const Eigen::Vector3f& reduction,
                                      const Eigen::VectorXi& folded, const Eigen::VectorXi& full)
    : nx(sens_dims[0]),
      ny(sens_dims[1]),
      nz(sens_dims[2]),
      nc(sens_dims[3]),
      y(list_aliases(reduced(sens_dims[1], reduction[1]), to_int(std::ceil(reduction[1])),
                     sens_dims[1], full[1], folded[1])),
      z(list_aliases(reduced(sens_dims[2], reduction[2]), to_int(std::ceil(reduction[2])),
                     sens_dims[2], full[2], folded[2])),
      nowhere((sens_dims.array() == 0).any()) {
  if (nc == 0) return;
  psi_inverse = Eigen::PartialPivLU<Eigen::MatrixXcd>(psi).inverse();
  if (psi_inverse == Eigen::MatrixXcd::Identity(psi.rows(), psi.cols())) psi_inverse.resize(0, 0);
}

void ctessel::FactorProblem::list(const std::vector<int>& offsets_y,
                                  const std::vector<int>& offsets_z, int64_t number) {
  const auto of_sets = [&](int lines, int64_t full, const std::vector<int>& offsets, int64_t next) {
    std::vector<int> found;
    for (int i = 0; i < lines; ++i) {
      for (int64_t set = 0; set < number; ++set) {
        for (int line : listed_lines(i, lines, static_cast<int>(full), offsets))
          found.push_back(line + static_cast<int>(set * next));
      }
    }
    return found;
  };
  take_list(y, of_sets(y.lines, ny, offsets_y, 0));
  take_list(z, of_sets(z.lines, nz, offsets_z, nz));
  sets = number;
  listed = true;
}

void ctessel::FactorProblem::record_edges(float* edges_y, float* edges_z) const {
  if (nx > 0) find_jumps(y, edges_y);
  if (nx > 0 && y.lines > 0) find_jumps(z, edges_z);
  for (float* e : {edges_y, edges_z}) {
    if (e[0] > e[1]) std::swap(e[0], e[1]);
  }
}

ctessel::FactorLines::FactorLines(const FactorProblem& problem, Range columns)
    : p_(problem),
      x0_(columns.begin),
      width_(columns.end - columns.begin),
      pitch_((width_ + kLanes) / kLanes * kLanes + kLanes),
      first_(size(p_.aliases() * pitch_), kNever),
      included_(first_.size()),
      met_(size(pitch_)),
      zeros_(size(pitch_)),
      samples_(size(2 * p_.slots() * pitch_)),
      scratch_(size(8 * pitch_)),
      last_(size(p_.slots() * kLanes)),
      batch_(p_.nc, p_.aliases(), p_.psi_inverse.size() ? p_.psi_inverse.data() : nullptr,
             p_.noise) {
  batch_.plain = p_.lambda == 0;
  if (!p_.mask.re && p_.maps.im && !p_.nowhere) find_first();
}

/// Floats from a volume's first sample to this thread's columns in a row, row after row and plane after plane.
int64_t ctessel::FactorLines::offset(int64_t row) const {
  return x0_ * p_.maps.x + p_.maps.line(row % p_.ny, row / p_.ny, p_.nz);
}

/// n samples of a map row, where they lie or, if that is not side by side, as a copy.
ctessel::FactorLines::Parts ctessel::FactorLines::row(int64_t row, int64_t c, int64_t n,
                                                      int scratch) {
  const int64_t at = offset(row) + c * p_.maps.coil;
  const float *re = p_.maps.re + at, *im = p_.maps.im ? p_.maps.im + at : nullptr;
  if (p_.maps.x == 1) return {re, im ? im : zeros_.data()};
  float* copy = scratch_.data() + 2 * pitch_ * scratch;
  load_row(re, im, p_.maps.x, n, copy, copy + pitch_);
  return {copy, copy + pitch_};
}

/// The sample after the columns, which behind the last one is the next row's first; null behind the
/// last row.
ctessel::FactorLines::Parts ctessel::FactorLines::past(int64_t row, int64_t c) const {
  const bool wraps = x0_ + width_ == p_.nx;
  if (wraps && row + 1 == p_.ny * p_.nz * p_.sets) return {nullptr, nullptr};
  const int64_t at = c * p_.maps.coil +
                     (wraps ? offset(row + 1) - x0_ * p_.maps.x : offset(row) + width_ * p_.maps.x);
  return {p_.maps.re + at, p_.maps.im ? p_.maps.im + at : zeros_.data()};
}

/// Finds the line from which on each alias is in the object: the first whose nearest sample of coil
/// 0 has a real part. It stays in for all later lines of its column, so that holes in a map do not
/// tear the object.
void ctessel::FactorLines::find_first() {
  for (int y = 0; y < p_.y.lines; ++y) {
    if (std::find(first_.begin(), first_.end(), kNever) == first_.end()) return;
    for (int z = 0; z < p_.z.lines; ++z) {
      const int64_t n = p_.count(y, z);
      for (int64_t k = 0; k < n; ++k) {
        const FactorProblem::Entries at = p_.entries(y, z, k);
        const int64_t nearest = p_.y.nearest[at.y] + p_.ny * p_.z.nearest[at.z];
        note_first(row(nearest, 0, width_, 0).re, width_, y * p_.z.lines + z,
                   first_.data() + k * pitch_);
      }
    }
  }
}

/// Which voxels of a line have alias k in the object; false if none.
bool ctessel::FactorLines::include(int y, int z, int64_t k) {
  unsigned char* flags = included_.data() + k * pitch_;
  const int* first = first_.data() + k * pitch_;
  const int line = y * p_.z.lines + z;
  const float* mask = p_.mask.re;
  if (mask) {
    const FactorProblem::Entries at = p_.entries(y, z, k);
    mask += x0_ * p_.mask.x + p_.mask.line(p_.y.nearest[at.y], p_.z.nearest[at.z], p_.nz);
  }
  bool any = false;
  for (int64_t i = 0; i < width_; ++i) {
    flags[i] = !p_.nowhere && (mask ? mask[i * p_.mask.x] != 0 : first[i] <= line);
    any |= flags[i] != 0;
  }
  return any;
}

/// Asks for a row of the next coil: it lies a volume further, where the processor's own prefetching
/// does not look.
void ctessel::FactorLines::prefetch(int64_t row, int64_t c) const {
  constexpr int64_t kCacheLine = 16;
  if (p_.maps.x != 1) return;
  const int64_t at = offset(row) + (c + 1 < p_.nc ? c + 1 : 0) * p_.maps.coil;
  for (const float* part : {p_.maps.re, p_.maps.im}) {
    for (int64_t i = 0; part && i < width_; i += kCacheLine) __builtin_prefetch(part + at + i);
  }
}

/// Interpolates a coil's maps at an alias.
void ctessel::FactorLines::interpolate(const Corners& around, int64_t c, float* out) {
  for (int r = 0; r < around.count; ++r) prefetch(around.offset[r], c);
  const float *re[4], *im[4];
  double past_re = 0, past_im = 0;
  for (int r = 0; r < around.count; ++r) {
    const Parts parts = row(around.offset[r], c, width_, r), next = past(around.offset[r], c);
    re[r] = parts.re;
    im[r] = parts.im;
    if (!next.re) continue;
    past_re += around.weight[r] * *next.re;
    past_im += around.weight[r] * *next.im;
  }
  blend(re, around.weight, around.count, width_, out);
  blend(im, around.weight, around.count, width_, out + pitch_);
  out[width_] = static_cast<float>(past_re);
  out[pitch_ + width_] = static_cast<float>(past_im);
  // Interpolation has each next sample with weight 0, which shows where that one is not finite.
  take_in_neighbours(out, width_);
  take_in_neighbours(out + pitch_, width_);
}

void ctessel::FactorLines::gather(int y, int z) {
  for (int64_t k = 0; k < batch_.aliases; ++k) {
    if (!include(y, z, k)) continue;
    const FactorProblem::Entries at = p_.entries(y, z, k);
    const float a = p_.y.coord[at.y], c = p_.z.coord[at.z];
    const int ia = static_cast<int>(a), ic = static_cast<int>(c);
    const Corners around = corner_rows(ia + p_.ny * ic, 1, p_.ny, p_.ny * p_.nz * p_.sets,
                                       static_cast<double>(a) - ia, static_cast<double>(c) - ic);
    for (int64_t coil = 0; coil < p_.nc; ++coil) {
      interpolate(around, coil,
                  samples_.data() + 2 * factor_slot(coil, batch_.aliases, k) * pitch_);
    }
  }
}

void ctessel::FactorLines::gather_direct(int y, int z) {
  const int next = y + 1 < p_.y.lines ? y + 1 : y;
  const int64_t more = std::min(batch_.aliases, p_.count(next, z));
  for (int64_t k = 0; k < batch_.aliases; ++k) {
    const FactorProblem::Entries of = p_.entries(y, z, k), then = p_.entries(next, z, k);
    const int64_t at = p_.y.nearest[of.y] + p_.ny * p_.z.nearest[of.z];
    const int64_t upcoming = p_.y.nearest[then.y] + p_.ny * p_.z.nearest[then.z];
    include(y, z, k);
    for (int64_t c = 0; c < p_.nc; ++c) {
      if (k < more) prefetch(upcoming, c - 1);
      const Parts parts = row(at, c, width_, 0);
      float* out = samples_.data() + 2 * factor_slot(c, batch_.aliases, k) * pitch_;
      take(parts.re, width_, out, met_.data());
      take(parts.im, width_, out + pitch_, met_.data());
    }
  }
}

bool ctessel::FactorLines::finite() const {
  return std::none_of(met_.begin(), met_.end(), [](float v) { return v != 0; });
}

double ctessel::FactorLines::regularisation(int y, int z, int64_t k, int64_t i) const {
  const FactorProblem::Entries of = p_.entries(y, z, k);
  const int64_t row = p_.y.nearest[of.y], slice = p_.z.nearest[of.z], x = x0_ + i;
  if (x + p_.nx * (row + p_.ny * (slice % p_.nz)) >= p_.expected_size) return 0;
  const Volume& e = p_.expected;
  const int64_t at = x * e.x + e.line(row, slice, p_.nz);
  const double re = e.re[at], im = e.im ? e.im[at] : 0.0f;
  const double expected = static_cast<float>(std::sqrt(re * re + im * im));
  return expected != 0 ? 1.0 / (std::pow(expected, 2.0) * p_.lambda) : 0.0;
}

/// Sets up presence and regularisation of the voxels from column i on; false if all are empty.
bool ctessel::FactorLines::prepare(int64_t i, int y, int z) {
  unsigned char any = 0;
  for (int64_t k = 0; k < batch_.aliases; ++k) {
    const unsigned char* flags = included_.data() + k * pitch_ + i;
    for (int64_t j = 0; j < kLanes; ++j) {
      any |= flags[j];
      batch_.present[size(k)].voxel[j] = -int64_t{flags[j]};
      if (p_.lambda == 0) continue;
      batch_.regularised[size(k)].voxel[j] = flags[j] != 0 ? regularisation(y, z, k, i + j) : 0.0;
    }
  }
  return any != 0;
}

/// Factors of the voxels from column i on.
void ctessel::FactorLines::finish(int64_t i, int y, int z, std::complex<double>* out,
                                  int64_t pitch) {
  const bool any = prepare(i, y, z), whole = i + kLanes <= width_;
  std::complex<double>* to = whole ? out + i : last_.data();
  if (any) solve(batch_, samples_.data() + i, pitch_, to, whole ? pitch : kLanes);
  for (int64_t j = 0; j < p_.nc * batch_.aliases && !(any && whole); ++j) {
    const int64_t used = std::min<int64_t>(kLanes, width_ - i);
    if (any) {
      std::copy_n(to + j * kLanes, used, out + j * pitch + i);
    } else {
      std::fill_n(out + j * pitch + i, used, 0.0);
    }
  }
  if (p_.noise) finish_noise(i, any, out + p_.slots() * pitch + i, pitch);
}

void ctessel::FactorLines::finish_noise(int64_t i, bool any, std::complex<double>* out,
                                        int64_t pitch) const {
  const int64_t used = std::min<int64_t>(kLanes, width_ - i);
  for (int64_t k = 0; k < batch_.aliases; ++k) {
    const VoxelBatch::Entry* of = &batch_.noise[size(4 * k)];
    for (int64_t pair = 0; pair < 2; ++pair, of += 2) {
      std::complex<double>* to = out + (pair * p_.aliases() + k) * pitch;
      for (int64_t j = 0; j < used; ++j) {
        to[j] = any ? std::complex<double>(of[0].voxel[j], of[1].voxel[j]) : 0.0;
      }
    }
  }
}

void ctessel::FactorLines::form(int y, int z, bool direct, std::complex<double>* out,
                                int64_t pitch) {
  batch_.aliases = p_.count(y, z);
  direct ? gather_direct(y, z) : gather(y, z);
  for (int64_t i = 0; i < width_; i += kLanes) finish(i, y, z, out, pitch);
}
