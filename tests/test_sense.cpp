#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <numeric>

#include "ctessel.hpp"
#include "naive_sense.h"
#include "support.h"

namespace {

using Complex = std::complex<double>;

/// The same bits, or both not a number.
bool same(float a, float b) { return std::isnan(b) ? std::isnan(a) : bits({a}) == bits({b}); }

struct Setup {
  std::array<int, 4> maps;          // nx, ny, nz, coils
  std::array<int, 3> folded, full;  // x, y, z
  bool correlated = true;           // noise covariance other than the identity
  double lambda = 0;
  int holes = 0;  // share of map samples without signal, in tenths
};

/// Smooth maps with holes, covariance, folded data, and everything the steps are called with.
struct Scene {
  explicit Scene(const Setup& s)
      : setup(s), random(1), maps(4), folded(4), full(3), factor_dims(4) {
    maps << s.maps[0], s.maps[1], s.maps[2], s.maps[3];
    folded << s.folded[0], s.folded[1], s.folded[2], s.maps[3];
    full << s.full[0], s.full[1], s.full[2];
    for (int i = 0; i < 3; ++i) R[i] = float(s.full[i]) / float(s.folded[i]);
    const int cRy = int(std::ceil(R[1])), cRz = int(std::ceil(R[2]));
    factor_dims << maps[0], int(std::ceil(maps[1] / R[1])), int(std::ceil(maps[2] / R[2])),
        cRy * cRz * maps[3];
    make_maps();
    make_noise();
    reference = Eigen::VectorXf::Constant(maps.head(3).prod() * 2 / 3, 0.5f);
    for (int i = 0; i < reference.size(); i += 5) reference[i] = 0;
    fold_re = random.reals(folded.prod());
    fold_im = random.reals(folded.prod());
  }

  void make_maps() {
    for (int c = 0; c < maps[3]; ++c)
      for (int z = 0; z < maps[2]; ++z)
        for (int y = 0; y < maps[1]; ++y)
          for (int x = 0; x < maps[0]; ++x) {
            const double angle = 2.4 * c, u = double(x) / maps[0] - 0.5 - 0.7 * std::cos(angle),
                         v = double(y) / maps[1] - 0.5 - 0.7 * std::sin(angle),
                         w = double(z) / maps[2] - 0.5 - 0.5 * std::cos(1.7 * c);
            // Some roughness, so that many aliases can be separated.
            const Complex value =
                std::polar(std::exp(-2 * (u * u + v * v + w * w)), 5 * u + c + 4 * v) +
                0.4 * Complex(random.real(), random.real());
            re.push_back(float(value.real()));
            im.push_back(float(value.imag()));
          }
    const int voxels = maps.head(3).prod();
    for (int i = 0; i < voxels; ++i) {
      if (random.integer(0, 9) >= setup.holes) continue;
      for (int c = 0; c < maps[3]; ++c) re[i + c * voxels] = 0;
    }
    if (setup.holes > 2) re[voxels / 2] = NAN;  // which is not 0
  }

  void make_noise() {
    const int nc = maps[3];
    psi = Eigen::MatrixXcd::Identity(nc, nc);
    if (!setup.correlated) return;
    for (Complex& p : psi.reshaped()) p += 0.3 * Complex(random.real(), random.real()) / double(nc);
    psi = (psi * psi.adjoint()).eval();
  }

  Eigen::VectorXcd fresh_factors() const {
    return Eigen::VectorXcd::Constant(factor_dims.prod(), Complex(7, 7));
  }

  int factors(Eigen::VectorXcd& out) {
    edges_y = edges_z = {-1, -1};
    return get_combination_factors(re.data(), im.data(), maps, psi, R, setup.lambda, reference, out,
                                   folded, full, edges_y.data(), edges_z.data());
  }
  /// The second step, and both, without an array of the noise or of the regularisation.
  int unfolded(Eigen::VectorXcd& f, float* out_re, float* out_im) {
    return unfold(fold_re.data(), fold_im.data(), folded, f, factor_dims, maps, full,
                  edges_y.data(), edges_z.data(), out_re, out_im);
  }
  int recon(float* out_re, float* out_im, int volumes = 1, int out_volumes = 1) {
    int fold[] = {folded[0], folded[1], folded[2], folded[3], volumes}, none[] = {1};
    int out[] = {full[0], full[1], full[2], 1, out_volumes}, coils[] = {maps[3], maps[3]};
    return TS_sense_recon(fold_re.data(), fold_im.data(), 5, fold, re.data(), im.data(), 4,
                          maps.data(), nullptr, nullptr, 2, coils, full.data(), nullptr, nullptr, 1,
                          none, nullptr, nullptr, 1, none, 1, out_re, out_im, out);
  }

