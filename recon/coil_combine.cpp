// Combination of coil images: root sum of squares, and the same magnitude with the phase of a
// weighted coil sum. Roemer et al., Magn. Reson. Med. 16:192 (1990).
//
// Float sums keep their order, coil by coil and real part before imaginary part; vectors run across
// voxels. The voxels of a block are taken through all coils together, so every coil is streamed
// once.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "cTessel.h"
#include "dispatch.h"
#include "loops.h"

namespace {

std::ptrdiff_t product(const int* dims, int begin, int end) {
  std::ptrdiff_t n = 1;
  for (int d = begin; d < end; ++d) n *= dims[d];
  return n;
}

/// Where the coils of an output voxel lie: S apart from base(n) on.
struct Coils {
  std::ptrdiff_t S, count;
  std::ptrdiff_t base(std::ptrdiff_t n) const { return n / S * (count - 1) * S + n; }
  /// Voxels from n on whose samples lie side by side.
  std::ptrdiff_t run(std::ptrdiff_t n) const { return S - n % S; }
};

// ---- Sum of squares -----------------------------------------------------------------------------

constexpr std::ptrdiff_t kBlock = 65536;  // sums of one block: 256 KiB, a part of the L2 cache
constexpr std::ptrdiff_t kTile = 16;      // voxels taken together where coils lie closer than that

/// Adds the squares of C coils that lie S apart to the sums.
template <int C, bool Complex>
[[gnu::always_inline]] inline void add_coils(float* out, const float* re, const float* im,
                                             std::ptrdiff_t S, std::ptrdiff_t n) {
#pragma omp simd
  for (std::ptrdiff_t i = 0; i < n; ++i) {
    float sum = out[i];
    for (int c = 0; c < C; ++c) {
      sum += re[i + c * S] * re[i + c * S];
      if (Complex) sum += im[i + c * S] * im[i + c * S];
    }
    out[i] = sum;
  }
}

/// Coils together in one pass over the sums: fewer passes, and no more streams than the processor's
/// prefetchers follow.
constexpr int kTogether = 4;

CTESSEL_CLONES void add_squares(float* out, const float* re, const float* im, std::ptrdiff_t S,
                                std::ptrdiff_t coils, std::ptrdiff_t n) {
  std::ptrdiff_t c = 0;
  for (; c + kTogether <= coils; c += kTogether) {
    if (im) add_coils<kTogether, true>(out, re + c * S, im + c * S, S, n);
    if (!im) add_coils<kTogether, false>(out, re + c * S, nullptr, S, n);
  }
  for (; c < coils; ++c) {
    if (im) add_coils<1, true>(out, re + c * S, im + c * S, S, n);
    if (!im) add_coils<1, false>(out, re + c * S, nullptr, S, n);
  }
}

CTESSEL_CLONES void take_roots(float* out, std::ptrdiff_t n) {
#pragma omp simd
  for (std::ptrdiff_t i = 0; i < n; ++i) out[i] = std::sqrt(out[i]);
}

/// Voxels first .. last with coils close together: a tile of independent sums at a time.
void sum_tiles(const float* re, const float* im, const Coils& coils, float* out,
               std::ptrdiff_t first, std::ptrdiff_t last) {
  for (std::ptrdiff_t n = first; n < last; n += kTile) {
    const std::ptrdiff_t count = std::min(kTile, last - n);
    std::ptrdiff_t at[kTile];
    float sum[kTile] = {};
    for (std::ptrdiff_t v = 0; v < kTile; ++v) at[v] = coils.base(n + std::min(v, count - 1));
    std::copy_n(out + n, count, sum);
    for (std::ptrdiff_t c = 0; c < coils.count; ++c) {
      for (std::ptrdiff_t v = 0; v < kTile; ++v) {
        const std::ptrdiff_t i = at[v] + c * coils.S;
        sum[v] += re[i] * re[i];
        if (im) sum[v] += im[i] * im[i];
      }
    }
    std::copy_n(sum, count, out + n);
  }
}

void sum_block(const float* re, const float* im, const Coils& coils, float* out,
               std::ptrdiff_t first, std::ptrdiff_t last) {
  if (coils.count < 1) return;  // without coils there need not be an array to point into
  if (coils.S < kTile) return sum_tiles(re, im, coils, out, first, last);
  for (std::ptrdiff_t n = first; n < last;) {
    const std::ptrdiff_t count = std::min(coils.run(n), last - n), base = coils.base(n);
    add_squares(out + n, re + base, im ? im + base : nullptr, coils.S, coils.count, count);
    n += count;
  }
}

}  // namespace

