// Homodyne reconstruction.

#include <cmath>

#include "arguments.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

constexpr const char* kRangeNames[] = {"kx", "ky", "kz"};

std::string text_of(const ctessel::LineRange& range) {
  return py::str(py::make_tuple(range.first, range.last)).cast<std::string>();
}

/// A range whose lines are on the axis, and which the filter can use. The kernel takes others as well:
/// it truncates fractions, clips, and keeps position 0 of an axis that it cannot use, which is an image
/// of another shape than the caller expects.
std::optional<ctessel::LineRange> range_of(py::handle object, int d, ptrdiff_t extent) {
  if (object.is_none()) return {};
  const char* name = kRangeNames[d];
  const std::vector<double> r = numbers(object, name, 2, 2);
  const ctessel::LineRange range{r[0], r[1]};
  const auto n = static_cast<int>(extent);
  const int lowest = -(n / 2), highest = n - n / 2 - 1;
  const auto on_axis = [&](double k) { return k == std::floor(k) && k >= lowest && k <= highest; };
  if (!on_axis(range.first) || !on_axis(range.last) || range.first > range.last) {
    fail_value(name,
               "the first and the last measured line, whole numbers from " +
                   std::to_string(lowest) + " to " + std::to_string(highest),
               text_of(range));
  }
  const ctessel::HomodyneAxis axis = ctessel::homodyne_axis(n, range);
  if (axis.tried && !axis.weighted) {
    fail_value(name,
               "missing lines on the negative side only and at least 0.55 of the extent measured",
               text_of(range));
  }
  return range;
}

/// The weighted data, and their symmetric centre, which is taken first as the filter may be in place.
/// Axes that the data lack have extent 1 and no range.
py::tuple filter(py::handle data, py::handle kx, py::handle ky, py::handle kz, bool inplace,
                 py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  check_not_empty(in.view, "data");
  ctessel::LineRanges ranges;
  Layout centre{in.view.extents, true, in.view.strides};
  for (const auto& [d, range] : {std::pair(0, kx), {1, ky}, {2, kz}}) {
    const auto i = static_cast<std::size_t>(d);
    const ptrdiff_t n = in.view.extent(Dim(d));
    ranges[i] = range_of(range, d, n);
    if (d >= in.view.ndim()) continue;
    centre.shape[i] = ctessel::homodyne_axis(static_cast<int>(n), ranges[i]).kept.count();
  }
  const Result to = result(in, data, py::none(), inplace);
  const py::array middle = new_array(centre);
  const Samples kept = view_of(middle);
  run({threads, in.view.size()}, [&] {
    ctessel::homodyne_centre(in.view, ranges, kept);
    ctessel::homodyne_filter(in.view, ranges, to.view);
  });
  return py::make_tuple(to.array, middle);
}

/// Along x, y and z the phase is interpolated, along all other axes it belongs to one image.
void check_low(const ConstSamples& data, const ConstSamples& low) {
  check_not_empty(low, "low");
  if (low.ndim() != data.ndim()) {
    fail_value("low", std::to_string(data.ndim()) + " dimensions",
               "shape " + ctessel_python::text_of(low.extents));
  }
  for (int d = 3; d < data.ndim(); ++d) check_extent(low, "low", d, data.extent(Dim(d)));
}

/// The image without the phase, and how many samples became NaN through it: where the low-resolution
/// image is 0 it has no phase, of which the package warns.
py::tuple multiply(py::handle data, py::handle low, py::handle out, bool inplace,
                   py::handle threads) {
  const Input in = input(data, "data", Kind::kEither), image = input(low, "low", Kind::kEither);
  check_not_empty(in.view, "data");
  check_low(in.view, image.view);
  const Result to = result(in, data, out, inplace);
  check_separate_or_same(to.view, image.view, inplace ? "low" : "out");
  ptrdiff_t lost = 0;
  run({threads, in.view.size()}, [&] {
    const ptrdiff_t before = ctessel::count_nan(in.view);
    if (!to.same) ctessel::copy(in.view, to.view);
    ctessel::remove_phase(to.view, image.view);
    lost = ctessel::count_nan(to.view) - before;
  });
  return py::make_tuple(to.array, lost);
}

py::object weights(py::handle n, py::handle range) {
  const int N = whole_number(n, "n", 1, 1 << 30);
  const std::vector<double> k = numbers(range, "range", 2, 2);
  py::array_t<float> values(N);
  const auto kept = ctessel::homodyne_weights(N, {k[0], k[1]}, values.mutable_data());
  if (!kept) return py::none();
  return py::make_tuple(values, py::make_tuple(kept->first, kept->last));
}

}  // namespace

void bind_homodyne(py::module_& m) {
  define(m, "filter", filter);
  define(m, "multiply", multiply);
  define(m, "calculate_filter", weights);
}

}  // namespace ctessel_python