  Setup setup;
  Random random;
  Eigen::VectorXi maps, folded, full, factor_dims;
  Eigen::Vector3f R;
  Eigen::MatrixXcd psi;
  Eigen::VectorXf reference;
  std::vector<float> re, im, fold_re, fold_im;
  std::array<float, 2> edges_y{-1, -1}, edges_z{-1, -1};
};

const std::vector<Setup> kSetups = {
    {{12, 16, 1, 4}, {12, 8, 1}, {12, 16, 1}},
    {{12, 16, 1, 4}, {12, 8, 1}, {12, 16, 1}, false},
    {{13, 20, 1, 5}, {13, 8, 1}, {13, 20, 1}, true, 0.02, 2},  // 2.5
    {{13, 10, 1, 5}, {26, 8, 1}, {26, 20, 1}, true, 0, 2},     // maps at half resolution
    {{9, 12, 8, 8}, {9, 6, 4}, {9, 12, 8}, true, 0, 3},        // 2 x 2
    {{9, 9, 7, 12}, {11, 8, 4}, {11, 18, 7}, true, 0.1, 1},    // 2.25 x 1.75
    {{300, 6, 1, 3}, {300, 3, 1}, {300, 6, 1}, true, 0, 4},    // more than one tile
    {{5, 24, 6, 24}, {5, 6, 2}, {5, 24, 6}, false, 0, 1},      // 4 x 3: the general alias count
    {{6, 7, 5, 3}, {6, 7, 5}, {6, 7, 5}, true, 0, 3},          // no reduction
    {{1, 3, 4, 6}, {1, 2, 2}, {1, 3, 4}, true, 0, 0},          // single samples along x,
    {{4, 1, 6, 6}, {7, 3, 3}, {7, 3, 6}, true, 0, 0},          // along y
    {{7, 14, 1, 6}, {7, 4, 1}, {7, 14, 1}, true, 0, 0},        // 3.5
    {{5, 44, 1, 4}, {5, 22, 1}, {5, 44, 1}, true, 0, 1},       // more lines than one block holds
    {{4, 38, 6, 6}, {8, 19, 3}, {8, 38, 6}, true, 0, 1},       // the same in slices
};

/// Largest difference from the naive factors over the voxel's largest, where it is well
/// conditioned.
double factor_error(const Scene& s, const Eigen::VectorXcd& got, const Eigen::VectorXcd& want) {
  const int grid = s.factor_dims.head(3).prod();
  double worst = 0;
  for (int v = 0; v < grid; ++v) {
    double largest = 0, error = 0;
    for (int slot = 0; slot < s.factor_dims[3]; ++slot) {
      const Complex a = got[v + slot * grid], b = want[v + slot * grid];
      REQUIRE((a == Complex(7, 7)) == (b == Complex(7, 7)));  // the same slots are written
      if (b != Complex(7, 7)) largest = std::max(largest, std::abs(b));
      REQUIRE((a == 0.0) == (b == 0.0));
      REQUIRE(std::isnan(std::abs(a)) == std::isnan(std::abs(b)));
      error = std::max(error, std::abs(a - b));
    }
    if (largest > 0 && largest < 1e3) worst = std::max(worst, error / largest);
  }
  return worst;
}

}  // namespace

