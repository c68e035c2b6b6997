// The kernels on small arrays of any extents and values against the naive references. Outputs lie
// between guard zones; inputs are heap blocks of their exact size, so that the address sanitizer
// sees a read past either end.

#include <climits>
#include <cstring>
#include <memory>
#include <numeric>

#include "cTessel.h"
#include "guarded.h"
#include "input.h"
#include "naive_arrays.h"
#include "naive_sense.h"

namespace {

using Input = FuzzedDataProvider;
using Floats = std::vector<float>;

/// At least two of them, at most six; their product stays below `room`, so that a run stays short.
std::vector<int> any_dims(Input& input, std::size_t least, int room = 256) {
  std::vector<int> dims(input.ConsumeIntegralInRange<std::size_t>(least, 6));
  for (std::size_t d = 0; d < dims.size(); ++d) {
    const int most = d == 0 && input.ConsumeIntegralInRange(0, 7) == 0 ? 70 : 9;
    dims[d] = std::min(input.ConsumeIntegralInRange(input.ConsumeBool() ? 1 : 0, most), room);
    room /= std::max(dims[d], 1);
  }
  return dims;
}

std::size_t count(const std::vector<int>& dims) {
  return naive::product(dims.data(), 0, static_cast<int>(dims.size()));
}

/// Imaginary parts, or none.
Floats any_imaginary(Input& input, std::size_t n) {
  return input.ConsumeBool() ? any_floats(input, n) : Floats();
}

float* pointer(Floats& v) { return v.empty() ? nullptr : v.data(); }

void shifts(Input& input) {
  using Shift = void (*)(float*, float*, int*, int, int);
  const Shift one_axis[2][3] = {{TS_fftshift_dim1, TS_fftshift_dim2, TS_fftshift_dim3},
                                {TS_ifftshift_dim1, TS_ifftshift_dim2, TS_ifftshift_dim3}};
  std::vector<int> dims = any_dims(input, 2);
  const int ndims = static_cast<int>(dims.size()), dim = input.ConsumeIntegralInRange(0, 4);
  const std::size_t n = count(dims);
  const Floats re = any_floats(input, n), im = any_floats(input, n);
  const bool back = input.ConsumeBool(), direct = input.ConsumeBool(), real = input.ConsumeBool();
  Guarded<float> a(re), b(im);
  float *values = n > 0 ? a.data() : nullptr, *imaginary = real || n == 0 ? nullptr : b.data();
  const bool axis = dim >= 1 && dim <= std::min(ndims, 3);
  if (!axis && dim >= 1 && dim <= 3) return;  // an axis that the data do not have
  if (direct && axis) {
    one_axis[back][dim - 1](values, imaginary, dims.data(), ndims, dim);
  } else {
    (back ? TS_ifftshift : TS_fftshift)(values, imaginary, dims.data(), ndims, dim);
  }
  const std::size_t N = axis ? static_cast<std::size_t>(dims[dim - 1]) : 1, m = N / 2;
  const auto want = [&](const Floats& v) {
    return axis && n > 0 ? naive::rotated(v, dims, dim, back ? N - m : m) : v;
  };
  require(bits(a.values()) == bits(want(re)) && a.intact(), "shifted real parts");
  require(bits(b.values()) == bits(real ? im : want(im)) && b.intact(), "shifted imaginary parts");
}

double any_target(Input& input, int from) {
  constexpr double kSpecial[] = {NAN, INFINITY, -INFINITY, 1e300, -1.0, 2.5, 4294967296.0};
  if (input.ConsumeIntegralInRange(0, 15) == 0) return input.PickValueInArray(kSpecial);
  return from + input.ConsumeIntegralInRange(-1, 4);
}

void zero_pad(Input& input) {
  std::vector<int> dims = any_dims(input, 2, 48);
  const int ndims = static_cast<int>(dims.size()), d2 = ndims > 2 ? dims[2] : 1;
  const int from[] = {dims[0], dims[1], d2};
  double to[3];
  bool fits = true;
  for (int d = 0; d < 3; ++d) {
    to[d] = any_target(input, from[d]);
    fits = fits && to[d] >= from[d] && to[d] < 1e3 && to[d] == std::floor(to[d]);
  }
  const std::size_t n = count(dims), P = naive::product(dims.data(), 3, ndims);
  if (!fits && n > 0 && to[0] >= from[0] && to[1] >= from[1] && to[2] >= from[2] &&
      std::isfinite(to[0] * to[1] * to[2]) && to[0] != 2.5 && to[1] != 2.5 && to[2] != 2.5) {
    return;  // a large target, which would need as large an output
  }
  const std::size_t n_out =
      fits ? static_cast<std::size_t>(to[0] * to[1] * to[2]) * (ndims > 3 ? P : 1) : 16;
  Floats re = any_floats(input, n), im = any_imaginary(input, n);
  const bool real = input.ConsumeBool() || im.empty();
  Guarded<float> out_re(n_out, -9), out_im(n_out, -9);
  TS_zero_pad(re.data(), pointer(im), ndims, dims.data(), to[0], to[1], to[2], out_re.data(),
              real ? nullptr : out_im.data());
  Floats want_re(n_out, -9), want_im(n_out, -9);
  if (fits && n > 0) {
    naive::zero_pad(re, dims, to, want_re);
    if (!real) naive::zero_pad(im, dims, to, want_im);
  }
  require(bits(out_re.values()) == bits(want_re) && out_re.intact(), "padded real parts");
  require(bits(out_im.values()) == bits(want_im) && out_im.intact(), "padded imaginary parts");
}

void ringing_filter(Input& input) {
  std::vector<int> dims = any_dims(input, 2);
  const int ndims = static_cast<int>(dims.size());
  const int first[] = {dims[0], dims[1], ndims > 2 ? dims[2] : 1};
  const std::size_t n = count(dims);
  double strength[3];
  int width[3];
  for (int d = 0; d < 3; ++d) {
    strength[d] = any_float(input);
    width[d] = input.ConsumeIntegralInRange(0, 31) == 0 ? input.ConsumeIntegral<int>()
                                                        : input.ConsumeIntegralInRange(-1, 80);
  }
  Floats re = any_floats(input, n), im = any_imaginary(input, n);
  Guarded<float> a(re), b(im);
  TS_ringing_filter(n > 0 ? a.data() : nullptr, im.empty() ? nullptr : b.data(), ndims, dims.data(),
                    strength, width);
  if (n > 0) {
    naive::ringing_filter(re.data(), pointer(im), first,
                          ndims > 3 ? naive::product(dims.data(), 3, ndims) : 1, strength, width);
  }
  require(same(a.values(), re) && a.intact(), "filtered real parts");
  require(same(b.values(), im) && b.intact(), "filtered imaginary parts");
}

void combination(Input& input) {
  std::vector<int> dims = any_dims(input, 1);
  const int ndims = input.ConsumeBool() ? 10 : static_cast<int>(dims.size());
  dims.resize(10, 1);
  if (ndims == 10) dims[9] = input.ConsumeIntegralInRange(0, 3);
  const int coildim = input.ConsumeIntegralInRange(1, ndims);
  std::vector<int> outdims(dims.begin(), dims.begin() + ndims);
  outdims[static_cast<std::size_t>(coildim - 1)] = 1;
  const std::size_t n = count(dims), voxels = count(outdims);
  if (voxels > 0 && n == 0 && dims[static_cast<std::size_t>(coildim - 1)] != 0) return;
  Floats re = any_floats(input, n), im = any_imaginary(input, n);
  if (input.ConsumeBool()) {
    const Floats prior = any_floats(input, voxels);
    Guarded<float> out(prior);
    Floats want = prior;
    TS_perform_sos(re.data(), pointer(im), ndims, dims.data(), coildim, out.data(), outdims.data());
    naive::perform_sos(re.data(), pointer(im), dims.data(), coildim, want.data(), voxels);
    require(same(out.values(), want) && out.intact(), "sum of squares");
    return;
  }
  Guarded<float> a(voxels, 9), b(voxels, 9);
  Floats want_re(voxels), want_im(voxels);
  TS_perform_pcsos(re.data(), pointer(im), ndims, dims.data(), coildim, a.data(), b.data(),
                   outdims.data());
  require(a.intact() && b.intact(), "guard zones of the combined image");
  if (dims[9] == 0) {
    const Floats out = a.values();
    return require(std::all_of(out.begin(), out.end(), [](float v) { return std::isnan(v); }),
                   "a mean over nothing");
  }
  if (coildim == 10) return;  // not a coil dimension: only the guard zones count
  naive::perform_pcsos(re.data(), pointer(im), dims.data(), coildim, want_re.data(), want_im.data(),
                       voxels);
  require(same(a.values(), want_re), "combined real parts");
  require(same(b.values(), want_im), "combined imaginary parts");
}

/// Corners weighted from the last one before `total` down; every number double or wider.
template <class Sum, class Values>
Sum weighted(const Values& v, std::ptrdiff_t base, const double f[3], std::ptrdiff_t nx,
             std::ptrdiff_t plane, std::ptrdiff_t total) {
  const auto offset = [&](int k) { return base + (k & 1) + (k >> 1 & 1) * nx + (k >> 2) * plane; };
  int last = 8;
  while (last > 0 && offset(last - 1) >= total) --last;
  Sum sum = 0;
  for (int k = 0; k < last; ++k) {
    const double b = k & 1 ? f[1] : 1 - f[1], a = k & 2 ? f[0] : 1 - f[0],
                 c = k & 4 ? f[2] : 1 - f[2];
    if (offset(k) < static_cast<std::ptrdiff_t>(v.size())) sum += b * a * c * Sum(v[offset(k)]);
  }
  return sum;
}

void interpolation(Input& input) {
  int dims[3];
  for (int& d : dims) d = input.ConsumeIntegralInRange(1, 5);
  const int nx = dims[0], plane = nx * dims[1], total = plane * dims[2];
  Floats v = any_floats(input, static_cast<std::size_t>(total));
  const int along[] = {dims[1], dims[0], dims[2]};
  float at[3];
  int i[3];
  double f[3];
  for (int d = 0; d < 3; ++d) {
    at[d] = static_cast<float>(input.ConsumeIntegralInRange(-7, 8 * along[d] + 7)) / 8;
    i[d] = static_cast<int>(at[d]);
    f[d] = at[d] - static_cast<float>(i[d]);
  }
  const Eigen::VectorXi extents = Eigen::Map<Eigen::VectorXi>(dims, 3);
  const Eigen::VectorXf volume = Eigen::Map<Eigen::VectorXf>(v.data(), total);
  const float want =
      static_cast<float>(weighted<double>(v, nx * i[0] + i[1] + plane * i[2], f, nx, plane, total));
  require(same(TS_linear_interpolation(v.data(), at[0], at[1], at[2], dims), want), "overload 1");
  require(same(TS_linear_interpolation(v.data(), at[0], at[1], at[2], extents), want), "2");
  require(same(TS_linear_interpolation(volume, at[0], at[1], at[2], extents), want), "3");

  using Complex = std::complex<double>;
  Eigen::VectorXcd several(input.ConsumeIntegralInRange(0, 2 * total));
  for (Eigen::Index k = 0; k < several.size(); ++k) several[k] = {v[k % total], any_float(input)};
  const int base = input.ConsumeIntegralInRange(0, 2 * total),
            end = input.ConsumeIntegralInRange(0, static_cast<int>(several.size()));
  const Complex got = TS_linear_interpolation(several, extents, base, f[0], f[1], f[2], plane, end);
  const Complex sum = weighted<Complex>(several, base, f, nx, plane, end);
  const auto equal = [](double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); };
  require(equal(got.real(), sum.real()) && equal(got.imag(), sum.imag()), "complex overload");
}

