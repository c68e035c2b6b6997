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
  int n[3];
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
  Extents shape(full.n, full.n + 3);
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

/// Parts, extents and their count, as the kernel takes them; all null when missing.
struct Block {
  explicit Block(const ConstSamples& v) : dims(v.extents.begin(), v.extents.end()) {
    dims.resize(std::max<std::size_t>(dims.size(), 4), 1);
    if (!v) return;
    const auto n = static_cast<std::size_t>(v.size());
    real.resize(n);
    imaginary.resize(n);
    ctessel::copy(v, Samples::parts(real.data(), imaginary.data(), v.extents));
    re = real.data();
    im = imaginary.data();
  }
  int ndims() const { return static_cast<int>(dims.size()); }

  std::vector<float> real, imaginary;
  float *re = nullptr, *im = nullptr;
  std::vector<int> dims;
};

/// What one call of the kernel works on. `out` has an axis of extent 1 in the coils' place.
struct Part {
  ConstSamples folded, sens, ref, reg;
  Samples out;
  double scale;
};

int reconstruct(const Arguments& a, const Part& p) {
  const auto n = static_cast<std::size_t>(p.out.size());
  std::vector<float> re(n), im(n);
  std::vector<int> outdims(p.out.extents.begin(), p.out.extents.end());
  int status;
  {
    Block folded(p.folded), sens(p.sens), psi(a.psi.view), ref(p.ref), reg(p.reg);
    const int coils = folded.dims[kCoil];
    int psi_dims[] = {coils, coils}, full[] = {folded.dims[0], a.full.n[1], a.full.n[2]};
    status =
        TS_sense_recon(folded.re, folded.im, folded.ndims(), folded.dims.data(), sens.re, sens.im,
                       sens.ndims(), sens.dims.data(), psi.re, psi.im, 2, psi_dims, full, ref.re,
                       ref.im, ref.ndims(), ref.dims.data(), reg.re, reg.im, reg.ndims(),
                       reg.dims.data(), p.scale, re.data(), im.data(), outdims.data());
  }  // the inputs' parts are gone before the result's memory is touched
  ctessel::copy(ConstSamples::parts(re.data(), im.data(), p.out.extents), p.out);
  return status;
}

// ---- Slabs --------------------------------------------------------------------------------------
//
// Where maps and folded images have the same columns the kernel takes a column's neighbours with
// weight 0: the map's next but one and the next one's factors, and behind the last column, as memory
// goes on, the first one's of the next row. Values that are not finite show through. So a slab has
// two more columns behind its own or, at the end, the image's first two in front, and gives the
// same bits as the whole.

constexpr ptrdiff_t kExtra = 2;

struct Slab {
  ptrdiff_t first, count;
  bool last;
};

/// The columns of a slab with the others that it needs, in memory of their own at the end.
ConstSamples columns(const ConstSamples& v, const Slab& s,
                     std::vector<std::complex<float>>& store) {
  if (!v || !s.last) return v ? v.slice(Dim::x, s.first, s.count + kExtra) : v;
  Extents extents = v.extents;
  extents[0] = s.count + kExtra;
  store.resize(static_cast<std::size_t>(v.size() / v.extents[0] * extents[0]));
  const Samples own = Samples::pairs(store.data(), extents);
  ctessel::copy(v.slice(Dim::x, 0, kExtra), own.slice(Dim::x, 0, kExtra));
  ctessel::copy(v.slice(Dim::x, s.first, s.count), own.slice(Dim::x, kExtra, s.count));
  return own;
}

/// A scale and a reference with which the kernel finds `ratio`, to the last bit, in data of `level`.
bool find_weight(double level, double ratio, double& scale, float& reference) {
  reference = 1.0f;
  for (int i = 0; i < 64; ++i, reference = std::nextafter(reference, 2.0f)) {
    scale = level / (ratio * static_cast<double>(reference));
    if (level / scale / TS_SA(&reference, nullptr, 1) == ratio) return true;
  }
  return false;
}

