// Grids, interpolation, rounding, indices, search.

#include <climits>
#include <limits>
#include <memory>

#include "arguments.h"
#include "cTessel.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;
using Floats = py::array_t<float, py::array::c_style>;

py::array linspace(py::handle start, py::handle stop, py::handle n) {
  const int count = whole_number(n, "n", 0, INT_MAX);
  // The kernel's array is the caller's to delete, which NumPy could not; these few numbers are copied.
  const std::unique_ptr<float[]> grid(TS_linspace(static_cast<float>(number(start, "start")),
                                                  static_cast<float>(number(stop, "stop")), count));
  return py::array_t<float>(count, grid.get());
}

/// The kernel does not look: below -1 and beyond the extent it would read outside of the volume. NaN
/// fails the comparison as well.
void check_positions(const Floats& at, const char* name, ptrdiff_t extent) {
  for (ptrdiff_t i = 0; i < at.size(); ++i) {
    const float v = at.data()[i];
    if (!(v > -1 && v <= static_cast<float>(extent))) {
      fail_value(name, "positions above -1 and up to " + std::to_string(extent), std::to_string(v));
    }
  }
}

/// Values at positions of the same count.
void linear_interpolation(py::handle volume, const Floats& x, const Floats& y, const Floats& z,
                          py::array out) {
  const Input in = input(volume, "volume", Kind::kEither, 1, 3);
  check_positions(x, "x", in.view.extent(Dim::x));
  check_positions(y, "y", in.view.extent(Dim::y));
  check_positions(z, "z", in.view.extent(Dim::z));
  float* to = view_of(out).re;
  const py::gil_scoped_release unlocked;
  ctessel::interpolate(in.view, {x.data(), y.data(), z.data()}, x.size(), to);
}

double position(py::handle pos, py::handle idx, py::handle a, py::handle b) {
  const std::vector<double> A = numbers(a, "A", 2, 2), B = numbers(b, "B", 2, 2);
  const float fa[] = {static_cast<float>(A[0]), static_cast<float>(A[1])};
  const float fb[] = {static_cast<float>(B[0]), static_cast<float>(B[1])};
  return pos2interpolate(number(pos, "pos"), whole_number(idx, "idx", INT_MIN, INT_MAX), fa, fb);
}

Eigen::VectorXi vector_of(py::handle object, const char* name) {
  const std::vector<int> values = whole_numbers(object, name, 0, 64, 0);
  return Eigen::Map<const Eigen::VectorXi>(values.data(), static_cast<Eigen::Index>(values.size()));
}

/// Subscripts past an extent carry into the next axis. An index that int cannot hold would wrap round to
/// another entry.
int sub2ind(py::handle dims, py::handle sub) {
  const Eigen::VectorXi n = vector_of(dims, "dims"), at = vector_of(sub, "sub");
  if (n.size() != at.size()) {
    fail_value("sub", std::to_string(n.size()) + " entries", std::to_string(at.size()));
  }
  double stride = 1, index = 0;
  for (Eigen::Index d = 0; d < n.size(); ++d) {
    index += stride * at[d];
    if (index > INT_MAX || (d + 1 < n.size() && stride * n[d] > INT_MAX)) {
      fail_value("dims", "strides and an index of at most 2147483647", "more");
    }
    stride *= n[d];
  }
  return TS_sub2ind(n, at);
}

/// In the array's own type: converted, a value that it cannot hold would be found as another one.
template <class T>
int find_in(const py::array& a, py::handle value) {
  long most = std::numeric_limits<T>::max(), least = std::numeric_limits<T>::min();
  if (!PyIndex_Check(value.ptr())) fail_type("value", "a whole number", describe(value));
  const auto v = value.cast<py::int_>().cast<long>();
  if (v < least || v > most) return -1;  // no entry can be equal to it
  const auto list = py::array_t<T, py::array::c_style>::ensure(a);
  return TS_find(const_cast<T*>(list.data()), static_cast<T>(v), static_cast<int>(list.size()));
}

int find(py::handle array, py::handle value) {
  const std::string expected = "a one-dimensional array of int16, uint16, int32 or uint32";
  if (!py::isinstance<py::array>(array)) fail_type("array", expected, describe(array));
  const auto a = py::reinterpret_borrow<py::array>(array);
  if (a.ndim() != 1 || a.size() > INT_MAX) fail_value("array", expected, describe(array));
  if (py::isinstance<py::array_t<short>>(a)) return find_in<short>(a, value);
  if (py::isinstance<py::array_t<unsigned short>>(a)) return find_in<unsigned short>(a, value);
  if (py::isinstance<py::array_t<int>>(a)) return find_in<int>(a, value);
  if (py::isinstance<py::array_t<unsigned>>(a)) return find_in<unsigned>(a, value);
  fail_type("array", expected, describe(array));
}

/// Without a team: the sum is one chain in extended precision, whatever the number of threads.
double root_mean_square(py::handle data) {
  const Input in = input(data, "data", Kind::kEither);
  const py::gil_scoped_release unlocked;
  return ctessel::root_mean_square(in.view);
}

}  // namespace

void bind_helpers(py::module_& m) {
  m.def("linspace", linspace);
  define(m, "linear_interpolation", linear_interpolation);
  m.def("pos2interpolate", position);
  m.def("round", py::vectorize(static_cast<int (*)(double)>(TS_round)));
  m.def("round_float", py::vectorize(static_cast<int (*)(float)>(TS_round)));
  m.def("sub2ind", sub2ind);
  m.def("find", find);
  define(m, "sa", root_mean_square);
}

}  // namespace ctessel_python
