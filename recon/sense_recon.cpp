// SENSE reconstruction of a whole data set: extents, noise, regularisation weight, locations.
//
// Pruessmann et al., SENSE: sensitivity encoding for fast MRI, MRM 1999;42:952.

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cTessel.h"
#include "ctessel.hpp"
#include "samples.h"
#include "sense_steps.h"
#include "sense_volumes.h"

namespace {

using ctessel::ConstSamples;
using ctessel::Dim;
using ctessel::Samples;
using std::int64_t;

constexpr int64_t kTooMany = -1;
constexpr Dim kSet{5};  // of maps

/// Product of extents, or kTooMany if it leaves int or an extent is negative.
int64_t product(std::initializer_list<int64_t> extents) {
  int64_t n = 1;
  for (int64_t e : extents) {
    if (e < 0 || e > INT_MAX) return kTooMany;
  }
  if (std::find(extents.begin(), extents.end(), 0) != extents.end()) return 0;
  for (int64_t e : extents) {
    n *= e;
    if (n > INT_MAX) return kTooMany;
  }
  return n;
}

/// Thirteen extents: x, y, z, coil, three that merge, location, five that merge.
struct Extents {
  std::array<int, 13> d;
  Extents(int count, const int* dims) {
    d.fill(1);
    std::copy_n(dims, std::clamp(count, 0, 13), d.begin());
  }
  Extents() { d.fill(1); }
  int64_t volume() const { return product({d[0], d[1], d[2]}); }
  int64_t coils() const { return product({d[0], d[1], d[2], d[3]}); }
  int64_t middle() const { return product({d[4], d[5], d[6]}); }
  int64_t outer() const { return product({d[8], d[9], d[10], d[11], d[12]}); }
  int64_t total() const {
    const int64_t parts[] = {coils(), middle(), outer()};
    if (std::find(parts, parts + 3, kTooMany) != parts + 3) return kTooMany;
    return product({parts[0], parts[1], parts[2], d[7]});
  }
};

Eigen::Vector3f reduction_factors(const Extents& fold, int fold_ndims, const int* full_size) {
  Eigen::Vector3f R;
  for (int i = 0; i < 3; ++i)
    R[i] = static_cast<float>(full_size[i]) / static_cast<float>(fold.d[i]);
  // Data of two dimensions have one slice to unfold, whatever the full size says of z.
  if (fold_ndims <= 2) R[2] = 1.0f;
  return R;
}

/// Rounded-up quotient as an extent: -1 if it is none.
int64_t ceiling(float quotient) {
  const float c = std::ceil(quotient);
  return c >= 0 && c < 2147483648.0f ? static_cast<int64_t>(c) : -1;
}

/// Whether the factors of a location can be numbered with int.
bool factors_fit(const Extents& sens, const Eigen::Vector3f& R) {
  const int64_t y = ceiling(static_cast<float>(sens.d[1]) / R[1]),
                z = ceiling(static_cast<float>(sens.d[2]) / R[2]),
                slots = product({ceiling(R[2]), ceiling(R[1]), sens.d[3]});
  return slots != kTooMany && product({sens.d[0], y, z, slots}) != kTooMany;
}

/// Root mean square of the folded data over that of the reference, squared, per unfolded pixel. The ratio
/// along z is not forced to 1 for data of two dimensions, unlike the reduction factor: a scale that
/// suits a slice cut from a volume then suits the volume too.
double regularisation_weight(double fold_rms, double scale, double reference_rms,
                             const Extents& fold, const int* full_size) {
  double reduction = 1;
  for (int i = 0; i < 3; ++i) reduction *= static_cast<double>(full_size[i]) / fold.d[i];
  const double ratio = fold_rms / scale / reference_rms;
  return ratio * ratio / reduction;
}

/// A whole data set. Folded images and output have thirteen axes.
struct DataSet {
  ConstSamples folded, maps;
  Samples out;
  int64_t out_samples;  // of a packed output that volumes may overrun; 0 if they fit
  Eigen::Vector3f reduction;
  Eigen::VectorXi full;
  ctessel::SenseOptions options;  // its weight is the one in use, 0 without regularisation
};

/// A view of parts without gaps, of thirteen axes: a volume of nx rows and ny rows a plane, and the
/// axes behind the coils one volume of `step` floats after the other.
template <class Float>
ctessel::BasicSamples<Float> packed(Float* re, Float* im, const Extents& n, int64_t nx, int64_t ny,
                                    int64_t step) {
  ctessel::BasicSamples<Float> s(re, im, {n.d.begin(), n.d.end()}, {});
  for (int64_t stride : {int64_t{1}, nx, nx * ny, step / std::max(n.d[3], 1)})
    s.strides.push_back(static_cast<std::ptrdiff_t>(stride));
  for (std::size_t d = 4; d < n.d.size(); ++d, step *= n.d[d - 1])
    s.strides.push_back(static_cast<std::ptrdiff_t>(step));
  return s;
}

/// The volumes of a location, which run over the axes before it and then over those behind it.
struct Location {
  const DataSet& data;
  int64_t l;
  int64_t count() const {
    int64_t n = 1;
    for (int d : kAxes) n *= data.folded.extents[static_cast<std::size_t>(d)];
    return n;
  }
  ctessel::VolumePlace place(int64_t volume) const {
    ctessel::VolumePlace at{l * data.folded.stride(Dim::location),
                            l * data.out.stride(Dim::location), INT64_MAX};
    for (int d : kAxes) {
      const int64_t n = data.folded.extent(Dim(d)), i = volume % n;
      at.in += i * data.folded.stride(Dim(d));
      at.out += i * data.out.stride(Dim(d));
      volume /= n;
    }
    if (data.out_samples > 0) at.room = data.out_samples - at.out;
    return at;
  }
  static constexpr int kAxes[] = {8, 9, 10, 11, 12, 4, 5, 6};
};

/// Entry l of the axis of locations, behind which there may be one of sets.
template <class Float>
ctessel::BasicVolume<Float> volume_of(const ctessel::BasicSamples<Float>& s, Dim axis, int64_t l) {
  if (!s) return {};
  const int64_t at = l * s.stride(axis);
  const Dim set{static_cast<int>(axis) + 1};
  return {s.re + at,
          s.im ? s.im + at : nullptr,
          s.stride(Dim::x),
          s.stride(Dim::y),
          s.stride(Dim::z),
          s.stride(Dim::coil),
          s.extent(set) > 1 ? s.stride(set) : 0};
}

Eigen::VectorXi first_four(const ConstSamples& s) {
  Eigen::VectorXi n(4);
  for (int d = 0; d < 4; ++d) n[d] = static_cast<int>(s.extent(Dim(d)));
  return n;
}

/// Listed aliases lie where the factors' do: maps and image have the same lines.
void take_list(ctessel::UnfoldAxis& axis, const ctessel::AliasAxis& list) {
  axis.room = list.room;
  axis.count = list.count;
  axis.full = list.nearest;
}

/// What unfolding needs to know of one location beside its factors.
ctessel::SenseProblem problem_of(const DataSet& d, const ctessel::FactorProblem& factors,
                                 const Location& location, const Eigen::MatrixXcd& psi) {
  float edges_y[] = {-1, -1}, edges_z[] = {-1, -1};
  if (!factors.listed) factors.record_edges(edges_y, edges_z);
  const auto noise = [&](const Samples& image) { return volume_of(image, Dim(3), location.l); };
  ctessel::SenseProblem problem{
      .factors = factors,
      .folded = volume_of(d.folded, Dim::location, 0),
      .out = volume_of(d.out, Dim::location, 0),
      .volumes = d.out ? location.count() : 0,
      .place = [=](int64_t volume) { return location.place(volume); },
      .noise = {noise(d.options.g), noise(d.options.sd), noise(d.options.condition),
                noise(d.options.response), factors.psi_inverse.size() ? psi.data() : nullptr}};
  problem.out.set = problem.out.coil;  // in place of the coils are the sets
  problem.lay_out(first_four(d.folded), d.full, edges_y, edges_z);
  if (factors.listed) {
    take_list(problem.y, factors.y);
    take_list(problem.z, factors.z);
  }
  return problem;
}

/// Offsets of aliases along y or z.
std::vector<int> offsets_along(const std::vector<std::array<int, 2>>& aliases, std::size_t axis) {
  std::vector<int> offsets;
  offsets.reserve(aliases.size());
  for (const auto& alias : aliases) offsets.push_back(alias[axis]);
  return offsets;
}

Eigen::MatrixXcd covariance_of(const ConstSamples& s, std::ptrdiff_t coils) {
  if (!s) return Eigen::MatrixXcd::Identity(coils, coils);
  Eigen::MatrixXcd psi(coils, coils);
  for (std::ptrdiff_t c = 0; c < coils; ++c) {
    for (std::ptrdiff_t r = 0; r < coils; ++r) {
      const std::ptrdiff_t at = r * s.stride(Dim(0)) + c * s.stride(Dim(1));
      psi(r, c) = {s.re[at], s.im ? s.im[at] : 0.0f};
    }
  }
  return psi;
}

/// Unfolds every volume; of the last location only the first `last_count` if that is not -1.
void unfold_locations(const DataSet& d, int64_t locations, int64_t last_count) {
  // Without a map nothing bounds the other extents, nor the lists of lines made from them.
  if (first_four(d.maps).minCoeff() < 1) return;
  const ctessel::SenseOptions& options = d.options;
  const Eigen::MatrixXcd psi = covariance_of(options.covariance, d.maps.extent(Dim::coil));
  ctessel::FactorProblem factors(first_four(d.maps), psi, d.reduction, first_four(d.folded),
                                 d.full);
  if (std::min({factors.nx, int64_t{factors.y.lines}, int64_t{factors.z.lines}, factors.nc,
                int64_t{d.folded.extent(Dim::x)}}) < 1) {
    return;
  }
  if (!options.aliases.empty()) {
    factors.list(offsets_along(options.aliases, 0), offsets_along(options.aliases, 1),
                 d.maps.extent(kSet));
  }
  const ConstSamples& expected = options.expected;
  factors.expected_size = ConstSamples::parts(nullptr, nullptr,
                                              {expected.extent(Dim::x), expected.extent(Dim::y),
                                               expected.extent(Dim::z)})
                              .size();
  factors.lambda = options.weight;
  factors.noise = options.g || options.sd || options.condition || options.response;
  for (int64_t l = 0; l < locations; ++l) {
    factors.maps = volume_of(d.maps, Dim(4), l);
    factors.mask = volume_of(options.mask, Dim(3), l);
    factors.expected = volume_of(expected, Dim(3), l);
    ctessel::SenseProblem problem = problem_of(d, factors, {d, l}, psi);
    if (l + 1 == locations && last_count >= 0) problem.volumes = last_count;
    ctessel::unfold_volumes(problem);
  }
}

[[noreturn]] void refuse(const std::string& what) { throw std::invalid_argument("sense: " + what); }

void require_extent(const ConstSamples& s, int axis, int64_t n, const char* what) {
  const int64_t given = s.extent(Dim(axis));
  if (given == n) return;
  refuse(std::string(what) + " must have extent " + std::to_string(n) + " along axis " +
         std::to_string(axis) + ", not " + std::to_string(given));
}

void require_on_grid(const ConstSamples& s, const ConstSamples& maps, const char* what) {
  if (!s) return;
  for (int d = 0; d < 3; ++d) require_extent(s, d, maps.extent(Dim(d)), what);
  require_extent(s, 3, maps.extent(Dim(4)), what);
  if (s.extent(Dim(4)) > 1) require_extent(s, 4, maps.extent(kSet), what);
}

/// The aliases of products of y and z as a list, which sets of maps need.
std::vector<std::array<int, 2>> products(const ConstSamples& folded,
                                         const std::array<int, 3>& full) {
  std::vector<std::array<int, 2>> aliases;
  const auto ny = static_cast<int>(folded.extent(Dim::y)),
             nz = static_cast<int>(folded.extent(Dim::z));
  for (int y = 0; y < full[1]; y += ny) {
    for (int z = 0; z < full[2]; z += nz) aliases.push_back({y, z});
  }
  return aliases;
}

void require_every_voxel(const ConstSamples& folded, const ConstSamples& maps,
                         const std::array<int, 3>& full,
                         const std::vector<std::array<int, 2>>& aliases) {
  if (aliases.empty()) return;
  for (int d : {1, 2})
    require_extent(maps, d, full[static_cast<std::size_t>(d)], "with aliases or sets maps");
  const auto ny = static_cast<int>(folded.extent(Dim::y)),
             nz = static_cast<int>(folded.extent(Dim::z));
  const auto n = static_cast<int64_t>(aliases.size());
  bool fit = full[1] % ny == 0 && full[2] % nz == 0 && n == int64_t{full[1] / ny} * (full[2] / nz);
  std::vector<bool> met(fit ? static_cast<std::size_t>(int64_t{full[1]} * full[2]) : 0);
  const auto lines = [&](int count, std::size_t axis) {  // of every folded line
    std::vector<std::vector<int>> all;
    for (int i = 0; fit && i < count; ++i)
      all.push_back(ctessel::listed_lines(i, count, full[axis + 1], offsets_along(aliases, axis)));
    return all;
  };
  const auto all_z = lines(nz, 1);
  for (const auto& y : lines(ny, 0)) {
    for (const auto& z : all_z) {
      for (std::size_t k = 0; k < aliases.size(); ++k) {
        const auto at = static_cast<std::size_t>(y[k] + int64_t{full[1]} * z[k]);
        fit &= !met[at];
        met[at] = true;
      }
    }
  }
  if (!fit) refuse("aliases must meet every voxel along y and z once");
}

void require_fit(const ConstSamples& folded, const ConstSamples& maps,
                 const std::array<int, 3>& full, const Samples& out,
                 const ctessel::SenseOptions& options) {
  if (folded.ndim() > 13) refuse("folded images have at most 13 axes");
  for (const auto* s : {&folded, &maps}) {
    if (s->size() < 1) refuse("folded images and maps must not be empty");
    for (std::ptrdiff_t n : s->extents) {
      if (n > INT_MAX) refuse("an extent is at most 2147483647");
    }
  }
  require_extent(maps, 3, folded.extent(Dim::coil), "maps");
  require_extent(maps, 4, folded.extent(Dim::location), "maps");
  require_on_grid(options.mask, maps, "the mask");
  require_on_grid(options.expected, maps, "the expected magnitude");
  for (int d = 0; d < 2 && options.covariance; ++d)
    require_extent(options.covariance, d, maps.extent(Dim::coil), "the covariance");
  if (full[0] != folded.extent(Dim::x) || full[1] < folded.extent(Dim::y) ||
      full[2] < folded.extent(Dim::z)) {
    refuse("full_size must be that of the folded images along x and at least that along y and z");
  }
  for (int d = 0; d < 13; ++d) {
    const int64_t n = d < 3 ? full[static_cast<std::size_t>(d)] : folded.extent(Dim(d));
    if (out) require_extent(out, d, d == 3 ? maps.extent(kSet) : n, "out");
  }
  const int64_t grid[] = {full[0], full[1], full[2], maps.extent(Dim(4)), maps.extent(kSet)};
  for (const Samples* noise : {&options.g, &options.sd, &options.condition, &options.response}) {
    for (int d = 0; d < 5 && *noise; ++d) require_extent(*noise, d, grid[d], "an image of noise");
  }
  if (!folded && (out || (options.expected && options.reference))) {
    refuse("folded images must be given where they are unfolded or give the weight");
  }
}

void clear(const Samples& s) {
  static constexpr float kZero = 0;
  if (!s) return;
  const ConstSamples zeros(&kZero, nullptr, s.extents, ctessel::Extents(s.extents.size(), 0));
  ctessel::copy(zeros, {s.re, nullptr, s.extents, s.strides});
}

}  // namespace

