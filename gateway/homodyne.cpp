// Homodyne reconstruction of partial-Fourier data, called from the numerical host.
//
// mexFunction, ApplyHomodyneFilter, calculate_filter, AddLowResPhase, in that order. The host's
// error call may leave without unwinding, so no function owns memory where it can be reached;
// checks come before the first allocation, and output arrays are created before scratch is. Method:
// Noll, Nishimura, Macovski, IEEE Trans. Med. Imaging 10:154 (1991).

#include "homodyne.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "cTessel.h"
#include "conversion.h"
#include "dispatch.h"
#include "loops.h"

using host::Samples;

namespace {

/// Extents of an array with those from the fourth on merged; no volumes where any extent is 0.
struct Shape {
  std::ptrdiff_t nx, ny, nz, volumes;
  std::ptrdiff_t plane() const { return nx * ny; }
  std::ptrdiff_t volume() const { return nx * ny * nz; }
};

Shape shape_of(const mxArray* a) {
  Shape s{host::extent(a, 0), host::extent(a, 1), host::extent(a, 2), 1};
  const int n = host::dimensions(a);
  for (int d = 0; d < n; ++d) {
    // Without a single sample the other extents may be so large that their product overflows.
    if (host::extent(a, d) <= 0) return {s.nx, s.ny, s.nz, 0};
  }
  for (int d = 3; d < n; ++d) s.volumes *= host::extent(a, d);
  return s;
}

bool is_empty(const mxArray* a) { return host::dimensions(a) == 0 || host::extent(a, 0) == 0; }

struct Operation {
  bool filter, multiply, truncated;
};

/// Compares the operation name and lets its text go before a handler or a message is reached.
Operation read_operation(const mxArray* name) {
  std::vector<char> text(host::rows(name) * host::columns(name) + 1, '\0');
  const bool fits = host::copy_text(name, text.data(), text.size());
  text.back() = '\0';
  return {std::strcmp(text.data(), "filter") == 0, std::strcmp(text.data(), "multiply") == 0,
          !fits};
}

}  // namespace

void mexFunction(int nlhs, mxArray** plhs, int nrhs, const mxArray** prhs) {
  if (nrhs < 1 || !host::is_char(prhs[0])) {
    host::error("The first input must be a string describing the functionality.");
  }
  const Operation operation = read_operation(prhs[0]);
  if (operation.truncated) host::warn("Not enough space. String is truncated.");
  if (operation.filter) ApplyHomodyneFilter(nlhs, plhs, nrhs, prhs);
  if (operation.multiply) AddLowResPhase(nlhs, plhs, nrhs, prhs);
}

// ---- "filter" -----------------------------------------------------------------------------------

