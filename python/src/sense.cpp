// SENSE reconstruction and its fold geometry.

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>
#include <optional>
#include <utility>

#include "arguments.h"
#include "cTessel.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;
using Shape = std::vector<ptrdiff_t>;

constexpr int kReg = 3, kCoil = 3, kLocation = 7, kMostAxes = 13;

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
  explicit Block(const std::optional<View>& v) {
    if (v) *this = Block(*v);
  }
  int ndims() const { return static_cast<int>(dims.size()); }

  std::unique_ptr<Parts> parts;
  float *re = nullptr, *im = nullptr;
  std::vector<int> dims;
};

/// What one call of the kernel works on. `out` has an axis of extent 1 in the coils' place.
struct Part {
  View folded, sens, out;
  std::optional<View> ref, reg;
  double scale;
};

std::optional<View> view_of(const Optional& o) {
  return o.given ? std::optional(o.in.view) : std::nullopt;
}

int reconstruct(const Arguments& a, const Part& p) {
  const auto n = static_cast<std::size_t>(p.out.size());
  const std::unique_ptr<float[]> re(new float[n]()), im(new float[n]());
  std::vector<int> outdims = extents(p.out);
  int status;
  {
    Block folded(p.folded), sens(p.sens), psi(view_of(a.psi)), ref(p.ref), reg(p.reg);
    const int coils = folded.dims[kCoil];
    // The kernel wants both parts of a covariance.
    std::vector<float> zeros(static_cast<std::size_t>(coils) * static_cast<std::size_t>(coils));
    int psi_dims[] = {coils, coils}, full[] = {folded.dims[0], a.full.n[1], a.full.n[2]};
    status =
        TS_sense_recon(folded.re, folded.im, folded.ndims(), folded.dims.data(), sens.re, sens.im,
                       sens.ndims(), sens.dims.data(), psi.re, psi.im ? psi.im : zeros.data(), 2,
                       psi_dims, full, ref.re, ref.im, ref.ndims(), ref.dims.data(), reg.re, reg.im,
                       reg.ndims(), reg.dims.data(), p.scale, re.get(), im.get(), outdims.data());
  }  // the inputs' parts are gone before the result's memory is touched
  join(re.get(), im.get(), p.out);
  return status;
}

// ---- Slabs of columns x -------------------------------------------------------------------------
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

/// The columns of a slab, with the others that it needs.
class Columns {
 public:
  Columns(const View& v, const Slab& s) : view_(v.slice(0, s.first, s.count)) {
    if (!s.last) {
      view_.shape[0] += kExtra;
      return;
    }
    std::vector<ptrdiff_t> shape = view_.shape;
    shape[0] += kExtra;
    View together = packed(nullptr, shape, v.complex);
    own_.reset(new float[static_cast<std::size_t>(together.size() * together.item() / 4)]);
    together.data = reinterpret_cast<char*>(own_.get());
    copy(v.slice(0, 0, kExtra), together.slice(0, 0, kExtra));
    copy(view_, together.slice(0, kExtra, s.count));
    view_ = together;
  }
  const View& view() const { return view_; }

 private:
  std::unique_ptr<float[]> own_;
  View view_;
};

double level_of(const View& v) {
  const Parts parts(v);
  return TS_SA(parts.re(), parts.im(), static_cast<int>(v.size()));
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
  const ptrdiff_t step = 8 * omp_get_max_threads(), locations = whole.folded.extent(kLocation);
  const ptrdiff_t room = std::max<ptrdiff_t>((sens + folded) / 2, 1 << 22);
  const ptrdiff_t all = (3 * sens + folded + 2 * whole.out.size() * 8) / locations;
  return std::max(room / (all / whole.out.extent(0) + 1) / step * step, step) - kExtra;
}

bool reconstruct_slab(const Arguments& a, const Part& whole, const Slab& s, double ratio) {
  const Columns folded(whole.folded, s), sens(whole.sens, s);
  const std::optional<Columns> reg =
      whole.reg ? std::optional<Columns>(std::in_place, *whole.reg, s) : std::nullopt;
  std::vector<ptrdiff_t> shape = whole.out.shape;
  shape[0] = s.count + kExtra;
  View out = packed(nullptr, shape, true);
  const std::unique_ptr<float[]> own(new float[static_cast<std::size_t>(2 * out.size())]);
  out.data = reinterpret_cast<char*>(own.get());
  Part p{folded.view(), sens.view(), out, {}, {}, a.scale};
  float reference;
  if (reg) {
    if (!find_weight(level_of(p.folded), ratio, p.scale, reference)) return false;
    p.ref = packed(&reference, {1}, false);
    p.reg = reg->view();
  }
  if (reconstruct(a, p) != 1) return false;
  copy(out.slice(0, s.last ? kExtra : 0, s.count), whole.out.slice(0, s.first, s.count));
  return true;
}

/// Entry i of an axis that may be missing.
View entry(const View& v, int axis, ptrdiff_t i) {
  return axis < v.ndim() ? v.slice(axis, i, 1) : v;
}

Part location(Part p, ptrdiff_t l) {
  p.folded = entry(p.folded, kLocation, l);
  p.sens = entry(p.sens, kCoil + 1, l);
  p.out = entry(p.out, kLocation, l);
  if (p.reg) p.reg = entry(*p.reg, kReg, l);
  return p;
}

/// False where slabs cannot give the bits of the whole.
bool reconstruct_slabs(const Arguments& a, const Part& whole) {
  const ptrdiff_t X = whole.out.extent(0), width = slab_width(whole);
  if (whole.sens.extent(0) != X || width + kExtra > X) return false;
  const double ratio = whole.reg ? level_of(whole.folded) / a.scale / level_of(*whole.ref) : 1.0;
  for (ptrdiff_t l = 0; l < whole.folded.extent(kLocation); ++l) {
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
int reconstruct_all(const Arguments& a, const View& out) {
  const Part whole{a.folded.view, a.sens.view, out, view_of(a.ref), view_of(a.reg), a.scale};
  if (reconstruct_slabs(a, whole)) return 1;
  if (whole.reg) return reconstruct(a, whole);
  int status = 1;
  for (ptrdiff_t l = 0; l < whole.folded.extent(kLocation) && status == 1; ++l) {
    status = reconstruct(a, location(whole, l));
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
  const Threads team(threads, a.sens.view.size() * 4 * a.sens.view.item());
  int status;
  {
    const py::gil_scoped_release unlocked;
    status = reconstruct_all(a, to.view.with_axis(kCoil));
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
