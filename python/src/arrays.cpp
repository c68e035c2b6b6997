// Circular shifts, zero padding and the ringing filter.
//
// Shifts in place and padding only move samples: pairs as they lie in memory. What becomes a new array
// is copied block by block to where it goes, which takes any order of the axes on both sides. The ringing
// filter is a product with weights that depend on x, y and z alone: the kernel's, of ones.

#include <algorithm>
#include <climits>
#include <utility>

#include "arguments.h"
#include "cTessel.h"
#include "dispatch.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;
using Shift = void (*)(float*, float*, int*, int, int);

/// An array seen as lines of one axis: `block` floats move together, `outer` lines in all.
struct Lines {
  ptrdiff_t block, n, outer;
};

/// False where the array has gaps, or counts that do not fit the kernels' extents.
bool lines_of(const View& v, int axis, Lines& lines) {
  lines = {v.complex ? 2 : 1, v.extent(axis), 1};
  ptrdiff_t step = v.item(), *count = &lines.block;
  for (int d : v.memory_order()) {
    if (v.extent(d) > 1 && v.strides[static_cast<std::size_t>(d)] != step) return false;
    step *= v.extent(d);
    if (d == axis) {
      count = &lines.outer;
    } else {
      *count *= v.extent(d);
    }
  }
  return lines.block <= INT_MAX && lines.outer <= INT_MAX;
}

void shift_lines(const View& v, const Lines& lines, Shift shift) {
  int dims[] = {static_cast<int>(lines.block), static_cast<int>(lines.n), 1,
                static_cast<int>(lines.outer)};
  shift(reinterpret_cast<float*>(v.data), nullptr, dims, 4, 2);
}

void shift_axis(const View& v, int axis, Shift shift) {
  Lines lines;
  if (v.extent(axis) < 2) return;
  if (lines_of(v, axis, lines)) return shift_lines(v, lines, shift);
  for_each_piece(cut({v}, {axis}, kPiece), [&](const Views& piece) {
    const Packed scratch(piece[0]);
    Lines own;
    lines_of(scratch.view(), axis, own);
    shift_lines(scratch.view(), own, shift);
    scratch.put_back();
  });
}

std::vector<int> axes_of(py::handle axes, int ndim) {
  std::vector<int> list;
  if (axes.is_none()) {
    for (int d = 0; d < std::min(ndim, 3); ++d) list.push_back(d);
  } else if (PyIndex_Check(axes.ptr())) {
    list.push_back(axis_number(axes, "axes", ndim));
  } else if (py::isinstance<py::sequence>(axes) && !py::isinstance<py::str>(axes)) {
    for (const auto& entry : py::reinterpret_borrow<py::sequence>(axes)) {
      list.push_back(axis_number(entry, "axes", ndim));
    }
  } else {
    fail_type("axes", "None, an axis number or a sequence of them", describe(axes));
  }
  return list;
}

/// A shift of the library and how far it moves the samples of n.
struct Turn {
  Shift in_place;
  ptrdiff_t (*distance)(ptrdiff_t n);
};
constexpr Turn kFftshift{TS_fftshift, [](ptrdiff_t n) { return n / 2; }};
constexpr Turn kIfftshift{TS_ifftshift, [](ptrdiff_t n) { return n - n / 2; }};

/// An axis and by how far its samples move, around its end to its start.
struct Distance {
  int axis;
  ptrdiff_t m;
};

/// The last axis in pieces, so that lines which both of its halves write to stay in the cache.
void copy_turned(const View& from, const View& to, const std::vector<Distance>& distances,
                 std::size_t next = 0) {
  if (next == distances.size()) return copy(from, to);
  const auto [axis, m] = distances[next];
  const auto halves = [&, a = axis, n = from.extent(axis), k = m](const View& f, const View& t) {
    copy_turned(f.slice(a, 0, n - k), t.slice(a, k, n - k), distances, next + 1);
    copy_turned(f.slice(a, n - k, k), t.slice(a, 0, k), distances, next + 1);
  };
  if (next + 1 < distances.size()) return halves(from, to);
  for_each_piece(cut({from, to}, {axis}, kPiece), [&](const Views& p) { halves(p[0], p[1]); });
}

