// Homodyne reconstruction: the gateway's operations on NumPy arrays.

#include "homodyne.h"

#include <algorithm>
#include <atomic>
#include <cmath>

#include "arguments.h"
#include "dispatch.h"
#include "numpy_host.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

constexpr const char* kRangeNames[] = {"kx", "ky", "kz"};

struct Ranges {
  std::vector<double> k[3];
};

std::vector<double> range_of(py::handle object, const char* name) {
  if (object.is_none()) return {};
  return numbers(object, name, 2, 2);
}

void check_not_empty(const View& v, const char* name) {
  if (v.size() == 0) fail_value(name, "at least one sample", "shape " + text_of(v.shape));
}

/// Names of the ranges that the filter has rejected: asymmetric, but not to be used.
py::list rejected(const View& data, Ranges& ranges) {
  py::list names;
  for (int d = 0; d < 3; ++d) {
    std::vector<double>& k = ranges.k[d];
    int bounds[2];
    if (k.empty() || std::abs(k[0] + k[1]) <= 1) continue;
    if (!calculate_filter(static_cast<int>(data.extent(d)), k.data(), nullptr, bounds)) {
      names.append(kRangeNames[d]);
    }
  }
  return names;
}

using Centre = std::unique_ptr<host::Array>;

/// Weighs packed samples in place.
Centre filter_packed(const View& data, const Ranges& ranges) {
  const auto samples = host::borrow(data);
  const auto x = host::range(ranges.k[0]), y = host::range(ranges.k[1]),
             z = host::range(ranges.k[2]);
  const mxArray* arguments[] = {nullptr, samples.get(), x.get(), y.get(), z.get()};
  mxArray* result = nullptr;
  ApplyHomodyneFilter(1, &result, 5, arguments);
  return Centre(result);
}

/// Samples in another order are weighed part by part, which takes half the memory of a copy.
Centre filter_in_place(const View& data, const Ranges& ranges) {
  if (data.first_axis_fastest()) return filter_packed(data, ranges);
  Centre centre;
  for (int which = 0; which < (data.complex ? 2 : 1); ++which) {
    const Packed part(data.complex ? data.part(which) : data);
    Centre real = filter_packed(part.view(), ranges);
    part.put_back();
    if (!centre) {
      centre = std::move(real);
      continue;
    }
    ptrdiff_t n = 1;
    for (int extent : centre->dims) n *= extent;
    for (ptrdiff_t i = 0; i < n; ++i) centre->floats[2 * i + 1] = real->floats[2 * i];
  }
  return centre;
}

py::array array_of(Centre centre) {
  const std::vector<ptrdiff_t> shape(centre->dims.begin(), centre->dims.end());
  const View v = packed(centre->floats, shape, true);
  void* memory = centre->own.release();
  const py::capsule owner(memory, [](void* p) { std::free(p); });
  return py::array(py::dtype::of<std::complex<float>>(), v.shape, v.strides, memory, owner);
}

py::tuple filter(py::handle data, py::handle kx, py::handle ky, py::handle kz, bool inplace,
                 py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  check_not_empty(in.view, "data");
  Ranges ranges{{range_of(kx, "kx"), range_of(ky, "ky"), range_of(kz, "kz")}};
  const py::list warnings = rejected(in.view, ranges);
  const Destination to =
      destination(in, data, py::none(), inplace, packed(nullptr, in.view.shape, in.view.complex));
  const Threads team(threads, in.view.size() * in.view.item());
  Centre centre;
  {
    const py::gil_scoped_release unlocked;
    if (!to.same) copy(in.view, to.view);
    centre = filter_in_place(to.view, ranges);
  }
  return py::make_tuple(to.array, array_of(std::move(centre)), warnings);
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
