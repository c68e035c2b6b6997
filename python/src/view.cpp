// One walk over two strided arrays serves every copy. Where other axes than the written one run on
// without a gap on the reading side it goes through square tiles, read along the one and written
// along the other, so that every cache line is used whole; otherwise row by row.

#include "view.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>

#include "dispatch.h"
#include "loops.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

/// One axis of a walk: its extent and the steps on the reading and the writing side, in bytes.
struct Axis {
  ptrdiff_t n, from, to;
};

constexpr ptrdiff_t kTile = 32, kRow = 1 << 14;

/// Axes by rising step on the writing side, joined where both sides run on without a gap.
std::vector<Axis> walk_order(const std::vector<ptrdiff_t>& shape,
                             const std::vector<ptrdiff_t>& from, const std::vector<ptrdiff_t>& to) {
  std::vector<Axis> axes, joined;
  for (std::size_t d = 0; d < shape.size(); ++d) {
    if (shape[d] != 1) axes.push_back({shape[d], from[d], to[d]});
  }
  std::stable_sort(axes.begin(), axes.end(),
                   [](const Axis& a, const Axis& b) { return std::abs(a.to) < std::abs(b.to); });
  for (const Axis& a : axes) {
    Axis* last = joined.empty() ? nullptr : &joined.back();
    if (last && a.from == last->from * last->n && a.to == last->to * last->n) {
      last->n *= a.n;
    } else {
      joined.push_back(a);
    }
  }
  if (joined.empty()) joined.push_back({1, 0, 0});
  return joined;
}

ptrdiff_t count_of(const std::vector<Axis>& axes) {
  ptrdiff_t n = 1;
  for (const Axis& a : axes) n *= a.n;
  return n;
}

struct Offsets {
  ptrdiff_t from = 0, to = 0;
};

/// Offsets of entry `index` of the axes taken as one, the first of them fastest.
Offsets offsets_of(const std::vector<Axis>& axes, ptrdiff_t index) {
  Offsets o;
  for (const Axis& a : axes) {
    o.from += index % a.n * a.from;
    o.to += index % a.n * a.to;
    index /= a.n;
  }
  return o;
}

template <class Move>
void move_row(const Move& m, Offsets o, const Axis& axis, ptrdiff_t n) {
  if (axis.from == Move::kFrom && axis.to == Move::kTo) return m.run(o.from, o.to, n);
  for (ptrdiff_t i = 0; i < n; ++i) m.put(o.to + i * axis.to, m.get(o.from + i * axis.from));
}

/// Reading runs along j without a gap; `to` holds where each of its samples goes.
template <class Move>
void move_tile(const Move& m, Offsets o, const Axis& w, ptrdiff_t nw, const ptrdiff_t* to,
               ptrdiff_t nr) {
  using Cell = decltype(m.get(0));
  std::array<Cell, kTile * kTile> tile;
  for (ptrdiff_t i = 0; i < nw; ++i) {
    Cell* row = tile.data() + kTile * i;
    const ptrdiff_t from = o.from + i * w.from;
    for (ptrdiff_t j = 0; j < nr; ++j) row[j] = m.get(from + j * Move::kFrom);
  }
  for (ptrdiff_t j = 0; j < nr; ++j) {
    const Cell* column = tile.data() + j;
    for (ptrdiff_t i = 0; i < nw; ++i) m.put(o.to + to[j] + i * w.to, column[kTile * i]);
  }
}

template <class Move>
void walk_rows(const Move& m, const Axis& row, const std::vector<Axis>& axes) {
  const ptrdiff_t pieces = (row.n + kRow - 1) / kRow;
  ctessel::for_each_chunk(count_of(axes) * pieces, [&](std::int64_t begin, std::int64_t end) {
    for (auto u = static_cast<ptrdiff_t>(begin); u < end; ++u) {
      const ptrdiff_t first = u % pieces * kRow;
      Offsets o = offsets_of(axes, u / pieces);
      o.from += first * row.from;
      o.to += first * row.to;
      move_row(m, o, row, std::min(kRow, row.n - first));
    }
  });
}

/// Takes the axes out along which reading runs on without a gap, fastest first.
template <class Move>
std::vector<Axis> take_reading_run(std::vector<Axis>& axes) {
  std::vector<Axis> run;
  ptrdiff_t step = Move::kFrom;
  for (std::size_t d = 1; d < axes.size();) {
    if (axes[d].from != step) {
      ++d;
      continue;
    }
    run.push_back(axes[d]);
    step *= axes[d].n;
    axes.erase(axes.begin() + static_cast<ptrdiff_t>(d));
    d = 1;
  }
  return run;
}