/// Axes that are slow in memory come first.
void shift_into(const View& from, const View& to, const std::vector<int>& axes, const Turn& turn) {
  std::vector<Distance> distances;
  for (int axis : from.memory_order()) {
    const ptrdiff_t n = from.extent(axis), times = std::count(axes.begin(), axes.end(), axis);
    const ptrdiff_t m = times * turn.distance(n) % n;
    if (m > 0) distances.insert(distances.begin(), {axis, m});
  }
  copy_turned(from, to, distances);
}

py::object shifted(const Turn& turn, py::handle data, py::handle axes, py::handle out, bool inplace,
                   py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const std::vector<int> list = axes_of(axes, in.view.ndim());
  const Destination to =
      destination(in, data, out, inplace, layout_like(in.view, in.view.shape, in.view.complex));
  const Threads team(threads, in.view.size() * in.view.item());
  if (to.view.size() > 0) {
    const py::gil_scoped_release unlocked;
    if (!to.same) {
      shift_into(in.view, to.view, list, turn);
    } else {
      for (int axis : list) shift_axis(to.view, axis, turn.in_place);
    }
  }
  return to.array;
}

/// The target extents: the given ones, then the data's own.
std::vector<ptrdiff_t> padded_shape(const View& data, py::handle shape) {
  const std::size_t most = std::min<std::size_t>(3, data.shape.size());
  std::vector<ptrdiff_t> target = data.shape;
  if (!py::isinstance<py::sequence>(shape) || py::isinstance<py::str>(shape)) {
    fail_type("shape", "a sequence of 1 to " + std::to_string(most) + " whole numbers",
              describe(shape));
  }
  const auto sequence = py::reinterpret_borrow<py::sequence>(shape);
  if (sequence.size() < 1 || sequence.size() > most) {
    fail_value("shape",
               "1 to " + std::to_string(most) + " extents for data of shape " + text_of(data.shape),
               std::to_string(sequence.size()));
  }
  for (std::size_t d = 0; d < sequence.size(); ++d) {
    const py::object entry = sequence[d];
    target[d] = whole_number(entry, "shape[" + std::to_string(d) + "]", data.shape[d],
                             INT_MAX / (data.complex ? 2 : 1));
  }
  check_count(target, "shape");
  return target;
}

/// An odd spare zero goes in front.
void pad(const View& from, const View& to) {
  View middle = to;
  for (int d = 0; d < from.ndim(); ++d) {
    middle = middle.slice(d, (to.extent(d) - from.extent(d) + 1) / 2, from.extent(d));
  }
  copy(from, middle);
}

py::object zero_pad(py::handle data, py::handle shape, py::handle out, py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const std::vector<ptrdiff_t> target = padded_shape(in.view, shape);
  const Destination to =
      destination({in.view}, out, layout_like(in.view, target, in.view.complex), true);
  const Threads team(threads, to.view.size() * to.view.item());
  if (in.view.size() > 0) {
    const py::gil_scoped_release unlocked;
    pad(in.view, to.view);
  }
  return to.array;
}

struct Window {
  double strength[3];
  int width[3];
};

Window window_of(const View& data, py::handle strength, py::handle width) {
  Window w{{0, 0, 0}, {1, 1, 1}};
  const std::size_t axes = std::min<std::size_t>(3, data.shape.size());
  if (py::isinstance<py::sequence>(strength) || py::isinstance<py::array>(strength)) {
    const std::vector<double> values = numbers(strength, "strength", axes, 3);
    std::copy(values.begin(), values.end(), w.strength);
  } else {
    std::fill_n(w.strength, axes, number(strength, "strength"));
  }
  for (std::size_t d = 0; d < axes; ++d) w.width[d] = static_cast<int>(data.shape[d]);
  if (width.is_none()) return w;
  numbers(width, "width", axes, 3);
  const auto entries = py::reinterpret_borrow<py::sequence>(width);
  for (std::size_t d = 0; d < entries.size(); ++d) {
    const py::object entry = entries[d];
    w.width[d] = whole_number(entry, "width[" + std::to_string(d) + "]", 0, INT_MAX);
  }
  return w;
}

