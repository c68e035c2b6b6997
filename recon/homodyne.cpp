// Homodyne reconstruction of partial-Fourier data: weighting, symmetric centre, removal of a
// low-resolution phase.
//
// Noll, Nishimura, Macovski, IEEE Trans. Med. Imaging 10:154 (1991).

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <utility>

#include "cTessel.h"
#include "conversion.h"
#include "dispatch.h"
#include "simd.h"
#include "weighting.h"

namespace ctessel {

namespace {

using std::ptrdiff_t;

/// Position of line k on an axis of n samples, or 0 where the filter does not look for lines: beyond
/// the axis and on its very last line.
ptrdiff_t position_of(std::int64_t k, int n) {
  const int first = -(n / 2), last = n - n / 2 - 1;
  return k >= first && k < last ? static_cast<ptrdiff_t>(k) - first : 0;
}

float homodyne_weight(ptrdiff_t n, ptrdiff_t start, ptrdiff_t centre, ptrdiff_t mirror) {
  const double t = static_cast<double>(n - centre) / static_cast<double>(mirror - centre);
  if (n >= centre && n < mirror) return static_cast<float>(1 + t * t);
  if (n > start && n < centre) return static_cast<float>(2 - (t * t + 1));
  return n >= mirror ? 2.0f : 0.0f;
}

}  // namespace

std::optional<Positions> homodyne_weights(int n, const LineRange& sampled, float* weights) {
  const std::int64_t first = to_int(sampled.first), last = to_int(sampled.last);
  const double extent = static_cast<double>(2 * std::max(first, last) + 1);
  const double fraction = static_cast<double>(last - first + 1) / extent;
  if (!(fraction >= 0.55 && fraction < 1.0)) return {};
  const ptrdiff_t start = position_of(first, n), mirror = position_of(-first, n),
                  centre = position_of(0, n);
  for (int i = 0; weights && i < n; ++i) weights[i] = homodyne_weight(i, start, centre, mirror);
  return Positions{start, mirror};
}

HomodyneAxis homodyne_axis(int n, const std::optional<LineRange>& sampled) {
  // Of the values as given, before they are truncated; false for one that is not a number.
  const bool tried = sampled && std::abs(sampled->first + sampled->last) > 1;
  if (!tried) return {false, false, {0, n - 1}};
  const auto kept = homodyne_weights(n, *sampled, nullptr);
  return {true, kept.has_value(), kept.value_or(Positions{0, 0})};
}

void homodyne_centre(const ConstSamples& kspace, const LineRanges& sampled, const Samples& centre) {
  ConstSamples middle = kspace;
  for (int d = 0; d < std::min(3, kspace.ndim()); ++d) {
    const Positions kept =
        homodyne_axis(static_cast<int>(kspace.extent(Dim(d))), sampled[static_cast<std::size_t>(d)])
            .kept;
    middle = middle.slice(Dim(d), kept.first, kept.count());
  }
  copy(middle, centre);
}

// ---- Weighting ----------------------------------------------------------------------------------

namespace {

/// Weights of the three axes, 1 along those without, and the exponent of their product.
struct Roots {
  std::vector<float> w[3];
  int filtered = 0;

  Roots(const ConstSamples& kspace, const LineRanges& sampled) {
    for (std::size_t d = 0; d < 3; ++d) {
      const auto n = static_cast<int>(kspace.extent(Dim(d)));
      w[d].assign(static_cast<std::size_t>(n), 1.0f);
      if (!homodyne_axis(n, sampled[d]).weighted) continue;
      homodyne_weights(n, *sampled[d], w[d].data());
      ++filtered;
    }
  }

