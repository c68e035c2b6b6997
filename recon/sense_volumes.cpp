// Unfolding of all volumes of a location with factors that are never stored as a whole.
//
// A tile is some columns of pixels. Its factors are formed one folded line at a time and narrowed to
// single precision at the pixels' places. Up to eight lines of them wait, and are then applied to these
// lines of every volume. Lines that lie on the factor grid's own rows need no neighbours: what
// interpolation takes with weight 0 changes nothing as long as it is finite. So tiles are first worked
// on directly, and all once more with every neighbour where something was not finite.

#include "sense_volumes.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "cTessel.h"
#include "conversion.h"
#include "dispatch.h"

namespace {

using ctessel::FactorLines;
using ctessel::Range;
using ctessel::SenseProblem;
using ctessel::VolumePlace;
using std::int64_t;

constexpr int kBlock = 8;              // folded lines whose rows of factors are kept between slices
constexpr int64_t kCache = 700 << 10;  // bytes of a tile, of which the second cache has room
constexpr int64_t kChunk = 16;         // columns whose sums stay in registers
constexpr int64_t kTogether = 4;       // coils that are added to them at once

std::size_t size(int64_t n) { return static_cast<std::size_t>(n); }

CTESSEL_CLONES
void blend(const double* const* rows, const double* weight, int count, int64_t n, double* out) {
  ctessel::blend_rows(rows, weight, count, n, out);
}

/// Factors of consecutive pixels that lie on the factors' own columns.
CTESSEL_CLONES
void narrow(const double* __restrict row, int64_t n, float* __restrict re, float* __restrict im) {
  for (int64_t i = 0; i < n; ++i) {
    re[i] = static_cast<float>(row[2 * i]);
    im[i] = static_cast<float>(row[2 * i + 1]);
  }
}

/// Factors of pixels between columns; `index` counts from the row's start. By pairs: number by number the
/// compiler gathers, which takes three times as long.
CTESSEL_CLONES
void narrow_between(const double* row, const int* index, const double* low, const double* high,
                    int64_t n, float* re, float* im) {
  using Pair [[gnu::vector_size(16), gnu::aligned(8), gnu::may_alias]] = double;
  for (int64_t i = 0; i < n; ++i) {
    const auto* at = reinterpret_cast<const Pair*>(row + int64_t{2} * index[i]);
    const Pair sum = low[i] * at[0] + high[i] * at[1];
    re[i] = static_cast<float>(sum[0]);
    im[i] = static_cast<float>(sum[1]);
  }
}

/// Where the samples begin that are read next, as parts or pairs.
struct Upcoming {
  const float *re, *im;
  int64_t coil, step;  // to the next coil and column
};

/// Adds m v of nc coils, in ascending order, to n columns of u. A row of m follows every `next` floats. What
/// comes next is asked for.
template <bool Whole>
[[gnu::always_inline]] inline void add_coils(const float* m, int64_t next, int64_t im,
                                             const float* const* v_re, const float* const* v_im,
                                             int64_t nc, const Upcoming& ahead, int64_t at,
                                             int64_t n, float* u_re, float* u_im) {
  const int64_t count = Whole ? kChunk : n;
  float re[kChunk], imaginary[kChunk];
  std::copy_n(u_re + at, count, re);
  std::copy_n(u_im + at, count, imaginary);
  for (int64_t c = 0; c < nc; ++c, m += next) {
    const float *a = v_re[c] + at, *b = v_im[c] + at;
    __builtin_prefetch(ahead.re + c * ahead.coil + at * ahead.step);
    __builtin_prefetch(ahead.im + c * ahead.coil + at * ahead.step);
    for (int64_t i = 0; i < count; ++i) {
      re[i] += m[i] * a[i] - m[im + i] * b[i];
      imaginary[i] += m[i] * b[i] + m[im + i] * a[i];
    }
  }
  std::copy_n(re, count, u_re + at);
  std::copy_n(imaginary, count, u_im + at);
}

/// One alias of a line: m has a row of real and, `im` further, one of imaginary parts per coil.
CTESSEL_CLONES
void combine(const float* m, int64_t next, int64_t im, const float* const* v_re,
             const float* const* v_im, int64_t nc, const Upcoming& ahead, int64_t n, float* u_re,
             float* u_im) {
  int64_t at = 0;
  for (; at + kChunk <= n; at += kChunk)
    add_coils<true>(m + at, next, im, v_re, v_im, nc, ahead, at, kChunk, u_re, u_im);
  if (at < n) add_coils<false>(m + at, next, im, v_re, v_im, nc, ahead, at, n - at, u_re, u_im);
}

/// Adds u Psi u^H of n columns, from rows of u as combine() has them. Without psi it is the identity.
template <bool Whole>
[[gnu::always_inline]] inline void add_variance(const float* m, int64_t next, int64_t im,
                                                const double* psi, int64_t nc, int64_t n,
                                                double* out) {
  const int64_t count = Whole ? kChunk : n;
  double sum[kChunk] = {};
  for (int64_t c = 0; c < nc; ++c, psi += psi ? 2 * nc : 0) {
    const float* row = m + c * next;
    double re[kChunk] = {}, imaginary[kChunk] = {};
    for (int64_t d = 0; d < c && psi; ++d) {
      const float* other = m + d * next;
      for (int64_t i = 0; i < count; ++i) {
        re[i] += 2 * (psi[2 * d] * other[i] - psi[2 * d + 1] * other[im + i]);
        imaginary[i] += 2 * (psi[2 * d] * other[im + i] + psi[2 * d + 1] * other[i]);
      }
    }
    const double own = psi ? psi[2 * c] : 1;
    for (int64_t i = 0; i < count; ++i) {
      const double a = row[i], b = row[im + i];
      sum[i] += a * (re[i] + own * a) + b * (imaginary[i] + own * b);
    }
  }
  std::copy_n(sum, count, out);
}

/// Standard deviations of one alias of a line.
CTESSEL_CLONES
void deviations(const float* m, int64_t next, int64_t im, const double* psi, int64_t nc, int64_t n,
                double* out) {
  int64_t at = 0;
  for (; at + kChunk <= n; at += kChunk)
    add_variance<true>(m + at, next, im, psi, nc, kChunk, out + at);
  if (at < n) add_variance<false>(m + at, next, im, psi, nc, n - at, out + at);
  for (int64_t i = 0; i < n; ++i) out[i] = std::sqrt(out[i]);
}

CTESSEL_CLONES
bool all_finite(const float* v, int64_t n) {
  constexpr std::uint32_t kInfinity = 0x7F800000;
  std::uint32_t beyond = 0;
  for (int64_t i = 0; i < n; ++i)
    beyond |= (std::bit_cast<std::uint32_t>(v[i]) & 0x7FFFFFFF) >= kInfinity;
  return beyond == 0;
}

/// 0, or not a number where a value is not finite.
CTESSEL_CLONES
double rest(const double* v, int64_t n) {
  double sum[8] = {};
  for (int64_t i = 0; i + 8 <= n; i += 8)
    for (int64_t j = 0; j < 8; ++j) sum[j] += 0.0 * v[i + j];
  for (int64_t i = n / 8 * 8; i < n; ++i) sum[0] += 0.0 * v[i];
  for (int64_t j = 1; j < 8; ++j) sum[0] += sum[j];
  return sum[0];
}

/// Factors of one row of the factor grid in a tile's columns and, if needed, the one behind them.
struct Line {
  int64_t row = -1, last_use = 0;
  bool finite = true;
  const std::complex<double>* first = nullptr;  // of slots, one every `pitch` numbers
  int64_t pitch = 0;
  ctessel::LineVector<std::complex<double>> own;
  const std::complex<double>* slot(int64_t j) const { return first + j * pitch; }
};

/// Narrowed factors of a folded line's n aliases in a tile's columns, by slot and part; which aliases are
/// in the object, by alias and column, and which are anywhere in the line.
struct Ready {
  int y = 0, z = 0;
  int64_t n = 0;
  ctessel::LineVector<float> m;
  std::vector<unsigned char> mask, present;
};

/// Unfolds some columns x of all volumes, `lines` folded lines of each volume at once: what lies side by
/// side in memory is read so.
class Tile {
 public:
  /// With neighbours, or directly where lines need none. `own`: all pixels of the image are the
  /// factors' own, so that their noise is known already.
  Tile(const SenseProblem& problem, Range columns, int64_t lines, bool between, bool own)
      : p_(problem),
        f_(problem.factors),
        own_(own),
        x0_(columns.begin),
        width_(columns.end - columns.begin),
        coils_(std::min(f_.nc, p_.folded_coils)),
        first_(p_.x.index[size(x0_)]),
        span_(p_.x.index[size(columns.end - 1)] - first_ + 1),
        wraps_(first_ + span_ == f_.nx),
        pitch_(span_ + 1),
        m_pitch_((width_ + kChunk - 1) / kChunk * kChunk),
        rows_(int64_t{f_.y.lines} * f_.z.lines),
        aligned_(is_aligned(p_.x, columns)),
        ready_(size(lines)),
        u_(size(2 * f_.aliases() * width_ * lines)),
        v_(size(p_.folded.x == 1 ? 0 : 2 * kTogether * width_)),
        noise_(size(f_.noise ? 4 * m_pitch_ : 0)),
        sd_(size(f_.noise ? width_ : 0)),
        zeros_(size(width_)) {
    for (int64_t i = x0_; i < columns.end; ++i) {
      const double fraction = p_.x.fraction[size(i)];
      index_.push_back(p_.x.index[size(i)] - static_cast<int>(first_));
      low_.push_back(1 - fraction);
      high_.push_back(fraction);
    }
    for (Ready& line : ready_) {
      line.m.resize(size(2 * f_.slots() * m_pitch_));
      line.mask.resize(size(f_.aliases() * width_));
      line.present.resize(size(f_.aliases()));
    }
    window_.reserve(kWindow);
    if (is_stored()) return;
    lines_.emplace(f_, Range{first_, first_ + span_ + (wraps_ || (aligned_ && !between) ? 0 : 1)});
    if (wraps_ && between) past_.emplace(f_, Range{0, 1});
  }

