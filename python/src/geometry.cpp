// Geometry correction and its spherical harmonics.

#include <climits>
#include <cmath>

#include "arguments.h"
#include "cTessel.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

constexpr int kOrders = 14, kDegrees = 12, kZonal = 17;

/// For tables and lists, which are short: converted and put side by side without asking.
using Floats = py::array_t<float, py::array::c_style | py::array::forcecast>;

/// Coefficients as floats: rows n = order, columns m = degree. Shorter tables end with zeros; all have
/// the linear terms, by which the others are divided. Zonal terms may come as a list.
std::vector<float> table_of(py::handle object, const char* name, ptrdiff_t rows,
                            ptrdiff_t columns) {
  const std::string expected = "an array of at most " + text_of({rows, columns}) +
                               (columns == 1 ? " or " + text_of({rows}) : "");
  const auto any = py::array::ensure(object);
  if (!any || std::string("fiu").find(any.dtype().kind()) == std::string::npos) {
    fail_type(name, "real numbers", describe(object));
  }
  const Extents shape(any.shape(), any.shape() + any.ndim());
  const bool flat = columns == 1 && shape.size() == 1;
  if ((!flat && shape.size() != 2) || shape[0] > rows || shape[0] < 2 ||
      (!flat && (shape[1] > columns || shape[1] < std::min<ptrdiff_t>(columns, 2)))) {
    fail_value(name, expected, "shape " + text_of(shape));
  }
  const Floats values(any);
  const ptrdiff_t given = flat ? 1 : shape[1];
  std::vector<float> table(static_cast<std::size_t>(rows * columns));
  for (ptrdiff_t r = 0; r < shape[0]; ++r) {
    std::copy_n(values.data() + r * given, given, table.begin() + r * columns);
  }
  return table;
}

void check_linear_term(const std::vector<float>& table, const char* name, int columns, int m) {
  if (table[static_cast<std::size_t>(columns + m)] == 0) {
    fail_value(name, "a linear term other than 0 in row 1, column " + std::to_string(m), "0");
  }
}

struct Tables {
  std::vector<float> x, y, z;
};

/// Where gradients are to be divided by their linear terms, these are looked at.
Tables tables_of(py::handle coeff_x, py::handle coeff_y, py::handle coeff_z, bool divided) {
  Tables t{table_of(coeff_x, "coeff_x", kOrders, kDegrees),
           table_of(coeff_y, "coeff_y", kOrders, kDegrees),
           table_of(coeff_z, "coeff_z", kZonal, 1)};
  if (!divided) return t;
  check_linear_term(t.x, "coeff_x", kDegrees, 1);
  check_linear_term(t.y, "coeff_y", kDegrees, 1);
  check_linear_term(t.z, "coeff_z", 1, 0);
  return t;
}

/// As the parameters of the C interface are declared, which only read.
template <int Columns>
float (*rows_of(std::vector<float>& table))[Columns] {
  return reinterpret_cast<float(*)[Columns]>(table.data());
}

/// Points one after another: as they lie where all three arrays are alike and have no gaps,
/// otherwise copied once, in C order.
struct Points {
  explicit Points(const Input (&in)[3]) : layout{in[0].view.extents, false, in[0].view.strides} {
    const Extents dense = view_of(new_array(layout)).strides;
    bool alike = true;
    for (const Input& c : in) alike = alike && c.view.strides == dense;
    for (int d = 0; d < 3; ++d) arrays[d] = alike ? py::array(in[d].holder) : Floats(in[d].holder);
    layout.like = view_of(arrays[0]).strides;
  }
  py::array result() const { return new_array(layout); }
  float* values(int d) const { return static_cast<float*>(const_cast<void*>(arrays[d].data())); }

  Layout layout;
  py::array arrays[3];
};

py::tuple geometry_correction(py::handle x, py::handle y, py::handle z, py::handle coeff_x,
                              py::handle coeff_y, py::handle coeff_z, py::handle radius,
                              py::handle threads) {
  const Input in[] = {input(x, "x", Kind::kReal, 0), input(y, "y", Kind::kReal, 0),
                      input(z, "z", Kind::kReal, 0)};
  const Extents& shape = in[0].view.extents;
  for (int d = 1; d < 3; ++d) {
    if (in[d].view.extents != shape) {
      fail_value(d == 1 ? "y" : "z", "the shape of x, " + text_of(shape),
                 "shape " + text_of(in[d].view.extents));
    }
  }
  if (in[0].view.size() > INT_MAX) fail_value("x", "at most 2147483647 points", text_of(shape));
  Tables t = tables_of(coeff_x, coeff_y, coeff_z, true);
  const auto r0 = static_cast<float>(number(radius, "r0"));
  if (!(r0 > 0)) fail_value("r0", "a radius above 0", std::to_string(r0));
  const Points points(in);
  const py::array out[] = {points.result(), points.result(), points.result()};
  const Samples to[] = {view_of(out[0]), view_of(out[1]), view_of(out[2])};
  const auto n = static_cast<int>(in[0].view.size());
  run(Threads(threads), [&] {
    TS_geometry_correction(points.values(0), points.values(1), points.values(2), to[0].re, to[1].re,
                           to[2].re, n, rows_of<kDegrees>(t.y), rows_of<kDegrees>(t.x),
                           rows_of<1>(t.z), r0);
  });
  return py::make_tuple(out[0], out[1], out[2]);
}

py::tuple realign(py::handle coeff_x, py::handle coeff_y, py::handle coeff_z) {
  Tables t = tables_of(coeff_x, coeff_y, coeff_z, false);
  // Orders m .. 13 of degrees 1 .. 11, and orders 1 .. 16 of degree 0.
  py::array_t<float> a(88), b(88), zonal(16);
  realign_corr_coeffs(a.mutable_data(), b.mutable_data(), zonal.mutable_data(), kDegrees, kOrders,
                      kZonal, rows_of<kDegrees>(t.x), rows_of<kDegrees>(t.y), rows_of<1>(t.z));
  return py::make_tuple(a, b, zonal);
}

/// Outside of [-1, 1] the recurrence takes roots of negative numbers.
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

/// The kernel numbers the table with int.
py::array lookup(py::handle nl, py::handle nm, py::handle npts) {
  const int orders = whole_number(nl, "nl", 1, 1 << 15),
            degrees = whole_number(nm, "nm", 1, 1 << 15),
            points = whole_number(npts, "npts", 0, INT_MAX / (orders * degrees));
  py::array_t<float> table({points, degrees, orders});
  float* values = table.mutable_data();
  run(Threads(py::none()), [&] { create_plgndr_lookup(orders, degrees, points, values); });
  return py::array(table);
}

/// Fills arrays that the package made: handles are passed by value, their samples are not.
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
  define(m, "geometry_correction", geometry_correction);
  m.def("realign_corr_coeffs", realign);
  m.def("plgndr", legendre);
  m.def("create_plgndr_lookup", lookup);
  m.def("radius_theta_phi", polar);
  m.def("radial_factor", py::vectorize(radialFactor));
  m.def("func_ys", py::vectorize(funcYS));
  m.def("func_yc", py::vectorize(funcYC));
}

}  // namespace ctessel_python
