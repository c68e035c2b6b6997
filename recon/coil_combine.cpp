// Combination of coil images: root sum of squares, and the same magnitude with the phase of a
// weighted coil sum. Roemer et al., Magn. Reson. Med. 16:192 (1990).
//
// Float sums keep their order, coil by coil and real part before imaginary part; vectors run across
// voxels. The voxels of a block are taken through all coils together, so every coil is streamed
// once.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <vector>

#include "cTessel.h"
#include "dispatch.h"
#include "samples.h"
#include "simd.h"

namespace ctessel {

namespace {

using std::ptrdiff_t;

ptrdiff_t product(const int* dims, int begin, int end) {
  return static_cast<ptrdiff_t>(merged_outer(end, dims, begin));
}

/// The images of one coil: all that an output voxel or row belongs to.
ConstSamples first_coil(const ConstSamples& data, Dim coil) {
  return data.extent(coil) > 0 ? data.slice(coil, 0, 1) : data;
}

void require_combined(const ConstSamples& data, Dim coil, const ConstSamples& out) {
  Extents one = data.extents;
  one[static_cast<std::size_t>(coil)] = 1;
  require_same_extents({data.re, nullptr, one, data.strides}, out, "one coil of data, and out");
}

/// Runs body(out row, data row of coil 0) over all voxels in blocks of at most `most`, with its own
/// body on each thread.
template <class Body>
void for_each_block(const Samples& out, const ConstSamples& first, ptrdiff_t most,
                    const Body& shared) {
  const JointRows rows(out, first);
  for_each_chunk(out.size(), [&](std::int64_t begin, std::int64_t end) {
    const auto last = static_cast<ptrdiff_t>(end);
    Body body = shared;
    for (auto n = static_cast<ptrdiff_t>(begin); n < last; n += most) {
      rows.visit(n, std::min(n + most, last), body);
    }
  });
}

// ---- Sum of squares -----------------------------------------------------------------------------

constexpr ptrdiff_t kBlock = 65536;  // sums of one block: 256 KiB, a part of the L2 cache

/// Images, one every S floats, with a sample every `step` floats.
struct Images {
  const float *re, *im;
  ptrdiff_t step, S, count;
  Images from(ptrdiff_t k) const { return {re + k * S, im ? im + k * S : nullptr, step, S, count}; }
};

/// Adds the squares of C coils to the sums. Step 0: any.
template <int C, bool Complex, int Step>
CTESSEL_INLINE void add_coils(float* out, const Images& coils, ptrdiff_t n) {
  const ptrdiff_t step = Step ? Step : coils.step, S = coils.S;
  const float *re = coils.re, *im = coils.im;
#pragma omp simd
  for (ptrdiff_t i = 0; i < n; ++i) {
    float sum = out[i];
    for (int c = 0; c < C; ++c) {
      sum += re[step * i + c * S] * re[step * i + c * S];
      if (Complex) sum += im[step * i + c * S] * im[step * i + c * S];
    }
    out[i] = sum;
  }
}

/// Coils together in one pass over the sums: fewer passes, and no more streams than the processor's
/// prefetchers follow.
constexpr int kTogether = 4;

template <bool Complex, int Step>
CTESSEL_INLINE void add_all(float* out, const Images& coils, ptrdiff_t n) {
  ptrdiff_t c = 0;
  for (; c + kTogether <= coils.count; c += kTogether) {
    add_coils<kTogether, Complex, Step>(out, coils.from(c), n);
  }
  for (; c < coils.count; ++c) add_coils<1, Complex, Step>(out, coils.from(c), n);
}

CTESSEL_CLONES void add_squares(float* out, const Images& coils, ptrdiff_t n) {
  if (coils.im && coils.step == 1) return add_all<true, 1>(out, coils, n);
  if (coils.step == 2 && coils.im == coils.re + 1) {
    // Pairs, named by the real part alone so that each is loaded once.
    return add_all<true, 2>(out, {coils.re, coils.re + 1, 2, coils.S, coils.count}, n);
  }
  if (coils.im) return add_all<true, 0>(out, coils, n);
  if (coils.step == 1) return add_all<false, 1>(out, coils, n);
  add_all<false, 0>(out, coils, n);
}

CTESSEL_CLONES void take_roots(float* out, ptrdiff_t n) {
#pragma omp simd
  for (ptrdiff_t i = 0; i < n; ++i) out[i] = std::sqrt(out[i]);
}

/// Sums and roots of a row of voxels, in the output itself where that is without gaps.
struct SumRow {
  ptrdiff_t S, coils;
  std::vector<float> own{};