template <class Move>
void walk_tiles(const Move& m, const Axis& w, const std::vector<Axis>& run,
                const std::vector<Axis>& others) {
  const ptrdiff_t length = count_of(run), columns = (length + kTile - 1) / kTile;
  ctessel::for_each_chunk(count_of(others) * columns, [&](std::int64_t begin, std::int64_t end) {
    for (auto u = static_cast<ptrdiff_t>(begin); u < end; ++u) {
      const ptrdiff_t j = u % columns * kTile, nr = std::min(kTile, length - j);
      Offsets o = offsets_of(others, u / columns);
      o.from += j * Move::kFrom;
      std::array<ptrdiff_t, kTile> to;
      for (ptrdiff_t k = 0; k < nr; ++k)
        to[static_cast<std::size_t>(k)] = offsets_of(run, j + k).to;
      for (ptrdiff_t i = 0; i < w.n; i += kTile) {
        move_tile(m, {o.from + i * w.from, o.to + i * w.to}, w, std::min(kTile, w.n - i), to.data(),
                  nr);
      }
    }
  });
}

template <class Move>
void walk(const Move& m, const std::vector<ptrdiff_t>& shape, const std::vector<ptrdiff_t>& from,
          const std::vector<ptrdiff_t>& to) {
  if (std::find(shape.begin(), shape.end(), 0) != shape.end()) return;
  std::vector<Axis> axes = walk_order(shape, from, to);
  const std::vector<Axis> run = take_reading_run<Move>(axes);
  const Axis first = axes.front();
  axes.erase(axes.begin());
  if (run.empty()) return walk_rows(m, first, axes);
  walk_tiles(m, first, run, axes);
}

CTESSEL_CLONES void split_run(const float* pairs, float* re, float* im, ptrdiff_t n) {
#pragma omp simd
  for (ptrdiff_t i = 0; i < n; ++i) {
    re[i] = pairs[2 * i];
    im[i] = pairs[2 * i + 1];
  }
}

CTESSEL_CLONES void join_run(const float* re, const float* im, float* pairs, ptrdiff_t n) {
#pragma omp simd
  for (ptrdiff_t i = 0; i < n; ++i) {
    pairs[2 * i] = re[i];
    pairs[2 * i + 1] = im[i];
  }
}

struct Pair {
  float re, im;
};

const float* at(const float* p, ptrdiff_t bytes) { return p + bytes / 4; }
float* at(float* p, ptrdiff_t bytes) { return p + bytes / 4; }

struct Split {
  static constexpr ptrdiff_t kFrom = 8, kTo = 4;
  const float* pairs;
  float *re, *im;
  Pair get(ptrdiff_t o) const { return {at(pairs, o)[0], at(pairs, o)[1]}; }
  void put(ptrdiff_t o, Pair p) const { *at(re, o) = p.re, *at(im, o) = p.im; }
  void run(ptrdiff_t from, ptrdiff_t to, ptrdiff_t n) const {
    split_run(at(pairs, from), at(re, to), at(im, to), n);
  }
};

struct Join {
  static constexpr ptrdiff_t kFrom = 4, kTo = 8;
  const float *re, *im;
  float* pairs;
  Pair get(ptrdiff_t o) const { return {*at(re, o), *at(im, o)}; }
  void put(ptrdiff_t o, Pair p) const { at(pairs, o)[0] = p.re, at(pairs, o)[1] = p.im; }
  void run(ptrdiff_t from, ptrdiff_t to, ptrdiff_t n) const {
    join_run(at(re, from), at(im, from), at(pairs, to), n);
  }
};

/// By words, so that the bits of a NaN stay.
template <class Word>
struct Copy {
  static constexpr ptrdiff_t kFrom = sizeof(Word), kTo = sizeof(Word);
  const char* from;
  char* to;
  Word get(ptrdiff_t o) const {
    Word w;
    std::memcpy(&w, from + o, sizeof(Word));
    return w;
  }
  void put(ptrdiff_t o, Word w) const { std::memcpy(to + o, &w, sizeof(Word)); }
  void run(ptrdiff_t f, ptrdiff_t t, ptrdiff_t n) const {
    std::memcpy(to + t, from + f, static_cast<std::size_t>(n) * sizeof(Word));
  }
};

std::vector<ptrdiff_t> packed_strides(const std::vector<ptrdiff_t>& shape, ptrdiff_t item) {
  std::vector<ptrdiff_t> strides;
  for (ptrdiff_t n : shape) {
    strides.push_back(item);
    item *= std::max<ptrdiff_t>(n, 1);
  }
  return strides;
}