void ctessel::sense(const ConstSamples& folded, const ConstSamples& maps,
                    const std::array<int, 3>& full_size, const Samples& out,
                    const SenseOptions& options) {
  require_fit(folded, maps, full_size, out, options);
  SenseOptions used = options;
  if (maps.extent(kSet) > 1 && options.aliases.empty()) used.aliases = products(folded, full_size);
  require_every_voxel(folded, maps, full_size, used.aliases);
  const ::Extents fold(4, first_four(folded).data());
  if (!options.expected) used.weight = 0;
  if (options.expected && options.reference) {
    used.weight =
        regularisation_weight(root_mean_square(folded), options.scale,
                              root_mean_square(options.reference), fold, full_size.data());
  }
  const DataSet data{folded.with_axes(13),
                     maps,
                     out.with_axes(13),
                     0,
                     reduction_factors(fold, 3, full_size.data()),
                     Eigen::Map<const Eigen::VectorXi>(full_size.data(), 3),
                     used};
  for (const Samples* noise : {&used.g, &used.sd, &used.condition, &used.response}) clear(*noise);
  unfold_locations(data, folded.extent(Dim::location), -1);
}

int TS_sense_recon(float* fold_re, float* fold_im, int fold_ndims, int* fold_dims, float* sens_re,
                   float* sens_im, int sens_ndims, int* sens_dims, float* psi_re, float* psi_im,
                   int /*psi_ndims*/, int* psi_dims, int* full_size, float* ref_re, float* ref_im,
                   int ref_ndims, int* ref_dims, float* reg_re, float* reg_im, int reg_ndims,
                   int* reg_dims, double scale, float* out_re, float* out_im, int* outdims) {
  const bool regularised = ref_re && reg_re;
  const Extents F(fold_ndims, fold_dims), S(sens_ndims, sens_dims), O(fold_ndims, outdims);
  const Extents Ref = regularised ? Extents(ref_ndims, ref_dims) : Extents();
  const Extents Reg = regularised ? Extents(reg_ndims, reg_dims) : Extents();
  for (int64_t n :
       {F.total(), S.coils(), O.total(), Ref.total(), Reg.volume(),
        product({full_size[0], full_size[1], full_size[2]}), product({psi_dims[0], psi_dims[1]})}) {
    if (n == kTooMany) return -1;
  }
  const Eigen::Vector3f R = reduction_factors(F, fold_ndims, full_size);
  const bool fit = factors_fit(S, R);
  if (!fit && S.d[3] != 0 && F.total() != 0) return -1;
  if (F.d[7] == 0) return 1;
  if (psi_dims[0] != S.d[3] || psi_dims[1] != S.d[3] || (!fit && S.coils() != 0)) return -1;

  const auto on_grid = [&](float* re, float* im, const Extents& n, std::size_t axis, int64_t step) {
    ConstSamples s = packed<const float>(re, im, n, S.d[0], S.d[1], step);
    s.strides[axis] = static_cast<std::ptrdiff_t>(step);
    return s;
  };
  DataSet data{packed<const float>(fold_re, fold_im, F, F.d[0], F.d[1], F.coils()),
               on_grid(sens_re, sens_im, S, 4, S.coils()),
               packed(out_re, out_im, F, full_size[0], full_size[1], O.coils()),
               O.total(),
               R,
               Eigen::Map<const Eigen::VectorXi>(full_size, 3),
               {}};
  data.options.covariance = ConstSamples::parts(psi_re, psi_im, {S.d[3], S.d[3]});
  data.options.weight = 0;
  if (regularised) {
    data.options.expected = on_grid(reg_re, reg_im, Reg, 3, Reg.volume());
    data.options.weight =
        regularisation_weight(TS_SA(fold_re, fold_im, static_cast<int>(F.total())), scale,
                              TS_SA(ref_re, ref_im, static_cast<int>(Ref.total())), F, full_size);
  }
  // Only a volume that starts past the end ends the run: positions outside of one leave the rest of
  // the image good.
  for (int64_t l = 0; l < F.d[7]; ++l) {
    const Location location{data, l};
    for (int64_t v = 0; v < location.count(); ++v) {
      if (F.total() > 0 && location.place(v).out < O.total()) continue;
      unfold_locations(data, l + 1, v);
      return -1;
    }
  }
  unfold_locations(data, F.d[7], -1);
  return 1;
}
