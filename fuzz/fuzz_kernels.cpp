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

std::vector<int> any_dims(Input& input, std::size_t least, int most = 9) {
  std::vector<int> dims(input.ConsumeIntegralInRange<std::size_t>(least, 6));
  for (int& d : dims) d = input.ConsumeIntegralInRange(input.ConsumeBool() ? 1 : 0, most);
  if (input.ConsumeIntegralInRange(0, 7) == 0) dims[0] = input.ConsumeIntegralInRange(10, 70);
  return dims;
}

std::size_t count(const std::vector<int>& dims) {
  return naive::product(dims.data(), 0, static_cast<int>(dims.size()));
}

/// The first values are the input's, the others repeat them: long arrays cost few bytes.
Floats any_floats(Input& input, std::size_t n) {
  Floats v(n);
  const std::size_t own = input.ConsumeIntegralInRange<std::size_t>(1, 32);
  for (std::size_t i = 0; i < n; ++i) v[i] = i < own ? any_float(input) : v[i - own];
  return v;
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
  float* imaginary = real ? nullptr : b.data();
  const bool axis = dim >= 1 && dim <= std::min(ndims, 3);
  if (!axis && dim >= 1 && dim <= 3) return;  // an axis that the data do not have
  if (direct && axis) {
    one_axis[back][dim - 1](a.data(), imaginary, dims.data(), ndims, dim);
  } else {
    (back ? TS_ifftshift : TS_fftshift)(a.data(), imaginary, dims.data(), ndims, dim);
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
  std::vector<int> dims = any_dims(input, 2, 5);
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
  TS_ringing_filter(a.data(), im.empty() ? nullptr : b.data(), ndims, dims.data(), strength, width);
  if (n > 0) {
    naive::ringing_filter(re.data(), pointer(im), first,
                          ndims > 3 ? naive::product(dims.data(), 3, ndims) : 1, strength, width);
  }
  require(same(a.values(), re) && a.intact(), "filtered real parts");
  require(same(b.values(), im) && b.intact(), "filtered imaginary parts");
}

void combination(Input& input) {
  std::vector<int> dims = any_dims(input, 1, 5);
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
  if (dims[9] == 0 || coildim == 10) return;  // the reference divides by the tenth extent
  Guarded<float> a(voxels, 9), b(voxels, 9);
  Floats want_re(voxels), want_im(voxels);
  TS_perform_pcsos(re.data(), pointer(im), ndims, dims.data(), coildim, a.data(), b.data(),
                   outdims.data());
  naive::perform_pcsos(re.data(), pointer(im), dims.data(), coildim, want_re.data(), want_im.data(),
                       voxels);
  require(same(a.values(), want_re) && a.intact(), "combined real parts");
  require(same(b.values(), want_im) && b.intact(), "combined imaginary parts");
}

/// Weighted corners from the last one inside the volume down; a double beside the sum of its
/// magnitudes.
float interpolated(const Floats& v, const float at[3], const int* dims) {
  const std::ptrdiff_t nx = dims[0], plane = nx * dims[1], total = plane * dims[2];
  const int i[] = {static_cast<int>(at[0]), static_cast<int>(at[1]), static_cast<int>(at[2])};
  const double f[] = {static_cast<double>(at[0]) - i[0], static_cast<double>(at[1]) - i[1],
                      at[2] - static_cast<float>(i[2])};
  const std::ptrdiff_t base = nx * i[0] + i[1] + plane * i[2];
  int last = 8;
  const auto offset = [&](int k) { return base + (k & 1) + (k >> 1 & 1) * nx + (k >> 2) * plane; };
  while (last > 0 && offset(last - 1) >= total) --last;
  double sum = 0;
  for (int k = 0; k < last; ++k) {
    const double b = k & 1 ? f[1] : 1 - f[1], a = k & 2 ? f[0] : 1 - f[0],
                 c = k & 4 ? f[2] : 1 - f[2];
    if (offset(k) < total) sum += b * a * c * v[static_cast<std::size_t>(offset(k))];
  }
  return static_cast<float>(sum);
}

void interpolation(Input& input) {
  int dims[3];
  for (int& d : dims) d = input.ConsumeIntegralInRange(1, 5);
  Floats v = any_floats(input, static_cast<std::size_t>(dims[0] * dims[1] * dims[2]));
  float at[3];
  const int along[] = {dims[1], dims[0], dims[2]};
  for (int d = 0; d < 3; ++d)
    at[d] = static_cast<float>(input.ConsumeIntegralInRange(-7, 8 * along[d] + 7)) / 8;
  const Eigen::VectorXi extents = Eigen::Map<Eigen::VectorXi>(dims, 3);
  const Eigen::VectorXf volume =
      Eigen::Map<Eigen::VectorXf>(v.data(), static_cast<Eigen::Index>(v.size()));
  const float want = interpolated(v, at, dims);
  require(same(TS_linear_interpolation(v.data(), at[0], at[1], at[2], dims), want), "overload 1");
  require(same(TS_linear_interpolation(v.data(), at[0], at[1], at[2], extents), want), "2");
  require(same(TS_linear_interpolation(volume, at[0], at[1], at[2], extents), want), "3");
}

void helpers(Input& input) {
  const double x = input.ConsumeFloatingPoint<double>();
  const double whole = x >= 0 ? std::floor(x) + (x - std::floor(x) >= 0.5) : std::ceil(x);
  const bool fits = whole >= INT_MIN && whole <= INT_MAX;
  require(TS_round(x) == (fits ? static_cast<int>(whole) : INT_MIN), "rounded");
  Floats re = any_floats(input, input.ConsumeIntegralInRange<std::size_t>(0, 40)),
         im = input.ConsumeBool() ? any_floats(input, re.size()) : Floats();
  long double sum = 0;
  for (std::size_t i = 0; i < re.size(); ++i) {
    sum += static_cast<long double>(re[i]) * re[i];
    if (!im.empty()) sum += static_cast<long double>(im[i]) * im[i];
  }
  const double rms = static_cast<double>(std::sqrt(sum / re.size())),
               got = TS_SA(re.data(), pointer(im), static_cast<int>(re.size()));
  require(std::isnan(rms) ? std::isnan(got) : rms == got || std::abs(rms - got) < 1e-15 * rms,
          "root mean square");
  std::vector<int> a(input.ConsumeIntegralInRange<std::size_t>(0, 40));
  for (int& v : a) v = input.ConsumeIntegralInRange(0, 40);
  const auto found = std::find(a.begin(), a.end(), 7);
  require(TS_find(a.data(), 7, static_cast<int>(a.size())) ==
              (found == a.end() ? -1 : static_cast<int>(found - a.begin())),
          "found");
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
  const double bound = 1e-5 * sum(fold_re, fold_im) * want.cwiseAbs().sum();
  for (std::size_t i = 0; i < pixels; ++i) {
    const float a = re.values()[i], b = want_re[i];
    require((a == static_cast<float>(kUntouched)) == (b == static_cast<float>(kUntouched)),
            "pixels written");
    if (bound < 1e6 && want.cwiseAbs().maxCoeff() < 1e30) {  // nothing leaves the range of float
      require(std::abs(a - b) <= bound && std::abs(im.values()[i] - want_im[i]) <= bound, "image");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  constexpr void (*kTargets[])(Input&) = {shifts,        zero_pad, ringing_filter, combination,
                                          interpolation, helpers,  fold_geometry,  sense_steps};
  Input input(bytes, size);
  // The provider takes single values from the end of the bytes.
  kTargets[input.ConsumeIntegralInRange<std::size_t>(0, std::size(kTargets) - 1)](input);
  return 0;
}