  /// False if something was not finite: all tiles then have to be unfolded with neighbours.
  bool unfold_directly() {
    Line& line = new_line();
    for (int z = 0; z < p_.z.lines; ++z) {
      for (int y = 0; y < p_.y.lines; ++y) {
        lines_->form(y, z, true, own_slots(line), pitch_);
        if (p_.volumes == 0 && !own_) finite_ &= is_finite(line);  // no image shows it
        finish(y, z, line, true, [&](int64_t j) { return slot(line, j); });
      }
    }
    unfold_volumes();
    return finite_ && lines_->finite();
  }

  /// False if a position lay outside of its volume or had no sample to unfold. A block of lines goes
  /// through all slices: what two slices of it need is kept.
  bool unfold_between() {
    if (reads_next_slot() && wraps_) find_first_samples();
    for (auto* row : {&low_row_, &high_row_, &row_}) row->resize(size(2 * pitch_));
    for (int y = 0; y < p_.y.lines; y += kBlock) {
      const int end = std::min(y + kBlock, p_.y.lines);
      for (int z = 0; z < p_.z.lines; ++z) {
        for (int i = y; i < end; ++i) find_factors(i, z);
      }
    }
    unfold_volumes();
    return inside_;
  }

 private:
  static constexpr std::size_t kWindow = std::size_t{4} * kBlock;
  struct Target {
    int64_t y, slice;  // slices of the second set follow those of the first one
  };

