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

constexpr ptrdiff_t kSquare = 64;                     // samples along either side of a tile
constexpr ptrdiff_t kMostRows = kSquare + kLine / 4;  // of a tile whose columns begin with lines
constexpr ptrdiff_t kUnit = 16 * kSquare;             // samples that a thread reads on
constexpr ptrdiff_t kRow = 1 << 14;                   // samples of a row that it copies at once
constexpr ptrdiff_t kShort = 16;                      // samples of a row that is worth a call
constexpr ptrdiff_t kStream = 1 << 22;                // bytes that leave little else in the caches

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
void move_row(M m, Offsets o, Step axis, ptrdiff_t n) {
  constexpr std::size_t kWord = sizeof(typename M::Word);
  if (axis.from == M::kFrom && axis.to == M::kTo) return move_run(m, o, n);
  for (; n > 0; --n, o.from += axis.from, o.to += axis.to) {
    for (std::size_t p = 0; p < M::kIns; ++p) {
      for (std::size_t q = 0; q < M::kOuts; ++q) {
        std::memcpy(m.out[q] + o.to + p * kWord, m.in[p] + o.from + q * kWord, kWord);
      }
    }
  }
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

/// Axes along which one side runs on with one step, fastest first.
struct Run {
  std::vector<Step> axes;
  ptrdiff_t n = 1, step = 0;
};

/// Takes axis i out of `axes`, to lengthen a run.
void lengthen(Run& run, std::vector<Step>& axes, std::size_t i) {
  run.n *= axes[i].n;
  run.axes.push_back(axes[i]);
  axes.erase(axes.begin() + static_cast<ptrdiff_t>(i));
}

bool lengthen(Run& run, std::vector<Step>& axes, Side side) {
  for (std::size_t i = 0; i < axes.size(); ++i) {
    if (axes[i].*side != run.step * run.n) continue;
    lengthen(run, axes, i);
    return true;
  }
  return false;
}

/// A tile has part of either run as its sides.
struct Plan {
  Run read, write;
  std::vector<Step> others;
};

Plan plan_tiles(std::vector<Step> axes, std::size_t fastest_read) {
  Plan p;
  p.read.step = axes[fastest_read].from;
  p.write.step = axes[0].to;
  lengthen(p.read, axes, fastest_read);
  lengthen(p.write, axes, std::size_t{0});
  for (bool longer = true; longer;) {  // the shorter side first, until both fill a tile
    if (std::min(p.read.n, kSquare) < std::min(p.write.n, kSquare)) {
      longer = lengthen(p.read, axes, &Step::from) || lengthen(p.write, axes, &Step::to);
    } else {
      longer = lengthen(p.write, axes, &Step::to) || lengthen(p.read, axes, &Step::from);
    }
  }
  p.others = axes;
  return p;
}

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

/// Tiles that share their rows: part of the writing run, a long part of the reading run, one entry of
/// the other axes.
struct Block {
  Offsets start;
  ptrdiff_t begin, first, rows, read, read_end;
  std::array<ptrdiff_t, kMostRows> from;
};

/// One thread's work on tiles.
template <class M>
class Tiles {
 public:
  Tiles(const M& m, const Plan& plan)
      : m_(m),
        plan_(plan),
        stream_(m.stream && plan.write.step == M::kTo),
        even_(std::all_of(plan.read.axes.begin(), plan.read.axes.end(),
                          [](const Step& a) { return a.to % kLine == 0; })),
        blocks_((plan.write.n + kSquare - 1) / kSquare + 1),
        chunks_((plan.read.n + kUnit - 1) / kUnit) {}

  ptrdiff_t units() const { return count_of(plan_.others) * blocks_ * chunks_; }

  void run(ptrdiff_t unit, ptrdiff_t end) {
    Block block, next;
    bool more = find_block(unit, end, next);
    if (more) list_rows(next, next.read);
    while (more) {
      block = next;
      more = find_block(++unit, end, next);
      for (ptrdiff_t j = block.read; j < block.read_end; j += kSquare) {
        rows_.swap(next_rows_);
        ahead_ = 0;
        if (j + kSquare < block.read_end) {
          list_rows(block, j + kSquare);
        } else if (more) {
          list_rows(next, next.read);
        }
        move(block, j, std::min(kSquare, block.read_end - j));
      }
    }
  }

 private:
  static constexpr ptrdiff_t kWord = sizeof(typename M::Word), kPitch = kMostRows * M::kTo;
  static std::size_t size(ptrdiff_t n) { return static_cast<std::size_t>(n); }

  /// By how many samples a column's tiles begin early, so that they begin with whole lines.
  ptrdiff_t shift(const char* column) const { return stream_ ? into_line(column) / M::kTo : 0; }

  /// The first block that is not empty, from `unit` on. Where columns lie differently in their lines,
  /// its rows are those of the earliest to those of the latest.
  bool find_block(ptrdiff_t& unit, ptrdiff_t end, Block& block) const {
    for (; unit < end; ++unit) {
      block.begin = unit / chunks_ % blocks_ * kSquare;
      block.start = offsets_of(plan_.others, unit / chunks_ / blocks_);
      block.read = unit % chunks_ * kUnit;
      block.read_end = std::min(block.read + kUnit, plan_.read.n);
      const ptrdiff_t own = shift(m_.out[0] + block.start.to), most = kLine / M::kTo - 1;
      const bool alike = even_ && own == shift(m_.out[M::kOuts - 1] + block.start.to);
      const ptrdiff_t late = alike || !stream_ ? own : 0, early = alike || !stream_ ? own : most;
      block.first = std::max(block.begin - early, ptrdiff_t{0});
      block.rows = std::min(block.begin - late + kSquare, plan_.write.n) - block.first;
      if (block.rows <= 0) continue;
      list_offsets(plan_.write.axes, &Step::from, block.first, block.rows, block.from.data());
      return true;
    }
    return false;
  }

  /// Where the next tile's rows begin, to ask for them while this one is written.
  void list_rows(const Block& block, ptrdiff_t j) {
    const ptrdiff_t at = block.start.from + j * plan_.read.step;
    ahead_ = block.rows * M::kIns;
    for (ptrdiff_t i = 0; i < ahead_; ++i) {
      next_rows_[size(i)] = m_.in[size(i % M::kIns)] + at + block.from[size(i / M::kIns)];
    }
    ahead_samples_ = std::min(kSquare, block.read_end - j);
  }

  void move(const Block& block, ptrdiff_t j, ptrdiff_t nr) {
    const ptrdiff_t rows = block.rows * M::kIns, columns = nr * M::kOuts;
    if (plan_.read.step != M::kFrom) gather(rows, nr);
    transpose_words(typename M::Word{}, rows_.data(), rows, columns, transposed_.data(), kPitch);
    list_offsets(plan_.read.axes, &Step::to, j, nr, to_.data());
    for (ptrdiff_t k = 0; k < columns; ++k) {
      deliver(block, transposed_.data() + k * kPitch,
              m_.out[size(k % M::kOuts)] + block.start.to + to_[size(k / M::kOuts)]);
      for (ptrdiff_t i = k; i < ahead_; i += columns) fetch(next_rows_[size(i)]);
    }
  }

  // Inline, as the compiler drops calls of functions without any effect but this.
  CTESSEL_INLINE void fetch(const char* row) const {
    const ptrdiff_t last = (ahead_samples_ - 1) * plan_.read.step;
    const char *line = row + std::min(last, ptrdiff_t{0}),
               *end = row + std::max(last, ptrdiff_t{0});
    for (line -= into_line(line); line <= end; line += kLine) __builtin_prefetch(line, 0, 2);
  }

  void gather(ptrdiff_t rows, ptrdiff_t nr) {
    const ptrdiff_t step = plan_.read.step;
    for (ptrdiff_t i = 0; i < rows; ++i) {
      const char* from = rows_[size(i)];
      char* row = gathered_.data() + i * kSquare * M::kFrom;
      for (ptrdiff_t k = 0; k < nr; ++k) std::memcpy(row + k * M::kFrom, from + k * step, M::kFrom);
      rows_[size(i)] = row;
    }
  }

  void deliver(const Block& block, const char* transposed, char* column) const {
    const ptrdiff_t begin = block.begin - shift(column), first = std::max(begin, ptrdiff_t{0}),
                    n = std::min(begin + kSquare, plan_.write.n) - first, step = plan_.write.step;
    const char* from = transposed + (first - block.first) * M::kTo;
    char* to = column + first * step;
    if (n <= 0) return;
    if (stream_) return stream_bytes(to, from, n * M::kTo);
    if (step == M::kTo) return copy_bytes(to, from, n * M::kTo);
    for (ptrdiff_t i = 0; i < n; ++i) std::memcpy(to + i * step, from + i * M::kTo, M::kTo);
  }

  const M& m_;
  const Plan& plan_;
  const bool stream_, even_;
  const ptrdiff_t blocks_, chunks_;
  ptrdiff_t ahead_ = 0, ahead_samples_ = 0;  // rows to ask for, and their length
  std::array<ptrdiff_t, kSquare> to_;
  std::array<const char*, kMostRows * M::kIns> rows_, next_rows_;
  alignas(kLine) std::array<char, kSquare * M::kOuts * kPitch> transposed_;
  std::array<char, kMostRows * kSquare * M::kIns * M::kFrom> gathered_;
};

template <class M>
void walk_tiles(const M& m, const Plan& plan) {
  share(m, Tiles<M>(m, plan).units(), [&](std::int64_t begin, std::int64_t end) {
    Tiles<M>(m, plan).run(static_cast<ptrdiff_t>(begin), static_cast<ptrdiff_t>(end));
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
    return walk_tiles(m, plan_tiles(axes, static_cast<std::size_t>(fastest - axes.begin())));
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
