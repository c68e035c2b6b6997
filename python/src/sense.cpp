// SENSE reconstruction and its fold geometry.

#include <algorithm>
#include <climits>
#include <cmath>
#include <utility>

#include "arguments.h"
#include "cTessel.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

constexpr int kReg = 3, kCoil = 3, kLocation = 7, kMostAxes = 13;

struct FullSize {
  std::array<int, 3> n;
};

FullSize full_size_of(const ConstSamples& folded, const ConstSamples& sens, py::handle object) {
  FullSize full{{static_cast<int>(folded.extent(Dim(0))), static_cast<int>(sens.extent(Dim(1))),
                 static_cast<int>(sens.extent(Dim(2)))}};
  if (!object.is_none()) {
    numbers(object, "full_size", 3, 3);
    const auto entries = py::reinterpret_borrow<py::sequence>(object);
    for (std::size_t d = 0; d < 3; ++d) {
      const py::object entry = entries[d];
      full.n[d] = whole_number(entry, "full_size[" + std::to_string(d) + "]", 1, INT_MAX);
    }
  }
  for (int d = 0; d < 3; ++d) {
    if (d == 0 ? full.n[0] != folded.extent(Dim(0)) : full.n[d] < folded.extent(Dim(d))) {
      fail_value("full_size[" + std::to_string(d) + "]",
                 (d == 0 ? "the folded extent " : "at least the folded extent ") +
                     std::to_string(folded.extent(Dim(d))),
                 std::to_string(full.n[d]));
    }
  }
  return full;
}

/// Extents of the unfolded image: the coils are gone.
Extents unfolded_shape(const ConstSamples& folded, const FullSize& full) {
  Extents shape(full.n.begin(), full.n.end());
  for (int d = kCoil + 1; d < folded.ndim(); ++d) shape.push_back(folded.extent(Dim(d)));
  check_count(shape, "full_size");
  return shape;
}

struct Arguments {
  Input folded, sens, psi, ref, reg;
  FullSize full;
  double scale;
};

void check_regularisation(const Arguments& a) {
  if (!a.ref.view != !a.reg.view) {
    fail_value(a.ref.view ? "reg" : "ref",
               std::string("an array beside ") + (a.ref.view ? "ref" : "reg"), "None");
  }
  if (!a.reg.view) return;
  for (int d = 0; d < 3; ++d) check_extent(a.reg.view, "reg", d, a.sens.view.extent(Dim(d)));
  check_extent(a.reg.view, "reg", 3, a.folded.view.extent(Dim(kLocation)));
  for (const auto& [v, name] : {std::pair(&a.folded.view, "folded"), {&a.ref.view, "ref"}}) {
    if (v->size() > INT_MAX) {
      fail_value(name, "at most 2147483647 samples beside regularisation",
                 "shape " + text_of(v->extents));
    }
  }
  if (a.scale == 0) fail_value("scale", "a number other than 0", "0");
}

Arguments arguments(py::handle folded, py::handle sens, py::handle psi, py::handle full_size,
                    py::handle ref, py::handle reg, py::handle scale) {
  Arguments a{input(folded, "folded", Kind::kEither, 4, kMostAxes),
              input(sens, "sens", Kind::kComplex, 4, 5),
              optional(psi, "psi", Kind::kEither, 2),
              optional(ref, "ref", Kind::kEither, kMostAxes),
              optional(reg, "reg", Kind::kEither, 4),
              {},
              number(scale, "scale")};
  check_not_empty(a.folded.view, "folded");
  check_not_empty(a.sens.view, "sens");
  const ptrdiff_t coils = a.folded.view.extent(Dim(kCoil));
  check_extent(a.sens.view, "sens", kCoil, coils);
  check_extent(a.sens.view, "sens", kCoil + 1, a.folded.view.extent(Dim(kLocation)));
  if (a.psi.view) {
    check_extent(a.psi.view, "psi", 0, coils);
    check_extent(a.psi.view, "psi", 1, coils);
  }
  a.full = full_size_of(a.folded.view, a.sens.view, full_size);
  check_regularisation(a);
  return a;
}

py::object sense_recon(py::handle folded, py::handle sens, py::handle psi, py::handle full_size,
                       py::handle ref, py::handle reg, py::handle scale, py::handle out,
                       py::handle threads) {
  const Arguments a = arguments(folded, sens, psi, full_size, ref, reg, scale);
  std::vector<ConstSamples> read;
  for (const Input* in : {&a.folded, &a.sens, &a.psi, &a.ref, &a.reg}) {
    if (in->view) read.push_back(in->view);
  }
  const Result to = result(read, out, {unfolded_shape(a.folded.view, a.full), true, {}}, true);
  ctessel::SenseOptions options;
  options.covariance = a.psi.view;
  options.expected = a.reg.view;
  options.reference = a.ref.view;
  options.scale = a.scale;
  Samples unfolded = to.view;  // the kernel wants the coils' axis to stay, with extent 1
  unfolded.extents.insert(unfolded.extents.begin() + kCoil, 1);
  unfolded.strides.insert(unfolded.strides.begin() + kCoil, 0);
  const Threads team(threads);
  const py::gil_scoped_release unlocked;
  ctessel::sense(a.folded.view, a.sens.view, a.full.n, unfolded, options);
  return to.array;
}

// ---- Fold geometry ------------------------------------------------------------------------------

struct Fold {
  int full, folded;
};

Fold fold_of(py::handle full_len, py::handle fold_len) {
  const int folded = whole_number(fold_len, "fold_len", 1, INT_MAX);
  return {whole_number(full_len, "full_len", folded, INT_MAX), folded};
}

int folded_pos(py::handle pos, py::handle full_len, py::handle fold_len) {
  const Fold f = fold_of(full_len, fold_len);
  return TS_folded_pos(whole_number(pos, "pos", 0, f.full - 1), f.full, f.folded);
}

py::array unfolded_positions(py::handle full_len, py::handle fold_len, py::handle fold_pos) {
  const Fold f = fold_of(full_len, fold_len);
  const int pos = whole_number(fold_pos, "fold_pos", 0, f.folded - 1);
  Eigen::VectorXi positions((f.full - 1) / f.folded + 1);
  const int count = TS_get_unfolded_positions(f.full, f.folded, pos, positions);
  return py::array_t<int>(count, positions.data());
}

py::tuple compartments(py::handle full_len, py::handle fold_len) {
  const Fold f = fold_of(full_len, fold_len);
  float bounds[] = {-1, -1};
  get_compartments(f.full, f.folded, bounds);
  return py::make_tuple(bounds[0], bounds[1]);
}

}  // namespace

void bind_sense(py::module_& m) {
  define(m, "sense_recon", sense_recon);
  m.def("folded_pos", folded_pos);
  m.def("unfolded_positions", unfolded_positions);
  m.def("compartments", compartments);
}

}  // namespace ctessel_python