  static bool is_aligned(const ctessel::RowGrid& x, Range columns) {
    bool aligned = x.regular;
    for (int64_t i = columns.begin; i < columns.end; ++i) aligned &= x.fraction[size(i)] == 0;
    return aligned;
  }

  /// A grid of one row per slice counts its corners so that the second row may read one sample of
  /// the next slot.
  bool reads_next_slot() const { return f_.y.lines == 1 && f_.z.lines > 1; }

  const double* slot(const Line& line, int64_t j) const {
    return reinterpret_cast<const double*>(line.slot(j));
  }

  Line& new_line() {
    if (window_.size() < kWindow) return window_.emplace_back();
    return *std::min_element(window_.begin(), window_.end(),
                             [](const Line& a, const Line& b) { return a.last_use < b.last_use; });
  }

  /// A row of the factor grid with the column behind the tile's.
  const Line& need(int64_t row) {
    ++uses_;
    for (Line& line : window_) {
      if (line.row != row) continue;
      line.last_use = uses_;
      return line;
    }
    Line& line = new_line();
    line.row = row;
    line.last_use = uses_;
    is_stored() ? find_stored(line) : form_line(line);
    line.finite = is_finite(line);
    return line;
  }

  /// Whether all factors are finite; noise need not be.
  bool is_finite(const Line& line) const {
    bool finite = true;
    for (int64_t j = 0; j < f_.slots(); ++j) finite &= rest(slot(line, j), 2 * pitch_) == 0;
    return finite;
  }

