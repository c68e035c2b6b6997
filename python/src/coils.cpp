// Coil combination, and sensitivity maps from calibration lines.

#include <climits>

#include "arguments.h"

namespace ctessel_python {

namespace {

using Combine = void(const ConstSamples&, Dim, const Samples&);

/// The coils' axis is gone from the result. Zeros, as a sum of squares goes on from what is there.
template <Combine* kernel, bool Complex>
py::object combine(py::handle data, py::handle axis, py::handle out, py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const int coil = axis_number(axis, "axis", in.view.ndim());
  Layout layout{in.view.extents, Complex, in.view.strides};
  layout.shape.erase(layout.shape.begin() + coil);
  layout.like.erase(layout.like.begin() + coil);
  const Result to = result({in.view}, out, layout, true);
  run({threads, in.view.size()}, [&] { kernel(in.view, Dim(coil), with_axis(to.view, coil)); });
  return to.array;
}

py::tuple espirit(py::handle calibration, py::handle size, py::handle kernel, py::handle threshold,
                  py::handle crop, py::handle sets, py::handle threads) {
  const Input lines = input(calibration, "calibration", Kind::kEither, 4, 4);
  const std::vector<int> extents = whole_numbers(size, "size", 3, 3, 1);
  Extents shape(extents.begin(), extents.end());
  const auto coils = static_cast<int>(lines.view.extent(Dim::coil));
  Extents set;
  if (!sets.is_none()) set = {whole_number(sets, "sets", 1, coils)};
  shape.insert(shape.end(), set.begin(), set.end());
  const py::array eigenvalue = new_array({shape, false, {}});
  shape.insert(shape.begin() + 3, coils);
  check_count(shape, "size");  // the larger of the two
  const py::array maps = new_array({shape, true, {}});
  ctessel::EspiritOptions options;
  options.kernel = whole_number(kernel, "kernel", 1, INT_MAX);
  options.threshold = number(threshold, "threshold");
  options.crop = number(crop, "crop");
  options.eigenvalue = view_of(eigenvalue);
  const Samples out = view_of(maps);
  run(Threads(threads), [&] { ctessel::espirit(lines.view, out, options); });
  return py::make_tuple(maps, eigenvalue);
}

}  // namespace

void bind_coils(py::module_& m) {
  define(m, "sos", combine<ctessel::sos, false>);
  define(m, "pcsos", combine<ctessel::pcsos, true>);
  define(m, "espirit", espirit);
}

}  // namespace ctessel_python