  void operator()(const Row& out, const ConstRow& from) {
    const Images all{from.re, from.im, from.step, S, coils};
    if (out.step == 1) return sum(out.re, all, out.n);
    own.resize(static_cast<std::size_t>(out.n));
    load_row({out.re, nullptr, out.step, out.n}, own.data(), nullptr);
    sum(own.data(), all, out.n);
    store_row(own.data(), nullptr, out);
  }

  static void sum(float* sums, const Images& all, ptrdiff_t n) {
    add_squares(sums, all, n);
    take_roots(sums, n);
  }
};

}  // namespace

void sos(const ConstSamples& data, Dim coil, const Samples& out) {
  require_combined(data, coil, out);
  for_each_block(out, first_coil(data, coil), kBlock, SumRow{data.stride(coil), data.extent(coil)});
}

// ---- Phase-corrected sum of squares -------------------------------------------------------------

namespace {

constexpr ptrdiff_t kVoxels = 256;

/// Sums of a block of voxels at one entry of the averaged axis.
struct Sums {
  float squares[kVoxels], real[kVoxels], imaginary[kVoxels];
};

template <int Step>
CTESSEL_INLINE void add_magnitudes(const Images& s, float* sum, ptrdiff_t n) {
  const ptrdiff_t step = Step ? Step : s.step;
  const float *re = s.re, *im = s.im;
#pragma omp simd
  for (ptrdiff_t v = 0; v < n; ++v) {
    const float x = re[step * v], y = im ? im[step * v] : 0.0f;
    sum[v] += std::sqrt(x * x + y * y);
  }
}

template <int Step>
CTESSEL_INLINE void add_weighted(const Images& s, const float* w, Sums& sums, ptrdiff_t n) {
  const ptrdiff_t step = Step ? Step : s.step;
  const float *re = s.re, *im = s.im;
#pragma omp simd
  for (ptrdiff_t v = 0; v < n; ++v) {
    const float x = re[step * v];
    sums.squares[v] += x * x;
    sums.real[v] += x * w[v];
    if (im) {
      const float y = im[step * v];
      sums.squares[v] += y * y;
      sums.imaginary[v] += w[v] * y;
    }
  }
}

/// Takes one coil's images into the sums of all entries. Its weight at a voxel is its mean magnitude,
/// the same for every entry.
template <int Step>
CTESSEL_INLINE void add_coil_in_steps(const Images& s, Sums* sums, ptrdiff_t n) {
  float w[kVoxels] = {};
  for (ptrdiff_t k = 0; k < s.count; ++k) add_magnitudes<Step>(s.from(k), w, n);
  const auto count = static_cast<float>(s.count);
  for (ptrdiff_t v = 0; v < n; ++v) w[v] /= count;
  for (ptrdiff_t t = 0; t < s.count; ++t) add_weighted<Step>(s.from(t), w, sums[t], n);
}

CTESSEL_CLONES void add_coil(const Images& s, Sums* sums, ptrdiff_t n) {
  if (s.step == 1) return add_coil_in_steps<1>(s, sums, n);
  if (s.step == 2) return add_coil_in_steps<2>(s, sums, n);
  add_coil_in_steps<0>(s, sums, n);
}

void store(const Sums& sums, ptrdiff_t v, float* out_re, float* out_im) {
  const float m = std::sqrt(sums.squares[v]), phase = std::atan2(sums.imaginary[v], sums.real[v]);
  *out_re = m * std::cos(phase);
  *out_im = m * std::sin(phase);
}

/// One coil's series to the next, and an image of the output every V_out floats.
struct CombineRow {
  ptrdiff_t coils, S, D, V, V_out;
  std::vector<Sums> sums{};

