// Weights are formed a few rows at a time and used for all volumes while they are in the cache. Rows
// run along the axis of x, y and z that is fastest in memory; axes that are faster still share one
// weight.

#include "weighting.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "dispatch.h"
#include "loops.h"
#include "simd.h"

namespace ctessel {

namespace {

using std::ptrdiff_t;

constexpr ptrdiff_t kWeights = 1 << 14;  // formed at a time: 64 KiB

/// One weight for every `block` floats, which are known when compiled where they are few.
template <int Block>
CTESSEL_INLINE void scale(const float* in, const float* w, float* out, ptrdiff_t n) {
#pragma omp simd
  for (ptrdiff_t i = 0; i < n; ++i) {
    for (ptrdiff_t k = 0; k < Block; ++k) out[Block * i + k] = in[Block * i + k] * w[i];
  }
}

CTESSEL_CLONES void scale_run(const float* in, const float* w, float* out, ptrdiff_t n,
                              ptrdiff_t block) {
  if (block == 1) return scale<1>(in, w, out, n);
  if (block == 2) return scale<2>(in, w, out, n);
  for (ptrdiff_t i = 0; i < n; ++i) {
#pragma omp simd
    for (ptrdiff_t k = i * block; k < (i + 1) * block; ++k) out[k] = in[k] * w[i];
  }
}

/// Where the samples of one run lie: `block` floats with one weight side by side, `step` from weight
/// to weight.
struct Run {
  Step step;
  ptrdiff_t block;
  bool dense() const { return step.from == block && step.to == block; }
};

/// The walk of one call: the axes of x, y and z from fast to slow, and all others as one.
class Walk {
 public:
  Walk(const ConstSamples& from, const Samples& to, const Weighting& weighting)
      : from_(from), to_(to), weighting_(weighting), pairs_(in_pairs(from) && in_pairs(to)) {
    for (int d = 0; d < 3; ++d) axes_[d] = step(d);
    std::sort(order_, order_ + 3,
              [&](int a, int b) { return std::pair(rank(a), a) < std::pair(rank(b), b); });
    run_ = {axes_[order_[0]], pairs_ ? 2 : 1};
    for (int d : memory_order(to)) {
      if (d >= 3 && to.extent(Dim(d)) > 1) add_outer(step(d));
    }
    rows_ = std::clamp<ptrdiff_t>(kWeights / run_.step.n, 1, axes_[order_[1]].n);
  }

  ptrdiff_t volumes() const { return count_of(outer_); }
  /// Pieces of a volume: some rows of one plane each.
  ptrdiff_t pieces() const { return per_plane() * axes_[order_[2]].n; }

  /// Applies the weights of one piece to some volumes.
  void apply(ptrdiff_t piece, ptrdiff_t first, ptrdiff_t last, std::vector<float>& weights) const {
    WeightRows w{order_[0], order_[1], {0, 0, 0}, 0, run_.step.n};
    w.first[order_[1]] = piece % per_plane() * rows_;
    w.first[order_[2]] = piece / per_plane();
    w.rows = std::min(rows_, axes_[order_[1]].n - w.first[order_[1]]);
    weights.resize(static_cast<std::size_t>(w.n * w.rows));
    weighting_.fill(w, weights.data());
    for (ptrdiff_t v = first; v < last; ++v) scale_rows(w, weights.data(), v);
  }

 private:
  Step step(int d) const { return {to_.extent(Dim(d)), from_.stride(Dim(d)), to_.stride(Dim(d))}; }
  /// Axes of one entry are no place to run along.
  ptrdiff_t rank(int d) const { return axes_[d].n > 1 ? std::abs(axes_[d].to) : PTRDIFF_MAX; }
  ptrdiff_t per_plane() const { return (axes_[order_[1]].n + rows_ - 1) / rows_; }

  /// Samples that follow each other with one weight become a block.
  void add_outer(const Step& s) {
    const bool side_by_side = s.from == run_.block && s.to == run_.block;
    if (side_by_side && outer_.empty() && (pairs_ || !to_.im)) {
      run_.block *= s.n;
    } else {
      outer_.push_back(s);
    }
  }

  void scale_rows(const WeightRows& w, const float* weights, ptrdiff_t volume) const {
    const Step& next = axes_[w.next];
    auto [from, to] = offsets_of(outer_, volume);
    ptrdiff_t runs = w.rows, n = w.n;
    for (int d = 0; d < 3; ++d) from += w.first[d] * axes_[d].from, to += w.first[d] * axes_[d].to;
    if (run_.dense() && next.from == n * run_.block && next.to == n * run_.block) {
      n *= std::exchange(runs, 1);
    }
    for (; runs > 0; --runs, from += next.from, to += next.to, weights += n) {
      scale_samples(from, to, weights, n);
    }
  }

  void scale_samples(ptrdiff_t from, ptrdiff_t to, const float* w, ptrdiff_t n) const {
    const float *re = from_.re + from, *im = to_.im ? from_.im + from : nullptr;
    float *out = to_.re + to, *out_im = to_.im ? to_.im + to : nullptr;
    if (run_.dense() && !weighting_.keeps_zeros) {
      scale_run(re, w, out, n, run_.block);
      if (im && !pairs_) scale_run(im, w, out_im, n, run_.block);
      return;
    }
    const ptrdiff_t samples = run_.block / (pairs_ ? 2 : 1), spacing = pairs_ ? 2 : 1;
    for (ptrdiff_t i = 0; i < n; ++i) {
      for (ptrdiff_t k = 0; k < samples; ++k) {
        const ptrdiff_t f = i * run_.step.from + k * spacing, t = i * run_.step.to + k * spacing;
        const bool keep = weighting_.keeps_zeros && re[f] == 0 && (!im || im[f] == 0);
        const float weight = keep ? 1.0f : w[i];
        out[t] = re[f] * weight;
        if (im) out_im[t] = im[f] * weight;
      }
    }
  }

  const ConstSamples& from_;
  const Samples& to_;
  const Weighting& weighting_;
  bool pairs_;
  Step axes_[3];
  int order_[3] = {0, 1, 2};
  Run run_;
  std::vector<Step> outer_;
  ptrdiff_t rows_;
};

}  // namespace

void apply_weights(const ConstSamples& from, const Samples& to, const Weighting& weighting,
                   Share share) {
  if (to.size() == 0) return;
  const Walk walk(from, to, weighting);
  const ptrdiff_t volumes = walk.volumes(), pieces = walk.pieces();
  const bool split_volumes = share == Share::volumes || volumes >= omp_get_max_threads();
  for_each_chunk(split_volumes ? volumes : pieces, [&](std::int64_t begin, std::int64_t end) {
    if (begin == end) return;
    std::vector<float> weights;
    const auto first = static_cast<ptrdiff_t>(begin), last = static_cast<ptrdiff_t>(end);
    for (ptrdiff_t p = split_volumes ? 0 : first; p < (split_volumes ? pieces : last); ++p) {
      walk.apply(p, split_volumes ? first : 0, split_volumes ? last : volumes, weights);
    }
  });
}

}  // namespace ctessel