template <class T>
void find(Input& input) {
  std::vector<T> a(input.ConsumeIntegralInRange<std::size_t>(0, 40));
  for (T& v : a) v = static_cast<T>(input.ConsumeIntegralInRange(-1, 40));
  const T wanted = static_cast<T>(input.ConsumeIntegralInRange(-1, 40));
  const auto at = std::find(a.begin(), a.end(), wanted);
  require(TS_find(a.data(), wanted, static_cast<int>(a.size())) ==
              (at == a.end() ? -1 : static_cast<int>(at - a.begin())),
          "found");
}

void rms(Input& input) {
  Floats re = any_floats(input, input.ConsumeIntegralInRange<std::size_t>(0, 40)),
         im = any_imaginary(input, re.size());
  long double sum = 0;
  for (std::size_t i = 0; i < re.size(); ++i) {
    sum += static_cast<long double>(re[i]) * re[i];
    if (!im.empty()) sum += static_cast<long double>(im[i]) * im[i];
  }
  const double want = static_cast<double>(std::sqrt(sum / re.size())),
               got = TS_SA(re.data(), pointer(im), static_cast<int>(re.size()));
  require(std::isnan(want) ? std::isnan(got) : want == got || std::abs(want - got) < 1e-15 * want,
          "root mean square");
}

