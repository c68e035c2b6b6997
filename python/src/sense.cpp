// SENSE reconstruction and its fold geometry.

#include <algorithm>
#include <climits>
#include <cmath>

#include "arguments.h"
#include "cTessel.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;
using Shape = std::vector<ptrdiff_t>;

constexpr int kCoil = 3, kLocation = 7, kMostAxes = 13;

void check_not_empty(const View& v, const char* name) {
  if (v.size() == 0) fail_value(name, "at least one sample", "shape " + text_of(v.shape));
}

void check_extent(const View& v, const char* name, int axis, ptrdiff_t expected) {
  if (v.extent(axis) != expected) {
    fail_value(name, "extent " + std::to_string(expected) + " along axis " + std::to_string(axis),
               "shape " + text_of(v.shape));
  }
}

struct FullSize {
  int n[3];
};

FullSize full_size_of(const View& folded, const View& sens, py::handle object) {
  FullSize full{{static_cast<int>(folded.extent(0)), static_cast<int>(sens.extent(1)),
                 static_cast<int>(sens.extent(2))}};
  if (!object.is_none()) {
    numbers(object, "full_size", 3, 3);
    const auto entries = py::reinterpret_borrow<py::sequence>(object);
    for (std::size_t d = 0; d < 3; ++d) {
      const py::object entry = entries[d];
      full.n[d] = whole_number(entry, "full_size[" + std::to_string(d) + "]", 1, INT_MAX);
    }
  }
  for (int d = 0; d < 3; ++d) {
    if (d == 0 ? full.n[0] != folded.extent(0) : full.n[d] < folded.extent(d)) {
      fail_value("full_size[" + std::to_string(d) + "]",
                 (d == 0 ? "the folded extent " : "at least the folded extent ") +
                     std::to_string(folded.extent(d)),
                 std::to_string(full.n[d]));
    }
  }
  return full;
}

/// Extents of the unfolded image: the coils are gone.
Shape unfolded_shape(const View& folded, const FullSize& full) {
  Shape shape(full.n, full.n + 3);
  for (int d = kCoil + 1; d < folded.ndim(); ++d) shape.push_back(folded.extent(d));
  check_count(shape, "full_size");
  return shape;
}

/// An image beside the folded data that may be missing.
struct Optional {
  Input in;
  bool given;
};

Optional optional(py::handle object, const char* name, int most_axes) {
  if (object.is_none()) return {{}, false};
  Optional o{input(object, name, Kind::kEither, 1, most_axes), true};
  check_not_empty(o.in.view, name);
  return o;
}

struct Arguments {
  Input folded, sens;
  Optional psi, ref, reg;
  FullSize full;
  double scale;
};

void check_regularisation(const Arguments& a) {
  if (a.ref.given != a.reg.given) {
    fail_value(a.ref.given ? "reg" : "ref",
               std::string("an array beside ") + (a.ref.given ? "ref" : "reg"), "None");
  }
  if (!a.reg.given) return;
  for (int d = 0; d < 3; ++d) check_extent(a.reg.in.view, "reg", d, a.sens.view.extent(d));
  check_extent(a.reg.in.view, "reg", 3, a.folded.view.extent(kLocation));
  for (const auto& [v, name] : {std::pair(&a.folded.view, "folded"), {&a.ref.in.view, "ref"}}) {
    if (v->size() > INT_MAX) {
      fail_value(name, "at most 2147483647 samples beside regularisation",
                 "shape " + text_of(v->shape));
    }
  }
  if (a.scale == 0) fail_value("scale", "a number other than 0", "0");
}

Arguments arguments(py::handle folded, py::handle sens, py::handle psi, py::handle full_size,
                    py::handle ref, py::handle reg, py::handle scale) {
  Arguments a{input(folded, "folded", Kind::kEither, 4, kMostAxes),
              input(sens, "sens", Kind::kComplex, 4, 5),
              optional(psi, "psi", 2),
              optional(ref, "ref", kMostAxes),
              optional(reg, "reg", 4),
              {},
              number(scale, "scale")};
  check_not_empty(a.folded.view, "folded");
  check_not_empty(a.sens.view, "sens");
  const ptrdiff_t coils = a.folded.view.extent(kCoil);
  check_extent(a.sens.view, "sens", kCoil, coils);
  check_extent(a.sens.view, "sens", kCoil + 1, a.folded.view.extent(kLocation));
  if (a.psi.given) {
    check_extent(a.psi.in.view, "psi", 0, coils);
    check_extent(a.psi.in.view, "psi", 1, coils);
  }
  a.full = full_size_of(a.folded.view, a.sens.view, full_size);
  check_regularisation(a);
  return a;
}

