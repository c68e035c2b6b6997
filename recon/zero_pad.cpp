// Centred placement of an array in a larger, zero-filled one.

#include <cmath>
#include <cstdint>
#include <cstring>

#include "cTessel.h"
#include "loops.h"

namespace {

/// One dimension: input and output extent, and where the input starts in the output. An odd spare
/// sample goes in front.
struct Placement {
  std::ptrdiff_t from, to, offset;
};

Placement place(std::ptrdiff_t from, double to) {
  const auto whole = static_cast<std::ptrdiff_t>(to);
  return {from, whole, (whole - from + 1) / 2};
}

bool fits(std::ptrdiff_t from, double to) {
  return to >= static_cast<double>(from) && to == std::floor(to);
}

void copy_plane(const float* in, float* out, const Placement& x, const Placement& y) {
  const auto bytes = static_cast<std::size_t>(x.from) * sizeof(float);
  for (std::ptrdiff_t row = 0; row < y.from; ++row) {
    std::memcpy(out + x.to * row, in + x.from * row, bytes);
  }
}

}  // namespace

void TS_zero_pad(float* re, float* im, int ndims, int* dims, double nx, double ny, double nz,
                 float* out_re, float* out_im) {
  const std::ptrdiff_t d0 = dims[0], d1 = dims[1], d2 = ndims > 2 ? dims[2] : 1;
  // No array has more samples, and below this the extents convert to integers on every word size.
  constexpr auto kAddressable = static_cast<double>(PTRDIFF_MAX / sizeof(float));
  if (d0 <= 0 || d1 <= 0 || d2 <= 0) return;
  if (!fits(d0, nx) || !fits(d1, ny) || !fits(d2, nz) || nx * ny * nz > kAddressable) return;
  const Placement x = place(d0, nx), y = place(d1, ny), z = place(d2, nz);
  ctessel::for_each_chunk(
      ctessel::merged_outer(ndims, dims), [&](std::int64_t begin, std::int64_t end) {
        for (auto o = static_cast<std::ptrdiff_t>(begin); o < end; ++o) {
          for (std::ptrdiff_t plane = 0; plane < z.from; ++plane) {
            const std::ptrdiff_t in = x.from * y.from * (z.from * o + plane);
            const std::ptrdiff_t out =
                x.offset + x.to * (y.offset + y.to * (z.to * o + z.offset + plane));
            copy_plane(re + in, out_re + out, x, y);
            if (im && out_im) copy_plane(im + in, out_im + out, x, y);
          }
        }
      });
}