TEST_CASE("Factors, edges and unfolding agree with the naive version", "[sense]") {
  CAPTURE(run_seed());
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);  // so that one thread has more columns than a tile
  for (std::size_t i = 0; i < kSetups.size(); ++i) {
    CAPTURE(i);
    Scene s(kSetups[i]);
    Eigen::VectorXcd got = s.fresh_factors(), want = got;
    CHECK(s.factors(got) == 1);
    std::array<float, 2> ey{-1, -1}, ez{-1, -1};
    CHECK(naive::get_combination_factors(s.re.data(), s.im.data(), s.maps, s.psi, s.R,
                                         s.setup.lambda, s.reference, want, s.folded, s.full,
                                         ey.data(), ez.data()) == 1);
    CHECK(s.edges_y == ey);
    CHECK(s.edges_z == ez);
    CHECK(factor_error(s, got, want) < 1e-9);

    double size = 0;
    for (const Complex& f : want) size = std::max(size, std::abs(f) * s.maps[3]);  // not of a NaN
    for (float* fold_im : {s.fold_im.data(), static_cast<float*>(nullptr)}) {
      Guarded<float> re(s.full.prod(), 3.0f), im(s.full.prod(), 3.0f);
      std::vector<float> want_re(s.full.prod(), 3.0f), want_im(want_re);
      CHECK(unfold(s.fold_re.data(), fold_im, s.folded, want, s.factor_dims, s.maps, s.full,
                   ey.data(), ez.data(), re.data(), im.data()) ==
            naive::unfold(s.fold_re.data(), fold_im, s.folded, want, s.factor_dims, s.full,
                          ey.data(), ez.data(), want_re.data(), want_im.data()));
      CHECK((re.intact() && im.intact()));
      double worst = 0;
      for (std::size_t j = 0; j < want_re.size(); ++j) {
        CHECK((re.values()[j] == 3.0f) == (want_re[j] == 3.0f));
        CHECK(std::isnan(re.values()[j]) == std::isnan(want_re[j]));
        worst = std::max<double>(worst, std::abs(re.values()[j] - want_re[j]));
        worst = std::max<double>(worst, std::abs(im.values()[j] - want_im[j]));
      }
      CHECK(worst < 4 * std::numeric_limits<float>::epsilon() * size);
      want[want.size() / 2] = NAN;  // and now also where it takes part with weight 0
    }
  }
  omp_set_num_threads(threads);
}

TEST_CASE("Without imaginary parts of the maps no alias is included", "[sense]") {
  Scene s({{2, 6, 1, 2}, {2, 6, 1}, {2, 6, 1}, false});
  Eigen::VectorXcd f = s.fresh_factors();
  CHECK(get_combination_factors(s.re.data(), nullptr, s.maps, s.psi, s.R, 0, s.reference, f,
                                s.folded, s.full, s.edges_y.data(), s.edges_z.data()) == 1);
  CHECK(f.isZero(0));
}

TEST_CASE("Aliases with equal sensitivities leave no finite factor", "[sense]") {
  CAPTURE(run_seed());
  for (const bool correlated : {false, true}) {
    for (const int aliases : {2, 3, 4}) {
      CAPTURE(correlated, aliases);
      constexpr int kColumns = 500;
      Scene s({{kColumns, aliases, 1, 5}, {kColumns, 1, 1}, {kColumns, aliases, 1}, correlated});
      const int row = kColumns * aliases, last = row - kColumns;
      for (int c = 0; c < 5; ++c)
        for (auto* part : {&s.re, &s.im})
          std::copy_n(part->begin() + c * row, kColumns, part->begin() + c * row + last);
      Eigen::VectorXcd f = s.fresh_factors();
      s.factors(f);
      int finite = 0;
      for (int i = 0; i < f.size(); ++i) {
        const int alias = i / kColumns % aliases;
        finite += (alias == 0 || alias == aliases - 1) && std::isfinite(std::abs(f[i]));
      }
      CHECK(finite == 0);
      std::vector<float> out_re(row, 3.0f), out_im(out_re);
      s.unfolded(f, out_re.data(), out_im.data());
      for (const auto& out : {out_re, out_im})
        for (int x = 0; x < kColumns; ++x) CHECK((std::isnan(out[x]) && std::isnan(out[x + last])));
    }
  }
}

TEST_CASE("The largest entry of a column is its pivot, of any size", "[sense]") {
  // As many coils as aliases: whatever the weights, the factors are the inverse sensitivities.
  Scene s({{1, 3, 1, 3}, {1, 1, 1}, {1, 3, 1}, false});
  s.im.assign(9, 0.0f);
  const auto check = [&](const Eigen::Matrix3cd& weights, float unit) {
    s.re = {unit, 0x1p-120f, 0x1p-120f, 0, unit, 0, 0, 0, unit};  // no 0 in the first coil
    s.psi = weights.partialPivLu().inverse();
    Eigen::VectorXcd f = s.fresh_factors();
    s.factors(f);
    CHECK((f.reshaped(3, 3) * unit - Eigen::Matrix3cd::Identity()).norm() < 1e-14);
  };
  std::array<int, 3> row{0, 1, 2};
  do {
    CAPTURE(row);
    for (const Complex& phase : {Complex(1), Complex(0, 1), Complex(0.6, -0.8)}) {
      Eigen::Matrix3cd weights;  // no covariance's inverse, but of every rank
      weights << 1e-30, 0.3, 1.1, 1e-12, 1.7, 0.4, 1, 0.2, 0.6;
      weights = (phase * weights(row, Eigen::all)).eval();
      check(weights, 1);
      check(weights * 0x1p-478, 0x1p-26f);  // squares near the smallest there are
    }
  } while (std::next_permutation(row.begin(), row.end()));
  // Units do not count without regularisation, though pivots of 2^600 have no square in double.
  for (const float unit : {0x1p60f, 0x1p-60f})
    check(Eigen::Matrix3cd::Identity() * std::pow(unit, 8.0), unit);
}