/// Parts, extents and their count, as the kernel takes them; all null when missing.
struct Block {
  explicit Block(const View& v)
      : parts(std::make_unique<Parts>(v)), re(parts->re()), im(parts->im()), dims(extents(v, 4)) {}
  explicit Block(const Optional& o) {
    if (o.given) *this = Block(o.in.view);
  }
  int ndims() const { return static_cast<int>(dims.size()); }

  std::unique_ptr<Parts> parts;
  float *re = nullptr, *im = nullptr;
  std::vector<int> dims;
};

/// One call of the kernel. `out` has an axis of extent 1 in the coils' place.
int reconstruct(const Arguments& a, const View& folded_view, const View& sens_view,
                const View& out) {
  const auto n = static_cast<std::size_t>(out.size());
  const std::unique_ptr<float[]> re(new float[n]()), im(new float[n]());
  std::vector<int> outdims = extents(out);
  int status;
  {
    Block folded(folded_view), sens(sens_view), psi(a.psi), ref(a.ref), reg(a.reg);
    const int coils = folded.dims[kCoil];
    // The kernel wants both parts of a covariance.
    std::vector<float> zeros(static_cast<std::size_t>(coils) * static_cast<std::size_t>(coils));
    int psi_dims[] = {coils, coils}, full[] = {a.full.n[0], a.full.n[1], a.full.n[2]};
    status =
        TS_sense_recon(folded.re, folded.im, folded.ndims(), folded.dims.data(), sens.re, sens.im,
                       sens.ndims(), sens.dims.data(), psi.re, psi.im ? psi.im : zeros.data(), 2,
                       psi_dims, full, ref.re, ref.im, ref.ndims(), ref.dims.data(), reg.re, reg.im,
                       reg.ndims(), reg.dims.data(), a.scale, re.get(), im.get(), outdims.data());
  }  // the inputs' parts are gone before the result's memory is touched
  join(re.get(), im.get(), out);
  return status;
}

/// Without regularisation the locations do not know of each other: one at a time needs less memory.
int reconstruct_locations(const Arguments& a, const View& out) {
  const ptrdiff_t locations = a.folded.view.extent(kLocation);
  if (a.reg.given || locations == 1) return reconstruct(a, a.folded.view, a.sens.view, out);
  int status = 1;
  for (ptrdiff_t l = 0; l < locations && status == 1; ++l) {
    status = reconstruct(a, a.folded.view.slice(kLocation, l, 1),
                         a.sens.view.slice(kCoil + 1, l, 1), out.slice(kLocation, l, 1));
  }
  return status;
}

py::object sense_recon(py::handle folded, py::handle sens, py::handle psi, py::handle full_size,
                       py::handle ref, py::handle reg, py::handle scale, py::handle out,
                       py::handle threads) {
  const Arguments a = arguments(folded, sens, psi, full_size, ref, reg, scale);
  Views read{a.folded.view, a.sens.view};
  for (const Optional* o : {&a.psi, &a.ref, &a.reg}) {
    if (o->given) read.push_back(o->in.view);
  }
  const Destination to =
      destination(read, out, packed(nullptr, unfolded_shape(a.folded.view, a.full), true), true);
  const Threads team(threads);
  int status;
  {
    const py::gil_scoped_release unlocked;
    status = reconstruct_locations(a, to.view.with_axis(kCoil));
  }
  if (status != 1) throw std::runtime_error("sense_recon: the kernel refused these extents");
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
  m.def("sense_recon", sense_recon);
  m.def("folded_pos", folded_pos);
  m.def("unfolded_positions", unfolded_positions);
  m.def("compartments", compartments);
}

}  // namespace ctessel_python