  std::complex<double>* own_slots(Line& line) const {
    line.own.resize(size(f_.all_slots() * pitch_));
    line.first = line.own.data();
    line.pitch = pitch_;
    return line.own.data();
  }

  void form_line(Line& line) {
    std::complex<double>* slots = own_slots(line);
    std::fill(line.own.begin(), line.own.end(), 0.0);
    form(line.row, *lines_, slots, pitch_);
    if (past_ && line.row + 1 < rows_) form(line.row + 1, *past_, slots + span_, pitch_);
  }

  void form(int64_t row, FactorLines& lines, std::complex<double>* out, int64_t pitch) const {
    lines.form(static_cast<int>(row % f_.y.lines), static_cast<int>(row / f_.y.lines), false, out,
               pitch);
  }

  /// Takes stored factors where they lie. Behind the last row comes nothing; edges that do not fit the
  /// factors lead to rows past it.
  void find_stored(Line& line) {
    const int64_t at = f_.nx * line.row + first_;
    if (line.row + 1 < rows_) {
      line.first = f_.stored.data() + at;
      line.pitch = f_.nx * rows_;
      return;
    }
    std::complex<double>* slots = own_slots(line);
    std::fill(line.own.begin(), line.own.end(), 0.0);
    for (int64_t j = 0; j < f_.slots(); ++j) {
      for (int64_t i = 0; i < (wraps_ ? span_ : pitch_); ++i)
        slots[j * pitch_ + i] = stored(j, at + i);
    }
  }

  bool is_stored() const { return f_.stored.data() != nullptr; }

  /// A sample of a stored slot, 0 behind the last one.
  std::complex<double> stored(int64_t j, int64_t at) const {
    const std::size_t i = size(j * f_.nx * rows_ + at);
    return i < f_.stored.size() ? f_.stored[i] : 0.0;
  }

  void find_first_samples() {
    first_samples_.resize(size(f_.all_slots() + 1));
    if (past_) past_->form(0, 0, false, first_samples_.data(), 1);
    first_samples_[size(f_.slots())] = 0;  // noise is no factor's next slot
    for (int64_t j = 0; is_stored() && j <= f_.slots(); ++j) first_samples_[size(j)] = stored(j, 0);
  }