void grid(Input& input) {
  const float start = any_float(input), stop = any_float(input);
  const int n = input.ConsumeIntegralInRange(-3, 70);
  const std::unique_ptr<float[]> got(TS_linspace(start, stop, n));
  double value = start;
  for (int i = 0; i < n; ++i, value += (static_cast<double>(stop) - start) / (n - 1.0))
    require(same(got[static_cast<std::size_t>(i)], static_cast<float>(value)), "grid");
}

void helpers(Input& input) {
  const double x = input.ConsumeFloatingPoint<double>();
  const double whole = x >= 0 ? std::floor(x) + (x - std::floor(x) >= 0.5) : std::ceil(x);
  const bool fits = whole >= INT_MIN && whole <= INT_MAX;
  require(TS_round(x) == (fits ? static_cast<int>(whole) : INT_MIN), "rounded");
  rms(input);
  grid(input);
  find<unsigned short>(input);
  find<short>(input);
  find<int>(input);
  find<unsigned int>(input);

  const int entries = input.ConsumeIntegralInRange(0, 5);
  Eigen::VectorXi extents(entries), sub(entries);
  unsigned index = 0;  // from the last dimension down
  for (int d = entries; d-- > 0;) {
    extents[d] = input.ConsumeIntegral<int>();
    sub[d] = input.ConsumeIntegral<int>();
    index = static_cast<unsigned>(sub[d]) + static_cast<unsigned>(extents[d]) * index;
  }
  require(TS_sub2ind(extents, sub) == static_cast<int>(index), "linear index");

  const float A[] = {any_float(input), any_float(input)},
              B[] = {any_float(input), any_float(input)};
  const double pos = any_float(input),
               to = pos2interpolate(pos, input.ConsumeIntegral<int>(), A, B);
  const auto is = [&](double v) { return to == v || (std::isnan(to) && std::isnan(v)); };
  require(is(pos) || is(B[0]) || is(B[0] + 1.0) || is(B[1]) || is(B[1] + 1.0), "one of the rules");
}

