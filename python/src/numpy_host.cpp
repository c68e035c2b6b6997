// Back end of the gateway's host layer over NumPy's memory. No interpreter is called here, so the
// operations run without its lock; errors leave as exceptions.

#include "numpy_host.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace host {

std::unique_ptr<Array> borrow(const ctessel_python::View& packed) {
  auto a = std::make_unique<Array>();
  for (std::ptrdiff_t n : packed.shape) a->dims.push_back(static_cast<int>(n));
  a->complex = packed.complex;
  a->floats = reinterpret_cast<float*>(packed.data);
  return a;
}

std::unique_ptr<Array> range(const std::vector<double>& values) {
  auto a = std::make_unique<Array>();
  a->single = false;
  a->dims = {values.empty() ? 0 : 1, static_cast<int>(values.size())};
  a->values = values;
  return a;
}

bool is_char(const Array*) { return false; }  // operations are called by their C++ names
std::size_t rows(const Array*) { return 0; }
std::size_t columns(const Array*) { return 0; }
bool copy_text(const Array*, char*, std::size_t) { return false; }

bool is_complex(const Array* a) { return a->complex; }
bool is_class(const Array* a, const char* name) {
  return std::strcmp(name, a->single ? "single" : "double") == 0;
}

int dimensions(const Array* a) { return static_cast<int>(a->dims.size()); }
int extent(const Array* a, int d) {
  return d < dimensions(a) ? a->dims[static_cast<std::size_t>(d)] : 1;
}

Samples samples(const Array* a) {
  if (!a->complex) return {a->floats, nullptr, 1};
  return {a->floats, a->floats + 1, 2};
}

double* doubles(const Array* a) { return const_cast<Array*>(a)->values.data(); }

Array* create_complex_single(int ndims, const int* dims) {
  auto a = std::make_unique<Array>();
  a->dims.assign(dims, dims + ndims);
  a->complex = true;
  std::size_t n = 1;
  for (int extent : a->dims) n *= static_cast<std::size_t>(extent);
  a->own.reset(std::calloc(std::max<std::size_t>(n, 1), 2 * sizeof(float)));
  if (!a->own) throw std::bad_alloc();
  a->floats = static_cast<float*>(a->own.get());
  return a.release();
}

void error(const char* text) { throw Error(text); }
void warn(const char*) {}  // the one warning is about operation names

}  // namespace host
