// Circular shifts, zero padding and the ringing filter.

#include <climits>

#include "arguments.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

/// By default the axes in space: what lies behind them, coils or repetitions, has no centre.
std::vector<Dim> axes_of(py::handle axes, int ndim) {
  std::vector<Dim> list;
  if (axes.is_none()) {
    for (int d = 0; d < std::min(ndim, 3); ++d) list.push_back(Dim(d));
  } else if (PyIndex_Check(axes.ptr())) {
    list.push_back(Dim(axis_number(axes, "axes", ndim)));
  } else if (py::isinstance<py::sequence>(axes) && !py::isinstance<py::str>(axes)) {
    for (const auto& entry : py::reinterpret_borrow<py::sequence>(axes)) {
      list.push_back(Dim(axis_number(entry, "axes", ndim)));
    }
  } else {
    fail_type("axes", "None, an axis number or a sequence of them", describe(axes));
  }
  return list;
}

/// In place an axis is rotated without another array; otherwise rows go to where they belong in one
/// pass, which is faster than a copy that is then rotated.
template <bool Forward>
py::object shifted(py::handle data, py::handle axes, py::handle out, bool inplace,
                   py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const std::vector<Dim> list = axes_of(axes, in.view.ndim());
  const Result to = result(in, data, out, inplace);
  run({threads, in.view.size()}, [&] {
    if (to.same) {
      Forward ? ctessel::fftshift(to.view, list) : ctessel::ifftshift(to.view, list);
    } else {
      Forward ? ctessel::fftshift(in.view, to.view, list)
              : ctessel::ifftshift(in.view, to.view, list);
    }
  });
  return to.array;
}

/// The target extents: the given ones, then the data's own. Pairs are counted in floats.
Extents padded_shape(const ConstSamples& data, py::handle shape) {
  const std::size_t most = std::min<std::size_t>(3, data.extents.size());
  Extents target = data.extents;
  const std::vector<py::object> given = entries(shape, "shape", 1, most);
  for (std::size_t d = 0; d < given.size(); ++d) {
    target[d] = whole_number(given[d], entry_name("shape", d), data.extents[d],
                             INT_MAX / (data.im ? 2 : 1));
  }
  check_count(target, "shape");
  return target;
}

py::object zero_pad(py::handle data, py::handle shape, py::handle out, py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const bool complex = in.view.im;
  const Result to =
      result({in.view}, out, {padded_shape(in.view, shape), complex, in.view.strides}, true);
  run({threads, to.view.size()}, [&] { ctessel::zero_pad(in.view, to.view); });
  return to.array;
}

/// Axes that the data lack have extent 1, which a flat window leaves as it is. By default each window
/// is as wide as its axis.
ctessel::RingingWindow window_of(const ConstSamples& data, py::handle strength, py::handle width) {
  ctessel::RingingWindow w{{0, 0, 0}, {1, 1, 1}};
  const std::size_t axes = std::min<std::size_t>(3, data.extents.size());
  if (py::isinstance<py::sequence>(strength) || py::isinstance<py::array>(strength)) {
    const std::vector<double> values = numbers(strength, "strength", axes, 3);
    std::copy(values.begin(), values.end(), w.strength.begin());
  } else {
    std::fill_n(w.strength.begin(), axes, number(strength, "strength"));
  }
  for (std::size_t d = 0; d < axes; ++d) w.width[d] = static_cast<int>(data.extents[d]);
  if (width.is_none()) return w;
  const std::vector<int> widths = whole_numbers(width, "width", axes, 3, 0);
  std::copy(widths.begin(), widths.end(), w.width.begin());
  return w;
}

py::object ringing_filter(py::handle data, py::handle strength, py::handle width, py::handle out,
                          bool inplace, py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const ctessel::RingingWindow window = window_of(in.view, strength, width);
  const Result to = result(in, data, out, inplace);
  run({threads, in.view.size()}, [&] { ctessel::ringing_filter(in.view, to.view, window); });
  return to.array;
}

}  // namespace

void bind_arrays(py::module_& m) {
  define(m, "fftshift", shifted<true>);
  define(m, "ifftshift", shifted<false>);
  define(m, "zero_pad", zero_pad);
  define(m, "ringing_filter", ringing_filter);
}

}  // namespace ctessel_python
