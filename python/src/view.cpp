// One walk over two strided arrays serves every copy. Where both run fastest along the same axis it
// goes row by row. Otherwise it goes through square tiles, read along the axes that run on in the
// one and written along those that run on in the other, so that cache lines are used whole on both
// sides; four by four words are turned in registers.

#include "view.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "dispatch.h"
#include "loops.h"

#define CTESSEL_INLINE __attribute__((always_inline)) inline

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

constexpr ptrdiff_t kTile = 64;                     // samples along either side of a tile
constexpr ptrdiff_t kLine = 64;                     // bytes of a cache line
constexpr ptrdiff_t kMostRows = kTile + kLine / 4;  // of a tile whose columns begin with lines
constexpr ptrdiff_t kUnit = 16 * kTile;             // samples that a thread reads on
constexpr ptrdiff_t kRow = 1 << 14;                 // samples of a row that it copies at once
constexpr ptrdiff_t kStream = 1 << 22;              // bytes that leave little else in the caches

/// What a copy does to one sample: Ins words, one from each of the arrays read, and Outs words,
/// one to each of the arrays written; where one side has a single array its words lie side by side.
template <class Word_, int Ins, int Outs>
struct Move {
  using Word = Word_;
  static constexpr int kIns = Ins, kOuts = Outs;
  static constexpr ptrdiff_t kFrom = sizeof(Word) * Outs, kTo = sizeof(Word) * Ins;
  std::array<const char*, Ins> in;
  std::array<char*, Outs> out;
  bool stream = false;  // past the cache
};

using Split = Move<std::uint32_t, 1, 2>;
using Join = Move<std::uint32_t, 2, 1>;
template <class Word>
using Copy = Move<Word, 1, 1>;  // by words, so that the bits of a NaN stay

/// One axis of a walk: its extent and the steps on the reading and the writing side, in bytes.
struct Axis {
  ptrdiff_t n, from, to;
};
using Side = ptrdiff_t Axis::*;

struct Offsets {
  ptrdiff_t from = 0, to = 0;
};

/// Axes by rising step on the writing side, which is turned to run upwards from `start` on, and
/// joined where both sides run on without a gap.
std::vector<Axis> walk_order(const std::vector<ptrdiff_t>& shape,
                             const std::vector<ptrdiff_t>& from, const std::vector<ptrdiff_t>& to,
                             Offsets& start) {
  std::vector<Axis> axes, joined;
  for (std::size_t d = 0; d < shape.size(); ++d) {
    if (shape[d] == 1) continue;
    const bool down = to[d] < 0;
    axes.push_back({shape[d], down ? -from[d] : from[d], std::abs(to[d])});
    if (down) start.from += (shape[d] - 1) * from[d], start.to += (shape[d] - 1) * to[d];
  }
  std::stable_sort(axes.begin(), axes.end(),
                   [](const Axis& a, const Axis& b) { return a.to < b.to; });
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

/// Lists the offsets on one side of entries first, first + 1, ... of the axes taken as one, the
/// first of them fastest.
void list_offsets(const std::vector<Axis>& axes, Side side, ptrdiff_t first, ptrdiff_t count,
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

Offsets offsets_of(const std::vector<Axis>& axes, ptrdiff_t index) {
  Offsets o;
  list_offsets(axes, &Axis::from, index, 1, &o.from);
  list_offsets(axes, &Axis::to, index, 1, &o.to);
  return o;
}

ptrdiff_t into_line(const char* p) {
  return static_cast<ptrdiff_t>(reinterpret_cast<std::uintptr_t>(p) % kLine);
}

void copy_bytes(char* to, const char* from, ptrdiff_t bytes) {
  std::memcpy(to, from, static_cast<std::size_t>(bytes));
}

/// Writes whole lines past the cache, which would read them first.
void stream_bytes(char* to, const char* from, ptrdiff_t bytes) {
#ifdef __SSE2__
  const ptrdiff_t head = std::min(bytes, (kLine - into_line(to)) % kLine);
  copy_bytes(to, from, head);
  ptrdiff_t i = head;
  for (; i + kLine <= bytes; i += kLine) {
    for (ptrdiff_t k = i; k < i + kLine; k += 16) {
      _mm_stream_si128(reinterpret_cast<__m128i*>(to + k),
                       _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + k)));
    }
  }
  copy_bytes(to + i, from + i, bytes - i);
#else
  copy_bytes(to, from, bytes);
#endif
}