void fold_geometry(Input& input) {
  const int fold = input.ConsumeIntegralInRange(1, 40),
            full = fold + input.ConsumeIntegralInRange(0, 120), off = (full - fold + 1) / 2;
  const int pos = input.ConsumeIntegralInRange(0, full - 1), on = TS_folded_pos(pos, full, fold);
  require(on == ((pos - off) % fold + fold) % fold, "folded line");
  Eigen::VectorXi lines((full + fold - 1) / fold);
  const int n = TS_get_unfolded_positions(full, fold, on, lines);
  require(std::count(lines.begin(), lines.begin() + n, pos) == 1, "listed once");
  for (int k = 0; k < n; ++k)
    require(TS_folded_pos(lines[k], full, fold) == on && (k == 0 || lines[k] != lines[k - 1]),
            "alias");
  float pair[] = {-1, -1};
  get_compartments(full, fold, pair);
  require(pair[0] <= pair[1] && pair[1] < static_cast<float>(fold), "compartments");
}

constexpr double kUntouched = 1234567;

/// A SENSE problem of any geometry, with maps and data of any values.
struct Scene {
  explicit Scene(Input& input) : maps(4), folded(4), full(3), slots(4) {
    for (int d = 0; d < 4; ++d) maps[d] = input.ConsumeIntegralInRange(1, d == 0 ? 9 : 4);
    for (int d = 0; d < 3; ++d) {
      folded[d] = input.ConsumeIntegralInRange(1, 3);
      full[d] = folded[d] + (d == 0 ? 0 : input.ConsumeIntegralInRange(0, 3));
      R[d] = static_cast<float>(full[d]) / static_cast<float>(folded[d]);
    }
    folded[3] = maps[3];
    slots << maps[0], static_cast<int>(std::ceil(static_cast<float>(maps[1]) / R[1])),
        static_cast<int>(std::ceil(static_cast<float>(maps[2]) / R[2])),
        static_cast<int>(std::ceil(R[1])) * static_cast<int>(std::ceil(R[2])) * maps[3];
    re = any_floats(input, static_cast<std::size_t>(maps.prod()));
    im = any_imaginary(input, re.size());
    psi = Eigen::MatrixXcd::Identity(maps[3], maps[3]);
    plain_noise = input.ConsumeBool();
    for (std::complex<double>& p : psi.reshaped())
      if (!plain_noise) p += any_float(input);
    lambda = input.ConsumeBool() ? 0 : any_float(input);
    const int all = maps.head(3).prod();
    reference = Eigen::VectorXf::Constant(
        input.ConsumeBool() ? all : input.ConsumeIntegralInRange(0, all), any_float(input));
  }
  Eigen::VectorXi maps, folded, full, slots;
  Eigen::Vector3f R;
  Floats re, im;
  Eigen::MatrixXcd psi;
  bool plain_noise;
  double lambda;
  Eigen::VectorXf reference;
};