namespace {

struct RangeTexts {
  const char *type, *real, *dimensions, *vector, *length;
};

#define RANGE_TEXTS(k)                                                   \
  {                                                                      \
    k "-range must be of type double.", k "-range must be real valued.", \
        "The " k "-range must be 1 dimensional vector.",                 \
        "The " k "-range coordinates must be 1 dimensional vector.",     \
        "The " k "-range must be of length 2."                           \
  }
constexpr RangeTexts kRangeTexts[] = {RANGE_TEXTS("kx"), RANGE_TEXTS("ky"), RANGE_TEXTS("kz")};
#undef RANGE_TEXTS

void check_range_extents(const mxArray* range, const RangeTexts& texts) {
  const int rows = host::extent(range, 0), columns = host::extent(range, 1);
  if (host::dimensions(range) > 2) host::error(texts.dimensions);
  if (rows != 1 && columns != 1) host::error(texts.vector);
  if (rows != 1 && rows != 2 && columns != 2) host::error(texts.length);
  if (rows == 1 && columns != 2) host::error(texts.length);
}

void check_filter_arguments(int nrhs, const mxArray** prhs) {
  if (nrhs < 5) host::error("There must be at least 5 inputs.");
  if (nrhs > 5) host::error("Too many input arguments.");
  if (!host::is_class(prhs[1], "single")) host::error("Data must be of type single.");
  if (is_empty(prhs[1])) host::error("Data cannot be empty.");
  for (int d = 0; d < 3; ++d) {
    if (!host::is_class(prhs[2 + d], "double")) host::error(kRangeTexts[d].type);
  }
  for (int d = 0; d < 3; ++d) {
    if (host::is_complex(prhs[2 + d])) host::error(kRangeTexts[d].real);
  }
  for (int d = 0; d < 3; ++d) {
    if (!is_empty(prhs[2 + d])) check_range_extents(prhs[2 + d], kRangeTexts[d]);
  }
}

/// One of the first three dimensions: its samples, its range where the filter is to be tried, and
/// the first and last position that the centre block keeps.
struct Axis {
  int n;
  double* range;
  int bounds[2];
  int kept() const { return std::max(bounds[1] - bounds[0] + 1, 0); }
};

Axis look_at_axis(const mxArray* data, const mxArray* range, int d) {
  const int n = host::extent(data, d);
  const Axis whole{n, nullptr, {0, n - 1}};
  if (is_empty(range)) return whole;
  double* r = host::doubles(range);
  const double asymmetry = r[0] + r[1];  // of the values as given, before they are truncated
  if (!(asymmetry < -1 || asymmetry > 1)) return whole;
  // A range that the filter rejects leaves these bounds, so one position is kept. Scripts that pass
  // such a range have always got that.
  Axis axis{n, r, {0, 0}};
  calculate_filter(n, r, nullptr, axis.bounds);
  return axis;
}

mxArray* create_centre(const mxArray* data, const Axis (&axes)[3]) {
  const int n = host::dimensions(data);
  int few[16];  // on the stack: the host may leave from its allocation without unwinding
  std::vector<int> many(n > 16 ? static_cast<std::size_t>(n) : 0);
  int* extents = n > 16 ? many.data() : few;
  for (int d = 0; d < n; ++d) extents[d] = d < 3 ? axes[d].kept() : host::extent(data, d);
  return host::create_complex_single(n, extents);
}

void copy_row(const Samples& to, const Samples& from, std::ptrdiff_t n) {
  if (from.step == to.step) {  // the parts, or the pairs, are contiguous on both sides
    const std::size_t bytes = static_cast<std::size_t>(n * from.step) * sizeof(float);
    std::memcpy(to.re, from.re, bytes);
    if (from.im && from.step == 1) std::memcpy(to.im, from.im, bytes);
    return;
  }
  for (std::ptrdiff_t i = 0; i < n; ++i)
    std::memcpy(to.re + to.step * i, from.re + i, sizeof(float));
}

void copy_centre(const Samples& out, const Samples& in, const Shape& s, const Axis (&axes)[3]) {
  const std::ptrdiff_t nx = axes[0].kept(), ny = axes[1].kept(), nz = axes[2].kept();
  if (nx * ny * nz == 0) return;
  for (std::ptrdiff_t r = 0; r < s.volumes; ++r) {
    for (std::ptrdiff_t z = 0; z < nz; ++z) {
      for (std::ptrdiff_t y = 0; y < ny; ++y) {
        const std::ptrdiff_t row =
            y + axes[1].bounds[0] + s.ny * (z + axes[2].bounds[0] + s.nz * r);
        copy_row(out.from(nx * (y + ny * (z + nz * r))), in.from(axes[0].bounds[0] + s.nx * row),
                 nx);
      }
    }
  }
}

std::vector<float> weights_of(const Axis& axis, int& filtered) {
  std::vector<float> weights(static_cast<std::size_t>(axis.n), 1.0f);
  int bounds[2];
  if (axis.range && calculate_filter(axis.n, axis.range, weights.data(), bounds)) ++filtered;
  return weights;
}

/// Combined weights, stored only as far as they can differ: a single entry per row where no row
/// differs within itself, a single plane where all planes are alike.
struct WeightTable {
  std::vector<float> values;
  std::ptrdiff_t width, plane, depth;
  const float* at(std::ptrdiff_t z) const { return values.data() + plane * (depth > 1 ? z : 0); }
};

bool flat(const std::vector<float>& w) {
  return std::all_of(w.begin(), w.end(), [](float v) { return v == 1.0f; });
}

/// F-th root of the products along one row.
void combine_row(const std::vector<float>& wx, double wy, double wz, float exponent, float* out,
                 std::ptrdiff_t width) {
  float last = 1.0f, root = 1.0f;
  for (std::ptrdiff_t x = 0; x < width; ++x) {
    const float product = static_cast<float>(wx[static_cast<std::size_t>(x)] * wy * wz);
    if (product != last) {
      last = product;
      root = std::pow(product, exponent);
    }
    out[x] = root;
  }
}

WeightTable combine_weights(const std::vector<float> (&w)[3], int filtered) {
  const auto ny = static_cast<std::ptrdiff_t>(w[1].size());
  WeightTable table;
  table.width = flat(w[0]) ? 1 : static_cast<std::ptrdiff_t>(w[0].size());
  table.depth = flat(w[2]) ? 1 : static_cast<std::ptrdiff_t>(w[2].size());
  table.plane = table.width * ny;
  table.values.resize(static_cast<std::size_t>(table.plane * table.depth));
  const float exponent = static_cast<float>(1.0 / filtered);
  for (std::ptrdiff_t z = 0; z < table.depth; ++z) {
    const float wz = w[2][static_cast<std::size_t>(z)];
    for (std::ptrdiff_t y = 0; y < ny; ++y) {
      const float wy = w[1][static_cast<std::size_t>(y)];
      float* row = table.values.data() + table.width * (y + ny * z);
      if (y > 0 && wy == w[1][static_cast<std::size_t>(y - 1)]) {
        std::copy_n(row - table.width, table.width, row);  // plateaus: no new roots
      } else {
        combine_row(w[0], wy, wz, exponent, row, table.width);
      }
    }
  }
  return table;
}

void scale(float* v, std::ptrdiff_t n, float w) {
  for (std::ptrdiff_t i = 0; i < n; ++i) v[i] *= w;
}

void scale(float* v, std::ptrdiff_t n, const float* w) {
#pragma omp simd
  for (std::ptrdiff_t i = 0; i < n; ++i) v[i] *= w[i];
}

void scale_pairs(float* v, std::ptrdiff_t n, const float* w) {
#pragma omp simd
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    v[2 * i] *= w[i];
    v[2 * i + 1] *= w[i];
  }
}