/// Others may read what was written past the cache.
void finish_streams() {
#ifdef __SSE2__
  _mm_sfence();
#endif
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
    const bool stream =
        m.stream && bytes >= 16 * kLine;  // the lines at both ends count little then
    (stream ? stream_bytes : copy_bytes)(m.out[0] + o.to, m.in[0] + o.from, bytes);
  }
}

template <class M>
void move_row(M m, Offsets o, Axis axis, ptrdiff_t n) {
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
void walk_rows(const M& m, const Axis& row, std::vector<Axis> axes) {
  const ptrdiff_t pieces = (row.n + kRow - 1) / kRow;
  axes.insert(axes.begin(), {pieces, kRow * row.from, kRow * row.to});
  ctessel::for_each_chunk(count_of(axes), [&](std::int64_t begin, std::int64_t end) {
    std::array<ptrdiff_t, kTile> from, to;
    for (auto u = static_cast<ptrdiff_t>(begin); u < end; u += kTile) {
      const ptrdiff_t count = std::min(kTile, static_cast<ptrdiff_t>(end) - u);
      list_offsets(axes, &Axis::from, u, count, from.data());
      list_offsets(axes, &Axis::to, u, count, to.data());
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
  std::vector<Axis> axes;
  ptrdiff_t n = 1, step = 0;
};

/// Takes axis i out of `axes`, to lengthen a run.
void lengthen(Run& run, std::vector<Axis>& axes, std::size_t i) {
  run.n *= axes[i].n;
  run.axes.push_back(axes[i]);
  axes.erase(axes.begin() + static_cast<ptrdiff_t>(i));
}

bool lengthen(Run& run, std::vector<Axis>& axes, Side side) {
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
  std::vector<Axis> others;
};

Plan plan_tiles(std::vector<Axis> axes, std::size_t fastest_read) {
  Plan p;
  p.read.step = axes[fastest_read].from;
  p.write.step = axes[0].to;
  lengthen(p.read, axes, fastest_read);
  lengthen(p.write, axes, std::size_t{0});
  for (bool longer = true; longer;) {  // the shorter side first, until both fill a tile
    if (std::min(p.read.n, kTile) < std::min(p.write.n, kTile)) {
      longer = lengthen(p.read, axes, &Axis::from) || lengthen(p.write, axes, &Axis::to);
    } else {
      longer = lengthen(p.write, axes, &Axis::to) || lengthen(p.read, axes, &Axis::from);
    }
  }
  p.others = axes;
  return p;
}

typedef std::uint32_t Four __attribute__((vector_size(16)));
typedef std::uint64_t Two __attribute__((vector_size(16)));

template <class Vector>
CTESSEL_INLINE Vector load(const char* p) {
  Vector v;
  std::memcpy(&v, p, sizeof(v));
  return v;
}
template <class Vector>
CTESSEL_INLINE void store(char* p, Vector v) {
  std::memcpy(p, &v, sizeof(v));
}

/// Turns a square of words, as many along a side as fit a vector: from `at` bytes into rows to
/// columns that are `pitch` bytes apart.
CTESSEL_INLINE void turn_square(std::uint32_t, const char* const* rows, ptrdiff_t at, char* to,
                                ptrdiff_t pitch) {
  const Four a = load<Four>(rows[0] + at), b = load<Four>(rows[1] + at),
             c = load<Four>(rows[2] + at), d = load<Four>(rows[3] + at);
  const Four ab = __builtin_shufflevector(a, b, 0, 4, 1, 5),
             AB = __builtin_shufflevector(a, b, 2, 6, 3, 7),
             cd = __builtin_shufflevector(c, d, 0, 4, 1, 5),
             CD = __builtin_shufflevector(c, d, 2, 6, 3, 7);
  store<Four>(to, __builtin_shufflevector(ab, cd, 0, 1, 4, 5));
  store<Four>(to + pitch, __builtin_shufflevector(ab, cd, 2, 3, 6, 7));
  store<Four>(to + 2 * pitch, __builtin_shufflevector(AB, CD, 0, 1, 4, 5));
  store<Four>(to + 3 * pitch, __builtin_shufflevector(AB, CD, 2, 3, 6, 7));
}

CTESSEL_INLINE void turn_square(std::uint64_t, const char* const* rows, ptrdiff_t at, char* to,
                                ptrdiff_t pitch) {
  const Two a = load<Two>(rows[0] + at), b = load<Two>(rows[1] + at);
  store<Two>(to, __builtin_shufflevector(a, b, 0, 2));
  store<Two>(to + pitch, __builtin_shufflevector(a, b, 1, 3));
}

/// Turns n rows of m words into m columns of n.
template <class Word>
CTESSEL_INLINE void turn(const char* const* rows, ptrdiff_t n, ptrdiff_t m, char* to,
                         ptrdiff_t pitch) {
  constexpr ptrdiff_t kWord = sizeof(Word), kSide = 16 / kWord;
  const ptrdiff_t squares = n - n % kSide, across = m - m % kSide;
  for (ptrdiff_t i = 0; i < squares; i += kSide) {
    for (ptrdiff_t j = 0; j < across; j += kSide) {
      turn_square(Word{}, rows + i, j * kWord, to + j * pitch + i * kWord, pitch);
    }
  }
  for (ptrdiff_t i = 0; i < n; ++i) {
    for (ptrdiff_t j = i < squares ? across : 0; j < m; ++j) {
      std::memcpy(to + j * pitch + i * kWord, rows[i] + j * kWord, kWord);
    }
  }
}

CTESSEL_CLONES void turn_words(std::uint32_t, const char* const* rows, ptrdiff_t n, ptrdiff_t m,
                               char* to, ptrdiff_t pitch) {
  turn<std::uint32_t>(rows, n, m, to, pitch);
}
CTESSEL_CLONES void turn_words(std::uint64_t, const char* const* rows, ptrdiff_t n, ptrdiff_t m,
                               char* to, ptrdiff_t pitch) {
  turn<std::uint64_t>(rows, n, m, to, pitch);
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
                          [](const Axis& a) { return a.to % kLine == 0; })),
        blocks_((plan.write.n + kTile - 1) / kTile + 1),
        chunks_((plan.read.n + kUnit - 1) / kUnit) {}

  ptrdiff_t units() const { return count_of(plan_.others) * blocks_ * chunks_; }

  void run(ptrdiff_t unit, ptrdiff_t end) {
    Block block, next;
    bool more = find_block(unit, end, next);
    if (more) list_rows(next, next.read);
    while (more) {
      block = next;
      more = find_block(++unit, end, next);
      for (ptrdiff_t j = block.read; j < block.read_end; j += kTile) {
        rows_.swap(next_rows_);
        ahead_ = 0;
        if (j + kTile < block.read_end) {
          list_rows(block, j + kTile);
        } else if (more) {
          list_rows(next, next.read);
        }
        move(block, j, std::min(kTile, block.read_end - j));
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
      block.begin = unit / chunks_ % blocks_ * kTile;
      block.start = offsets_of(plan_.others, unit / chunks_ / blocks_);
      block.read = unit % chunks_ * kUnit;
      block.read_end = std::min(block.read + kUnit, plan_.read.n);
      const ptrdiff_t own = shift(m_.out[0] + block.start.to), most = kLine / M::kTo - 1;
      const bool alike = even_ && own == shift(m_.out[M::kOuts - 1] + block.start.to);
      const ptrdiff_t late = alike || !stream_ ? own : 0, early = alike || !stream_ ? own : most;
      block.first = std::max(block.begin - early, ptrdiff_t{0});
      block.rows = std::min(block.begin - late + kTile, plan_.write.n) - block.first;
      if (block.rows <= 0) continue;
      list_offsets(plan_.write.axes, &Axis::from, block.first, block.rows, block.from.data());
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
    ahead_samples_ = std::min(kTile, block.read_end - j);
  }

  void move(const Block& block, ptrdiff_t j, ptrdiff_t nr) {
    const ptrdiff_t rows = block.rows * M::kIns, columns = nr * M::kOuts;
    if (plan_.read.step != M::kFrom) gather(rows, nr);
    turn_words(typename M::Word{}, rows_.data(), rows, columns, turned_.data(), kPitch);
    list_offsets(plan_.read.axes, &Axis::to, j, nr, to_.data());
    for (ptrdiff_t k = 0; k < columns; ++k) {
      deliver(block, turned_.data() + k * kPitch,
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
      char* row = gathered_.data() + i * kTile * M::kFrom;
      for (ptrdiff_t k = 0; k < nr; ++k) std::memcpy(row + k * M::kFrom, from + k * step, M::kFrom);
      rows_[size(i)] = row;
    }
  }

  void deliver(const Block& block, const char* turned, char* column) const {
    const ptrdiff_t begin = block.begin - shift(column), first = std::max(begin, ptrdiff_t{0}),
                    n = std::min(begin + kTile, plan_.write.n) - first, step = plan_.write.step;
    const char* from = turned + (first - block.first) * M::kTo;
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
  std::array<ptrdiff_t, kTile> to_;
  std::array<const char*, kMostRows * M::kIns> rows_, next_rows_;
  alignas(kLine) std::array<char, kTile * M::kOuts * kPitch> turned_;
  std::array<char, kMostRows * kTile * M::kIns * M::kFrom> gathered_;
};

template <class M>
void walk_tiles(const M& m, const Plan& plan) {
  ctessel::for_each_chunk(Tiles<M>(m, plan).units(), [&](std::int64_t begin, std::int64_t end) {
    Tiles<M>(m, plan).run(static_cast<ptrdiff_t>(begin), static_cast<ptrdiff_t>(end));
    finish_streams();
  });
}

template <class M>
void walk(M m, const std::vector<ptrdiff_t>& shape, const std::vector<ptrdiff_t>& from,
          const std::vector<ptrdiff_t>& to) {
  if (std::find(shape.begin(), shape.end(), 0) != shape.end()) return;
  Offsets start;
  std::vector<Axis> axes = walk_order(shape, from, to, start);
  for (const char*& in : m.in) in += start.from;
  for (char*& out : m.out) out += start.to;
  m.stream = count_of(axes) * M::kTo * M::kOuts >= kStream;
  const auto slower = [](const Axis& a, const Axis& b) {  // a broadcast axis is never read along
    return b.from != 0 && (a.from == 0 || std::abs(b.from) < std::abs(a.from));
  };
  const auto fastest = std::max_element(axes.begin(), axes.end(), slower);
  if (fastest != axes.begin() && fastest->from != 0) {
    return walk_tiles(m, plan_tiles(axes, static_cast<std::size_t>(fastest - axes.begin())));
  }
  const Axis row = axes.front();
  axes.erase(axes.begin());
  walk_rows(m, row, axes);
}

char* bytes(const float* p) { return reinterpret_cast<char*>(const_cast<float*>(p)); }

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
  walk(Split{{from.data}, {bytes(re), bytes(im)}}, from.shape, from.strides,
       packed_strides(from.shape, 4));
}

void join(const float* re, const float* im, const View& to) {
  if (!im) return copy(packed(const_cast<float*>(re), to.shape, false), to);
  walk(Join{{bytes(re), bytes(im)}, {to.data}}, to.shape, packed_strides(to.shape, 4), to.strides);
}

void copy(const View& from, const View& to) {
  if (from.complex) {
    walk(Copy<std::uint64_t>{{from.data}, {to.data}}, from.shape, from.strides, to.strides);
  } else {
    walk(Copy<std::uint32_t>{{from.data}, {to.data}}, from.shape, from.strides, to.strides);
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