  void find_factors(int y, int z) {
    const float py = p_.y.coord[size(y)], pz = p_.z.coord[size(z)];
    const int iy = ctessel::to_int(py), iz = ctessel::to_int(pz);
    const double fa = static_cast<double>(py) - iy, fc = static_cast<double>(pz) - iz;
    const ctessel::Corners around =
        ctessel::corner_rows(iy + int64_t{f_.y.lines} * iz, 1, f_.y.lines, rows_, fa, fc);
    const Line* lines[4] = {};
    bool finite = !reads_next_slot();
    for (int r = 0; r < around.count; ++r) {
      lines[r] = &need(around.offset[r]);
      finite &= lines[r]->finite;
    }
    const Line& nearest = need(TS_round(py) + int64_t{f_.y.lines} * TS_round(pz));
    if (finite && around.count > 0 && around.weight[0] == 1) {
      finish(y, z, nearest, finite, [&](int64_t j) { return slot(*lines[0], j); });
    } else if (f_.z.lines == 1) {
      finish(y, z, nearest, finite, [&](int64_t j) {
        return blend_lines(lines, around.weight, around.count, j, low_row_.data());
      });
    } else {
      finish(y, z, nearest, finite,
             [&](int64_t j) { return blend_slices(lines, around, fa, fc, j); });
    }
  }

  /// Whether a slot holds noise, to which neighbours of weight 0 add nothing even where they are not
  /// finite.
  bool is_noise(int64_t j) const { return j >= f_.slots(); }

  const double* blend_lines(const Line* const* lines, const double* weight, int count, int64_t j,
                            double* out) const {
    const double* rows[4];
    double by[4];
    int used = 0;
    for (int r = 0; r < count; ++r) {
      if (is_noise(j) && weight[r] == 0) continue;
      rows[used] = slot(*lines[r], j);
      by[used++] = weight[r];
    }
    blend(rows, by, used, 2 * pitch_, out);
    return out;
  }

  /// Rows of a slot, blended between slices first.
  const double* blend_slices(const Line* const* lines, const ctessel::Corners& around, double fa,
                             double fc, int64_t j) {
    const double between[] = {1 - fc, fc}, rows_weight[] = {1 - fa, fa};
    for (int r = 0; r < 2; ++r) {
      const Line* slices[] = {lines[r], lines[r + 2]};
      blend_lines(slices, between, slices[0] ? 1 + (slices[1] != nullptr) : 0, j,
                  (r == 0 ? low_row_ : high_row_).data());
    }
    if (is_noise(j) && fa == 0) return low_row_.data();
    if (!first_samples_.empty() && around.offset[1] + 1 == rows_) {
      const std::complex<double> next = between[0] * first_samples_[size(j + 1)];
      high_row_[size(2 * span_)] += next.real();
      high_row_[size(2 * span_ + 1)] += next.imag();
    }
    const double* rows[] = {low_row_.data(), high_row_.data()};
    blend(rows, rows_weight, 2, 2 * pitch_, row_.data());
    return row_.data();
  }

  /// Marks the aliases whose factor at the nearest grid point is not 0; false if there is none.
  bool find_present(const Line& nearest, Ready& line) const {
    bool any = false;
    for (int64_t k = 0; k < line.n; ++k) {
      bool here = false;
      for (int64_t i = 0; i < width_; ++i) {
        const int64_t at = p_.x.nearest[size(x0_ + i)] - first_;
        const bool there = nearest.slot(k)[at] != 0.0;
        line.mask[size(k * width_ + i)] = there;
        here |= there;
      }
      line.present[size(k)] = here;
      any |= here;
    }
    return any;
  }

  /// Narrows a folded line's factors, of which `row` gives a slot's, and applies them to all volumes with
  /// those of the lines before. Where all that they are blended from is finite, pixels on the factors'
  /// columns need not look at the next one.
  template <class Row>
  void finish(int y, int z, const Line& nearest, bool finite, const Row& row) {
    if (waiting_ == ready_.size()) unfold_volumes();
    Ready& line = ready_[waiting_];
    line.y = y, line.z = z;
    line.n = ctessel::alias_count(f_.listed, p_.y.count[size(y)], p_.z.count[size(z)]);
    if (!find_present(nearest, line)) return;
    ++waiting_;
    for (int64_t c = 0; c < f_.nc; ++c) {
      for (int64_t k = 0; k < line.n; ++k) {
        if (!line.present[size(k)]) continue;
        const int64_t j = ctessel::factor_slot(c, line.n, k);
        narrow_slot(row(j), finite, line.m.data() + 2 * j * m_pitch_);
      }
    }
    for (int64_t k = 0; k < line.n && f_.noise; ++k) {
      if (!line.present[size(k)]) continue;
      float* m = noise_.data();
      narrow_noise(row(f_.slots() + k), m);
      narrow_noise(row(f_.slots() + f_.aliases() + k), m + 2 * m_pitch_);
      write_noise(line, k, nearest);
    }
  }