void weigh_row(const Samples& s, std::ptrdiff_t n, float w) {
  scale(s.re, n * s.step, w);
  if (s.im && s.step == 1) scale(s.im, n, w);
}

void weigh_plane(const Samples& s, std::ptrdiff_t nx, const WeightTable& table, std::ptrdiff_t z) {
  const float* w = table.at(z);
  if (table.width == 1) {
    for (std::ptrdiff_t y = 0; y < table.plane; ++y) weigh_row(s.from(nx * y), nx, w[y]);
  } else if (s.step == 2) {
    scale_pairs(s.re, table.plane, w);
  } else {
    scale(s.re, table.plane, w);
    if (s.im) scale(s.im, table.plane, w);
  }
}

void apply_weights(const Samples& data, const Shape& s, const Axis (&axes)[3]) {
  int filtered = 0;
  const std::vector<float> w[3] = {weights_of(axes[0], filtered), weights_of(axes[1], filtered),
                                   weights_of(axes[2], filtered)};
  if (filtered == 0) return;  // every weight is 1
  const WeightTable table = combine_weights(w, filtered);
  ctessel::for_each_chunk(s.volumes, [&](std::int64_t begin, std::int64_t end) {
    for (std::ptrdiff_t z = 0; z < s.nz; ++z) {  // planes outside: their weights stay in the cache
      for (auto r = static_cast<std::ptrdiff_t>(begin); r < end; ++r) {
        weigh_plane(data.from(s.plane() * (z + s.nz * r)), s.nx, table, z);
      }
    }
  });
}

}  // namespace

