// Coil combination.

#include "arguments.h"

namespace ctessel_python {

namespace {

using Combine = void (*)(const ConstSamples&, Dim, const Samples&);

/// The coils' axis is gone from the result. Zeros, as a sum of squares goes on from what is there.
py::object combine(Combine kernel, bool complex, py::handle data, py::handle axis, py::handle out,
                   py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const int coil = axis_number(axis, "axis", in.view.ndim());
  Layout layout{in.view.extents, complex, in.view.strides};
  layout.shape.erase(layout.shape.begin() + coil);
  layout.like.erase(layout.like.begin() + coil);
  const Result to = result({in.view}, out, layout, true);
  run({threads, in.view.size()}, [&] { kernel(in.view, Dim(coil), with_axis(to.view, coil)); });
  return to.array;
}

py::object sos(py::handle data, py::handle axis, py::handle out, py::handle threads) {
  return combine(ctessel::sos, false, data, axis, out, threads);
}

py::object pcsos(py::handle data, py::handle axis, py::handle out, py::handle threads) {
  return combine(ctessel::pcsos, true, data, axis, out, threads);
}

}  // namespace

void bind_coils(py::module_& m) {
  define(m, "sos", sos);
  define(m, "pcsos", pcsos);
}

}  // namespace ctessel_python