TEST_CASE("Coils are added up one after the other, in double for factors and in float for images",
          "[sense]") {
  // Squares of 2^54 and 1, four times: only from the other end do the small ones count.
  Scene s({{1, 1, 1, 5}, {1, 1, 1}, {1, 1, 1}, false});
  s.re = {134217728, 1, 1, 1, 1};
  s.im.assign(5, 0.0f);
  Eigen::VectorXcd f = s.fresh_factors();
  s.factors(f);
  CHECK((f[0] == 0x1p-27 && f[1] == 0x1p-54 && f[4] == 0x1p-54));
  CHECK(std::none_of(f.begin(), f.end(), [](Complex u) { return std::signbit(u.imag()); }));

  // Factors become float before they multiply: 1 + 2^-24 is 1, and ones that are left get lost.
  f << Complex(1 + 0x1p-24, 1), 1, Complex(0, -1), Complex(-1 - 0x1p-24), 1;
  s.fold_re = {16777215, 0.25f, 0.5f, 16777215, 3};
  s.fold_im = {1, 0.125f, 0.25f, 1, 0};
  float u_re = 0, u_im = 0;
  for (int c = 0; c < 5; ++c) {
    const std::complex<float> m(f[c]);
    u_re += m.real() * s.fold_re[c] - m.imag() * s.fold_im[c];
    u_im += m.real() * s.fold_im[c] + m.imag() * s.fold_re[c];
  }
  float re = 0, im = 0;
  s.unfolded(f, &re, &im);
  CHECK((re == u_re && im == u_im));
}

TEST_CASE("find_edges compares lengths, then distances with half the lines", "[sense]") {
  Eigen::VectorXf a(2), b(2), c(2);
  a << 1, 5;
  b << 1, 8;
  c << 1, 8.25;
  CHECK(find_edges(a, b, 2, 1, 7) == 1);
  CHECK(find_edges(a, b, 2, 2, 7) == 0);  // 3 is not more than 7 / 2 = 3
  CHECK(find_edges(a, c, 2, 2, 7) == 1);
  CHECK(find_edges(a, c, 2, 2, 8) == 0);
  CHECK(find_edges(a, b, 0, 0, 0) == 0);
}

TEST_CASE("unfold keeps its place in the mask at a position out of range", "[sense]") {
  // Rows of one sample but four columns: of column 3, the only one with factors, the aliases
  // (y, z) = (1, 1) and (3, 1) of folded line 0 lie past the end, and (3, 0) comes between them.
  Eigen::VectorXi folded(4), dims(4), full(3), sens(4);
  folded << 4, 2, 1, 1;
  dims << 4, 2, 1, 4;
  full << 1, 4, 2;
  sens << 4, 4, 2, 1;
  Eigen::VectorXcd factors = Eigen::VectorXcd::Zero(32);
  for (int k : {0, 1, 3}) factors[3 + 8 * k] = factors[7 + 8 * k] = k + 1;
  std::vector<float> data = {1, 2, 3, 4, 5, 6, 7, 8};
  float edges[] = {-1, -1};
  with_thread_counts([&] {
    Guarded<float> re(8, 0.0f), im(8, 0.0f);
    std::vector<float> want_re(8), want_im(8);
    CHECK(naive::unfold(data.data(), nullptr, folded, factors, dims, full, edges, edges,
                        want_re.data(), want_im.data()) == -1);
    CHECK(unfold(data.data(), nullptr, folded, factors, dims, sens, full, edges, edges, re.data(),
                 im.data()) == -1);
    CHECK((re.intact() && im.intact()));
    CHECK(re.values() == want_re);
    CHECK(re.values()[6] == 8.0f);  // alias (3, 0) with the result of the skipped (1, 1)
  });
}