void TS_perform_sos(float* re, float* im, int ndims, int* dims, int coildim, float* out,
                    int* outdims) {
  const Coils coils{product(dims, 0, coildim - 1), dims[coildim - 1]};
  ctessel::for_each_chunk(product(outdims, 0, ndims), [&](std::int64_t begin, std::int64_t end) {
    for (std::int64_t n = begin; n < end; n += kBlock) {
      const auto first = static_cast<std::ptrdiff_t>(n),
                 last = static_cast<std::ptrdiff_t>(std::min<std::int64_t>(n + kBlock, end));
      sum_block(re, im, coils, out, first, last);
      take_roots(out + first, last - first);
    }
  });
}

// ---- Phase-corrected sum of squares -------------------------------------------------------------

namespace {

/// Data whose tenth dimension has D entries V apart. A coil's weight at a voxel is its mean
/// magnitude along that dimension, the same for every entry.
struct Series {
  const float *re, *im;
  std::ptrdiff_t V, D;
};

constexpr std::ptrdiff_t kVoxels = 256;

/// Sums of a block of voxels at one entry of the tenth dimension.
struct Sums {
  float squares[kVoxels], real[kVoxels], imaginary[kVoxels];
};

/// Samples of the block's voxels, side by side from `base` on or at `base + at[v]`.
struct Place {
  std::ptrdiff_t base;
  const std::ptrdiff_t* at;
};

template <bool SideBySide>
[[gnu::always_inline]] inline void add_magnitudes(const Series& s, const Place& p, float* sum,
                                                  std::ptrdiff_t n) {
  const float* re = s.re + p.base;
  const float* im = s.im ? s.im + p.base : nullptr;
#pragma omp simd
  for (std::ptrdiff_t v = 0; v < n; ++v) {
    const float x = re[SideBySide ? v : p.at[v]], y = im ? im[SideBySide ? v : p.at[v]] : 0.0f;
    sum[v] += std::sqrt(x * x + y * y);
  }
}

template <bool SideBySide>
[[gnu::always_inline]] inline void add_weighted(const Series& s, const Place& p, const float* w,
                                                Sums& sums, std::ptrdiff_t n) {
  const float* re = s.re + p.base;
  const float* im = s.im ? s.im + p.base : nullptr;
#pragma omp simd
  for (std::ptrdiff_t v = 0; v < n; ++v) {
    const float x = re[SideBySide ? v : p.at[v]];
    sums.squares[v] += x * x;
    sums.real[v] += x * w[v];
    if (im) {
      const float y = im[SideBySide ? v : p.at[v]];
      sums.squares[v] += y * y;
      sums.imaginary[v] += w[v] * y;
    }
  }
}

/// Takes one coil into the sums of all D entries: its weights once, then every entry.
template <bool SideBySide>
[[gnu::always_inline]] inline void add_coil(const Series& s, const Place& p, Sums* sums,
                                            std::ptrdiff_t n) {
  float w[kVoxels] = {};
  for (std::ptrdiff_t k = 0; k < s.D; ++k) {
    add_magnitudes<SideBySide>(s, {p.base + k * s.V, p.at}, w, n);
  }
  const auto count = static_cast<float>(s.D);
  for (std::ptrdiff_t v = 0; v < n; ++v) w[v] /= count;
  for (std::ptrdiff_t t = 0; t < s.D; ++t) {
    add_weighted<SideBySide>(s, {p.base + t * s.V, p.at}, w, sums[t], n);
  }
}

CTESSEL_CLONES void add_coil_at(const Series& s, const Place& p, Sums* sums, std::ptrdiff_t n) {
  if (p.at) return add_coil<false>(s, p, sums, n);
  add_coil<true>(s, p, sums, n);
}

void store(const Sums& sums, std::ptrdiff_t v, float* out_re, float* out_im) {
  const float m = std::sqrt(sums.squares[v]), phase = std::atan2(sums.imaginary[v], sums.real[v]);
  *out_re = m * std::cos(phase);
  *out_im = m * std::sin(phase);
}

/// Voxels first .. last (counted without coils and without the tenth dimension) of one outer index.
void combine_voxels(const Series& s, const Coils& coils, std::ptrdiff_t first, std::ptrdiff_t n,
                    std::vector<Sums>& sums, std::ptrdiff_t out_step, float* out_re,
                    float* out_im) {
  std::ptrdiff_t at[kVoxels];
  const std::ptrdiff_t base = coils.base(first);
  const bool side_by_side = coils.run(first) >= n;
  for (std::ptrdiff_t v = 0; v < n && !side_by_side; ++v) at[v] = coils.base(first + v) - base;
  std::fill(sums.begin(), sums.end(), Sums{});
  for (std::ptrdiff_t c = 0; c < coils.count; ++c) {
    add_coil_at(s, {base + c * coils.S, side_by_side ? nullptr : at}, sums.data(), n);
  }
  for (std::ptrdiff_t t = 0; t < s.D; ++t) {
    for (std::ptrdiff_t v = 0; v < n; ++v) {
      store(sums[static_cast<std::size_t>(t)], v, out_re + first + v + t * out_step,
            out_im + first + v + t * out_step);
    }
  }
}

/// Coils below the tenth dimension, outputs of the input's shape: the usual case, in blocks.
void combine_blocks(const Series& s, const Coils& coils, std::int64_t outer, float* out_re,
                    float* out_im) {
  const std::ptrdiff_t voxels = s.V / coils.count;
  const std::ptrdiff_t blocks = (voxels + kVoxels - 1) / kVoxels;
  ctessel::for_each_chunk(outer * blocks, [&](std::int64_t begin, std::int64_t end) {
    std::vector<Sums> sums(static_cast<std::size_t>(s.D));
    for (auto b = static_cast<std::ptrdiff_t>(begin); b < end; ++b) {
      const std::ptrdiff_t r = b / blocks, first = b % blocks * kVoxels;
      const Series one{s.re + r * s.V * s.D, s.im ? s.im + r * s.V * s.D : nullptr, s.V, s.D};
      combine_voxels(one, coils, first, std::min(kVoxels, voxels - first), sums, voxels,
                     out_re + r * voxels * s.D, out_im + r * voxels * s.D);
    }
  });
}

/// One output voxel of any shape, `total` samples in all: coils at or beyond the tenth dimension,
/// outputs that do not match the input.
void combine_voxel(const Series& s, const Coils& coils, std::ptrdiff_t total, std::ptrdiff_t n,
                   float* out_re, float* out_im) {
  Sums sums;
  sums.squares[0] = sums.real[0] = sums.imaginary[0] = 0;
  const std::ptrdiff_t b = coils.base(n), t = b % (s.D * s.V) / s.V;
  for (std::ptrdiff_t c = 0; c < coils.count && b + c * coils.S < total; ++c) {
    const std::ptrdiff_t i = b + c * coils.S;
    float w = 0;
    for (std::ptrdiff_t k = 0; k < s.D && i + (k - t) * s.V < total; ++k) {
      add_magnitudes<true>(s, {i + (k - t) * s.V, nullptr}, &w, 1);
    }
    w /= static_cast<float>(s.D);
    add_weighted<true>(s, {i, nullptr}, &w, sums, 1);
  }
  store(sums, 0, out_re + n, out_im + n);
}

}  // namespace

void TS_perform_pcsos(float* re, float* im, int ndims, int* dims, int coildim, float* out_re,
                      float* out_im, int* outdims) {
  const Series s{re, im, product(dims, 0, 9), dims[9]};
  const Coils coils{product(dims, 0, coildim - 1), dims[coildim - 1]};
  const std::ptrdiff_t total = product(dims, 0, std::max(ndims, 10)),
                       n = product(outdims, 0, ndims);
  if (s.D <= 0) {  // a mean over nothing
    std::fill_n(out_re, n, NAN);
    std::fill_n(out_im, n, NAN);
  } else if (coils.count <= 0) {
    std::fill_n(out_re, n, 0.0f);
    std::fill_n(out_im, n, 0.0f);
  } else if (coildim < 10 && n == total / coils.count) {
    combine_blocks(s, coils, ctessel::merged_outer(ndims, dims, 10), out_re, out_im);
  } else if (s.V > 0) {
    ctessel::for_each_chunk(n, [&](std::int64_t begin, std::int64_t end) {
      for (auto v = static_cast<std::ptrdiff_t>(begin); v < end; ++v) {
        combine_voxel(s, coils, total, v, out_re, out_im);
      }
    });
  }
}
