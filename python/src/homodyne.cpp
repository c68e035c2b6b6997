// Homodyne reconstruction: the gateway's operations on NumPy arrays.

#include "homodyne.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>

#include "arguments.h"
#include "dispatch.h"
#include "numpy_host.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

constexpr const char* kRangeNames[] = {"kx", "ky", "kz"};

std::vector<double> range_of(py::handle object, const char* name) {
  if (object.is_none()) return {};
  return numbers(object, name, 2, 2);
}

void check_not_empty(const View& v, const char* name) {
  if (v.size() == 0) fail_value(name, "at least one sample", "shape " + text_of(v.shape));
}

/// One of the first three axes: whether its range is to be used at all, whether the filter accepts
/// it, and the first and last position that the centre keeps; of a range that is rejected, only the
/// first.
struct Axis {
  std::vector<double> range;
  bool tried, weighted;
  int bounds[2];
  ptrdiff_t kept() const { return std::max(bounds[1] - bounds[0] + 1, 0); }
};

Axis axis_of(const View& data, int d, py::handle range) {
  const int n = static_cast<int>(data.extent(d));
  Axis axis{range_of(range, kRangeNames[d]), false, false, {0, n - 1}};
  axis.tried = !axis.range.empty() && std::abs(axis.range[0] + axis.range[1]) > 1;
  if (axis.tried) {
    axis.bounds[1] = 0;
    axis.weighted = calculate_filter(n, axis.range.data(), nullptr, axis.bounds) != 0;
  }
  return axis;
}

using Axes = std::array<Axis, 3>;

View centre_of(View data, const Axes& axes) {
  for (int d = 0; d < std::min(data.ndim(), 3); ++d) {
    const Axis& axis = axes[static_cast<std::size_t>(d)];
    data = data.slice(d, axis.bounds[0], axis.kept());
  }
  return data;
}

/// What the operation makes of ones: the weights of a volume along the axes that it weighs. They do
/// not depend on the order of the axes in memory.
Weights weights_of(const View& data, const Axes& axes) {
  std::vector<ptrdiff_t> shape;
  for (int d = 0; d < 3; ++d) {
    shape.push_back(axes[static_cast<std::size_t>(d)].weighted ? data.extent(d) : 1);
  }
  Weights weights(shape);
  const auto ones = host::borrow(weights.view);
  std::unique_ptr<host::Array> ranges[3];
  for (std::size_t d = 0; d < 3; ++d) {
    ranges[d] = host::range(axes[d].weighted ? axes[d].range : std::vector<double>{});
  }
  const mxArray* arguments[] = {nullptr, ones.get(), ranges[0].get(), ranges[1].get(),
                                ranges[2].get()};
  mxArray* centre = nullptr;
  ApplyHomodyneFilter(1, &centre, 5, arguments);
  delete centre;
  return weights;
}

py::tuple filter(py::handle data, py::handle kx, py::handle ky, py::handle kz, bool inplace,
                 py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  check_not_empty(in.view, "data");
  const Axes axes{axis_of(in.view, 0, kx), axis_of(in.view, 1, ky), axis_of(in.view, 2, kz)};
  const Destination to = destination(in, data, py::none(), inplace,
                                     layout_like(in.view, in.view.shape, in.view.complex));
  const View middle = centre_of(in.view, axes);
  const py::array centre = new_zeros(layout_like(in.view, middle.shape, true));
  const View kept = view_of(centre);
  const Threads team(threads, in.view.size() * in.view.item());
  const bool any = std::any_of(axes.begin(), axes.end(), [](const Axis& a) { return a.weighted; });
  {
    const py::gil_scoped_release unlocked;
    copy(middle, in.view.complex ? kept : kept.part(0));
    if (any) weigh(in.view, weights_of(in.view, axes), to.view);
    if (!any && !to.same) copy(in.view, to.view);
  }
  py::list rejected;
  for (std::size_t d = 0; d < 3; ++d) {
    if (axes[d].tried && !axes[d].weighted) rejected.append(kRangeNames[d]);
  }
  return py::make_tuple(to.array, centre, rejected);
}

