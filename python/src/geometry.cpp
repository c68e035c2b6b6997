// Geometry correction and its spherical harmonics.

#include <climits>
#include <cmath>

#include "arguments.h"
#include "cTessel.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

constexpr int kOrders = 14, kDegrees = 12, kZonal = 17;

using Floats = py::array_t<float, py::array::c_style | py::array::forcecast>;

/// Coefficients as floats: rows n = order, columns m = degree.
std::vector<float> table_of(py::handle object, const char* name, ptrdiff_t rows,
                            ptrdiff_t columns) {
  const std::string expected = "an array of shape " + text_of({rows, columns}) +
                               (columns == 1 ? " or " + text_of({rows}) : "");
  const auto any = py::array::ensure(object);
  if (!any || std::string("fiu").find(any.dtype().kind()) == std::string::npos) {
    PyErr_Clear();
    fail_type(name, "real numbers", describe(object));
  }
  const std::vector<ptrdiff_t> shape(any.shape(), any.shape() + any.ndim());
  const bool flat = columns == 1 && shape == std::vector<ptrdiff_t>{rows};
  if (!flat && shape != std::vector<ptrdiff_t>{rows, columns}) {
    fail_value(name, expected, "shape " + text_of(shape));
  }
  const Floats values(any);
  return {values.data(), values.data() + values.size()};
}

void check_linear_term(const std::vector<float>& table, const char* name, int columns, int m) {
  if (table[static_cast<std::size_t>(columns + m)] == 0) {
    fail_value(name, "a linear term other than 0 in row 1, column " + std::to_string(m), "0");
  }
}

struct Tables {
  std::vector<float> x, y, z;
};

Tables tables_of(py::handle coeff_x, py::handle coeff_y, py::handle coeff_z) {
  Tables t{table_of(coeff_x, "coeff_x", kOrders, kDegrees),
           table_of(coeff_y, "coeff_y", kOrders, kDegrees),
           table_of(coeff_z, "coeff_z", kZonal, 1)};
  check_linear_term(t.x, "coeff_x", kDegrees, 1);
  check_linear_term(t.y, "coeff_y", kDegrees, 1);
  check_linear_term(t.z, "coeff_z", 1, 0);
  return t;
}

template <int Columns>
float (*rows_of(std::vector<float>& table))[Columns] {
  return reinterpret_cast<float(*)[Columns]>(table.data());
}

/// Points in any order, as long as all three arrays have the same one.
bool alike_and_dense(const View& x, const View& y, const View& z, const View& dense) {
  return x.strides == dense.strides && y.strides == dense.strides && z.strides == dense.strides;
}

/// Coordinates of the points one after another; a copy only where they are not.
struct Coordinates {
  Coordinates(const View& v, bool dense) : copy(dense ? packed(v.data, {v.size()}, false) : v) {}
  float* values() const { return copy.re(); }
  Parts copy;
};

void correct(const Input (&in)[3], const py::array (&out)[3], bool dense, Tables& t, float r0) {
  const Coordinates x(in[0].view, dense), y(in[1].view, dense), z(in[2].view, dense);
  float* to[3];
  for (int d = 0; d < 3; ++d) to[d] = static_cast<float*>(const_cast<void*>(out[d].data()));
  TS_geometry_correction(x.values(), y.values(), z.values(), to[0], to[1], to[2],
                         static_cast<int>(in[0].view.size()), rows_of<kDegrees>(t.y),
                         rows_of<kDegrees>(t.x), rows_of<1>(t.z), r0);
}