/// Factors agree to rounding where a bound on the condition of B = S^H S + 1 / (r^2 lambda) is
/// known: with the same r at every sample, or with one alias. Elsewhere B may be singular, and then
/// its inverse is noise in both.
void compare_factors(const Scene& s, const Eigen::VectorXcd& got, const Eigen::VectorXcd& want) {
  double size = 0;
  for (float v : s.re) size += static_cast<double>(v) * v;
  for (float v : s.im) size += static_cast<double>(v) * v;
  const bool one = s.slots[3] == s.maps[3], whole = s.reference.size() >= s.maps.head(3).prod();
  const double r = whole ? s.reference[0] : 0, inverse = r * r * s.lambda;
  const double condition = 1 + size * inverse;
  const bool bounded = s.plain_noise && inverse > 1e-9 && condition < 1e6;
  const int grid = s.slots.head(3).prod();
  for (Eigen::Index i = 0; i < got.size(); ++i) {
    require((got[i] == kUntouched) == (want[i] == kUntouched), "slots written");
    if (want[i] == kUntouched) continue;
    const double error = std::abs(got[i] - want[i]);
    if (bounded) require(error <= 1e-13 * condition * inverse * std::sqrt(size), "factors");
    if (!one || !s.plain_noise || s.lambda != 0 || !std::isfinite(std::abs(want[i]))) continue;
    double largest = 0;
    for (Eigen::Index k = i % grid; k < want.size(); k += grid)
      largest = std::max(largest, std::abs(want[k]));
    if (std::isfinite(largest)) require(error <= 1e-13 * largest, "factors of one alias");
  }
}

double sum(const Floats& re, const Floats& im) {
  double total = 0;
  for (float v : re) total += std::abs(v);
  for (float v : im) total += std::abs(v);
  return total;
}

