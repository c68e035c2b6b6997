// Circular shifts between the first element of an axis and its centre, in place and into another array.
//
// In place: one rotation. An axis of N blocks of B contiguous floats is rotated by m = floor(N / 2)
// blocks, or back. Its first m blocks and m later ones trade places in one pass that reads and writes
// every float once. On an odd axis one block is left over, the traded parts land one block beside
// where they came from, and only that block needs scratch memory.
// Into another array: rows go where they belong, each in one piece or in two.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <vector>

#include "cTessel.h"
#include "samples.h"
#include "simd.h"

namespace ctessel {

namespace {

using std::ptrdiff_t;

/// Floats traded at once: all are loaded before any is stored, as the two sides may overlap.
constexpr ptrdiff_t kTrade = 16, kLineFloats = kLine / 4;
using Quad [[gnu::vector_size(16), gnu::aligned(4), gnu::may_alias]] = float;

/// The values from `low` on go to `to`, those from `high` on take their place. All are held in
/// registers in between, each by its own name: the compiler keeps an array of them in memory.
void trade(float* low, const float* high, float* to) {
  const Quad *l = reinterpret_cast<const Quad*>(low), *h = reinterpret_cast<const Quad*>(high);
  const Quad l0 = l[0], l1 = l[1], l2 = l[2], l3 = l[3];
  const Quad h0 = h[0], h1 = h[1], h2 = h[2], h3 = h[3];
  Quad *upper = reinterpret_cast<Quad*>(to), *lower = reinterpret_cast<Quad*>(low);
  upper[0] = l0, upper[1] = l1, upper[2] = l2, upper[3] = l3;
  lower[0] = h0, lower[1] = h1, lower[2] = h2, lower[3] = h3;
}

void trade_one(float* low, const float* high, float* to) {
  const float from_low = *low, from_high = *high;
  *to = from_low;
  *low = from_high;
}

/// One line of an axis: `half` = m B floats trade places; `odd` floats, B or none, are left over.
struct Halves {
  ptrdiff_t half, odd;
};

void copy_floats(float* to, const float* from, ptrdiff_t n) {
  for (ptrdiff_t i = 0; i < n; ++i) to[i] = from[i];
}

/// Element 0 to the centre. Upwards: what a step stores over was read `odd` floats before or is
/// held.
void rotate_forward(float* line, Halves l, float* held) {
  float *to = line + l.half, *high = to + l.odd;
  copy_floats(held, to, l.odd);
  ptrdiff_t i = 0;
  for (; i + kTrade <= l.half; i += kTrade) trade(line + i, high + i, to + i);
  for (; i < l.half; ++i) trade_one(line + i, high + i, to + i);
  copy_floats(high + l.half - l.odd, held, l.odd);
}

/// The centre to element 0: the same steps with the two ends exchanged, hence downwards.
void rotate_back(float* line, Halves l, float* held) {
  float *high = line + l.half, *to = high + l.odd;
  copy_floats(held, high + l.half, l.odd);
  ptrdiff_t i = l.half;
  for (; i >= kTrade; i -= kTrade) {
    trade(line + i - kTrade, high + i - kTrade, to + i - kTrade);
  }
  for (; i > 0; --i) trade_one(line + i - 1, high + i - 1, to + i - 1);
  copy_floats(high, held, l.odd);
}

/// The lines of one axis: blocks in a line, floats in a block, from line to line and in a volume.
struct Lines {
  ptrdiff_t N, block, step, volume;
  std::int64_t outer;
};

/// The axis length comes from the caller's own dimension number, all else from the axis.
Lines lines_of(const int* dims, int ndims, int axis, int dim) {
  const ptrdiff_t nx = dims[0], ny = dims[1], nz = ndims > 2 ? dims[2] : 1;
  const ptrdiff_t blocks[] = {1, nx, nx * ny, nx * ny * nz};
  return {dims[dim - 1], blocks[axis - 1], blocks[axis], blocks[3], merged_outer(ndims, dims)};
}

/// Asks for memory a few short lines ahead: their two halves lie so close that the processor's own
/// prefetching does not make out either.
void prefetch_ahead(const float* line, ptrdiff_t length, const float* end) {
  constexpr ptrdiff_t kShort = 4096, kAhead = 2048;
  if (length > kShort || end - line < length + kAhead) return;
  for (ptrdiff_t i = 0; i < length; i += kLineFloats) __builtin_prefetch(line + kAhead + i, 1);
}

void rotate_volume(float* volume, const Lines& a, bool forward, float* held) {
  const Halves l{a.N / 2 * a.block, a.N % 2 * a.block};
  const float* end = volume + a.volume;
  for (float* line = volume; line < end; line += a.step) {
    prefetch_ahead(line, a.step, end);
    if (forward) {
      rotate_forward(line, l, held);
    } else {
      rotate_back(line, l, held);
    }
  }
}

void rotate_part(float* part, const Lines& a, bool forward) {
  for_each_chunk(a.outer, [&](std::int64_t begin, std::int64_t end) {
    std::vector<float> held(static_cast<std::size_t>(a.N % 2 * a.block));
    for (auto o = static_cast<ptrdiff_t>(begin); o < end; ++o) {
      rotate_volume(part + o * a.volume, a, forward, held.data());
    }
  });
}

void rotate(float* re, float* im, const Lines& a, bool forward) {
  if (a.N <= 1 || a.step <= 0) return;
  rotate_part(re, a, forward);
  if (im) rotate_part(im, a, forward);
}

/// An array without gaps as lines of one axis, or none. Pairs move as two floats.
std::optional<Lines> dense_lines(const Samples& s, Dim d) {
  const bool pairs = in_pairs(s);
  ptrdiff_t block = pairs ? 2 : 1, outer = 1, step = block, *count = &block;
  for (int k : memory_order(s)) {
    const ptrdiff_t n = s.extent(Dim(k));
    if (n > 1 && s.stride(Dim(k)) != step) return {};
    step *= n;
    if (Dim(k) == d) {
      count = &outer;
    } else {
      *count *= n;
    }
  }
  const ptrdiff_t line = block * s.extent(d);
  return Lines{s.extent(d), block, line, line, outer};
}

// ---- Into another array -------------------------------------------------------------------------

/// An axis of both sides, and by how many entries it is rotated.
struct Rotation {
  ptrdiff_t n, from, to, m;
};

/// Rows of `floats` floats side by side, or of n such units rotated by m.
struct RotatedRows {
  ptrdiff_t floats, n = 1, m = 0;
  std::vector<Rotation> outer;

