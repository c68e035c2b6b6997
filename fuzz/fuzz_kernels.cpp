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

namespace {

/// Up to six, whose product stays near `room`, so that a run stays short. Few have a long first
/// axis, which the kernels take in pieces.
std::vector<int> any_dims(Input& input, std::size_t least, int room = 256) {
  std::vector<int> dims(input.within<std::size_t>(least, 6));
  const int length = input.within(0, 63);
  const int first = length == 0 ? 700 : length < 8 ? 70 : 9;
  if (length == 0) room = 1400;
  for (int& d : dims) {
    d = std::min(input.within(input.flag() ? 1 : 0, &d == dims.data() ? first : 9), room);
    room /= std::max(d, 1);
  }
  return dims;
}

void shifts(Input& input) {
  using Shift = void (*)(float*, float*, int*, int, int);
  const Shift one_axis[2][3] = {{TS_fftshift_dim1, TS_fftshift_dim2, TS_fftshift_dim3},
                                {TS_ifftshift_dim1, TS_ifftshift_dim2, TS_ifftshift_dim3}};
  std::vector<int> dims = any_dims(input, 2);
  const int ndims = static_cast<int>(dims.size()), dim = input.within(0, 4);
  const std::size_t n = count(dims);
  const Floats re = any_floats(input, n), im = any_floats(input, n);
  const bool back = input.flag(), direct = input.flag(), real = input.flag();
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
  if (input.within(0, 15) == 0) return input.pick(kSpecial);
  return from + input.within(-1, 4);
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
  const bool real = input.flag() || im.empty();
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
    width[d] = input.within(0, 31) == 0 ? input.any<int>() : input.within(-1, 80);
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
  const int ndims = input.flag() ? 10 : static_cast<int>(dims.size());
  dims.resize(10, 1);
  if (ndims == 10) dims[9] = input.within(0, 3);
  const int coildim = input.within(1, ndims);
  std::vector<int> outdims(dims.begin(), dims.begin() + ndims);
  outdims[static_cast<std::size_t>(coildim - 1)] = 1;
  const std::size_t n = count(dims), voxels = count(outdims);
  if (voxels > 0 && n == 0 && dims[static_cast<std::size_t>(coildim - 1)] != 0) return;
  Floats re = any_floats(input, n), im = any_imaginary(input, n);
  if (input.flag()) {
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
  for (int& d : dims) d = input.within(1, 5);
  const int nx = dims[0], plane = nx * dims[1], total = plane * dims[2];
  Floats v = any_floats(input, static_cast<std::size_t>(total));
  const int along[] = {dims[1], dims[0], dims[2]};
  float at[3];
  int i[3];
  double f[3];
  for (int d = 0; d < 3; ++d) {
    at[d] = static_cast<float>(input.within(-7, 8 * along[d] + 7)) / 8;
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
  Eigen::VectorXcd several(input.within(0, 2 * total));
  for (Eigen::Index k = 0; k < several.size(); ++k) several[k] = {v[k % total], any_float(input)};
  const int base = input.within(0, 2 * total),
            end = input.within(0, static_cast<int>(several.size()));
  const Complex got = TS_linear_interpolation(several, extents, base, f[0], f[1], f[2], plane, end);
  const Complex sum = weighted<Complex>(several, base, f, nx, plane, end);
  const auto equal = [](double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); };
  require(equal(got.real(), sum.real()) && equal(got.imag(), sum.imag()), "complex overload");
}

template <class T>
void find(Input& input) {
  std::vector<T> a(input.within<std::size_t>(0, 200));  // searched in blocks
  for (T& v : a) v = static_cast<T>(input.within(-1, 40));
  const T wanted = static_cast<T>(input.within(-1, 40));
  const auto at = std::find(a.begin(), a.end(), wanted);
  require(TS_find(a.data(), wanted, static_cast<int>(a.size())) ==
              (at == a.end() ? -1 : static_cast<int>(at - a.begin())),
          "found");
  require(TS_find(a.data(), wanted, -1) == -1, "nothing found in fewer than no elements");
}

void rms(Input& input) {
  Floats re = any_floats(input, input.within<std::size_t>(0, 40)),
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
  const int n = input.within(-3, 70);
  const std::unique_ptr<float[]> got(TS_linspace(start, stop, n));
  double value = start;
  for (int i = 0; i < n; ++i, value += (static_cast<double>(stop) - start) / (n - 1.0))
    require(same(got[static_cast<std::size_t>(i)], static_cast<float>(value)), "grid");
}

void helpers(Input& input) {
  const double x = input.any_double();
  const double whole = x >= 0 ? std::floor(x) + (x - std::floor(x) >= 0.5) : std::ceil(x);
  const bool fits = whole >= INT_MIN && whole <= INT_MAX;
  require(TS_round(x) == (fits ? static_cast<int>(whole) : INT_MIN), "rounded");
  rms(input);
  grid(input);
  find<unsigned short>(input);
  find<short>(input);
  find<int>(input);
  find<unsigned int>(input);

  const int entries = input.within(0, 5);
  Eigen::VectorXi extents(entries), sub(entries + 1);  // further subscripts are not read
  sub[entries] = 1;
  unsigned index = 0;  // from the last dimension down
  for (int d = entries; d-- > 0;) {
    extents[d] = input.any<int>();
    sub[d] = input.any<int>();
    index = static_cast<unsigned>(sub[d]) + static_cast<unsigned>(extents[d]) * index;
  }
  require(TS_sub2ind(extents, sub) == static_cast<int>(index), "linear index");

  const float A[] = {any_float(input), any_float(input)},
              B[] = {any_float(input), any_float(input)};
  const double pos = any_float(input), to = pos2interpolate(pos, input.any<int>(), A, B);
  const auto is = [&](double v) { return to == v || (std::isnan(to) && std::isnan(v)); };
  require(is(pos) || is(B[0]) || is(B[0] + 1.0) || is(B[1]) || is(B[1] + 1.0), "one of the rules");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  constexpr void (*kTargets[])(Input&) = {shifts,      zero_pad, ringing_filter,
                                          combination, helpers,  interpolation};
  Input input(bytes, size);
  input.pick(kTargets)(input);
  return 0;
}