/// How many columns: eight for every thread and each of its steps, as the kernel works on eight at a
/// time. What a slab needs, with the factors in double precision, is half of the inputs.
ptrdiff_t slab_width(const Part& whole) {
  const ptrdiff_t sens = whole.sens.size() * 8, folded = whole.folded.size() * 8;
  const ptrdiff_t step = 8 * omp_get_max_threads(), locations = whole.folded.extent(Dim::location);
  const ptrdiff_t room = std::max<ptrdiff_t>((sens + folded) / 2, 1 << 22);
  const ptrdiff_t all = (3 * sens + folded + 2 * whole.out.size() * 8) / locations;
  return std::max(room / (all / whole.out.extent(Dim::x) + 1) / step * step, step) - kExtra;
}

bool reconstruct_slab(const Arguments& a, const Part& whole, const Slab& s, double ratio) {
  std::vector<std::complex<float>> stores[3];
  Extents shape = whole.out.extents;
  shape[0] = s.count + kExtra;
  std::vector<std::complex<float>> own(
      static_cast<std::size_t>(whole.out.size() / whole.out.extents[0] * shape[0]));
  const Samples out = Samples::pairs(own.data(), shape);
  Part p{columns(whole.folded, s, stores[0]),
         columns(whole.sens, s, stores[1]),
         {},
         columns(whole.reg, s, stores[2]),
         out,
         a.scale};
  float reference;
  if (p.reg) {
    const double level = ctessel::root_mean_square(p.folded);
    if (!find_weight(level, ratio, p.scale, reference)) return false;
    p.ref = ConstSamples::parts(&reference, nullptr, {1});
  }
  if (reconstruct(a, p) != 1) return false;
  ctessel::copy(out.slice(Dim::x, s.last ? kExtra : 0, s.count),
                whole.out.slice(Dim::x, s.first, s.count));
  return true;
}

/// Entry i of an axis that may be missing.
template <class View>
View entry(const View& v, int axis, ptrdiff_t i) {
  return axis < v.ndim() ? v.slice(Dim(axis), i, 1) : v;
}

Part location(Part p, ptrdiff_t l) {
  p.folded = entry(p.folded, kLocation, l);
  p.sens = entry(p.sens, kCoil + 1, l);
  p.out = entry(p.out, kLocation, l);
  if (p.reg) p.reg = entry(p.reg, kReg, l);
  return p;
}

/// False where slabs cannot give the bits of the whole.
bool reconstruct_slabs(const Arguments& a, const Part& whole) {
  const ptrdiff_t X = whole.out.extent(Dim::x), width = slab_width(whole);
  if (whole.sens.extent(Dim::x) != X || width + kExtra > X) return false;
  const double ratio = whole.reg ? ctessel::root_mean_square(whole.folded) / a.scale /
                                       ctessel::root_mean_square(whole.ref)
                                 : 1.0;
  for (ptrdiff_t l = 0; l < whole.folded.extent(Dim::location); ++l) {
    const Part part = location(whole, l);
    for (ptrdiff_t x = 0; x < X;) {
      const bool last = x + width + kExtra > X;
      const Slab slab{x, last ? X - x : width, last};
      if (!reconstruct_slab(a, part, slab, ratio)) return false;
      x += slab.count;
    }
  }
  return true;
}

/// Where slabs will not do, locations can be taken one by one if no weight depends on all of them.
int reconstruct_all(const Arguments& a, const Samples& out) {
  const Part whole{a.folded.view, a.sens.view, a.ref.view, a.reg.view, out, a.scale};
  if (reconstruct_slabs(a, whole)) return 1;
  if (whole.reg) return reconstruct(a, whole);
  int status = 1;
  for (ptrdiff_t l = 0; l < whole.folded.extent(Dim::location) && status == 1; ++l) {
    status = reconstruct(a, location(whole, l));
  }
  return status;
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
  const Threads team(threads);
  int status;
  {
    const py::gil_scoped_release unlocked;
    Samples with_coil = to.view;
    with_coil.extents.insert(with_coil.extents.begin() + kCoil, 1);
    with_coil.strides.insert(with_coil.strides.begin() + kCoil, 0);
    status = reconstruct_all(a, with_coil);
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
  define(m, "sense_recon", sense_recon);
  m.def("folded_pos", folded_pos);
  m.def("unfolded_positions", unfolded_positions);
  m.def("compartments", compartments);
}

}  // namespace ctessel_python