  float exponent() const { return static_cast<float>(1.0 / filtered); }
};

/// F-th roots of the products along one run. Neighbours often are alike: no new root then.
void fill_run(const Roots& roots, const WeightRows& rows, const std::array<ptrdiff_t, 3>& at,
              float* out) {
  const float *x = roots.w[0].data() + at[0], *y = roots.w[1].data() + at[1],
              *z = roots.w[2].data() + at[2];
  const ptrdiff_t sx = rows.run == 0, sy = rows.run == 1, sz = rows.run == 2;
  float last = 1.0f, root = 1.0f;
  for (ptrdiff_t i = 0; i < rows.n; ++i) {
    const double wx = x[i * sx], wy = y[i * sy], wz = z[i * sz];
    const float product = static_cast<float>(wx * wy * wz);
    if (product != last) {
      last = product;
      root = std::pow(product, roots.exponent());
    }
    out[i] = root;
  }
}

void fill(const Roots& roots, const WeightRows& rows, float* out) {
  std::array<ptrdiff_t, 3> at{rows.first[0], rows.first[1], rows.first[2]};
  const float* along = roots.w[rows.next].data();
  auto& next = at[static_cast<std::size_t>(rows.next)];
  for (ptrdiff_t j = 0; j < rows.rows; ++j, ++next, out += rows.n) {
    if (j > 0 && along[next] == along[next - 1]) {
      std::copy_n(out - rows.n, rows.n, out);  // plateaus
    } else {
      fill_run(roots, rows, at, out);
    }
  }
}

}  // namespace

void homodyne_filter(const ConstSamples& kspace, const LineRanges& sampled, const Samples& out) {
  require_same_extents(kspace, out, "homodyne_filter: kspace and out");
  require_same_kind(kspace, out, "homodyne_filter: kspace and out");
  const Roots roots(kspace, sampled);
  if (roots.filtered > 0) {
    const auto rows = [&](const WeightRows& r, float* w) { fill(roots, r, w); };
    apply_weights(kspace, out, {rows}, Share::volumes);
  } else if (kspace.re != out.re) {  // every weight is 1
    copy(kspace, out);
  }
}

// ---- Removal of a phase -------------------------------------------------------------------------

namespace {

/// d = Re(d conj(L) / |L|), each product and the difference in double. A missing imaginary part of
/// L counts nothing in the magnitude; a missing one of the data takes the sine's term away. Steps, where
/// they are not 0, and parts are known when compiled, so that the usual layouts are read and written
/// as whole vectors.
template <int DataStep, bool DataComplex, int LowStep, bool LowComplex>
CTESSEL_INLINE void project(const Row& data, const ConstRow& low) {
  const ptrdiff_t d = DataStep ? DataStep : data.step, l = LowStep ? LowStep : low.step;
  float *dr = data.re, *di = DataStep == 2 ? dr + 1 : data.im;
  const float *lr = low.re, *li = LowStep == 2 ? lr + 1 : low.im;
#pragma omp simd  // L can be the data itself, sample for sample; other overlaps are copied before
  for (ptrdiff_t i = 0; i < data.n; ++i) {
    const double re = lr[l * i], im = LowComplex ? li[l * i] : 0.0f;
    const double magnitude = std::sqrt(re * re + im * im);
    const double c = re / magnitude, s = LowComplex ? -im / magnitude : 0.0;
    const double along = c * dr[d * i];
    dr[d * i] = static_cast<float>(DataComplex ? along - s * di[d * i] : along);
    if (DataComplex) di[d * i] = 0.0f;
  }
}

bool in_pairs(const ConstRow& r) { return r.step == 2 && r.im == r.re + 1; }

template <int DataStep, bool DataComplex>
CTESSEL_INLINE void project_onto(const Row& data, const ConstRow& low) {
  if (in_pairs(low)) return project<DataStep, DataComplex, 2, true>(data, low);
  if (low.im && low.step == 1) return project<DataStep, DataComplex, 1, true>(data, low);
  if (low.im) return project<DataStep, DataComplex, 0, true>(data, low);
  project<DataStep, DataComplex, 0, false>(data, low);
}

CTESSEL_CLONES void project_row(const Row& data, const ConstRow& low) {
  if (!data.im) return project_onto<0, false>(data, low);
  if (data.step == 2 && data.im == data.re + 1) return project_onto<2, true>(data, low);
  if (data.step == 1) return project_onto<1, true>(data, low);
  project_onto<0, true>(data, low);
}

CTESSEL_CLONES ptrdiff_t count_nan_of(const ConstRow& row) {
  ptrdiff_t count = 0;
#pragma omp simd reduction(+ : count)
  for (ptrdiff_t i = 0; i < row.n; ++i) count += row.re[row.step * i] != row.re[row.step * i];
  return count;
}

ConstSamples copy_of(const ConstSamples& s, std::vector<float>& store) {
  const auto n = static_cast<std::size_t>(s.size());
  store.resize(s.im ? 2 * n : n);
  const Samples own = Samples::parts(store.data(), s.im ? store.data() + n : nullptr, s.extents);
  copy(s, own);
  return own;
}

/// Samples beyond the third axis, merged.
ptrdiff_t volumes_of(const ConstSamples& s) {
  return static_cast<ptrdiff_t>(merged_outer(s.ndim(), s.extents.data()));
}

void remove_same_phase(const Samples& image, const ConstSamples& low) {
  const JointRows rows(image, low);
  const ptrdiff_t volumes = volumes_of(image), samples = image.size() / volumes;
  for_each_chunk(volumes, [&](std::int64_t begin, std::int64_t end) {
    rows.visit(samples * static_cast<ptrdiff_t>(begin), samples * static_cast<ptrdiff_t>(end),
               project_row);
  });
}

/// Where the samples of the data's axis lie on the low-resolution axis.
struct Grid {
  std::vector<ptrdiff_t> index;
  std::vector<double> fraction;

