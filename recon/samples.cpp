// One walk over two strided arrays serves every copy. Where both run fastest along the same axis it
// goes row by row. Otherwise it goes through square tiles, read along the axes that run on in the
// one and written along those that run on in the other, so that cache lines are used whole on both
// sides; squares of words are transposed in registers.

#include "samples.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>

#include "dispatch.h"
#include "loops.h"
#include "simd.h"

namespace ctessel {

namespace {

using std::ptrdiff_t;

constexpr ptrdiff_t kAhead = 1 << 12;   // samples of a run whose tiles are asked for ahead
constexpr ptrdiff_t kSquare = 64;       // samples along either side of a tile
constexpr ptrdiff_t kRow = 1 << 14;     // samples of a row that it copies at once
constexpr ptrdiff_t kShort = 16;        // samples of a row that is worth a call
constexpr ptrdiff_t kStream = 1 << 22;  // bytes that leave little else in the caches

/// What a copy does to one sample: Ins words, one from each of the arrays read, and Outs words,
/// one to each of the arrays written; where one side has a single array its words lie side by side.
template <class Word_, int Ins, int Outs>
struct Move {
  using Word = Word_;
  static constexpr int kIns = Ins, kOuts = Outs;
  static constexpr ptrdiff_t kFrom = sizeof(Word) * Outs, kTo = sizeof(Word) * Ins;
  std::array<const char*, Ins> in;
  std::array<char*, Outs> out;
  Team team = Team::all;
  bool stream = false;  // past the cache
};

/// Body on every thread of the team, with its share.
template <class M, class Body>
void share(const M& m, ptrdiff_t n, const Body& body) {
  if (m.team == Team::one) return body(0, n);
  for_each_chunk(n, body);
}

using Split = Move<std::uint32_t, 1, 2>;
using Join = Move<std::uint32_t, 2, 1>;
template <class Word>
using Copy = Move<Word, 1, 1>;  // by words, so that the bits of a NaN stay

using Side = ptrdiff_t Step::*;

/// Axes by rising step on the writing side, which is reversed to run upwards from `start` on, and
/// joined where both sides run on without a gap.
std::vector<Step> walk_order(const std::vector<ptrdiff_t>& shape,
                             const std::vector<ptrdiff_t>& from, const std::vector<ptrdiff_t>& to,
                             Offsets& start) {
  std::vector<Step> axes, joined;
  for (std::size_t d = 0; d < shape.size(); ++d) {
    if (shape[d] == 1) continue;
    const bool down = to[d] < 0;
    axes.push_back({shape[d], down ? -from[d] : from[d], std::abs(to[d])});
    if (down) start.from += (shape[d] - 1) * from[d], start.to += (shape[d] - 1) * to[d];
  }
  std::stable_sort(axes.begin(), axes.end(),
                   [](const Step& a, const Step& b) { return a.to < b.to; });
  for (const Step& a : axes) append(joined, a);
  if (joined.empty()) joined.push_back({1, 0, 0});
  return joined;
}

/// Lists the offsets on one side of entries first, first + 1, ... of the axes taken as one, the
/// first of them fastest.
void list_offsets(const std::vector<Step>& axes, Side side, ptrdiff_t first, ptrdiff_t count,
                  ptrdiff_t* out) {
  if (axes.empty()) return std::fill_n(out, count, ptrdiff_t{0}), void();
  const ptrdiff_t n = axes[0].n, step = axes[0].*side;
  for (ptrdiff_t k = 0; k < count;) {
    ptrdiff_t index = (first + k) / n, i = (first + k) % n, at = i * step;
    for (std::size_t d = 1; index > 0; index /= axes[d++].n)
      at += index % axes[d].n * (axes[d].*side);
    for (; i < n && k < count; ++i, ++k, at += step) out[k] = at;
  }
}

void copy_bytes(char* to, const char* from, ptrdiff_t bytes) {
  std::memcpy(to, from, static_cast<std::size_t>(bytes));
}

// ---- Row by row ----

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

const float* floats(const char* p) { return reinterpret_cast<const float*>(p); }
float* floats(char* p) { return reinterpret_cast<float*>(p); }

template <class M>
void move_run(const M& m, Offsets o, ptrdiff_t n) {
  if constexpr (M::kOuts == 2) {
    split_run(floats(m.in[0] + o.from), floats(m.out[0] + o.to), floats(m.out[1] + o.to), n);
  } else if constexpr (M::kIns == 2) {
    join_run(floats(m.in[0] + o.from), floats(m.in[1] + o.from), floats(m.out[0] + o.to), n);
  } else {
    const ptrdiff_t bytes = n * M::kTo;
    const bool stream = m.stream && bytes >= 4 * kLine;  // the lines at both ends count little then
    (stream ? stream_bytes : copy_bytes)(m.out[0] + o.to, m.in[0] + o.from, bytes);
  }
}

template <class M>
void move_word(const M& m, Offsets o) {
  constexpr std::size_t kWord = sizeof(typename M::Word);
  for (std::size_t p = 0; p < M::kIns; ++p) {
    for (std::size_t q = 0; q < M::kOuts; ++q) {
      std::memcpy(m.out[q] + o.to + p * kWord, m.in[p] + o.from + q * kWord, kWord);
    }
  }
}

template <class M>
void move_row(M m, Offsets o, Step axis, ptrdiff_t n) {
  if (axis.from == M::kFrom && axis.to == M::kTo) return move_run(m, o, n);
  for (; n > 0; --n, o.from += axis.from, o.to += axis.to) move_word(m, o);
}

template <class M>
void walk_rows(const M& m, const Step& row, std::vector<Step> axes) {
  const ptrdiff_t pieces = (row.n + kRow - 1) / kRow;
  if (pieces > 1) axes.insert(axes.begin(), {pieces, kRow * row.from, kRow * row.to});
  share(m, count_of(axes), [&](std::int64_t begin, std::int64_t end) {
    std::array<ptrdiff_t, kSquare> from, to;
    for (auto u = static_cast<ptrdiff_t>(begin); u < end; u += kSquare) {
      const ptrdiff_t count = std::min(kSquare, static_cast<ptrdiff_t>(end) - u);
      list_offsets(axes, &Step::from, u, count, from.data());
      list_offsets(axes, &Step::to, u, count, to.data());
      for (ptrdiff_t k = 0; k < count; ++k) {
        const auto i = static_cast<std::size_t>(k);
        const ptrdiff_t first = pieces == 1 ? 0 : (u + k) % pieces * kRow;
        move_row(m, {from[i], to[i]}, row, std::min(kRow, row.n - first));
      }
    }
    finish_streams();
  });
}

// ---- Tile by tile ----

/// Transposes n rows of m words into m columns of n.
template <class Word>
CTESSEL_INLINE void transpose(const char* const* rows, ptrdiff_t n, ptrdiff_t m, char* to,
                              ptrdiff_t pitch) {
  constexpr ptrdiff_t kWord = sizeof(Word), kSide = 16 / kWord;
  const ptrdiff_t squares = n - n % kSide, across = m - m % kSide;
  for (ptrdiff_t i = 0; i < squares; i += kSide) {
    for (ptrdiff_t j = 0; j < across; j += kSide) {
      transpose_square(Word{}, rows + i, j * kWord, to + j * pitch + i * kWord, pitch);
    }
  }
  for (ptrdiff_t i = 0; i < n; ++i) {
    for (ptrdiff_t j = i < squares ? across : 0; j < m; ++j) {
      std::memcpy(to + j * pitch + i * kWord, rows[i] + j * kWord, kWord);
    }
  }
}

CTESSEL_CLONES void transpose_words(std::uint32_t, const char* const* rows, ptrdiff_t n,
                                    ptrdiff_t m, char* to, ptrdiff_t pitch) {
  transpose<std::uint32_t>(rows, n, m, to, pitch);
}
CTESSEL_CLONES void transpose_words(std::uint64_t, const char* const* rows, ptrdiff_t n,
                                    ptrdiff_t m, char* to, ptrdiff_t pitch) {
  transpose<std::uint64_t>(rows, n, m, to, pitch);
}

/// Axes along which one side runs on with one step, fastest first.
struct Run {
  std::vector<Step> axes;
  ptrdiff_t n;