void ApplyHomodyneFilter(int, mxArray** plhs, int nrhs, const mxArray** prhs) {
  check_filter_arguments(nrhs, prhs);
  const mxArray* data = prhs[1];
  const Shape shape = shape_of(data);
  const Axis axes[3] = {look_at_axis(data, prhs[2], 0), look_at_axis(data, prhs[3], 1),
                        look_at_axis(data, prhs[4], 2)};
  plhs[0] = create_centre(data, axes);
  if (shape.volumes == 0) return;
  const Samples samples = host::samples(data);
  copy_centre(host::samples(plhs[0]), samples, shape, axes);
  apply_weights(samples, shape, axes);
}

namespace {

/// Position of line k on an axis of N samples, or 0 where the filter does not look for lines:
/// beyond the axis and on its very last line. That line has never been looked at, and ranges ending
/// there rely on it.
int position_of(std::int64_t k, int N) {
  const int first = -(N / 2), last = N - N / 2 - 1;
  return k >= first && k < last ? static_cast<int>(k) - first : 0;
}

float homodyne_weight(int n, int start, int centre, int mirror) {
  const double t = static_cast<double>(n - centre) / (mirror - centre);
  if (n >= centre && n < mirror) return static_cast<float>(1 + t * t);
  if (n > start && n < centre) return static_cast<float>(2 - (t * t + 1));
  return n >= mirror ? 2.0f : 0.0f;
}

}  // namespace

int calculate_filter(int N, double* range, float* weights, int* bounds) {
  const std::int64_t first = ctessel::to_int(range[0]), last = ctessel::to_int(range[1]);
  const double extent = static_cast<double>(2 * std::max(first, last) + 1);
  const double fraction = static_cast<double>(last - first + 1) / extent;
  if (!(fraction >= 0.55 && fraction < 1.0)) return 0;
  const int start = position_of(first, N), mirror = position_of(-first, N),
            centre = position_of(0, N);
  for (int n = 0; weights && n < N; ++n) weights[n] = homodyne_weight(n, start, centre, mirror);
  bounds[0] = start;
  bounds[1] = mirror;
  return 1;
}

// ---- "multiply" ---------------------------------------------------------------------------------

namespace {

void check_phase_arguments(int nrhs, const mxArray** prhs) {
  if (nrhs < 3) host::error("There must be at least 3 inputs.");
  if (nrhs > 3) host::error("Too many input arguments.");
  const mxArray *data = prhs[1], *low = prhs[2];
  if (is_empty(low)) host::error("The low resolution data cannot be empty.");
  if (!host::is_class(data, "single")) host::error("Data must be of type single.");
  if (is_empty(data)) host::error("Data cannot be empty.");
  if (!host::is_class(low, "single")) host::error("LowRes must be of type single.");
  if (host::dimensions(data) != host::dimensions(low)) {
    host::error("The data must have the same number of dimensions than the low resolution data");
  }
}

bool same_size(const mxArray* a, const mxArray* b) {
  for (int d = 0; d < host::dimensions(a); ++d) {
    if (host::extent(a, d) != host::extent(b, d)) return false;
  }
  return true;
}

/// d = Re(d conj(L) / |L|), each product and the difference in double. A missing imaginary part of
/// L is no part of the magnitude; a missing one of the data takes the sine's term away. Steps and
/// parts are known when compiled, so that either layout is read and written as whole vectors.
template <int DataStep, bool DataComplex, int LowStep, bool LowComplex>
[[gnu::always_inline]] inline void project(const Samples& data, const Samples& low,
                                           std::ptrdiff_t n) {
  float *dr = data.re, *di = DataStep == 2 ? dr + 1 : data.im;
  const float *lr = low.re, *li = LowStep == 2 ? lr + 1 : low.im;
#pragma omp simd  // L can be the data itself, sample for sample; other overlaps are copied before
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    const double re = lr[LowStep * i], im = LowComplex ? li[LowStep * i] : 0.0f;
    const double magnitude = std::sqrt(re * re + im * im);
    const double c = re / magnitude, s = LowComplex ? -im / magnitude : 0.0;
    const double along = c * dr[DataStep * i];
    dr[DataStep * i] = static_cast<float>(DataComplex ? along - s * di[DataStep * i] : along);
    if (DataComplex) di[DataStep * i] = 0.0f;
  }
}