  Grid(ptrdiff_t low, ptrdiff_t n) {
    const std::unique_ptr<float[]> q(
        TS_linspace(0.0f, static_cast<float>(low - 1), static_cast<int>(n)));
    for (ptrdiff_t i = 0; i < n; ++i) {
      const int whole = static_cast<int>(q[static_cast<std::size_t>(i)]);
      index.push_back(whole);
      fraction.push_back(static_cast<double>(q[static_cast<std::size_t>(i)]) - whole);
    }
  }
};

/// One part of the four rows around a row, spread onto the grid along x: the samples at the first ends
/// of the intervals, then those at the second ends.
struct Spread {
  const float* ends[4];
  float* out;
};

/// The eight corners in the order of TS_linear_interpolation, their weights multiplied as there.
template <int Parts>
CTESSEL_INLINE void sum_corners(const Spread* parts, const double* fraction, double fa, double fc,
                                ptrdiff_t n) {
  const double ga = 1 - fa, gc = 1 - fc;
#pragma omp simd
  for (ptrdiff_t i = 0; i < n; ++i) {
    const double fb = fraction[i], gb = 1 - fb;
    const double rows[] = {gb * ga, fb * ga, gb * fa, fb * fa};
    for (int p = 0; p < Parts; ++p) {
      const auto& ends = parts[p].ends;
      double sum = 0;
      sum += rows[0] * gc * ends[0][i];
      sum += rows[1] * gc * ends[0][n + i];
      sum += rows[2] * gc * ends[1][i];
      sum += rows[3] * gc * ends[1][n + i];
      sum += rows[0] * fc * ends[2][i];
      sum += rows[1] * fc * ends[2][n + i];
      sum += rows[2] * fc * ends[3][i];
      sum += rows[3] * fc * ends[3][n + i];
      parts[p].out[i] = static_cast<float>(sum);
    }
  }
}

CTESSEL_CLONES void interpolate_row(const Spread* parts, bool complex, const double* fraction,
                                    double fa, double fc, ptrdiff_t n) {
  if (complex) return sum_corners<2>(parts, fraction, fa, fc, n);
  sum_corners<1>(parts, fraction, fa, fc, n);
}

CTESSEL_CLONES void pick(const float* from, ptrdiff_t step, const ptrdiff_t* index, float* out,
                         ptrdiff_t n) {
#pragma omp simd
  for (ptrdiff_t i = 0; i < n; ++i) out[i] = from[step * index[i]];
}

/// The low-resolution image on the data's grid, a row at a time, with the rule of
/// TS_linear_interpolation at the ends: samples past the volume are 0, rows run on into the next.
/// The rows around it are spread onto the grid along x and kept for the rows that follow.
class Resampler {
 public:
  Resampler(const ConstSamples& low, const Samples& image)
      : low_(low),
        nx_(low.extent(Dim::x)),
        plane_(nx_ * low.extent(Dim::y)),
        volume_(plane_ * low.extent(Dim::z)),
        x_(nx_, image.extent(Dim::x)),
        y_(low.extent(Dim::y), image.extent(Dim::y)),
        z_(low.extent(Dim::z), image.extent(Dim::z)) {}

  /// One thread's rows: four places for spread ones, each with the linear offset of what it holds.
  struct Scratch {
    explicit Scratch(const Resampler& r) : n(r.x_.index.size()), spread(16 * n), values(2 * n) {}
    std::size_t n;
    std::vector<float> spread, values;
    ptrdiff_t volume = -1;  // past whose end rows count as zeros
    ptrdiff_t held[4];
  };