CTESSEL_CLONES void scale_pairs(const float* in, const float* weights, float* out, ptrdiff_t n) {
#pragma omp simd
  for (ptrdiff_t i = 0; i < n; ++i) {
    out[2 * i] = in[2 * i] * weights[i];
    out[2 * i + 1] = in[2 * i + 1] * weights[i];
  }
}

/// One weight for every `block` floats.
CTESSEL_CLONES void scale_blocks(const float* in, const float* weights, float* out, ptrdiff_t n,
                                 ptrdiff_t block) {
  for (ptrdiff_t i = 0; i < n; ++i) {
#pragma omp simd
    for (ptrdiff_t k = i * block; k < (i + 1) * block; ++k) out[k] = in[k] * weights[i];
  }
}

CTESSEL_CLONES void scale(const float* in, const float* weights, float* out, ptrdiff_t n) {
#pragma omp simd
  for (ptrdiff_t i = 0; i < n; ++i) out[i] = in[i] * weights[i];
}

/// Samples that follow each other with one weight make a block.
void weigh_piece(const View& from, View weights, const View& to) {
  ptrdiff_t block = from.complex ? 2 : 1;
  for (std::size_t d = 0; d < weights.shape.size() && weights.strides[d] == 0; ++d) {
    block *= weights.shape[d];
    weights.shape[d] = 1;
  }
  const Packed in(from), w(weights), out(to, Packed::Fill::kZeros);
  if (block == 1) {
    scale(in.floats(), w.floats(), out.floats(), weights.size());
  } else if (block == 2) {
    scale_pairs(in.floats(), w.floats(), out.floats(), weights.size());
  } else {
    scale_blocks(in.floats(), w.floats(), out.floats(), weights.size(), block);
  }
  out.put_back();
}

py::object ringing_filter(py::handle data, py::handle strength, py::handle width, py::handle out,
                          bool inplace, py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  Window window = window_of(in.view, strength, width);
  const Destination to =
      destination(in, data, out, inplace, layout_like(in.view, in.view.shape, in.view.complex));
  const Threads team(threads, in.view.size() * in.view.item());
  if (in.view.size() > 0) {
    const py::gil_scoped_release unlocked;
    Weights weights({in.view.extent(0), in.view.extent(1), in.view.extent(2)});
    std::vector<int> dims = extents(weights.view);
    TS_ringing_filter(weights.values.data(), nullptr, 3, dims.data(), window.strength,
                      window.width);
    weigh(in.view, std::move(weights), to.view);
  }
  return to.array;
}

}  // namespace

void weigh(const View& from, Weights weights, const View& to) {
  const std::vector<int> order = from.memory_order();
  if (!std::is_sorted(order.begin(), order.end())) weights.arrange_like(from);
  const View w = weights.along(from).permuted(order);
  for_each_piece(cut({from.permuted(order), w, to.permuted(order)}, {}, kPiece),
                 [](const Views& piece) { weigh_piece(piece[0], piece[1], piece[2]); });
}

void bind_arrays(py::module_& m) {
  m.def("fftshift",
        [](py::handle data, py::handle axes, py::handle out, bool inplace, py::handle threads) {
          return shifted(kFftshift, data, axes, out, inplace, threads);
        });
  m.def("ifftshift",
        [](py::handle data, py::handle axes, py::handle out, bool inplace, py::handle threads) {
          return shifted(kIfftshift, data, axes, out, inplace, threads);
        });
  m.def("zero_pad", zero_pad);
  m.def("ringing_filter", ringing_filter);
}

}  // namespace ctessel_python