  void operator()(const Row& out, const ConstRow& from) {
    sums.assign(static_cast<std::size_t>(D), Sums{});
    for (ptrdiff_t c = 0; c < coils; ++c) {
      add_coil({from.re + c * S, from.im ? from.im + c * S : nullptr, from.step, V, D}, sums.data(),
               out.n);
    }
    for (ptrdiff_t t = 0; t < D; ++t) {
      for (ptrdiff_t v = 0; v < out.n; ++v) {
        const ptrdiff_t at = t * V_out + v * out.step;
        store(sums[static_cast<std::size_t>(t)], v, out.re + at, out.im + at);
      }
    }
  }
};

}  // namespace

void pcsos(const ConstSamples& data, Dim coil, const Samples& out) {
  constexpr Dim kAveraged = Dim::repetition;
  if (coil == kAveraged) throw std::invalid_argument("pcsos: the coils are on the averaged axis");
  if (!out.im) throw std::invalid_argument("pcsos: out must be complex");
  require_combined(data, coil, out);
  if (data.extent(kAveraged) == 0) return;
  const bool averaged = data.ndim() > static_cast<int>(kAveraged);
  const auto one = [&](const auto& s) { return averaged ? s.slice(kAveraged, 0, 1) : s; };
  for_each_block(one(out), one(first_coil(data, coil)), kVoxels,
                 CombineRow{data.extent(coil), data.stride(coil), data.extent(kAveraged),
                            data.stride(kAveraged), out.stride(kAveraged)});
}

}  // namespace ctessel

void TS_perform_sos(float* re, float* im, int ndims, int* dims, int coildim, float* out,
                    int* outdims) {
  using namespace ctessel;
  const ptrdiff_t S = product(dims, 0, coildim - 1), coils = dims[coildim - 1],
                  n = product(outdims, 0, ndims);
  if (S <= 0) return;
  // Whole runs of the S voxels below the coils, then what is left of one: its coils lie S floats from each other, too.
  const auto sum = [&](ptrdiff_t first, ptrdiff_t below, ptrdiff_t above) {
    if (below * above == 0) return;
    const ptrdiff_t at = first * coils;
    sos({re + at, im ? im + at : nullptr, {below, coils, above}, {1, S, S * coils}}, Dim::y,
        Samples::parts(out + first, nullptr, {below, 1, above}));
  };
  sum(0, S, n / S);
  sum(n / S * S, n % S, 1);
}

namespace {

/// One output voxel of any shape, `total` samples in all: coils at or beyond the tenth dimension,
/// outputs that do not match the input.
void combine_voxel(const ctessel::ConstSamples& data, const int* dims, int coildim,
                   std::ptrdiff_t total, std::ptrdiff_t n, float* out_re, float* out_im) {
  using namespace ctessel;
  const ptrdiff_t S = product(dims, 0, coildim - 1), coils = dims[coildim - 1],
                  V = product(dims, 0, 9), D = dims[9];
  Sums sums;
  sums.squares[0] = sums.real[0] = sums.imaginary[0] = 0;
  const ptrdiff_t b = n / S * (coils - 1) * S + n, t = b % (D * V) / V;
  for (ptrdiff_t c = 0; c < coils && b + c * S < total; ++c) {
    const ptrdiff_t first = b + c * S - t * V;
    const Images s{data.re + first, data.im ? data.im + first : nullptr, 1, V, D};
    float w = 0;
    for (ptrdiff_t k = 0; k < D && first + k * V < total; ++k) add_magnitudes<1>(s.from(k), &w, 1);
    w /= static_cast<float>(D);
    add_weighted<1>(s.from(t), &w, sums, 1);
  }
  store(sums, 0, out_re + n, out_im + n);
}

}  // namespace

void TS_perform_pcsos(float* re, float* im, int ndims, int* dims, int coildim, float* out_re,
                      float* out_im, int* outdims) {
  using namespace ctessel;
  const int axes = std::max(ndims, 10);
  const ptrdiff_t total = product(dims, 0, axes), n = product(outdims, 0, ndims),
                  coils = dims[coildim - 1];
  const ConstSamples data = ConstSamples::parts(re, im, Extents(dims, dims + axes));
  if (dims[9] <= 0 || coils <= 0) {
    const float value = dims[9] <= 0 ? NAN : 0.0f;  // a mean over nothing, or a sum
    std::fill_n(out_re, n, value);
    std::fill_n(out_im, n, value);
  } else if (coildim < 10 && n == total / coils) {
    Extents one = data.extents;
    one[static_cast<std::size_t>(coildim - 1)] = 1;
    pcsos(data, Dim(coildim - 1), Samples::parts(out_re, out_im, one));
  } else if (product(dims, 0, 9) > 0) {
    for_each_chunk(n, [&](std::int64_t begin, std::int64_t end) {
      for (auto v = static_cast<ptrdiff_t>(begin); v < end; ++v) {
        combine_voxel(data, dims, coildim, total, v, out_re, out_im);
      }
    });
  }
}