  ConstRow row(ptrdiff_t y, ptrdiff_t z, ptrdiff_t r, Scratch& s) const {
    const auto iy = static_cast<std::size_t>(y), iz = static_cast<std::size_t>(z);
    float *re = s.values.data(), *im = low_.im ? re + s.n : nullptr;
    Spread parts[] = {{{}, re}, {{}, im}};
    for (ptrdiff_t k = 0; k < 4; ++k) {
      parts[0].ends[k] = spread(y_.index[iy] + k % 2, z_.index[iz] + k / 2, r, s);
      parts[1].ends[k] = parts[0].ends[k] + 2 * s.n;
    }
    // The last fraction alone is a float.
    interpolate_row(parts, low_.im, x_.fraction.data(), y_.fraction[iy],
                    static_cast<float>(z_.fraction[iz]), static_cast<ptrdiff_t>(s.n));
    return {re, im, 1, static_cast<ptrdiff_t>(s.n)};
  }

 private:
  /// A row on the grid along x, spread unless it is held. Those around the same row have places of their
  /// own.
  const float* spread(ptrdiff_t y, ptrdiff_t z, ptrdiff_t r, Scratch& s) const {
    if (std::exchange(s.volume, r) != r) std::fill_n(s.held, 4, ptrdiff_t{-1});
    const auto place = static_cast<std::size_t>(y % 2 + 2 * (z % 2));
    const ptrdiff_t row = volume_ * r + nx_ * y + plane_ * z, end = volume_ * (r + 1);
    float* ends = s.spread.data() + 4 * place * s.n;
    if (std::exchange(s.held[place], row) == row) return ends;
    spread_part(low_.re, row, end, s.n, ends);
    if (low_.im) spread_part(low_.im, row, end, s.n, ends + 2 * s.n);
    return ends;
  }

  /// Positions ascend: the last ones may lie past the end of the volume.
  void spread_part(const float* part, ptrdiff_t row, ptrdiff_t end, std::size_t n,
                   float* out) const {
    const ptrdiff_t step = ctessel::in_pairs(low_) ? 2 : 1;
    for (ptrdiff_t next : {0, 1}) {
      const ptrdiff_t room = end - row - next;
      const auto inside = std::lower_bound(x_.index.begin(), x_.index.end(), room);
      const auto count = static_cast<std::size_t>(inside - x_.index.begin());
      pick(part + step * (row + next), step, x_.index.data(), out, inside - x_.index.begin());
      std::fill(out + count, out + n, 0.0f);
      out += n;
    }
  }

  const ConstSamples& low_;
  ptrdiff_t nx_, plane_, volume_;
  Grid x_, y_, z_;
};

void remove_resampled_phase(const Samples& image, const ConstSamples& low) {
  const Resampler resampler(low, image);
  for_each_chunk(volumes_of(image), [&](std::int64_t begin, std::int64_t end) {
    Resampler::Scratch scratch(resampler);
    // A volume that the low-resolution image does not have stays as it is: no phase is known there.
    const auto last = std::min(static_cast<ptrdiff_t>(end), volumes_of(low));
    for (auto r = static_cast<ptrdiff_t>(begin); r < last; ++r) {
      const ptrdiff_t volume = offset_of(image, 3, r);
      for (ptrdiff_t z = 0; z < image.extent(Dim::z); ++z) {
        for (ptrdiff_t y = 0; y < image.extent(Dim::y); ++y) {
          const ptrdiff_t at = volume + y * image.stride(Dim::y) + z * image.stride(Dim::z);
          project_row(row_of(image, Dim::x, at), resampler.row(y, z, r, scratch));
        }
      }
    }
  });
}

}  // namespace

std::ptrdiff_t count_nan(const ConstSamples& samples) {
  std::atomic<ptrdiff_t> count{0};
  const Samples same(const_cast<float*>(samples.re), nullptr, samples.extents, samples.strides);
  const JointRows rows(same, samples);
  for_each_chunk(samples.size(), [&](std::int64_t begin, std::int64_t end) {
    ptrdiff_t mine = 0;
    rows.visit(static_cast<ptrdiff_t>(begin), static_cast<ptrdiff_t>(end),
               [&](const Row&, const ConstRow& row) { mine += count_nan_of(row); });
    count += mine;
  });
  return count;
}

void remove_phase(const Samples& image, const ConstSamples& low) {
  if (image.size() == 0 || low.size() == 0) return;
  const bool same = image.with_axes(low.ndim()).extents == low.with_axes(image.ndim()).extents;
  const bool sample_for_sample =
      same && image.re == low.re && image.im == low.im && image.strides == low.strides;
  std::vector<float> store;
  const bool own = !sample_for_sample && (overlap(image, low) || (!same && !is_packed(low)));
  const ConstSamples phase = (own ? copy_of(low, store) : low).with_axes(image.ndim());
  same ? remove_same_phase(image, phase) : remove_resampled_phase(image, phase);
}

}  // namespace ctessel