template <int DataStep, bool DataComplex>
[[gnu::always_inline]] inline void project_onto(const Samples& data, const Samples& low,
                                                std::ptrdiff_t n) {
  if (!low.im) return project<DataStep, DataComplex, 1, false>(data, low, n);
  if (low.step == 1) return project<DataStep, DataComplex, 1, true>(data, low, n);
  project<DataStep, DataComplex, 2, true>(data, low, n);
}

CTESSEL_CLONES void remove_phase(const Samples& data, const Samples& low, std::ptrdiff_t n) {
  if (!data.im) return project_onto<1, false>(data, low, n);
  if (data.step == 1) return project_onto<1, true>(data, low, n);
  project_onto<2, true>(data, low, n);
}

/// Hosts let contiguous parts of an array share its storage, so an image and a low-resolution image
/// can overlap with an offset.
bool overlap(const Samples& a, std::ptrdiff_t n, const Samples& b, std::ptrdiff_t m) {
  const std::less<const float*> before;
  const auto apart = [&](const float* p, const float* q) {
    return !p || !q || !before(p, q + b.step * m) || !before(q, p + a.step * n);
  };
  return !(apart(a.re, b.re) && apart(a.re, b.im) && apart(a.im, b.re) && apart(a.im, b.im));
}

Samples copy_of(const Samples& s, std::ptrdiff_t n, std::vector<float>& store) {
  store.assign(s.re, s.re + n * s.step);
  if (s.step == 2) return {store.data(), store.data() + 1, 2};
  if (!s.im) return {store.data(), nullptr, 1};
  store.insert(store.end(), s.im, s.im + n);
  return {store.data(), store.data() + n, 1};
}

/// Where the samples of the data's axis lie on the low-resolution axis.
struct Grid {
  std::vector<std::ptrdiff_t> index;
  std::vector<double> fraction;

  Grid(std::ptrdiff_t low, std::ptrdiff_t n) {
    const std::unique_ptr<float[]> q(
        TS_linspace(0.0f, static_cast<float>(low - 1), static_cast<int>(n)));
    for (std::ptrdiff_t i = 0; i < n; ++i) {
      const int whole = static_cast<int>(q[static_cast<std::size_t>(i)]);
      index.push_back(whole);
      fraction.push_back(static_cast<double>(q[static_cast<std::size_t>(i)]) - whole);
    }
  }
};

/// Adds `weight` times one row of a volume, and the sample behind it, as far as the volume goes.
void add_row(const float* volume, std::ptrdiff_t step, std::ptrdiff_t offset, std::ptrdiff_t total,
             double weight, double* row, std::ptrdiff_t n) {
  n = std::min(n, total - offset);
  for (std::ptrdiff_t i = 0; i < n; ++i) row[i] += weight * volume[step * (offset + i)];
}

CTESSEL_CLONES void interpolate_row(const double* row, const std::ptrdiff_t* index,
                                    const double* fraction, float* out, std::ptrdiff_t n) {
#pragma omp simd
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    const double* sample = row + index[i];
    out[i] = static_cast<float>((1 - fraction[i]) * sample[0] + fraction[i] * sample[1]);
  }
}

/// The low-resolution image on the data's grid, a row at a time: the four rows around it are
/// blended once and interpolated along x from the blend. Equals TS_linear_interpolation to
/// rounding, with its rules at the ends: samples past the volume are 0, rows run on into the next.
class Resampler {
 public:
  Resampler(const Samples& low, const Shape& l, const Shape& s)
      : low_(low), l_(l), x_(l.nx, s.nx), y_(l.ny, s.ny), z_(l.nz, s.nz) {}

  struct Scratch {
    std::vector<double> blend;
    std::vector<float> re, im;
  };
  Scratch scratch() const {
    const std::size_t n = x_.index.size();
    // On axes beyond 2^24 samples rounding can put the last position past the row.
    const auto last = *std::max_element(x_.index.begin(), x_.index.end());
    return {std::vector<double>(static_cast<std::size_t>(last + 2)), std::vector<float>(n),
            std::vector<float>(low_.im ? n : 0)};
  }