  explicit Run(const Step& first) : axes{first}, n(first.n) {}
  /// By others, until it has at least so many entries.
  void lengthen(Side side, std::vector<Step>& others, ptrdiff_t least) {
    while (n < least) {
      const auto next = std::find_if(others.begin(), others.end(),
                                     [&](const Step& a) { return a.*side == axes[0].*side * n; });
      if (next == others.end()) return;
      n *= next->n;
      axes.push_back(*next);
      others.erase(next);
    }
  }
  ptrdiff_t tiles() const { return (n + kSquare - 1) / kSquare; }
};

// Inline, as the compiler drops calls of functions without any effect but this.
CTESSEL_INLINE void fetch(const char* p, ptrdiff_t bytes) {
  for (ptrdiff_t i = -into_line(p); i < bytes; i += kLine) __builtin_prefetch(p + i, 0, 2);
}

/// Moves entries r .. r + kSquare - 1 of the reading run and w .. w + kSquare - 1 of the writing run.
template <class M>
void move_tile(const M& m, Offsets start, const Run& read, ptrdiff_t r, const Run& write,
               ptrdiff_t w) {
  constexpr ptrdiff_t kPitch = kSquare * M::kTo + kLine, kTile = kSquare * M::kFrom;
  const bool ahead = r + kSquare < read.n;
  const ptrdiff_t read_step = read.axes[0].from, write_step = write.axes[0].to;
  // Tiles begin early, so that columns which are streamed begin with whole lines.
  const ptrdiff_t early = w - (m.stream ? into_line(m.out[0] + start.to) / M::kTo : 0);
  w = std::max(early, ptrdiff_t{0});
  const ptrdiff_t nr = std::min(kSquare, read.n - r), nw = std::min(early + kSquare, write.n) - w;
  if (nw <= 0) return;
  const auto at = [](const auto& list, ptrdiff_t i) { return list[static_cast<std::size_t>(i)]; };
  std::array<ptrdiff_t, kSquare> from, to;
  list_offsets(write.axes, &Step::from, w, nw, from.data());
  list_offsets(read.axes, &Step::to, r, nr, to.data());
  start.from += r * read_step, start.to += w * write_step;
  if (read_step != M::kFrom || write_step != M::kTo) {
    for (ptrdiff_t i = 0; i < nr * nw; ++i) {
      const ptrdiff_t k = i % nr, j = i / nr;
      move_word(m,
                {start.from + at(from, j) + k * read_step, start.to + at(to, k) + j * write_step});
    }
    return;
  }
  std::array<const char*, kSquare * M::kIns> rows;
  alignas(kLine) std::array<char, kSquare * M::kOuts * kPitch> columns;
  for (ptrdiff_t i = 0; i < nw * M::kIns; ++i)
    rows[static_cast<std::size_t>(i)] = at(m.in, i % M::kIns) + start.from + at(from, i / M::kIns);
  transpose_words(typename M::Word{}, rows.data(), nw * M::kIns, nr * M::kOuts, columns.data(),
                  kPitch);
  for (ptrdiff_t k = 0; k < nr * M::kOuts; ++k) {
    char* column = at(m.out, k % M::kOuts) + start.to + at(to, k / M::kOuts);
    (m.stream ? stream_bytes : copy_bytes)(column, columns.data() + k * kPitch, nw * M::kTo);
    for (ptrdiff_t i = k; ahead && i < nw * M::kIns; i += nr * M::kOuts)
      fetch(at(rows, i) + kTile, kTile);
  }
}

template <class M>
void walk_tiles(const M& m, const Run& read, const Run& write, const std::vector<Step>& others) {
  const ptrdiff_t down = write.tiles() + 1, across = read.tiles();
  share(m, count_of(others) * down * across, [&](std::int64_t begin, std::int64_t end) {
    for (auto tile = static_cast<ptrdiff_t>(begin); tile < end; ++tile) {
      const ptrdiff_t column = tile / across;
      move_tile(m, offsets_of(others, column / down), read, tile % across * kSquare, write,
                column % down * kSquare);
    }
    finish_streams();
  });
}

template <class M>
void walk(M m, const std::vector<ptrdiff_t>& shape, const std::vector<ptrdiff_t>& from,
          const std::vector<ptrdiff_t>& to) {
  if (std::find(shape.begin(), shape.end(), 0) != shape.end()) return;
  Offsets start;
  std::vector<Step> axes = walk_order(shape, from, to, start);
  for (const char*& in : m.in) in += start.from;
  for (char*& out : m.out) out += start.to;
  m.stream = count_of(axes) * M::kTo * M::kOuts >= kStream;
  const auto slower = [](const Step& a, const Step& b) {  // a broadcast axis is never read along
    return b.from != 0 && (a.from == 0 || std::abs(b.from) < std::abs(a.from));
  };
  const auto fastest = std::max_element(axes.begin(), axes.end(), slower);
  if (fastest != axes.begin() && fastest->from != 0) {
    const Step reading = *fastest, writing = axes.front();
    axes.erase(fastest);
    axes.erase(axes.begin());
    Run read(reading), write(writing);
    read.lengthen(&Step::from, axes, kSquare);
    write.lengthen(&Step::to, axes, kSquare);
    read.lengthen(&Step::from, axes, kAhead);
    return walk_tiles(m, read, write, axes);
  }
  const Step row = axes.front();
  axes.erase(axes.begin());
  walk_rows(m, row, axes);
}

/// The strides in bytes.
Extents bytes_of(Extents strides) {
  for (ptrdiff_t& step : strides) step *= static_cast<ptrdiff_t>(sizeof(float));
  return strides;
}

template <class M>
void move_samples(const M& m, const ConstSamples& from, const Samples& to) {
  walk(m, to.extents, bytes_of(from.strides), bytes_of(to.strides));
}

const char* bytes(const float* p) { return reinterpret_cast<const char*>(p); }
char* bytes(float* p) { return reinterpret_cast<char*>(p); }

template <class Word>
void copy_words(const float* in, float* out, const ConstSamples& from, const Samples& to,
                Team team) {
  move_samples(Copy<Word>{{bytes(in)}, {bytes(out)}, team}, from, to);
}

void clear_imaginary(const Samples& to, Team team) {
  const float zero = 0;
  const ConstSamples zeros(&zero, nullptr, to.extents, Extents(to.extents.size(), 0));
  copy_words<std::uint32_t>(&zero, to.im, zeros, to, team);
}

}  // namespace

void copy(const ConstSamples& from, const Samples& to) { copy(from, to, Team::all); }

void copy(const ConstSamples& from, const Samples& to, Team team) {
  require_same_extents(from, to, "copy: from and to");
  const bool both = from.im && to.im, pairs_in = in_pairs(from), pairs_out = in_pairs(to);
  if (both && pairs_in && pairs_out) {
    return copy_words<std::uint64_t>(from.re, to.re, from, to, team);
  }
  if (both && pairs_in) {
    return move_samples(Split{{bytes(from.re)}, {bytes(to.re), bytes(to.im)}, team}, from, to);
  }
  if (both && pairs_out) {
    return move_samples(Join{{bytes(from.re), bytes(from.im)}, {bytes(to.re)}, team}, from, to);
  }
  copy_words<std::uint32_t>(from.re, to.re, from, to, team);
  if (both) copy_words<std::uint32_t>(from.im, to.im, from, to, team);
  if (to.im && !from.im) clear_imaginary(to, team);
}

bool overlap(const ConstSamples& a, const ConstSamples& b) {
  if (a.size() == 0 || b.size() == 0) return false;
  const auto ends = [](const ConstSamples& s, const float* part) {
    ptrdiff_t low = 0, high = 0;
    for (int d = 0; d < s.ndim(); ++d) {
      const ptrdiff_t reach = (s.extent(Dim(d)) - 1) * s.stride(Dim(d));
      (reach < 0 ? low : high) += reach;
    }
    return std::pair{part + low, part + high + 1};
  };
  const std::less<const float*> before;
  const auto disjoint = [&](const float* p, const float* q) {
    if (!p || !q) return true;
    const auto [first, last] = ends(a, p);
    const auto [begin, end] = ends(b, q);
    return !before(first, end) || !before(begin, last);
  };
  return !(disjoint(a.re, b.re) && disjoint(a.re, b.im) && disjoint(a.im, b.re) &&
           disjoint(a.im, b.im));
}

void load_row(const ConstRow& from, float* re, float* im) {
  if (im && from.im == from.re + 1 && from.step == 2) {
    return split_run(from.re, re, im, from.n);
  }
  for (ptrdiff_t i = 0; i < from.n; ++i) re[i] = from.re[i * from.step];
  for (ptrdiff_t i = 0; im && i < from.n; ++i) im[i] = from.im ? from.im[i * from.step] : 0.0f;
}

void store_row(const float* re, const float* im, const Row& to) {
  if (im && to.im == to.re + 1 && to.step == 2) return join_run(re, im, to.re, to.n);
  for (ptrdiff_t i = 0; i < to.n; ++i) to.re[i * to.step] = re[i];
  for (ptrdiff_t i = 0; to.im && i < to.n; ++i) to.im[i * to.step] = im ? im[i] : 0.0f;
}

ptrdiff_t offset_of(const ConstSamples& s, int first, ptrdiff_t index) {
  ptrdiff_t at = 0;
  for (int d = first; index > 0; index /= s.extent(Dim(d++))) {
    at += index % s.extent(Dim(d)) * s.stride(Dim(d));
  }
  return at;
}

void append(std::vector<Step>& axes, const Step& next) {
  Step* last = axes.empty() ? nullptr : &axes.back();
  if (last && next.from == last->from * last->n && next.to == last->to * last->n) {
    last->n *= next.n;
  } else {
    axes.push_back(next);
  }
}

ptrdiff_t count_of(const std::vector<Step>& axes) {
  ptrdiff_t n = 1;
  for (const Step& axis : axes) n *= axis.n;
  return n;
}

JointRows::JointRows(const Samples& a, const ConstSamples& b) : a_(a), b_(b) {
  for (int d : memory_order(a)) {
    if (a.extent(Dim(d)) != 1)
      append(axes_, {a.extent(Dim(d)), b.stride(Dim(d)), a.stride(Dim(d))});
  }
  if (axes_.empty()) axes_.push_back({1, 1, 1});
  const auto is_long = [](const Step& axis) { return axis.n >= kShort; };
  const auto run = std::find_if(axes_.begin(), axes_.end(), is_long);
  if (run != axes_.end()) std::rotate(axes_.begin(), run, run + 1);
}

std::vector<int> memory_order(const ConstSamples& s) {
  std::vector<int> order(s.extents.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
    return std::abs(s.stride(Dim(a))) < std::abs(s.stride(Dim(b)));
  });
  return order;
}

bool is_packed(const ConstSamples& s) {
  ptrdiff_t step = in_pairs(s) ? 2 : 1;
  for (int d = 0; d < s.ndim(); ++d) {
    if (s.extent(Dim(d)) > 1 && s.stride(Dim(d)) != step) return false;
    step *= s.extent(Dim(d));
  }
  return true;
}

void require_same_kind(const ConstSamples& a, const ConstSamples& b, const char* names) {
  if (!a.im == !b.im) return;
  throw std::invalid_argument(std::string(names) + " must both be complex or both real");
}

void require_same_extents(const ConstSamples& a, const ConstSamples& b, const char* names) {
  const auto text = [](const ConstSamples& s) {
    std::string list;
    for (ptrdiff_t n : s.extents) list += (list.empty() ? "" : ", ") + std::to_string(n);
    return "(" + list + ")";
  };
  if (a.extents == b.extents) return;
  throw std::invalid_argument(std::string(names) + " must have the same extents, not " + text(a) +
                              " and " + text(b));
}

}  // namespace ctessel
