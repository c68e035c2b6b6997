// What unfolding makes of noise, against matrices written out and against unfolded unit noise.

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <numeric>

#include "ctessel.hpp"
#include "naive_sense.h"
#include "support.h"

namespace {

using Complex = std::complex<double>;
using ctessel::ConstSamples;
using ctessel::Samples;

struct Setup {
  std::array<int, 4> maps;          // nx, ny, nz, coils
  std::array<int, 3> folded, full;  // x, y, z
  double unit = 1;                  // of the covariance; 0: the identity
  double weight = 0;                // of the regularisation
  std::vector<std::array<int, 2>> aliases = {};
};

/// Maps with an object's outline, noise, and the images of noise that they give.
struct Scene {
  explicit Scene(const Setup& s) : setup(s), random(1) {
    voxels = s.maps[0] * s.maps[1] * s.maps[2];
    pixels = s.full[0] * s.full[1] * s.full[2];
    coils = s.maps[3];
    mask.assign(voxels, 1.0f);
    for (int v = 0; v < voxels; ++v) {
      if (random.integer(0, 9) < 2) mask[v] = 0;
    }
    re = random.reals(voxels * coils);
    im = random.reals(voxels * coils);
    expected = random.reals(voxels, 0.2f, 2.0f);
    const int samples = s.folded[0] * s.folded[1] * s.folded[2] * coils;
    fold_re = random.reals(samples);
    fold_im = random.reals(samples);
    make_covariance();
    for (auto* image : {&g, &sd, &condition, &response, &out_re, &out_im}) image->resize(pixels, 7);
  }

  void make_covariance() {
    psi = Eigen::MatrixXcd::Identity(coils, coils);
    if (setup.unit == 0) return;
    for (Complex& p : psi.reshaped()) p += 0.4 * Complex(random.real(), random.real());
    psi = (setup.unit * psi * psi.adjoint()).eval();
    for (const Complex& p : psi.reshaped()) {
      psi_re.push_back(float(p.real()));
      psi_im.push_back(float(p.imag()));
    }
    for (int i = 0; i < psi.size(); ++i) psi.data()[i] = {psi_re[i], psi_im[i]};
  }

  ctessel::Extents grid() const { return {setup.maps[0], setup.maps[1], setup.maps[2]}; }
  ctessel::Extents image() const { return {setup.full[0], setup.full[1], setup.full[2]}; }
  ctessel::Extents fold() const {
    return {setup.folded[0], setup.folded[1], setup.folded[2], coils};
  }
  ctessel::SenseOptions options() {
    ctessel::SenseOptions o;
    if (setup.unit > 0) o.covariance = Samples::parts(psi_re.data(), psi_im.data(), {coils, coils});
    if (setup.weight > 0) o.expected = Samples::parts(expected.data(), nullptr, grid());
    o.weight = setup.weight;
    o.mask = Samples::parts(mask.data(), nullptr, grid());
    o.aliases = setup.aliases;
    return o;
  }
  ctessel::SenseOptions with_noise() {
    ctessel::SenseOptions o = options();
    o.g = Samples::parts(g.data(), nullptr, image());
    o.sd = Samples::parts(sd.data(), nullptr, image());
    o.condition = Samples::parts(condition.data(), nullptr, image());
    o.response = Samples::parts(response.data(), nullptr, image());
    return o;
  }
  ConstSamples maps() const {
    ctessel::Extents n = grid();
    n.push_back(coils);
    return ConstSamples::parts(re.data(), im.data(), n);
  }

