// Circular shifts, zero padding and the ringing filter.
//
// Shifts and padding only move samples, so the kernels move pairs as they lie in memory: the two
// floats of a pair are the fastest axis. The ringing filter looks at values and gets parts.

#include <algorithm>
#include <climits>

#include "arguments.h"
#include "cTessel.h"

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

py::object shifted(Shift shift, py::handle data, py::handle axes, py::handle out, bool inplace,
                   py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const std::vector<int> list = axes_of(axes, in.view.ndim());
  const Destination to =
      destination(in, data, out, inplace, layout_like(in.view, in.view.shape, in.view.complex));
  const Threads team(threads, in.view.size() * in.view.item());
  {
    const py::gil_scoped_release unlocked;
    if (!to.same) copy(in.view, to.view);
    if (to.view.size() > 0) {
      for (int axis : list) shift_axis(to.view, axis, shift);
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

/// The kernel pads the two fastest axes in memory, whichever they are; the others are a matter of
/// where `to` has the rows.
void pad(const View& from, const View& to) {
  const std::vector<int> order = from.with_axes(2).memory_order();
  const View data = from.with_axes(2).permuted(order), out = to.with_axes(2).permuted(order);
  View inner = out;
  for (int d = 2; d < data.ndim(); ++d) {
    inner = inner.slice(d, (out.extent(d) - data.extent(d) + 1) / 2, data.extent(d));
  }
  // Of pairs an odd spare number is an even one of floats: the kernel would put half a pair in
  // front.
  const ptrdiff_t floats = data.item() / 4, spare = out.extent(0) - data.extent(0);
  const ptrdiff_t half = floats == 2 ? spare % 2 : 0, plane = data.extent(0) * data.extent(1);
  for_each_piece(cut({data, inner}, {0, 1}, kPiece), [&](const Views& piece) {
    const Packed source(piece[0]), target(piece[1], Packed::Fill::kZeros);
    int dims[] = {static_cast<int>(floats * data.extent(0)), static_cast<int>(data.extent(1)), 1,
                  static_cast<int>(piece[0].size() / plane)};
    TS_zero_pad(source.floats(), nullptr, 4, dims, static_cast<double>(floats * out.extent(0)),
                static_cast<double>(out.extent(1)), 1, target.floats() + half, nullptr);
    target.put_back();
  });
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

/// One part at a time: the same bits, since a finite weight keeps a zero a zero, and half the
/// memory.
void filter_by_part(const View& from, const View& to, Window w) {
  const std::unique_ptr<float[]> part(new float[static_cast<std::size_t>(from.size())]);
  std::vector<int> dims = extents(from, 3);
  for (int which = 0; which < (from.complex ? 2 : 1); ++which) {
    split(from.complex ? from.part(which) : from, part.get(), nullptr);
    TS_ringing_filter(part.get(), nullptr, static_cast<int>(dims.size()), dims.data(), w.strength,
                      w.width);
    join(part.get(), nullptr, to.complex ? to.part(which) : to);
  }
}

void filter_by_volume(const View& from, const View& to, Window w) {
  const Parts parts(from);
  std::vector<int> dims = extents(from, 3);
  TS_ringing_filter(parts.re(), parts.im(), static_cast<int>(dims.size()), dims.data(), w.strength,
                    w.width);
  join(parts.re(), parts.im(), to);
}

py::object ringing_filter(py::handle data, py::handle strength, py::handle width, py::handle out,
                          bool inplace, py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const Window window = window_of(in.view, strength, width);
  const Destination to =
      destination(in, data, out, inplace, packed(nullptr, in.view.shape, in.view.complex));
  const Threads team(threads, in.view.size() * in.view.item());
  if (in.view.size() > 0) {
    const py::gil_scoped_release unlocked;
    // Volumes of another order share their cache lines: rearranged all at once, those are read once.
    const bool rearrange = !to.same && !in.view.first_axis_fastest();
    if (rearrange) copy(in.view, to.view);
    const auto pieces = cut({rearrange ? to.view : in.view, to.view}, {0, 1, 2}, kPiece);
    const bool plenty = pieces.size() >= 2 * static_cast<std::size_t>(omp_get_max_threads());
    for_each_piece(pieces, [&](const Views& piece) {
      (plenty && in.view.complex ? filter_by_volume : filter_by_part)(piece[0], piece[1], window);
    });
  }
  return to.array;
}

}  // namespace

void bind_arrays(py::module_& m) {
  m.def("fftshift",
        [](py::handle data, py::handle axes, py::handle out, bool inplace, py::handle threads) {
          return shifted(TS_fftshift, data, axes, out, inplace, threads);
        });
  m.def("ifftshift",
        [](py::handle data, py::handle axes, py::handle out, bool inplace, py::handle threads) {
          return shifted(TS_ifftshift, data, axes, out, inplace, threads);
        });
  m.def("zero_pad", zero_pad);
  m.def("ringing_filter", ringing_filter);
}

}  // namespace ctessel_python
