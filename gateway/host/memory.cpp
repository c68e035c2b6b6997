// Back end for tests: arrays in memory, errors as exceptions, warnings recorded.

#include "memory.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace host {

namespace {
constexpr float kGuard = -12345.678f;
}

Guarded::Guarded(std::size_t n) : store_(n + 2 * kZone, kGuard) { std::fill_n(data(), n, 0.0f); }

bool Guarded::intact() const {
  if (store_.empty()) return true;
  const auto untouched = [](float v) { return v == kGuard; };
  return std::all_of(store_.begin(), store_.begin() + kZone, untouched) &&
         std::all_of(store_.end() - kZone, store_.end(), untouched);
}

std::size_t Array::count() const {
  std::size_t n = 1;
  for (int d : dims) n *= static_cast<std::size_t>(std::max(d, 0));
  return n;
}

namespace {

/// Of a NaN, too, which a host may change where it is loaded as a number.
void copy_bits(const float* from, float* to) { std::memcpy(to, from, sizeof(float)); }

std::vector<float> every(const float* from, std::size_t n, std::ptrdiff_t step) {
  std::vector<float> out(from ? n : 0);
  for (float& v : out) copy_bits(std::exchange(from, from + step), &v);
  return out;
}

/// n samples of 0.
Array zeros(std::vector<int> dims, std::size_t n, bool complex, Layout layout) {
  Array a{"single", std::move(dims)};
  a.complex = complex;
  a.layout = layout;
  const bool pairs = complex && layout == Layout::kPairs;
  a.re = Guarded(pairs ? 2 * n : n);
  if (complex && !pairs) a.im = Guarded(n);
  return a;
}

}  // namespace

std::vector<float> Array::real() const {
  return every(samples(this).re, count(), samples(this).step);
}

std::vector<float> Array::imaginary() const {
  return every(samples(this).im, count(), samples(this).step);
}

State& state() {
  static State the_state;
  return the_state;
}

Array single(std::vector<int> dims, const std::vector<float>& re, const std::vector<float>& im,
             Layout layout) {
  Array a = zeros(std::move(dims), re.size(), !im.empty(), layout);
  const Samples s = samples(&a);
  for (std::size_t i = 0; i < re.size(); ++i) {
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(i) * s.step;
    copy_bits(&re[i], s.re + at);
    if (s.im) copy_bits(&im[i], s.im + at);
  }
  return a;
}

Array doubles(std::vector<int> dims, std::vector<double> values) {
  return {"double", std::move(dims), {}, std::move(values)};
}

Array text(std::string characters) {
  const auto n = static_cast<int>(characters.size());
  return {"char", {1, n}, std::move(characters)};
}

bool is_char(const Array* a) { return a->class_name == "char"; }
bool is_complex(const Array* a) { return a->complex; }
bool is_class(const Array* a, const char* name) { return a->class_name == name; }
std::size_t rows(const Array* a) { return static_cast<std::size_t>(a->dims.at(0)); }
std::size_t columns(const Array* a) { return a->count() / std::max<std::size_t>(rows(a), 1); }

bool copy_text(const Array* a, char* buffer, std::size_t size) {
  const std::size_t n = std::min({a->text.size(), size - 1, state().text_limit});
  std::memcpy(buffer, a->text.data(), n);
  buffer[n] = '\0';
  return n == a->text.size();
}

int dimensions(const Array* a) { return static_cast<int>(a->dims.size()); }
int extent(const Array* a, int d) {
  return d < dimensions(a) ? a->dims[static_cast<std::size_t>(d)] : 1;
}

Samples samples(const Array* array) {
  Array* a = const_cast<Array*>(array);  // like every host: data pointers are always writable
  if (a->borrowed && a->complex) return {a->borrowed, a->borrowed + 1, 2};
  if (a->borrowed) return {a->borrowed, nullptr, 1};
  if (!a->complex) return {a->re.data(), nullptr, 1};
  if (a->layout == Layout::kPairs) return {a->re.data(), a->re.data() + 1, 2};
  return {a->re.data(), a->im.data(), 1};
}

double* doubles(const Array* a) { return const_cast<Array*>(a)->values.data(); }

Array* create_complex_single(int ndims, const int* dims) {
  double count = 1;
  for (int d = 0; d < ndims; ++d) count *= dims[d];
  if (count > 1e8) error("Out of memory.");  // as a host does
  state().created.push_back(std::make_unique<Array>(
      zeros({dims, dims + ndims}, static_cast<std::size_t>(count), true, state().layout)));
  return state().created.back().get();
}

void error(const char* message) { throw Error{message}; }

void warn(const char* message) { state().warnings.emplace_back(message); }

}  // namespace host