  Setup setup;
  Random random;
  int voxels, pixels, coils;
  std::vector<float> re, im, mask, expected, psi_re, psi_im, g, sd, condition, response, out_re,
      out_im, fold_re, fold_im;
  Eigen::MatrixXcd psi;
};

/// Offsets of the voxels that alias where the lines of kz, every step_z-th one, move on by `shift` from
/// one line of ky, every step_y-th one, to the next; in any order and any number of times round the image.
std::vector<std::array<int, 2>> shifted_pattern(std::array<int, 3> full, int step_y, int step_z,
                                                int shift) {
  Random random(5);
  std::vector<std::array<int, 2>> offsets;
  const int ny = full[1] / step_y, nz = full[2] / step_z;
  for (int wrap = 0; wrap < step_z; ++wrap)
    for (int copy = 0; copy < step_y; ++copy)
      offsets.push_back({ny * copy - shift * wrap * ny / step_z + full[1] * random.integer(-2, 2),
                         nz * wrap + full[2] * random.integer(-2, 2)});
  for (int i = int(offsets.size()) - 1; i > 0; --i)
    std::swap(offsets[i], offsets[random.integer(0, i)]);
  return offsets;
}

/// Full lines of every folded line along an axis.
std::vector<std::vector<int>> lines(int full, int folded) {
  std::vector<std::vector<int>> all(folded);
  Eigen::VectorXi positions(full);
  for (int i = 0; i < folded; ++i) {
    const int n = naive::fold_lines(full, folded, i, positions);
    all[i].assign(positions.data(), positions.data() + n);
  }
  return all;
}

/// A folded pixel, and the pixels that alias onto it.
struct Group {
  int folded;
  std::vector<int> at;
};

std::vector<Group> groups_of(const Setup& s) {
  std::vector<Group> groups;
  const auto rows = lines(s.full[1], s.folded[1]), slices = lines(s.full[2], s.folded[2]);
  const auto voxel = [&](int x, int y, int z) { return x + s.full[0] * (y + s.full[1] * z); };
  for (int z = 0; z < s.folded[2]; ++z) {
    for (int y = 0; y < s.folded[1]; ++y) {
      for (int x = 0; x < s.full[0]; ++x) {
        Group group{x + s.full[0] * (y + s.folded[1] * z), {}};
        for (int b : slices[z])
          for (int a : rows[y])
            if (s.aliases.empty()) group.at.push_back(voxel(x, a, b));
        for (const auto& [dy, dz] : s.aliases) {
          const auto around = [](int place, int n) { return (place % n + n) % n; };
          group.at.push_back(voxel(x, around(y + (s.full[1] - s.folded[1] + 1) / 2 + dy, s.full[1]),
                                   around(z + (s.full[2] - s.folded[2] + 1) / 2 + dz, s.full[2])));
        }
        groups.push_back(group);
      }
    }
  }
  return groups;
}

Setup shifted(std::array<int, 4> maps, int step_y, int step_z, int shift, double unit = 1,
              double weight = 0) {
  const std::array<int, 3> full{maps[0], maps[1], maps[2]},
      folded{maps[0], maps[1] / step_y, maps[2] / step_z};
  return {maps, folded, full, unit, weight, shifted_pattern(full, step_y, step_z, shift)};
}

double relative(double got, double want) { return std::abs(got - want) / std::abs(want); }

/// Image and images of noise of the voxels at `at`, which alias onto `folded`, by dense matrices.
void check_voxels(const Scene& s, int folded, const std::vector<int>& at) {
  const auto n = static_cast<int>(at.size());
  Eigen::MatrixXcd S(s.coils, n), R = Eigen::MatrixXcd::Zero(n, n);
  for (int k = 0; k < n; ++k) {
    for (int c = 0; c < s.coils; ++c)
      S(c, k) = {s.re[at[k] + c * s.voxels], s.im[at[k] + c * s.voxels]};
    if (s.setup.weight > 0) R(k, k) = 1 / (std::pow(s.expected[at[k]], 2) * s.setup.weight);
  }
  const Eigen::MatrixXcd A = S.adjoint() * s.psi.inverse() * S,
                         U = (A + R).inverse() * S.adjoint() * s.psi.inverse(),
                         noise = U * s.psi * U.adjoint();
  const Eigen::VectorXd values = Eigen::SelfAdjointEigenSolver<Eigen::MatrixXcd>(A).eigenvalues();
  const double condition = values[n - 1] / values[0];
  if (condition > 1e8) return;
  Eigen::VectorXcd v(s.coils);
  for (int c = 0; c < s.coils; ++c) {
    const int sample = folded + c * int(s.fold_re.size()) / s.coils;
    v[c] = {s.fold_re[sample], s.fold_im[sample]};
  }
  const Eigen::VectorXcd u = U * v;
  const double size = U.cwiseAbs().rowwise().sum().maxCoeff();
  for (int k = 0; k < n; ++k) {
    CHECK(std::abs(Complex(s.out_re[at[k]], s.out_im[at[k]]) - u[k]) < 1e-6 * size);
    const double sd = std::sqrt(noise(k, k).real());
    CHECK(relative(s.sd[at[k]], sd) < 1e-6);
    CHECK(relative(s.g[at[k]], sd * std::sqrt(A(k, k).real())) < 1e-6);
    CHECK(relative(s.response[at[k]], (U * S)(k, k).real()) < 1e-6);
    CHECK(relative(s.condition[at[k]], condition) < 1e-5);
  }
}

}  // namespace