py::tuple geometry_correction(py::handle x, py::handle y, py::handle z, py::handle coeff_x,
                              py::handle coeff_y, py::handle coeff_z, py::handle radius,
                              py::handle threads) {
  const Input in[] = {input(x, "x", Kind::kReal, 0), input(y, "y", Kind::kReal, 0),
                      input(z, "z", Kind::kReal, 0)};
  const View& first = in[0].view;
  for (int d = 1; d < 3; ++d) {
    if (in[d].view.shape != first.shape) {
      fail_value(d == 1 ? "y" : "z", "the shape of x, " + text_of(first.shape),
                 "shape " + text_of(in[d].view.shape));
    }
  }
  if (first.size() > INT_MAX) fail_value("x", "at most 2147483647 points", text_of(first.shape));
  Tables tables = tables_of(coeff_x, coeff_y, coeff_z);
  const auto r0 = static_cast<float>(number(radius, "r0"));
  if (!(r0 > 0)) fail_value("r0", "a radius above 0", std::to_string(r0));
  const View same = layout_like(first, first.shape, false);
  const bool dense = alike_and_dense(first, in[1].view, in[2].view, same);
  const View layout = dense ? same : packed(nullptr, first.shape, false);
  const py::array out[] = {new_array(layout), new_array(layout), new_array(layout)};
  const Threads team(threads);
  {
    const py::gil_scoped_release unlocked;
    correct(in, out, dense, tables, r0);
  }
  return py::make_tuple(out[0], out[1], out[2]);
}

py::tuple realign(py::handle coeff_x, py::handle coeff_y, py::handle coeff_z) {
  Tables t{table_of(coeff_x, "coeff_x", kOrders, kDegrees),
           table_of(coeff_y, "coeff_y", kOrders, kDegrees),
           table_of(coeff_z, "coeff_z", kZonal, 1)};
  // Orders m .. 13 of degrees 1 .. 11, and orders 1 .. 16 of degree 0.
  py::array_t<float> a(88), b(88), zonal(16);
  realign_corr_coeffs(a.mutable_data(), b.mutable_data(), zonal.mutable_data(), kDegrees, kOrders,
                      kZonal, rows_of<kDegrees>(t.x), rows_of<kDegrees>(t.y), rows_of<1>(t.z));
  return py::make_tuple(a, b, zonal);
}

py::object legendre(py::handle l, py::handle m, const Floats& x) {
  const int order = whole_number(l, "l", 0, 1 << 20), degree = whole_number(m, "m", 0, order);
  for (ptrdiff_t i = 0; i < x.size(); ++i) {
    if (std::abs(x.data()[i]) > 1) {
      fail_value("x", "values from -1 to 1", std::to_string(x.data()[i]));
    }
  }
  const auto evaluate = [=](float v) { return static_cast<double>(plgndr(order, degree, v)); };
  return py::vectorize(evaluate)(x);
}

py::array lookup(py::handle nl, py::handle nm, py::handle npts) {
  const int orders = whole_number(nl, "nl", 1, 1 << 15),
            degrees = whole_number(nm, "nm", 1, 1 << 15),
            points = whole_number(npts, "npts", 0, INT_MAX / (orders * degrees));
  py::array_t<float> table({points, degrees, orders});
  float* values = table.mutable_data();
  const py::gil_scoped_release unlocked;
  create_plgndr_lookup(orders, degrees, points, values);
  return py::array(table);
}

void polar(const Floats& x, const Floats& y, const Floats& z, Floats r, Floats theta, Floats phi) {
  for (ptrdiff_t i = 0; i < x.size(); ++i) {
    float out[3];
    getRadiusThetaPhi(x.data()[i], y.data()[i], z.data()[i], out);
    r.mutable_data()[i] = out[0];
    theta.mutable_data()[i] = out[1];
    phi.mutable_data()[i] = out[2];
  }
}

}  // namespace

void bind_geometry(py::module_& m) {
  m.def("geometry_correction", geometry_correction);
  m.def("realign_corr_coeffs", realign);
  m.def("plgndr", legendre);
  m.def("create_plgndr_lookup", lookup);
  m.def("radius_theta_phi", polar);
  m.def("radial_factor", py::vectorize(radialFactor));
  m.def("func_ys", py::vectorize(funcYS));
  m.def("func_yc", py::vectorize(funcYC));
}

}  // namespace ctessel_python
