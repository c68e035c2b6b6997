// The field of gradients that are not linear, for points in arrays of doubles.

#include <pybind11/stl.h>

#include <algorithm>
#include <tuple>

#include "arguments.h"
#include "ctessel.hpp"

namespace ctessel_python {

namespace {

using ctessel::FieldPoints;
using ctessel::GradientField;
using std::ptrdiff_t;

/// The inverse goes on until a step is at most 1e-9 of the radius, which single precision cannot tell.
using Doubles = py::array_t<double, py::array::c_style | py::array::forcecast>;
using Term = std::tuple<int, bool, int, int, double>;

GradientField field_of(const std::vector<Term>& terms, double radius) {
  std::vector<ctessel::GradientTerm> list;
  for (const auto& [axis, sine, order, degree, value] : terms) {
    list.push_back({ctessel::Dim(axis), sine, order, degree, value});
  }
  return {list, radius};
}

/// Points (..., 3), or a grid's voxels: its shape, and rows 0 to 2 of its affine. A grid's positions
/// are made as they are needed; an array of them would take several times the memory of the image. Points
/// of a list stay in the caller's array, which has to outlive this.
struct Points {
  Points(const Doubles& values, const py::object& grid) {
    if (grid.is_none()) {
      shape.assign(values.shape(), values.shape() + values.ndim() - 1);
      points = FieldPoints::list(values.data(), values.size() / 3);
      return;
    }
    for (py::handle n : grid) shape.insert(shape.begin(), n.cast<ptrdiff_t>());
    ptrdiff_t extents[3];
    double affine[3][4];
    std::reverse_copy(shape.begin(), shape.end(), extents);
    std::copy(values.data(), values.data() + 12, &affine[0][0]);
    points = FieldPoints::grid(extents, affine);
  }

  /// An array for numbers per point; those of a grid have z first.
  Doubles results(std::initializer_list<ptrdiff_t> each) const {
    std::vector<ptrdiff_t> all = shape;
    all.insert(all.end(), each);
    return Doubles(all);
  }

  std::vector<ptrdiff_t> shape;
  FieldPoints points;
};

/// Position, displacement, Jacobian and determinant, of which those that are not wanted cost nothing.
py::tuple evaluate(const GradientField& field, const Doubles& values, const py::object& grid,
                   const std::vector<bool>& wanted, py::handle threads) {
  const Points p(values, grid);
  Doubles results[] = {Doubles(0), Doubles(0), Doubles(0), Doubles(0)};
  double* out[4] = {};
  for (std::size_t k = 0; k < 4; ++k) {
    if (!wanted[k]) continue;
    results[k] = k == 3 ? p.results({}) : k == 2 ? p.results({3, 3}) : p.results({3});
    out[k] = results[k].mutable_data();
  }
  run(Threads(threads), [&] { field.evaluate(p.points, {out[0], out[1], out[2], out[3]}); });
  return py::make_tuple(results[0], results[1], results[2], results[3]);
}

/// The inverse, and for how many points there is none.
py::tuple inverse(const GradientField& field, const Doubles& values, const py::object& grid,
                  py::handle threads) {
  const Points p(values, grid);
  Doubles out = p.results({3});
  double* to = out.mutable_data();
  ptrdiff_t lost = 0;
  run(Threads(threads), [&] { lost = field.inverse(p.points, to); });
  return py::make_tuple(out, lost);
}

}  // namespace

void bind_gradient_field(py::module_& m) {
  // Local: the same type of another extension would otherwise be taken for this one.
  py::class_<GradientField>(m, "GradientField", py::module_local())
      .def(py::init(&field_of))
      .def("evaluate", evaluate)
      .def("inverse", inverse);
}

}  // namespace ctessel_python
