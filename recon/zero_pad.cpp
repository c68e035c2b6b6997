// Centred placement of an array in a larger, zero-filled one.

#include <cmath>
#include <cstdint>
#include <stdexcept>

#include "cTessel.h"
#include "samples.h"

namespace ctessel {

namespace {

/// The part of `out` that receives samples. An odd spare sample goes in front.
Samples middle_of(const Samples& out, const Extents& extents) {
  Samples middle = out;
  for (int d = 0; d < out.ndim(); ++d) {
    const std::ptrdiff_t n = extents[static_cast<std::size_t>(d)];
    middle = middle.slice(Dim(d), (out.extent(Dim(d)) - n + 1) / 2, n);
  }
  return middle;
}

bool fits(std::ptrdiff_t from, double to) {
  return to >= static_cast<double>(from) && to == std::floor(to);
}

}  // namespace

void zero_pad(const ConstSamples& data, const Samples& out) {
  bool larger = data.ndim() == out.ndim();
  for (int d = 0; d < data.ndim(); ++d)
    larger = larger && data.extent(Dim(d)) <= out.extent(Dim(d));
  if (!larger) throw std::invalid_argument("zero_pad: out must be at least as large as data");
  copy(data, middle_of(out, data.extents));
}

}  // namespace ctessel

void TS_zero_pad(float* re, float* im, int ndims, int* dims, double nx, double ny, double nz,
                 float* out_re, float* out_im) {
  using namespace ctessel;
  const bool complex = im && out_im;
  const ConstSamples data = volumes(re, complex ? im : nullptr, ndims, dims);
  const std::ptrdiff_t P = data.extent(Dim::coil);
  // No array has more samples, and below this the extents convert to integers on every word size.
  constexpr auto kAddressable = static_cast<double>(PTRDIFF_MAX / sizeof(float));
  if (data.size() == 0 || nx * ny * nz > kAddressable) return;
  if (!fits(dims[0], nx) || !fits(dims[1], ny) || !fits(data.extent(Dim::z), nz)) return;
  const auto whole = [](double n) { return static_cast<std::ptrdiff_t>(n); };
  const Samples out =
      Samples::parts(out_re, complex ? out_im : nullptr, {whole(nx), whole(ny), whole(nz), P});
  copy(data, middle_of(out, data.extents), P > 1 ? Team::all : Team::one);
}
