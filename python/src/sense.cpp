// SENSE reconstruction and its fold geometry.
//
// Extents are checked here although the kernel checks them too: its message knows neither the caller's
// names of the arguments nor which of them was left out.

#include <algorithm>
#include <climits>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <utility>

#include "arguments.h"
#include "cTessel.h"

namespace ctessel_python {

namespace {

using std::ptrdiff_t;

constexpr int kCoil = 3, kLocation = 7, kSet = 5, kMostAxes = 13;  // kSet: of maps

using FullSize = std::array<int, 3>;

FullSize three_extents(py::handle object, const char* name) {
  numbers(object, name, 3, 3);
  const std::vector<int> n = whole_numbers(object, name, 3, 3, 1);
  return {n[0], n[1], n[2]};
}

FullSize full_size_of(const ConstSamples& folded, const ConstSamples& sens, py::handle object) {
  FullSize full{static_cast<int>(folded.extent(Dim(0))), static_cast<int>(sens.extent(Dim(1))),
                static_cast<int>(sens.extent(Dim(2)))};
  if (!object.is_none()) full = three_extents(object, "full_size");
  for (int d = 0; d < 3; ++d) {
    if (d == 0 ? full[0] != folded.extent(Dim(0)) : full[d] < folded.extent(Dim(d))) {
      fail_value("full_size[" + std::to_string(d) + "]",
                 (d == 0 ? "the folded extent " : "at least the folded extent ") +
                     std::to_string(folded.extent(Dim(d))),
                 std::to_string(full[d]));
    }
  }
  return full;
}

/// Extents of the unfolded image: in place of the coils are the sets of maps, or nothing.
Extents unfolded_shape(const ConstSamples& folded, const ConstSamples& sens, const FullSize& full) {
  Extents shape(full.begin(), full.end());
  if (sens.ndim() > kSet) shape.push_back(sens.extent(Dim(kSet)));
  for (int d = kCoil + 1; d < folded.ndim(); ++d) shape.push_back(folded.extent(Dim(d)));
  check_count(shape, "full_size");
  return shape;
}

struct Arguments {
  Input folded, sens, psi, ref, reg, mask;
  FullSize full;
  double scale;
  std::optional<double> weight;
  std::vector<std::array<int, 2>> aliases;
};

std::vector<std::array<int, 2>> aliases_of(py::handle object) {
  std::vector<std::array<int, 2>> aliases;
  if (object.is_none()) return aliases;
  for (const py::object& offset : entries(object, "aliases", 1, INT_MAX)) {
    const std::string name = entry_name("aliases", aliases.size());
    const std::vector<int> yz = whole_numbers(offset, name.c_str(), 2, 2, INT_MIN);
    aliases.push_back({yz[0], yz[1]});
  }
  return aliases;
}

std::optional<double> weight_of(py::handle object) {
  if (object.is_none()) return {};
  const double weight = number(object, "weight");
  if (!(weight > 0)) fail_value("weight", "a number above 0", py::repr(object).cast<std::string>());
  return weight;
}

void check_on_grid(const Input& image, const char* name, const ConstSamples& sens,
                   ptrdiff_t locations) {
  if (!image.view) return;
  for (int d = 0; d < 3; ++d) check_extent(image.view, name, d, sens.extent(Dim(d)));
  check_extent(image.view, name, 3, locations);
  if (image.view.ndim() > 4) check_extent(image.view, name, 4, sens.extent(Dim(kSet)));
}

/// The kernel takes what it can use: reg alone with weight 1, ref alone not at all.
void check_regularisation(const Arguments& a) {
  if (a.weight && a.ref.view) fail_value("weight", "None beside ref", std::to_string(*a.weight));
  if (a.weight && !a.reg.view) fail_value("reg", "an array beside weight", "None");
  if (!a.weight && !a.ref.view != !a.reg.view) {
    fail_value(a.ref.view ? "reg" : "ref",
               std::string("an array beside ") + (a.ref.view ? "ref" : "reg"), "None");
  }
  if (a.ref.view && a.scale == 0) fail_value("scale", "a number other than 0", "0");
}

void check(Arguments& a, py::handle full_size) {
  check_not_empty(a.folded.view, "folded");
  check_not_empty(a.sens.view, "sens");
  const ptrdiff_t coils = a.folded.view.extent(Dim(kCoil)),
                  locations = a.folded.view.extent(Dim(kLocation));
  check_extent(a.sens.view, "sens", kCoil, coils);
  check_extent(a.sens.view, "sens", kCoil + 1, locations);
  for (int d = 0; d < 2 && a.psi.view; ++d) check_extent(a.psi.view, "psi", d, coils);
  a.full = full_size_of(a.folded.view, a.sens.view, full_size);
  check_on_grid(a.reg, "reg", a.sens.view, locations);
  check_on_grid(a.mask, "mask", a.sens.view, locations);
  check_regularisation(a);
  const bool listed = !a.aliases.empty() || a.sens.view.extent(Dim(kSet)) > 1;
  for (int d = 1; d < 3 && listed; ++d)
    check_extent(a.sens.view, "sens", d, a.full[static_cast<std::size_t>(d)]);
}

ctessel::SenseOptions options_of(const Arguments& a) {
  ctessel::SenseOptions options;
  options.covariance = a.psi.view;
  options.expected = a.reg.view;
  options.weight = a.weight.value_or(1);
  options.reference = a.ref.view;
  options.scale = a.scale;
  options.mask = a.mask.view;
  options.aliases = a.aliases;
  return options;
}

/// All else that the kernel refuses has been checked.
void unfold(const Arguments& a, const Samples& out, const ctessel::SenseOptions& options,
            const Threads& team) {
  try {
    run(team, [&] { ctessel::sense(a.folded.view, a.sens.view, a.full, out, options); });
  } catch (const std::invalid_argument&) {
    if (a.aliases.empty())
      fail_value("full_size", "multiples of the folded extents with sets of maps", "others");
    fail_value("aliases", "offsets (y, z) that meet every voxel of full_size once",
               std::to_string(a.aliases.size()) + " that do not");
  }
}

py::object sense_recon(py::handle folded, py::handle sens, py::handle psi, py::handle full_size,
                       py::handle ref, py::handle reg, py::handle scale, py::handle weight,
                       py::handle mask, py::handle aliases, py::handle out, py::handle threads) {
  Arguments a{input(folded, "folded", Kind::kEither, 4, kMostAxes),
              input(sens, "sens", Kind::kComplex, 4, 6),
              optional(psi, "psi", Kind::kEither, 2),
              optional(ref, "ref", Kind::kEither, kMostAxes),
              optional(reg, "reg", Kind::kEither, 5),
              optional(mask, "mask", Kind::kReal, 5),
              {},
              number(scale, "scale"),
              weight_of(weight),
              aliases_of(aliases)};
  check(a, full_size);
  std::vector<ConstSamples> read;
  for (const Input* in : {&a.folded, &a.sens, &a.psi, &a.ref, &a.reg, &a.mask}) {
    if (in->view) read.push_back(in->view);
  }
  const Result to =
      result(read, out, {unfolded_shape(a.folded.view, a.sens.view, a.full), true, {}}, true);
  const Samples unfolded = a.sens.view.ndim() > kSet ? to.view : with_axis(to.view, kCoil);
  unfold(a, unfolded, options_of(a), Threads(threads));
  return to.array;
}

py::tuple sense_noise(py::handle sens, py::handle psi, py::handle full_size, py::handle fold_size,
                      py::handle reg, py::handle weight, py::handle mask, py::handle aliases,
                      py::handle threads) {
  Arguments a{{},
              input(sens, "sensitivities", Kind::kComplex, 4, 6),
              optional(psi, "psi", Kind::kEither, 2),
              {},
              optional(reg, "reg", Kind::kEither, 5),
              optional(mask, "mask", Kind::kReal, 5),
              {},
              1,
              weight_of(weight),
              aliases_of(aliases)};
  check_not_empty(a.sens.view, "sensitivities");
  Extents fold(8, 1);  // of images that need not exist
  std::ranges::copy(three_extents(fold_size, "fold_size"), fold.begin());
  fold[kCoil] = a.sens.view.extent(Dim(kCoil));
  fold[kLocation] = a.sens.view.extent(Dim(kCoil + 1));
  // With extents and no samples the checks are those of images that are unfolded.
  a.folded.view = Samples(nullptr, nullptr, fold, Extents(8, 0));
  if (!a.reg.view) a.weight.reset();
  check(a, full_size);
  Extents shape(a.full.begin(), a.full.end());
  if (a.sens.view.ndim() > kCoil + 1) shape.push_back(fold[kLocation]);
  if (a.sens.view.ndim() > kSet) shape.push_back(a.sens.view.extent(Dim(kSet)));
  check_count(shape, "full_size");
  ctessel::SenseOptions options = options_of(a);
  py::tuple images(4);
  std::size_t i = 0;
  // All four are made at once, as they come from one pass; the package leaves out what is not asked for.
  for (Samples* to : {&options.g, &options.sd, &options.condition, &options.response}) {
    const py::array image = new_array({shape, false, {}});
    *to = view_of(image);
    images[i++] = image;
  }
  unfold(a, {}, options, Threads(threads));
  return images;
}

// ---- Fold geometry ------------------------------------------------------------------------------

/// The kernels of the C interface do not look at their numbers.
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
  define(m, "sense_noise", sense_noise);
  m.def("folded_pos", folded_pos);
  m.def("unfolded_positions", unfolded_positions);
  m.def("compartments", compartments);
}

}  // namespace ctessel_python