  ptrdiff_t count() const {
    ptrdiff_t rows = 1;
    for (const Rotation& r : outer) rows *= r.n;
    return rows;
  }
};

constexpr ptrdiff_t kRowFloats = 1 << 12;  // of a row that is long enough
constexpr ptrdiff_t kStreamed = 1 << 20;   // floats that leave little else in the caches

/// Empty where the two do not run on along the same axis.
std::optional<RotatedRows> rotated_rows(const ConstSamples& from, const Samples& to,
                                        const Extents& distances) {
  RotatedRows rows{in_pairs(from) && in_pairs(to) ? 2 : 1, 1, 0, {}};
  bool open = true;
  for (int k : memory_order(to)) {
    const Rotation t{to.extent(Dim(k)), from.stride(Dim(k)), to.stride(Dim(k)),
                     distances[static_cast<std::size_t>(k)]};
    if (t.n == 1) continue;
    const bool side_by_side = t.from == rows.floats && t.to == rows.floats;
    open = open && rows.n == 1 && side_by_side && rows.floats < kRowFloats;
    if (open && t.m == 0) {
      rows.floats *= t.n;
    } else if (open) {
      rows.n = t.n, rows.m = t.m;
    } else {
      rows.outer.push_back(t);
    }
  }
  if (rows.floats <= 2 && rows.n == 1) return {};
  return rows;
}

void rotate_rows(const float* from, float* to, const RotatedRows& rows) {
  const bool stream = rows.count() * rows.n * rows.floats >= kStreamed;
  const auto move = [&](float* out, const float* in, ptrdiff_t floats) {
    const auto bytes = floats * static_cast<ptrdiff_t>(sizeof(float));
    auto* target = reinterpret_cast<char*>(out);
    const auto* source = reinterpret_cast<const char*>(in);
    if (stream && bytes >= 8 * kLine) return stream_bytes(target, source, bytes);
    std::memcpy(target, source, static_cast<std::size_t>(bytes));
  };
  for_each_chunk(rows.count(), [&](std::int64_t begin, std::int64_t end) {
    for (auto r = static_cast<ptrdiff_t>(begin); r < end; ++r) {
      ptrdiff_t index = r, f = 0, t = 0;
      for (const Rotation& a : rows.outer) {
        const ptrdiff_t i = index % a.n;
        f += (i + a.n - a.m) % a.n * a.from, t += i * a.to;
        index /= a.n;
      }
      const ptrdiff_t first = rows.m * rows.floats, rest = (rows.n - rows.m) * rows.floats;
      move(to + t, from + f + rest, first);
      move(to + t + first, from + f, rest);
    }
    finish_streams();
  });
}

/// Block by block, for layouts that differ.
void rotate_blocks(const ConstSamples& from, const Samples& to, const Extents& distances,
                   std::size_t d = 0) {
  while (d < distances.size() && distances[d] == 0) ++d;
  if (d == distances.size()) return copy(from, to);
  const ptrdiff_t m = distances[d], rest = from.extents[d] - m;
  const Dim axis{static_cast<int>(d)};
  rotate_blocks(from.slice(axis, 0, rest), to.slice(axis, m, rest), distances, d + 1);
  rotate_blocks(from.slice(axis, rest, m), to.slice(axis, 0, m), distances, d + 1);
}

void rotate_into(const ConstSamples& from, const Samples& to, const Extents& distances) {
  if (to.size() == 0) return;
  const auto rows = rotated_rows(from, to, distances);
  const bool pairs = in_pairs(from) && in_pairs(to);
  if (!rows || (!pairs && !from.im != !to.im)) return rotate_blocks(from, to, distances);
  rotate_rows(from.re, to.re, *rows);
  if (to.im && !pairs) rotate_rows(from.im, to.im, *rows);
}

/// By how many entries each axis is rotated; an axis that is named twice rotates twice.
Extents distances_of(const Extents& extents, const std::vector<Dim>& axes, bool forward) {
  Extents m(extents.size(), 0);
  for (Dim axis : axes) {
    const auto d = static_cast<std::size_t>(axis);
    if (d >= m.size()) throw std::invalid_argument("shift: no such axis");
    const ptrdiff_t n = std::max<ptrdiff_t>(extents[d], 1);
    m[d] = (m[d] + (forward ? n / 2 : n - n / 2)) % n;
  }
  return m;
}

/// Data with gaps: parts of them go through scratch memory, cut along the slowest axis that is
/// not shifted.
void shift_with_gaps(const Samples& data, const Extents& distances) {
  Dim cut{-1};
  for (int d : memory_order(data)) {
    if (distances[static_cast<std::size_t>(d)] == 0 && data.extent(Dim(d)) > 1) cut = Dim(d);
  }
  const ptrdiff_t pieces = cut == Dim(-1) ? 1 : data.extent(cut);
  std::vector<std::complex<float>> own(static_cast<std::size_t>(data.size() / pieces));
  for (ptrdiff_t i = 0; i < pieces; ++i) {
    const Samples piece = cut == Dim(-1) ? data : data.slice(cut, i, 1);
    const Samples scratch =
        data.im ? Samples::pairs(own.data(), piece.extents)
                : Samples::parts(reinterpret_cast<float*>(own.data()), nullptr, piece.extents);
    copy(piece, scratch);
    rotate_into(scratch, piece, distances);
  }
}

void shift(const Samples& data, const std::vector<Dim>& axes, bool forward) {
  const Extents distances = distances_of(data.extents, axes, forward);
  if (data.size() == 0) return;
  for (Dim axis : axes) {
    const auto lines = dense_lines(data, axis);
    if (!lines) return shift_with_gaps(data, distances);
    rotate(data.re, in_pairs(data) ? nullptr : data.im, *lines, forward);
  }
}

void shift(const ConstSamples& data, const Samples& out, const std::vector<Dim>& axes,
           bool forward) {
  require_same_extents(data, out, "shift: data and out");
  rotate_into(data, out, distances_of(data.extents, axes, forward));
}

}  // namespace

void fftshift(const Samples& data, const std::vector<Dim>& axes) { shift(data, axes, true); }
void ifftshift(const Samples& data, const std::vector<Dim>& axes) { shift(data, axes, false); }
void fftshift(const ConstSamples& data, const Samples& out, const std::vector<Dim>& axes) {
  shift(data, out, axes, true);
}
void ifftshift(const ConstSamples& data, const Samples& out, const std::vector<Dim>& axes) {
  shift(data, out, axes, false);
}

}  // namespace ctessel

