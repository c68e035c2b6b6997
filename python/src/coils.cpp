// Coil combination. Voxels are independent of each other, so the kernels get small pieces with all
// their coils, whatever the order of the axes in memory.

#include <algorithm>

#include "arguments.h"
#include "cTessel.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

constexpr ptrdiff_t kCoilPiece = 4 * kPiece;  // little is done per sample: fewer pieces are faster
constexpr int kAveraged = 9;                  // the axis over which pcsos averages its weights

void sos_piece(const View& data, const View& out, int axis) {
  const Parts parts(data);
  std::vector<float> sum(static_cast<std::size_t>(out.size()), 0.0f);
  std::vector<int> dims = extents(data), outdims = extents(out);
  TS_perform_sos(parts.re(), parts.im(), data.ndim(), dims.data(), axis + 1, sum.data(),
                 outdims.data());
  join(sum.data(), nullptr, out);
}

void pcsos_piece(const View& data, const View& out, int axis) {
  const Parts parts(data);
  const auto n = static_cast<std::size_t>(out.size());
  std::vector<float> re(n), im(n);
  std::vector<int> dims = extents(data, kAveraged + 1), outdims = extents(out, kAveraged + 1);
  TS_perform_pcsos(parts.re(), parts.im(), static_cast<int>(dims.size()), dims.data(), axis + 1,
                   re.data(), im.data(), outdims.data());
  join(re.data(), im.data(), out);
}

/// Axes as they lie in memory. The averaged one must stay where it is, and with it all others.
std::vector<int> axes_of(const View& data) {
  std::vector<int> order = data.memory_order();
  if (data.ndim() > kAveraged) std::sort(order.begin(), order.end());
  return order;
}

using Combine = void (*)(const View&, const View&, int);

void combine_pieces(Combine piece, const View& data, const View& out, int coil) {
  const std::vector<int> order = axes_of(data);
  const auto place = std::find(order.begin(), order.end(), coil) - order.begin();
  const int axis = static_cast<int>(place);
  for_each_piece(cut({data.permuted(order), out.permuted(order)}, {axis, kAveraged}, kCoilPiece),
                 [&](const Views& p) { piece(p[0], p[1], axis); });
}

py::object combine(Combine piece, bool complex, py::handle data, py::handle axis, py::handle out,
                   py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const int coil = axis_number(axis, "axis", in.view.ndim());
  View one = in.view;
  one.shape[static_cast<std::size_t>(coil)] = 1;
  const View layout = layout_like(one, one.shape, complex).without_axis(coil);
  const Destination to = destination({in.view}, out, layout, in.view.size() == 0);
  const Threads team(threads, in.view.size() * in.view.item());
  if (in.view.size() > 0) {
    const py::gil_scoped_release unlocked;
    combine_pieces(piece, in.view, to.view.with_axis(coil), coil);
  }
  return to.array;
}

}  // namespace

void bind_coils(py::module_& m) {
  m.def("sos", [](py::handle data, py::handle axis, py::handle out, py::handle threads) {
    return combine(sos_piece, false, data, axis, out, threads);
  });
  m.def("pcsos", [](py::handle data, py::handle axis, py::handle out, py::handle threads) {
    return combine(pcsos_piece, true, data, axis, out, threads);
  });
}

}  // namespace ctessel_python