void multiply_packed(const View& data, const View& low) {
  const auto samples = host::borrow(data), image = host::borrow(low);
  const mxArray* arguments[] = {nullptr, samples.get(), image.get()};
  AddLowResPhase(0, nullptr, 3, arguments);
}

/// Samples of equal arrays are independent of each other, and any order of the axes will do;
/// otherwise volumes are.
void multiply_in_place(const View& samples, const View& image) {
  const bool equal = samples.shape == image.shape;
  std::vector<int> order = samples.memory_order();
  if (!equal) std::sort(order.begin(), order.end());
  const View data = samples.permuted(order), low = image.permuted(order);
  if (data.first_axis_fastest() && low.first_axis_fastest()) return multiply_packed(data, low);
  const std::vector<int> whole = equal ? std::vector<int>{} : std::vector{0, 1, 2};
  for_each_piece(cut({data, low}, whole, kPiece), [](const Views& piece) {
    const Packed block(piece[0]), phase(piece[1]);
    multiply_packed(block.view(), phase.view());
    block.put_back();
  });
}

CTESSEL_CLONES ptrdiff_t count_nan(const float* v, ptrdiff_t n) {
  ptrdiff_t count = 0;
#pragma omp simd reduction(+ : count)
  for (ptrdiff_t i = 0; i < n; ++i) count += v[i] != v[i];
  return count;
}

/// Samples whose real part is not a number.
ptrdiff_t count_nan(const View& v) {
  std::atomic<ptrdiff_t> count{0};
  const View real = v.complex ? v.part(0) : v;
  for_each_piece(cut({real.permuted(v.memory_order())}, {}, kPiece), [&](const Views& piece) {
    const Parts values(piece[0]);
    count += count_nan(values.re(), piece[0].size());
  });
  return count;
}

void check_low(const View& data, const View& low) {
  check_not_empty(low, "low");
  if (low.ndim() != data.ndim()) {
    fail_value("low", std::to_string(data.ndim()) + " dimensions", "shape " + text_of(low.shape));
  }
  for (int d = 3; d < data.ndim(); ++d) {
    if (low.extent(d) != data.extent(d)) {
      fail_value("low",
                 "extent " + std::to_string(data.extent(d)) + " along axis " + std::to_string(d),
                 "shape " + text_of(low.shape));
    }
  }
}

py::tuple multiply(py::handle data, py::handle low, py::handle out, bool inplace,
                   py::handle threads) {
  const Input in = input(data, "data", Kind::kEither), image = input(low, "low", Kind::kEither);
  check_not_empty(in.view, "data");
  check_low(in.view, image.view);
  const std::vector<ptrdiff_t>& shape = in.view.shape;
  const View layout = shape == image.view.shape ? layout_like(in.view, shape, in.view.complex)
                                                : packed(nullptr, shape, in.view.complex);
  const Destination to = destination(in, data, out, inplace, layout);
  check_apart_or_same(to.view, image.view, inplace ? "low" : "out");
  const Threads team(threads, in.view.size() * in.view.item());
  ptrdiff_t lost;
  {
    const py::gil_scoped_release unlocked;
    const ptrdiff_t before = count_nan(in.view);
    if (!to.same) copy(in.view, to.view);
    multiply_in_place(to.view, image.view);
    lost = count_nan(to.view) - before;
  }
  return py::make_tuple(to.array, lost);
}

py::object weights(py::handle n, py::handle range) {
  const int N = whole_number(n, "n", 1, 1 << 30);
  std::vector<double> k = numbers(range, "range", 2, 2);
  py::array_t<float> values(N);
  int bounds[2];
  if (!calculate_filter(N, k.data(), values.mutable_data(), bounds)) return py::none();
  return py::make_tuple(values, py::make_tuple(bounds[0], bounds[1]));
}

}  // namespace

void bind_homodyne(py::module_& m) {
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const host::Error& e) {
      PyErr_SetString(PyExc_ValueError, e.what());
    }
  });
  m.def("filter", filter);
  m.def("multiply", multiply);
  m.def("calculate_filter", weights);
}

}  // namespace ctessel_python
