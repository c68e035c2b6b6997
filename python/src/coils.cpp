// Coil combination. Voxels are independent of each other, so the kernels get small pieces with all
// their coils, whatever the order of the axes in memory.

#include "arguments.h"
#include "cTessel.h"

namespace ctessel_python {

namespace {

constexpr int kAveraged = 9;  // the axis over which pcsos averages its weights

std::vector<std::ptrdiff_t> without_axis(std::vector<std::ptrdiff_t> shape, int axis) {
  shape.erase(shape.begin() + axis);
  return shape;
}

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

py::object combine(void (*piece)(const View&, const View&, int), bool complex,
                   const std::vector<int>& whole, py::handle data, py::handle axis, py::handle out,
                   py::handle threads) {
  const Input in = input(data, "data", Kind::kEither);
  const int coil = axis_number(axis, "axis", in.view.ndim());
  const Destination to =
      destination({in.view}, out, without_axis(in.view.shape, coil), complex, in.view.size() == 0);
  const Threads team(threads, in.view.size() * in.view.item());
  if (in.view.size() > 0) {
    const py::gil_scoped_release unlocked;
    std::vector<int> uncut = whole;
    uncut.push_back(coil);
    for_each_piece(cut({in.view, to.view.with_axis(coil)}, uncut, kPiece),
                   [&](const Views& p) { piece(p[0], p[1], coil); });
  }
  return to.array;
}

}  // namespace

void bind_coils(py::module_& m) {
  m.def("sos", [](py::handle data, py::handle axis, py::handle out, py::handle threads) {
    return combine(sos_piece, false, {}, data, axis, out, threads);
  });
  m.def("pcsos", [](py::handle data, py::handle axis, py::handle out, py::handle threads) {
    return combine(pcsos_piece, true, {kAveraged}, data, axis, out, threads);
  });
}

}  // namespace ctessel_python