  Samples row(std::ptrdiff_t y, std::ptrdiff_t z, std::ptrdiff_t r, Scratch& scratch) const {
    const Samples volume = low_.from(l_.volume() * r);
    part(volume.re, y, z, scratch.blend, scratch.re.data());
    if (volume.im) part(volume.im, y, z, scratch.blend, scratch.im.data());
    return {scratch.re.data(), volume.im ? scratch.im.data() : nullptr, 1};
  }

 private:
  void part(const float* volume, std::ptrdiff_t y, std::ptrdiff_t z, std::vector<double>& blend,
            float* out) const {
    const auto iy = static_cast<std::size_t>(y), iz = static_cast<std::size_t>(z);
    const double fy = y_.fraction[iy], fz = static_cast<float>(z_.fraction[iz]);
    const std::ptrdiff_t base = l_.nx * y_.index[iy] + l_.plane() * z_.index[iz];
    const std::ptrdiff_t total = l_.volume(), step = low_.step;
    const auto n = static_cast<std::ptrdiff_t>(blend.size());
    std::fill(blend.begin(), blend.end(), 0.0);
    add_row(volume, step, base, total, (1 - fy) * (1 - fz), blend.data(), n);
    add_row(volume, step, base + l_.nx, total, fy * (1 - fz), blend.data(), n);
    add_row(volume, step, base + l_.plane(), total, (1 - fy) * fz, blend.data(), n);
    add_row(volume, step, base + l_.nx + l_.plane(), total, fy * fz, blend.data(), n);
    interpolate_row(blend.data(), x_.index.data(), x_.fraction.data(), out,
                    static_cast<std::ptrdiff_t>(x_.index.size()));
  }

  Samples low_;
  Shape l_;
  Grid x_, y_, z_;
};

void remove_resampled_phase(const Samples& data, const Shape& s, const Samples& low,
                            const Shape& l) {
  const Resampler resampler(low, l, s);
  ctessel::for_each_chunk(s.volumes, [&](std::int64_t begin, std::int64_t end) {
    Resampler::Scratch scratch = resampler.scratch();
    // A volume that the low-resolution image does not have stays as it is: no phase is known there.
    const auto last = static_cast<std::ptrdiff_t>(std::min<std::int64_t>(end, l.volumes));
    for (auto r = static_cast<std::ptrdiff_t>(begin); r < last; ++r) {
      for (std::ptrdiff_t z = 0; z < s.nz; ++z) {
        for (std::ptrdiff_t y = 0; y < s.ny; ++y) {
          remove_phase(data.from(s.nx * (y + s.ny * (z + s.nz * r))),
                       resampler.row(y, z, r, scratch), s.nx);
        }
      }
    }
  });
}

}  // namespace

void AddLowResPhase(int, mxArray**, int nrhs, const mxArray** prhs) {
  check_phase_arguments(nrhs, prhs);
  const mxArray *image = prhs[1], *low_image = prhs[2];
  const Shape s = shape_of(image), l = shape_of(low_image);
  if (s.volumes == 0 || l.volumes == 0) return;
  const bool same = same_size(image, low_image);
  const Samples data = host::samples(image), shared = host::samples(low_image);
  std::vector<float> copy;
  const std::ptrdiff_t n = s.volume() * s.volumes, m = l.volume() * l.volumes;
  const bool sample_for_sample = same && data.re == shared.re && data.step == shared.step;
  const Samples low =
      !sample_for_sample && overlap(data, n, shared, m) ? copy_of(shared, m, copy) : shared;
  if (!same) return remove_resampled_phase(data, s, low, l);
  ctessel::for_each_chunk(s.volumes, [&](std::int64_t begin, std::int64_t end) {
    const std::ptrdiff_t first = s.volume() * static_cast<std::ptrdiff_t>(begin),
                         last = s.volume() * static_cast<std::ptrdiff_t>(end);
    remove_phase(data.from(first), low.from(first), last - first);
  });
}