void sense_steps(Input& input) {
  Scene s(input);
  const Eigen::Index n = s.slots.prod();
  Eigen::VectorXcd got = Eigen::VectorXcd::Constant(n, kUntouched), want = got;
  float ey[] = {-1, -1}, ez[] = {-1, -1}, want_ey[] = {-1, -1}, want_ez[] = {-1, -1};
  const int status = get_combination_factors(s.re.data(), pointer(s.im), s.maps, s.psi, s.R,
                                             s.lambda, s.reference, got, s.folded, s.full, ey, ez);
  require(status == naive::get_combination_factors(s.re.data(), pointer(s.im), s.maps, s.psi, s.R,
                                                   s.lambda, s.reference, want, s.folded, s.full,
                                                   want_ey, want_ez),
          "status of the factors");
  require(std::equal(ey, ey + 2, want_ey) && std::equal(ez, ez + 2, want_ez), "edges");
  compare_factors(s, got, want);
  for (std::complex<double>& f : want)
    if (f == kUntouched) f = 0;  // slots that no alias has may take part in an interpolation

  Floats fold_re = any_floats(input, static_cast<std::size_t>(s.folded.prod())),
         fold_im = any_imaginary(input, fold_re.size());
  const std::size_t pixels = static_cast<std::size_t>(s.full.prod());
  Guarded<float> re(pixels, static_cast<float>(kUntouched)), im = re;
  Floats want_re = re.values(), want_im = want_re;
  require(unfold(fold_re.data(), pointer(fold_im), s.folded, want, s.slots, s.maps, s.full, ey, ez,
                 re.data(), im.data()) == naive::unfold(fold_re.data(), pointer(fold_im), s.folded,
                                                        want, s.slots, s.full, ey, ez,
                                                        want_re.data(), want_im.data()),
          "status of the unfolding");
  require(re.intact() && im.intact(), "guard zones of the image");
  const double bound = sum(fold_re, fold_im) * (1e-5 * want.cwiseAbs().sum() + 1e-43);
  for (std::size_t i = 0; i < pixels; ++i) {
    const float a = re.values()[i], b = want_re[i];
    require((a == static_cast<float>(kUntouched)) == (b == static_cast<float>(kUntouched)),
            "pixels written");
    if (bound < 1e6 && want.cwiseAbs().maxCoeff() < 1e30) {  // nothing leaves the range of float
      require(std::abs(a - b) <= bound && std::abs(im.values()[i] - want_im[i]) <= bound, "image");
    }
  }
}