TEST_CASE("Voxels that alias, and their noise, are those of their matrices", "[sense_noise]") {
  CAPTURE(run_seed());
  for (const Setup& setup :
       {Setup{{9, 12, 1, 1}, {9, 12, 1}, {9, 12, 1}},
        Setup{{9, 12, 1, 5}, {9, 6, 1}, {9, 12, 1}, 0},
        Setup{{40, 12, 1, 6}, {40, 4, 1}, {40, 12, 1}, 1e-14},
        Setup{{17, 10, 1, 5}, {17, 4, 1}, {17, 10, 1}, 3e4, 1e-3},
        Setup{{9, 8, 6, 8}, {9, 4, 3}, {9, 8, 6}, 1e-14, 1e13},
        Setup{{9, 12, 9, 14}, {9, 4, 3}, {9, 12, 9}}, shifted({9, 8, 6, 5}, 2, 2, 1),
        shifted({270, 6, 4, 5}, 1, 2, 1, 3e4, 1e-3), shifted({9, 12, 1, 4}, 3, 1, 0),
        shifted({5, 9, 12, 12}, 3, 3, 2, 0), shifted({9, 6, 12, 8}, 1, 4, 2, 1e-14, 1e13)}) {
    CAPTURE(setup.maps, setup.folded, setup.aliases);
    Scene s(setup);
    with_thread_counts([&] {
      const std::vector<float> before = s.sd;
      ctessel::sense({nullptr, nullptr, s.fold(), {1, 1, 1, 1}}, s.maps(), setup.full, {},
                     s.with_noise());
      if (omp_get_max_threads() > 1) CHECK(differences(s.sd, before) == "");
    });
    ctessel::sense(ConstSamples::parts(s.fold_re.data(), s.fold_im.data(), s.fold()), s.maps(),
                   setup.full, Samples::parts(s.out_re.data(), s.out_im.data(), s.image()),
                   s.options());
    for (const Group& group : groups_of(setup)) {
      std::vector<int> at;
      for (int v : group.at) {
        if (s.mask[v] != 0) at.push_back(v);
        if (s.mask[v] == 0)
          CHECK((s.g[v] == 0 && s.sd[v] == 0 && s.condition[v] == 0 && s.response[v] == 0 &&
                 s.out_re[v] == 7));
      }
      if (!at.empty()) check_voxels(s, group.folded, at);
    }
  }
}

TEST_CASE("Images of noise leave the image's bits alone and hold for its factors",
          "[sense_noise]") {
  CAPTURE(run_seed());
  for (const Setup& setup :
       {Setup{{8, 12, 1, 4}, {8, 6, 1}, {8, 12, 1}, 2.0},
        Setup{{7, 9, 1, 4}, {15, 8, 1}, {15, 20, 1}, 1e-14},  // coarser, 2.5
        Setup{{20, 10, 1, 4}, {33, 5, 1}, {33, 10, 1}, 0},    // along x alone
        Setup{{6, 7, 5, 6}, {9, 6, 4}, {9, 12, 8}, 1, 0.5},
        Setup{{11, 8, 4, 6}, {20, 4, 2}, {20, 8, 4}, 2, 0, shifted_pattern({20, 8, 4}, 2, 2, 1)}}) {
    CAPTURE(setup.maps, setup.folded);
    Scene s(setup);
    // One volume for each coil, which is 1 there and 0 elsewhere: the image is that coil's factors.
    const int samples = setup.folded[0] * setup.folded[1] * setup.folded[2];
    std::vector<float> fold(samples * s.coils * s.coils);
    for (int c = 0; c < s.coils; ++c)
      std::fill_n(fold.begin() + samples * c * (s.coils + 1), samples, 1.0f);
    ctessel::Extents in = s.fold(), out = s.image();
    in.push_back(s.coils), out.push_back(1), out.push_back(s.coils);
    std::vector<float> re(s.pixels * s.coils), im(re), want_re(re), want_im(re);
    const auto folded = ConstSamples::parts(fold.data(), nullptr, in);
    ctessel::sense(folded, s.maps(), setup.full,
                   Samples::parts(want_re.data(), want_im.data(), out), s.options());
    ctessel::sense(folded, s.maps(), setup.full, Samples::parts(re.data(), im.data(), out),
                   s.with_noise());
    CHECK(differences(re, want_re) == "");
    CHECK(differences(im, want_im) == "");
    for (int p = 0; p < s.pixels; ++p) {
      Eigen::RowVectorXcd u(s.coils);
      for (int c = 0; c < s.coils; ++c) u[c] = {re[p + c * s.pixels], im[p + c * s.pixels]};
      const double sd = std::sqrt((u * s.psi * u.adjoint())(0).real());
      CHECK(std::abs(s.sd[p] - sd) <= 2e-6 * sd);
      CHECK((s.g[p] >= 0.999f || sd == 0 || setup.weight > 0));
      CHECK((s.condition[p] >= 1 || sd == 0));
    }
  }
}