  void narrow_slot(const double* row, bool finite, float* out) const {
    if (aligned_ && finite) {
      narrow(row, width_, out, out + m_pitch_);
    } else {
      narrow_between(row, index_.data(), low_.data(), high_.data(), width_, out, out + m_pitch_);
    }
  }

  /// The same of noise, in which pixels on the factors' columns never look at the next one.
  void narrow_noise(const double* row, float* out) const {
    if (aligned_) return narrow(row, width_, out, out + m_pitch_);
    for (int64_t i = 0; i < width_; ++i) {
      const double* at = row + int64_t{2} * index_[size(i)];
      const double low = low_[size(i)], high = high_[size(i)];
      for (int64_t part = 0; part < 2; ++part) {
        out[part * m_pitch_ + i] =
            static_cast<float>(high == 0 ? at[part] : low * at[part] + high * at[part + 2]);
      }
    }
  }

  /// Noise of alias k. Of factors between those of voxels it follows from the factors; g is then that
  /// of the voxels, weighted with what the alias would have alone, and the condition the nearest one's.
  void write_noise(const Ready& line, int64_t k, const Line& nearest) {
    const Target to = target(line, k);
    const float *voxels = noise_.data(), *alone = voxels + m_pitch_,
                *response = alone + 2 * m_pitch_;
    const auto* psi = reinterpret_cast<const double*>(p_.noise.psi);
    if (own_) {
      std::copy_n(voxels, width_, sd_.data());
    } else {
      deviations(line.m.data() + 2 * k * m_pitch_, 2 * line.n * m_pitch_, m_pitch_, psi, f_.nc,
                 width_, sd_.data());
    }
    const std::complex<double>* slots = nearest.slot(f_.slots() + f_.aliases() + k);
    for (int64_t i = 0; i < width_; ++i) {
      if (!line.mask[size(k * width_ + i)]) continue;
      const auto put = [&](const ctessel::BasicVolume<float>& image, double value) {
        if (image.re) image.re[place_of(image, to, i)] = static_cast<float>(value);
      };
      const int64_t column = p_.x.nearest[size(x0_ + i)] - first_;
      put(p_.noise.g, alone[i] == 0 ? 0.0 : voxels[i] / alone[i]);
      put(p_.noise.sd, sd_[size(i)]);
      put(p_.noise.condition, slots[column].real());
      put(p_.noise.response, response[i]);
    }
  }

  /// Unfolds the lines that wait, in every volume: few coils at a time, so that the lines of a coil are read
  /// on, and few pages are in use.
  void unfold_volumes() {
    for (int64_t v = 0; v < p_.volumes; ++v) {
      const bool last = v + 1 == p_.volumes;
      const VolumePlace place = p_.place(v), then = p_.place(last ? 0 : v + 1);
      std::fill(u_.begin(), u_.end(), 0.0f);
      for (int64_t c = 0; c < coils_; c += kTogether) {
        for (std::size_t i = 0; i < waiting_; ++i) {
          const int y = ready_[i].y, next = last ? y + static_cast<int>(ready_.size()) : y;
          load_folded(place, y, ready_[i].z, c);
          add_coils(ready_[i], c, upcoming(then, std::min(next, p_.y.lines - 1), ready_[i].z, c),
                    image(i));
        }
      }
      for (std::size_t i = 0; i < waiting_ && coils_ > 0; ++i) deliver(ready_[i], image(i), place);
      inside_ &= coils_ > 0 || waiting_ == 0;
    }
    if (p_.volumes > 0) finite_ &= all_finite(u_.data(), static_cast<int64_t>(u_.size()));
    waiting_ = 0;
  }