/// A call of the driver, whose arrays have the sizes that the extents say.
struct Call {
  enum Part { kFold = 0, kSens = 2, kPsi = 4, kRef = 6, kReg = 8, kOut = 10, kParts = 10 };
  explicit Call(Input& input) : scale(any_float(input)) {
    fold.resize(input.ConsumeIntegralInRange<std::size_t>(2, 9), 1);
    for (std::size_t d = 0; d < fold.size(); ++d) fold[d] = extent(input, d < 4 ? 3 : 2);
    const auto folded = [&](std::size_t d) { return d < fold.size() ? fold[d] : 1; };
    full = {folded(0), folded(1) + extent(input, 3) - 1, folded(2) + extent(input, 3) - 1};
    sens = {extent(input, 5), extent(input, 4), extent(input, 4), folded(3), folded(7)};
    reg = {sens[0], sens[1], sens[2], folded(7)};
    ref = {extent(input, 3), extent(input, 3)};
    psi = {folded(3), folded(3)};
    out = fold;
    std::copy_n(full.begin(), std::min<std::size_t>(out.size(), 3), out.begin());
    if (out.size() > 3) out[3] = 1;
    fits = fold.size() > 2 || full[2] == 1;
    if (input.ConsumeIntegralInRange(0, 3) == 0) spoil(input);
    regularised = input.ConsumeBool();
  }
  static int extent(Input& input, int most) {
    return input.ConsumeIntegralInRange(input.ConsumeIntegralInRange(0, 63) == 0 ? 0 : 1, most);
  }
  /// Changes one extent, so that shapes need not fit each other or any memory.
  void spoil(Input& input) {
    constexpr int kExtents[] = {-1, 0, 1, 2, 3, 50000, INT_MAX};
    std::vector<int>* lists[] = {&fold, &sens, &out, &reg, &ref, &psi, &full};
    std::vector<int>& list = *input.PickValueInArray(lists);
    list[input.ConsumeIntegralInRange<std::size_t>(0, list.size() - 1)] =
        input.PickValueInArray(kExtents);
    fits = false;
  }
  /// What is refused before anything is read. Of the maps and the expected magnitude one location
  /// counts.
  bool refused() const {
    const std::vector<int> maps(sens.begin(), sens.begin() + 4),
        expected(reg.begin(), reg.end() - 1);
    for (const auto* list : {&fold, &out, &full, &psi, &maps, &ref, &expected}) {
      if (!regularised && (list == &ref || list == &expected)) continue;
      double samples = 1;
      for (int d : *list) samples *= d;
      if (samples > INT_MAX || *std::min_element(list->begin(), list->end()) < 0) return true;
    }
    return false;
  }
  /// Small enough to run, with as many locations of everything as the folded data have.
  bool runs() const {
    const int locations = fold.size() > 7 ? fold[7] : 1;
    for (const auto* list : {&fold, &sens, &out, &reg, &ref, &psi, &full})
      if (*std::max_element(list->begin(), list->end()) > 100) return false;
    return sens[4] >= locations && reg[3] >= locations && sens[4] >= 0 && reg[3] >= 0;
  }
  int operator()(float* const* parts, float* re, float* im) {
    return TS_sense_recon(parts[kFold], parts[kFold + 1], static_cast<int>(fold.size()),
                          fold.data(), parts[kSens], parts[kSens + 1], 5, sens.data(), parts[kPsi],
                          parts[kPsi + 1], 2, psi.data(), full.data(), parts[kRef], parts[kRef + 1],
                          2, ref.data(), parts[kReg], parts[kReg + 1], 4, reg.data(), scale, re, im,
                          out.data());
  }
  std::vector<int> fold, sens, out, reg, ref, psi, full;
  double scale;
  bool fits, regularised;
};

/// The steps of a call, one volume at a time.
void recon_by_steps(Call& call, float* const* parts, float* out_re, float* out_im) {
  const auto folded = [&](std::size_t d) { return d < call.fold.size() ? call.fold[d] : 1; };
  Eigen::VectorXi fold(4), sens = Eigen::Map<Eigen::VectorXi>(call.sens.data(), 4), slots(4);
  const Eigen::VectorXi full = Eigen::Map<Eigen::VectorXi>(call.full.data(), 3);
  Eigen::Vector3f R;
  double reduction = 1;
  for (int d = 0; d < 4; ++d) fold[d] = folded(static_cast<std::size_t>(d));
  for (int d = 0; d < 3; ++d) {
    R[d] = static_cast<float>(full[d]) / static_cast<float>(fold[d]);
    reduction *= static_cast<double>(full[d]) / fold[d];
  }
  slots << sens[0], static_cast<int>(std::ceil(static_cast<float>(sens[1]) / R[1])),
      static_cast<int>(std::ceil(static_cast<float>(sens[2]) / R[2])),
      static_cast<int>(std::ceil(R[1])) * static_cast<int>(std::ceil(R[2])) * sens[3];
  Eigen::MatrixXcd psi = Eigen::MatrixXcd::Identity(fold[3], fold[3]);
  for (Eigen::Index k = 0; k < psi.size() && parts[Call::kPsi]; ++k)
    psi.data()[k] = {parts[Call::kPsi][k], parts[Call::kPsi + 1][k]};
  const int samples = static_cast<int>(count(call.fold)), voxels = sens.head(3).prod();
  double ratio = 0;
  if (call.regularised)
    ratio = TS_SA(parts[Call::kFold], parts[Call::kFold + 1], samples) / call.scale /
            TS_SA(parts[Call::kRef], parts[Call::kRef + 1], static_cast<int>(count(call.ref)));
  const auto at = [&](int part, std::ptrdiff_t n) {
    return parts[part] ? parts[part] + n : nullptr;
  };
  const std::ptrdiff_t middle =
                           naive::product(call.fold.data(), 4,
                                          std::min<int>(static_cast<int>(call.fold.size()), 7)),
                       volumes = samples / fold.prod();
  Eigen::VectorXcd factors = Eigen::VectorXcd::Zero(slots.prod());
  for (int l = 0; l < folded(7); ++l) {
    Eigen::VectorXf expected(call.regularised ? voxels : 0);
    for (Eigen::Index i = 0; i < expected.size(); ++i) {
      const double x = parts[Call::kReg][l * voxels + i],
                   y = parts[Call::kReg + 1] ? parts[Call::kReg + 1][l * voxels + i] : 0;
      expected[i] = static_cast<float>(std::sqrt(x * x + y * y));
    }
    float ey[] = {-1, -1}, ez[] = {-1, -1};
    get_combination_factors(at(Call::kSens, l * sens.prod()), at(Call::kSens + 1, l * sens.prod()),
                            sens, psi, R, call.regularised ? ratio * ratio / reduction : 0,
                            expected, factors, fold, full, ey, ez);
    for (std::ptrdiff_t v = 0; v < volumes; ++v) {
      if (v / middle % folded(7) != l) continue;
      unfold(at(Call::kFold, v * fold.prod()), at(Call::kFold + 1, v * fold.prod()), fold, factors,
             slots, sens, full, ey, ez, out_re + v * full.prod(), out_im + v * full.prod());
    }
  }
}