TEST_CASE("The driver has the bits of its steps across tiles, volumes and groups of coils",
          "[sense_recon]") {
  CAPTURE(run_seed());
  constexpr int kColumns = 1100, kLast = kColumns - 1, kVolumes = 3;
  // Columns in which two aliases are equal: their neighbours take them with weight 0. Images of as many
  // columns, and of some that lie between; of 2169 the last one is rounded to behind that of the maps.
  for (const int columns : {kColumns, 1650, 2169})
    for (const int singular : {-1, 0, 1023, 1024, 1050, kLast}) {
      CAPTURE(singular, columns);
      Scene s({{kColumns, 8, 1, 5}, {columns, 4, 1}, {columns, 8, 1}, false});
      for (int c = 0; singular >= 0 && c < 5; ++c)
        for (auto* part : {&s.re, &s.im}) {
          float* column = part->data() + singular + kColumns * 8 * c;
          column[7 * kColumns] = column[3 * kColumns];  // both on folded line 1
        }
      Eigen::VectorXcd f = Eigen::VectorXcd::Zero(s.factor_dims.prod());
      s.factors(f);
      const int pixels = columns * 8;
      std::vector<float> want_re(kVolumes * pixels), want_im(want_re), fold_re, fold_im;
      for (int v = 0; v < kVolumes; ++v) {
        s.unfolded(f, want_re.data() + v * pixels, want_im.data() + v * pixels);
        fold_re.insert(fold_re.end(), s.fold_re.begin(), s.fold_re.end());
        fold_im.insert(fold_im.end(), s.fold_im.begin(), s.fold_im.end());
        s.fold_re.swap(s.fold_im);
        for (float& sample : s.fold_im) sample *= 0.75f;
      }
      s.fold_re = fold_re;
      s.fold_im = fold_im;
      const auto lost = std::count_if(want_re.begin(), want_re.begin() + pixels,
                                      [](float v) { return std::isnan(v); });
      if (columns == kColumns)
        CHECK(lost == (singular < 0 ? 0 : singular == 0 ? 6 : 8));  // column 0 follows the last one
      with_thread_counts([&] {
        Guarded<float> re(kVolumes * pixels, 0.0f), im(kVolumes * pixels, 0.0f);
        CHECK(s.recon(re.data(), im.data(), kVolumes, kVolumes) == 1);
        CHECK(std::equal(want_re.begin(), want_re.end(), re.values().begin(), same));
        CHECK(std::equal(want_im.begin(), want_im.end(), im.values().begin(), same));
        CHECK((re.intact() && im.intact()));
      });
    }
}

TEST_CASE("A column of maps behind that of the image takes part with weight 0", "[sense_recon]") {
  Scene s({{2, 8, 1, 3}, {1, 4, 1}, {1, 8, 1}, false});
  for (std::size_t i = 1; i < s.re.size(); i += 2) s.re[i] = NAN;
  std::vector<float> re(8), im(8);
  CHECK(s.recon(re.data(), im.data()) == 1);
  CHECK(std::all_of(re.begin(), re.end(), [](float v) { return std::isnan(v); }));
}

TEST_CASE("What is not finite spreads to the left as far as without tiles", "[sense_recon]") {
  // Behind the last column of the line before; between columns that two threads' pixels lie on.
  for (const auto& [from, columns, bad, least] : {std::array{3, 3, 3, 3}, {1100, 365, 551, 1}}) {
    CAPTURE(columns);
    Scene s({{from, 2, 1, 1}, {columns, 2, 1}, {columns, 2, 1}, false});
    s.re[bad] = INFINITY;
    Eigen::VectorXcd f = Eigen::VectorXcd::Zero(s.factor_dims.prod());
    s.factors(f);
    const std::size_t pixels = 2 * columns;
    std::vector<float> want_re(pixels), want_im(pixels);
    s.unfolded(f, want_re.data(), want_im.data());
    CHECK(std::count_if(want_re.begin(), want_re.end(), [](float v) { return std::isnan(v); }) >=
          least);
    with_thread_counts([&] {
      std::vector<float> re(pixels), im(pixels);
      CHECK(s.recon(re.data(), im.data()) == 1);
      CHECK(std::equal(re.begin(), re.end(), want_re.begin(), same));
      CHECK(std::equal(im.begin(), im.end(), want_im.begin(), same));
    });
  }
}