void TS_fftshift_dim1(float* re, float* im, int* dims, int ndims, int dim) {
  ctessel::rotate(re, im, ctessel::lines_of(dims, ndims, 1, dim), true);
}
void TS_fftshift_dim2(float* re, float* im, int* dims, int ndims, int dim) {
  ctessel::rotate(re, im, ctessel::lines_of(dims, ndims, 2, dim), true);
}
void TS_fftshift_dim3(float* re, float* im, int* dims, int ndims, int dim) {
  ctessel::rotate(re, im, ctessel::lines_of(dims, ndims, 3, dim), true);
}
void TS_ifftshift_dim1(float* re, float* im, int* dims, int ndims, int dim) {
  ctessel::rotate(re, im, ctessel::lines_of(dims, ndims, 1, dim), false);
}
void TS_ifftshift_dim2(float* re, float* im, int* dims, int ndims, int dim) {
  ctessel::rotate(re, im, ctessel::lines_of(dims, ndims, 2, dim), false);
}
void TS_ifftshift_dim3(float* re, float* im, int* dims, int ndims, int dim) {
  ctessel::rotate(re, im, ctessel::lines_of(dims, ndims, 3, dim), false);
}

void TS_fftshift(float* re, float* im, int* dims, int ndims, int dim) {
  if (dim < 1 || dim > 3) return;
  ctessel::rotate(re, im, ctessel::lines_of(dims, ndims, dim, dim), true);
}

void TS_ifftshift(float* re, float* im, int* dims, int ndims, int dim) {
  if (dim < 1 || dim > 3) return;
  ctessel::rotate(re, im, ctessel::lines_of(dims, ndims, dim, dim), false);
}