void sense_recon(Input& input) {
  Call call(input);
  const bool refused = call.refused();
  if (!refused && !call.runs()) return;
  float *parts[Call::kParts] = {}, unread = 0;
  if (refused) {
    if (call.regularised) parts[Call::kRef] = parts[Call::kReg] = &unread;
    return require(call(parts, nullptr, nullptr) == -1, "refused");
  }
  const std::vector<int>* extents[] = {&call.fold, &call.sens, &call.psi, &call.ref, &call.reg};
  Floats store[Call::kParts];
  for (int p = 0; p < Call::kParts; ++p) {
    const std::size_t n = count(*extents[p / 2]);
    // The real parts of the covariance may be left out, those of the reference and of the expected
    // magnitude to switch the regularisation off; the imaginary parts of the covariance may not.
    const bool present = p == Call::kFold || p == Call::kSens ? true
                         : p == Call::kPsi + 1                ? parts[Call::kPsi] != nullptr
                         : p >= Call::kRef && !call.regularised
                             ? false
                             : p == Call::kRef || p == Call::kReg || input.ConsumeBool();
    if (!present) continue;
    store[p] = any_floats(input, n);
    parts[p] = n > 0 ? store[p].data() : &unread;
  }
  const Floats before(count(call.out), static_cast<float>(kUntouched));
  Guarded<float> re(before), im(before);
  const int status = call(parts, re.data(), im.data());
  require(re.intact() && im.intact(), "guard zones of the output");
  require(status == 1 || status == -1, "status");
  const auto empty = [](const std::vector<int>& list) { return count(list) == 0; };
  if (!call.fits || empty(call.fold) || empty(call.sens) || empty(call.full)) return;
  require(status == 1, "success");
  Floats want_re = before, want_im = before;
  recon_by_steps(call, parts, want_re.data(), want_im.data());
  require(same(re.values(), want_re) && same(im.values(), want_im), "image, by steps");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  constexpr void (*kTargets[])(Input&) = {shifts,        zero_pad,    ringing_filter,
                                          combination,   helpers,     interpolation,
                                          fold_geometry, sense_steps, sense_recon};
  Input input(bytes, size);
  kTargets[static_cast<std::size_t>(start(input)) % std::size(kTargets)](input);
  return 0;
}