  /// Of line i that waits: rows of both parts, by alias.
  float* image(std::size_t i) { return u_.data() + i * size(2 * f_.aliases() * width_); }

  /// Adds what the loaded coils, from `first` on, contribute to a line.
  void add_coils(const Ready& line, int64_t first, Upcoming ahead, float* u) const {
    for (int64_t k = 0; k < line.n; ++k) {
      if (!line.present[size(k)]) continue;
      const float* m = line.m.data() + 2 * ctessel::factor_slot(first, line.n, k) * m_pitch_;
      combine(m, 2 * line.n * m_pitch_, m_pitch_, v_re_, v_im_, std::min(kTogether, coils_ - first),
              ahead, width_, u + 2 * k * width_, u + (2 * k + 1) * width_);
      ahead.coil = ahead.step = 0;  // once is enough
    }
  }

  Upcoming upcoming(const VolumePlace& place, int y, int z, int64_t coil) const {
    const ctessel::Volume& f = p_.folded;
    const int64_t at = place.in + x0_ * f.x + y * f.y + z * f.z + coil * f.coil;
    const bool parts = f.im && f.im != f.re + 1;  // of pairs sixteen columns lie in two cache lines
    return {f.re + at, (parts ? f.im : f.re + kChunk) + at, f.coil, f.x};
  }

  void load_folded(const VolumePlace& place, int y, int z, int64_t first) {
    const ctessel::Volume& f = p_.folded;
    int64_t at = place.in + x0_ * f.x + y * f.y + z * f.z + first * f.coil;
    for (int64_t c = 0; c < std::min(kTogether, coils_ - first); ++c, at += f.coil) {
      const float *re = f.re + at, *im = f.im ? f.im + at : nullptr;
      if (f.x != 1) {
        float* copy = v_.data() + 2 * c * width_;
        ctessel::load_row(re, im, f.x, width_, copy, copy + width_);
        re = copy;
        im = copy + width_;
      }
      v_re_[c] = re;
      v_im_[c] = im ? im : zeros_.data();
    }
  }

  /// Floats to column i of the tile.
  int64_t place_of(const ctessel::BasicVolume<float>& image, const Target& at, int64_t i) const {
    return (x0_ + i) * image.x + image.line(at.y, at.slice, p_.full_z);
  }

  /// Full line and slice of alias k.
  Target target(const Ready& line, int64_t k) const {
    const ctessel::AliasEntries of = ctessel::alias_entries(f_.listed, k, p_.z.count[size(line.z)]);
    return {p_.y.full[size(int64_t{line.y} * p_.y.room + of.y)],
            p_.z.full[size(int64_t{line.z} * p_.z.room + of.z)]};
  }

  void deliver(const Ready& line, const float* image, const VolumePlace& place) {
    const auto first = [&](int64_t position) {
      const Target to = target(line, position);
      return x0_ + p_.full_x * (to.y + p_.full_y * (to.slice % p_.full_z));
    };
    const auto put = [&](int64_t k, int64_t position, int64_t i, int64_t count) {
      const Target to = target(line, position);
      const int64_t at = place.out + place_of(p_.out, to, i);
      const float* u = image + 2 * k * width_ + i;
      ctessel::store_row(
          u, u + width_,
          {p_.out.re + at, p_.out.im ? p_.out.im + at : nullptr,
           static_cast<std::ptrdiff_t>(p_.out.x), static_cast<std::ptrdiff_t>(count)});
    };
    inside_ &= ctessel::deliver(line.n, width_, place.room, line.mask.data(), first, put);
  }