TEST_CASE("Noise that is not finite stays in its voxels and out of the image", "[sense_noise]") {
  // One coil, nothing expected in the first folded voxel's aliases: no row follows the last slot.
  Scene slots({{3, 1, 4, 1}, {3, 1, 2}, {3, 1, 4}, 0, 1});
  for (auto* v : {&slots.re, &slots.mask, &slots.expected}) v->assign(v->size(), 1.0f);
  slots.im.assign(slots.im.size(), 0.0f);
  slots.expected[3] = slots.expected[9] = 0;
  // Two aliases with equal maps, images on the maps' columns and between them.
  std::vector<Scene> scenes = {slots};
  for (int columns : {5, 9}) {
    Scene& s = scenes.emplace_back(Setup{{5, 6, 1, 2}, {columns, 3, 1}, {columns, 6, 1}});
    s.mask.assign(s.mask.size(), 1.0f);
    const auto one_column = [&](int row, int coil) { return 2 + 5 * (row + 6 * coil); };
    for (int coil : {0, 1}) {
      for (auto* part : {&s.re, &s.im})
        (*part)[one_column(0, coil)] = (*part)[one_column(3, coil)] = coil + 1.0f;
    }
  }
  for (Scene& s : scenes) {
    const auto folded = ConstSamples::parts(s.fold_re.data(), s.fold_im.data(), s.fold());
    const Samples out = Samples::parts(s.out_re.data(), s.out_im.data(), s.image());
    ctessel::sense(folded, s.maps(), s.setup.full, out, s.options());
    const auto re = s.out_re, im = s.out_im;
    ctessel::sense(folded, s.maps(), s.setup.full, out, s.with_noise());
    CHECK(differences(s.out_re, re) == "");
    CHECK(differences(s.out_im, im) == "");
    const auto g = s.g, sd = s.sd, response = s.response;
    ctessel::sense(folded, s.maps(), s.setup.full, {}, s.with_noise());
    CHECK(differences(s.g, g) == "");
    CHECK(differences(s.sd, sd) == "");
    CHECK(differences(s.response, response) == "");
    const auto beyond = [](float v) { return !std::isfinite(v); };
    const bool own = s.setup.folded[0] == s.setup.maps[0];
    CHECK(std::count_if(re.begin(), re.end(), beyond) > 2);
    CHECK(std::count_if(g.begin(), g.end(), beyond) == (own ? 2 : 6));
  }
}

TEST_CASE(
    "Images of noise that do not fit are refused, and aliases that do not meet every voxel once",
    "[sense_noise]") {
  const auto refused = [](const Scene& s, const ctessel::SenseOptions& options, Samples image) {
    CHECK_THROWS_AS(ctessel::sense({nullptr, nullptr, s.fold(), {1, 1, 1, 1}}, s.maps(),
                                   s.setup.full, image, options),
                    std::invalid_argument);
    CHECK(s.g[0] == 7);
  };
  Scene small({{4, 4, 1, 2}, {4, 2, 1}, {4, 4, 1}});
  ctessel::SenseOptions options = small.with_noise();
  options.sd.extents[1] = 2;
  refused(small, options, {});
  refused(small, small.options(),
          Samples::parts(small.out_re.data(), small.out_im.data(), small.image()));
  const Setup even{{4, 8, 4, 2}, {4, 4, 2}, {4, 8, 4}};
  for (const auto& [setup, list] :
       {std::pair(even, std::vector<std::array<int, 2>>{{0, 0}, {4, 0}, {2, 2}}),
        {even, {{0, 0}, {4, 0}, {2, 2}, {-6, 6}}},
        {even, {{0, 0}, {4, 0}, {2, 1}, {-2, 3}}},
        {Setup{{4, 9, 1, 2}, {4, 4, 1}, {4, 9, 1}}, {{0, 0}, {4, 0}}},
        {Setup{{4, 4, 4, 2}, {4, 4, 2}, {4, 8, 4}}, {{0, 0}, {4, 0}, {2, 2}, {-2, 2}}}}) {
    Scene s(setup);
    options = s.with_noise();
    options.aliases = list;
    refused(s, options, {});
  }
}