TEST_CASE("Coils that lack a folded image or a map take no part, and nothing else is read",
          "[sense_recon]") {
  Scene s({{8, 8, 1, 3}, {8, 4, 1}, {8, 8, 1}, false});
  Eigen::VectorXcd f = Eigen::VectorXcd::Zero(s.factor_dims.prod());
  s.factors(f);
  for (int coils : {2, 4}) {
    CAPTURE(coils);
    std::vector<float> want_re(64), want_im(64), re(64), im(64);
    for (auto* part : {&s.fold_re, &s.fold_im}) part->resize(32 * coils, 1.0f);
    s.folded[3] = std::min(coils, 3);
    s.unfolded(f, want_re.data(), want_im.data());
    s.folded[3] = coils;
    CHECK(s.recon(re.data(), im.data()) == 1);
    CHECK(differences(re, want_re) == "");
    CHECK(differences(im, want_im) == "");
  }
}

namespace {

/// Samples of parts with further axes, in another layout.
struct Elsewhere {
  Elsewhere(const std::vector<float>& re, const std::vector<float>& im, const ctessel::Extents& n,
            bool pairs, ctessel::Order order)
      : pair(re.size()), parts{re, im} {
    view = pairs ? ctessel::Samples::pairs(pair.data(), n, order)
                 : ctessel::Samples::parts(parts[0].data(), parts[1].data(), n, order);
    ctessel::copy(ctessel::ConstSamples::parts(re.data(), im.data(), n), view);
  }
  std::vector<std::complex<float>> pair;
  std::vector<float> parts[2];
  ctessel::Samples view;
};

}  // namespace

TEST_CASE("sense takes samples as they lie, with the bits of TS_sense_recon", "[sense_recon]") {
  CAPTURE(run_seed());
  Random random(2);
  int fold[] = {11, 4, 3, 4, 2, 1, 1, 2}, maps[] = {11, 10, 6, 4, 2}, psi[] = {4, 4};
  int full[] = {11, 10, 6}, out[] = {11, 10, 6, 1, 2, 1, 1, 2}, ref[] = {5, 3};
  const auto extents = [](const auto& n) { return ctessel::Extents(std::begin(n), std::end(n)); };
  const auto reals = [&](int n) { return random.reals(static_cast<std::size_t>(n)); };
  std::vector<float> fold_re = reals(2112), fold_im = reals(2112), maps_re = reals(5280),
                     maps_im = reals(5280), psi_re(16), psi_im(16), image = reals(1320),
                     zeros(1320), want_re(2640), want_im(2640);
  for (int i = 0; i < 16; i += 5) psi_re[i] = 1.5f;
  TS_sense_recon(fold_re.data(), fold_im.data(), 8, fold, maps_re.data(), maps_im.data(), 5, maps,
                 psi_re.data(), psi_im.data(), 2, psi, full, image.data(), nullptr, 2, ref,
                 image.data(), nullptr, 4, std::array{11, 10, 6, 2}.data(), 2, want_re.data(),
                 want_im.data(), out);
  const double ratio = TS_SA(fold_re.data(), fold_im.data(), 2112) / 2 /
                       TS_SA(image.data(), nullptr, 15),
               weight = ratio * ratio / (2.5 * 2);
  for (const bool pairs : {false, true}) {
    for (const auto order : {ctessel::Order::fortran, ctessel::Order::c}) {
      CAPTURE(pairs, order == ctessel::Order::c);
      Elsewhere in(fold_re, fold_im, extents(fold), pairs, order),
          on(maps_re, maps_im, extents(maps), pairs, order),
          noise(psi_re, psi_im, extents(psi), pairs, order),
          expected(image, zeros, {11, 10, 6, 2}, pairs, order),
          to(std::vector<float>(2640), std::vector<float>(2640), extents(out), pairs, order);
      ctessel::SenseOptions options{noise.view, expected.view, weight, {}, 1, {}};
      for (const bool referred : {false, true}) {
        if (referred) {
          options.reference = ctessel::ConstSamples::parts(image.data(), nullptr, {5, 3});
          options.scale = 2;
          options.weight = NAN;
        }
        ctessel::sense(in.view, on.view, {11, 10, 6}, to.view, options);
        std::vector<float> re(2640), im(2640);
        ctessel::copy(to.view, ctessel::Samples::parts(re.data(), im.data(), extents(out)));
        CHECK(differences(re, want_re) == "");
        CHECK(differences(im, want_im) == "");
      }
    }
  }
  CHECK_THROWS_AS(
      ctessel::sense(ctessel::ConstSamples::parts(fold_re.data(), nullptr, {11, 4, 3, 3}),
                     ctessel::ConstSamples::parts(maps_re.data(), nullptr, {11, 10, 6, 4}),
                     {11, 10, 6}, ctessel::Samples::parts(want_re.data(), nullptr, {11, 10, 6})),
      std::invalid_argument);
}