  const SenseProblem& p_;
  const ctessel::FactorProblem& f_;
  const bool own_;
  const int64_t x0_, width_;
  const int64_t coils_;         // that have both maps and samples
  const int64_t first_, span_;  // factor columns that the tile's columns span
  const bool wraps_;            // the column behind them is the next row's first
  const int64_t pitch_, m_pitch_, rows_;
  const bool aligned_;                       // pixels lie on the factors' columns
  std::optional<FactorLines> lines_, past_;  // where factors are formed
  std::vector<Line> window_;
  int64_t uses_ = 0;
  bool finite_ = true, inside_ = true;
  std::vector<int> index_;
  ctessel::LineVector<double> low_, high_, low_row_, high_row_, row_;
  std::vector<std::complex<double>> first_samples_;  // of every slot
  std::vector<Ready> ready_;
  std::size_t waiting_ = 0;  // of these
  ctessel::LineVector<float> u_, v_;
  const float *v_re_[kTogether], *v_im_[kTogether];
  ctessel::LineVector<float> noise_;  // of an alias: both slots, narrowed
  ctessel::LineVector<double> sd_;
  const std::vector<float> zeros_;
};

/// Columns whose samples, factors and narrowed factors fit the cache, and of how many lines the narrowed
/// ones do.
struct TileSize {
  int64_t width, lines = 1;
  explicit TileSize(const SenseProblem& p) {
    const double ratio = static_cast<double>(p.factors.nx) / static_cast<double>(p.nx);
    const auto slots = static_cast<double>(std::max<int64_t>(p.factors.slots(), 1));
    const double formed = 24 * ratio, narrowed = 8;  // bytes of a slot and column
    const auto columns = static_cast<int64_t>(kCache / (slots * (formed + narrowed)));
    width = std::clamp<int64_t>(columns / kChunk * kChunk, kChunk, 1024);
    if (p.volumes < 2) return;  // lines that wait would only take room
    const double each = kCache / (slots * static_cast<double>(std::min(width, p.nx)));
    lines = static_cast<int64_t>(std::clamp((each - formed) / narrowed, 1.0, 1.0 * kBlock));
  }
};

/// Whether lines lie on the factors' own and need no neighbours, nor the last column one behind it.
bool needs_no_neighbours(const SenseProblem& p) {
  // Every column of factors must be some pixel's nearest: what is not finite shows in that pixel.
  const std::vector<int>& nearest = p.x.nearest;
  const auto skips = [](int a, int b) { return b > a + 1; };
  bool whole = nearest.front() == 0 && nearest.back() + 1 == p.factors.nx &&
               std::ranges::adjacent_find(nearest, skips) == nearest.end() &&
               p.factors.y.same_grid && p.factors.z.same_grid;
  for (const auto& [axis, lines] :
       {std::pair(&p.y, p.factors.y.lines), {&p.z, p.factors.z.lines}}) {
    whole &= axis->lines == lines;
    for (int i = 0; i < axis->lines; ++i) whole &= axis->coord[size(i)] == static_cast<float>(i);
  }
  return whole && (p.x.fraction.back() == 0 || p.x.index.back() + 1 < p.factors.nx);
}

/// Work on every tile, with neighbours or directly; false where one of them says so.
template <class Work>
bool for_each_tile(const SenseProblem& p, bool between, bool own, const Work& work) {
  const TileSize tile_size(p);
  std::atomic<bool> all = true;
  ctessel::for_each_chunk(p.nx, [&](int64_t begin, int64_t end) {
    for (int64_t x = begin; x < end; x += tile_size.width) {
      Tile tile(p, {x, std::min(x + tile_size.width, end)}, tile_size.lines, between, own);
      if (!work(tile)) all = false;
    }
  });
  return all;
}

}  // namespace

bool ctessel::unfold_volumes(const SenseProblem& p) {
  const bool direct = needs_no_neighbours(p);
  const bool own =
      direct && p.x.regular && std::ranges::all_of(p.x.fraction, [](double f) { return f == 0; });
  return (direct && for_each_tile(p, false, own, std::mem_fn(&Tile::unfold_directly))) ||
         for_each_tile(p, true, own, std::mem_fn(&Tile::unfold_between));
}