void cut_piece(const Views& views, const std::vector<int>& whole, ptrdiff_t limit,
               std::vector<Views>& pieces) {
  const View& v = views.front();
  int axis = -1;
  for (int d = 0; v.size() * v.item() > limit && d < v.ndim(); ++d) {
    if (v.extent(d) < 2 || std::count(whole.begin(), whole.end(), d)) continue;
    const auto step = [&](int k) { return std::abs(v.strides[static_cast<std::size_t>(k)]); };
    if (axis < 0 || step(d) >= step(axis)) axis = d;
  }
  if (axis < 0) return pieces.push_back(views);
  const ptrdiff_t n = v.extent(axis), half = n / 2;
  Views left, right;
  for (const View& w : views) {
    left.push_back(w.slice(axis, 0, half));
    right.push_back(w.slice(axis, half, n - half));
  }
  cut_piece(left, whole, limit, pieces);
  cut_piece(right, whole, limit, pieces);
}

}  // namespace

ptrdiff_t View::size() const {
  ptrdiff_t n = 1;
  for (ptrdiff_t extent : shape) n *= extent;
  return n;
}

bool View::first_axis_fastest() const {
  const std::vector<ptrdiff_t> want = packed_strides(shape, item());
  for (std::size_t d = 0; d < shape.size(); ++d) {
    if (shape[d] > 1 && strides[d] != want[d]) return false;
  }
  return true;
}

View View::slice(int axis, ptrdiff_t first, ptrdiff_t count) const {
  const auto d = static_cast<std::size_t>(axis);
  View out = *this;
  out.data += first * strides[d];
  out.shape[d] = count;
  return out;
}

View View::with_axes(int n) const {
  View out = *this;
  const auto axes = static_cast<std::size_t>(std::max(n, ndim()));
  out.shape.resize(axes, 1);
  out.strides.resize(axes, 0);
  return out;
}

View View::with_axis(int axis) const {
  View out = *this;
  out.shape.insert(out.shape.begin() + axis, 1);
  out.strides.insert(out.strides.begin() + axis, 0);
  return out;
}

View View::without_axis(int axis) const {
  View out = *this;
  out.shape.erase(out.shape.begin() + axis);
  out.strides.erase(out.strides.begin() + axis);
  return out;
}

View View::permuted(const std::vector<int>& order) const {
  View out = *this;
  for (std::size_t d = 0; d < order.size(); ++d) {
    out.shape[d] = shape[static_cast<std::size_t>(order[d])];
    out.strides[d] = strides[static_cast<std::size_t>(order[d])];
  }
  return out;
}

std::vector<int> View::memory_order() const {
  std::vector<int> order(shape.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [this](int a, int b) {
    return std::abs(strides[static_cast<std::size_t>(a)]) <
           std::abs(strides[static_cast<std::size_t>(b)]);
  });
  return order;
}

View View::part(int which) const {
  View out = *this;
  out.data += 4 * which;
  out.complex = false;
  return out;
}

View packed(void* data, const std::vector<ptrdiff_t>& shape, bool complex) {
  return {static_cast<char*>(data), shape, packed_strides(shape, complex ? 8 : 4), complex};
}

void split(const View& from, float* re, float* im) {
  if (!im) return copy(from.complex ? from.part(0) : from, packed(re, from.shape, false));
  const auto* pairs = reinterpret_cast<const float*>(from.data);
  walk(Split{pairs, re, im}, from.shape, from.strides, packed_strides(from.shape, 4));
}

void join(const float* re, const float* im, const View& to) {
  if (!im) return copy(packed(const_cast<float*>(re), to.shape, false), to);
  auto* pairs = reinterpret_cast<float*>(to.data);
  walk(Join{re, im, pairs}, to.shape, packed_strides(to.shape, 4), to.strides);
}

void copy(const View& from, const View& to) {
  if (from.complex) {
    walk(Copy<std::uint64_t>{from.data, to.data}, from.shape, from.strides, to.strides);
  } else {
    walk(Copy<std::uint32_t>{from.data, to.data}, from.shape, from.strides, to.strides);
  }
}

Parts::Parts(const View& from) {
  const auto n = static_cast<std::size_t>(from.size());
  if (!from.complex && from.first_axis_fastest()) {
    re_ = reinterpret_cast<float*>(from.data);
    return;
  }
  own_.reset(new float[n]);
  re_ = own_.get();
  if (from.complex) im_.reset(new float[n]);
  split(from, re_, im_.get());
}

Packed::Packed(const View& of, Fill fill) : of_(of), view_(of) {
  if (of.first_axis_fastest()) return;  // zeros, where they are wanted, are there already
  const auto n = static_cast<std::size_t>(of.size() * of.item() / 4);
  own_.reset(fill == Fill::kZeros ? new float[n]() : new float[n]);
  view_ = packed(own_.get(), of.shape, of.complex);
  if (fill == Fill::kSamples) copy(of_, view_);
}

void Packed::put_back() const {
  if (own_) copy(view_, of_);
}

std::vector<Views> cut(const Views& views, const std::vector<int>& whole, ptrdiff_t limit) {
  std::vector<Views> pieces;
  cut_piece(views, whole, limit, pieces);
  return pieces;
}

}  // namespace ctessel_python