TEST_CASE("A volume that starts past the end of the output ends the run with -1", "[sense_recon]") {
  Scene s({{8, 8, 1, 3}, {8, 4, 1}, {8, 8, 1}, false});
  for (auto* part : {&s.fold_re, &s.fold_im}) part->resize(3 * 96, 0.5f);
  std::vector<float> want_re(192), want_im(192);
  CHECK(s.recon(want_re.data(), want_im.data(), 3, 3) == 1);
  for (int volumes : {2, 1, 0}) {
    CAPTURE(volumes);
    std::vector<float> re(192), im(192);
    CHECK(s.recon(re.data(), im.data(), 3, volumes) == -1);
    for (int v = 64 * volumes; v < 192; ++v) want_re[v] = want_im[v] = 0;
    CHECK(differences(re, want_re) == "");
    CHECK(differences(im, want_im) == "");
  }
}

TEST_CASE("Extents that cannot be are refused before memory is touched", "[sense_recon]") {
  struct Case {
    std::array<int, 8> folded;
    std::array<int, 2> psi;
    std::array<int, 3> full;
    int status;
    std::array<int, 3> out = {2, 4, 1};
  };
  constexpr int kMax = 2147483647, kHalf = 1 << 15;
  for (const Case& c : {Case{{2, 2, 1, 2, 1, 1, 1, 1}, {1, 2}, {2, 4, 1}, -1},  // not coils x coils
                        Case{{2, 2, 1, 2, 1, 1, 1, 1}, {2, 2}, {1, kMax, 1}, -1},  // aliases
                        Case{{2, 0, 0, 2, 1, 1, 1, 1}, {2, 2}, {2, 0, 0}, -1},  // reduction 0 / 0
                        Case{{2, 2, 1, 2, 1, 1, 1, 0}, {2, 2}, {2, 4, 1}, 1},   // no location
                        Case{{2, 2, 1, 2, 1, 1, 1, 0}, {2, 2}, {2, 4, 1}, 1, {kMax, 1, 1}},
                        Case{{2, 2, 1, 2, 1, 1, 1, 0}, {2, 2}, {2, 4, 1}, -1, {kHalf, kHalf, 2}}}) {
    CAPTURE(c.folded, c.psi, c.full, c.out);
    Case call = c;
    int maps[] = {2, 4, 1, 2}, none[] = {1}, out[] = {c.out[0], c.out[1], c.out[2], 1, 1, 1, 1, 1};
    CHECK(TS_sense_recon(nullptr, nullptr, 8, call.folded.data(), nullptr, nullptr, 4, maps,
                         nullptr, nullptr, 2, call.psi.data(), call.full.data(), nullptr, nullptr,
                         1, none, nullptr, nullptr, 1, none, 1, nullptr, nullptr, out) == c.status);
  }
  const auto with_columns = [](std::ptrdiff_t n) {
    ctessel::sense({nullptr, nullptr, {2, 2, 1, 4}, {}}, {nullptr, nullptr, {n, 4, 1, 3}, {}},
                   {2, 4, 1}, {});
  };
  const ctessel::ConstSamples many(nullptr, nullptr, ctessel::Extents(14, 1), {});
  CHECK_THROWS_WITH(ctessel::sense(many, many, {1, 1, 1}, {}),
                    "sense: folded images have at most 13 axes");
  if (sizeof(std::ptrdiff_t) == 4) return;
  CHECK_THROWS_WITH(with_columns(kMax), "sense: maps must have extent 4 along axis 3, not 3");
  CHECK_THROWS_WITH(with_columns(static_cast<std::ptrdiff_t>(kMax + 1LL)),
                    "sense: an extent is at most 2147483647");
}
