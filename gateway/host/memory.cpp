// Back end for tests: arrays in memory, errors as exceptions, warnings recorded.

#include "memory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace host {

namespace {
constexpr float kGuard = -12345.678f;
}

Guarded::Guarded(std::size_t n) : store_(n + 2 * kZone, kGuard) { std::fill_n(data(), n, 0.0f); }

Guarded::Guarded(const std::vector<float>& content) : store_(content.size() + 2 * kZone, kGuard) {
  std::copy(content.begin(), content.end(), data());
}

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
std::vector<float> every(const float* from, std::size_t n, std::size_t step) {
  std::vector<float> out(n);  // by bytes: a NaN's bits stay
  for (std::size_t i = 0; i < n; ++i) std::memcpy(&out[i], from + step * i, sizeof(float));
  return out;
}
}  // namespace

std::vector<float> Array::real() const {
  return every(re.data(), count(), complex && layout == Layout::kPairs ? 2 : 1);
}

std::vector<float> Array::imaginary() const {
  if (!complex) return {};
  if (layout == Layout::kParts) return every(im.data(), count(), 1);
  return every(re.data() + 1, count(), 2);
}

State& state() {
  static State the_state;
  return the_state;
}

Array single(std::vector<int> dims, const std::vector<float>& re, const std::vector<float>& im,
             Layout layout) {
  Array a;
  a.class_name = "single";
  a.dims = std::move(dims);
  a.complex = !im.empty();
  a.layout = layout;
  if (a.complex && layout == Layout::kPairs) {
    std::vector<float> pairs(2 * re.size());
    for (std::size_t i = 0; i < re.size(); ++i) {
      std::memcpy(&pairs[2 * i], &re[i], sizeof(float));
      std::memcpy(&pairs[2 * i + 1], &im[i], sizeof(float));
    }
    a.re = Guarded(pairs);
  } else {
    a.re = Guarded(re);
    if (a.complex) a.im = Guarded(im);
  }
  return a;
}

Array doubles(std::vector<int> dims, std::vector<double> values) {
  Array a;
  a.class_name = "double";
  a.dims = std::move(dims);
  a.values = std::move(values);
  return a;
}

Array text(std::string characters) {
  Array a;
  a.class_name = "char";
  a.dims = {1, static_cast<int>(characters.size())};
  a.text = std::move(characters);
  return a;
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
  auto array =
      std::make_unique<Array>(single(std::vector<int>(dims, dims + ndims), {}, {}, state().layout));
  double count = 1;
  for (int d : array->dims) count *= d;
  if (count > 1e8) error("Out of memory.");  // as a host does
  array->complex = true;
  const bool parts = array->layout == Layout::kParts;
  array->re = Guarded(parts ? array->count() : 2 * array->count());
  if (parts) array->im = Guarded(array->count());
  state().created.push_back(std::move(array));
  return state().created.back().get();
}

void error(const char* message) { throw Error{message}; }

void warn(const char* message) { state().warnings.emplace_back(message); }

}  // namespace host
