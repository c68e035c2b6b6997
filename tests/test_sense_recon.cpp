// The driver, and the physics: phantoms folded by the sampling model or by a transform come back.

#include <Eigen/Dense>
#include <array>
#include <cmath>
#include <complex>
#include <cstdio>
#include <fstream>

#include "cTessel.h"
#include "support.h"

namespace {

using Complex = std::complex<double>;
using Image = std::vector<Complex>;

constexpr double kPi = 3.14159265358979323846;

/// A call of the driver with everything optional off.
struct Call {
  std::vector<float> fold_re, fold_im, sens_re, sens_im, psi_re, psi_im, ref, reg;
  std::vector<int> fold, sens, full, out, ref_dims{1}, reg_dims{1};
  int psi_dims[2] = {0, 0};
  double scale = 1;

  std::size_t samples() const {
    std::size_t n = 1;
    for (int d : out) n *= std::size_t(d);
    return n;
  }
  int run(float* re, float* im) {
    auto data = [](std::vector<float>& v) { return v.empty() ? nullptr : v.data(); };
    return TS_sense_recon(fold_re.data(), data(fold_im), int(fold.size()), fold.data(),
                          sens_re.data(), data(sens_im), int(sens.size()), sens.data(),
                          data(psi_re), data(psi_im), 2, psi_dims, full.data(), data(ref), nullptr,
                          int(ref_dims.size()), ref_dims.data(), data(reg), nullptr,
                          int(reg_dims.size()), reg_dims.data(), scale, re, im, out.data());
  }
  Image image() {
    Guarded<float> re(samples(), 0.0f), im(samples(), 0.0f);
    CHECK(run(re.data(), im.data()) == 1);
    CHECK((re.intact() && im.intact()));
    const std::vector<float> a = re.values(), b = im.values();
    Image result;
    for (std::size_t i = 0; i < a.size(); ++i) result.emplace_back(a[i], b[i]);
    return result;
  }
};

/// Sensitivity of coil c of n at (u, v, w), each -0.5 ... 0.5: smooth, coil 0 never 0 in its
/// real part, with phases that tell up to four aliases along y apart.
Complex coil(int c, int n, double u, double v, double w, double turns) {
  const double a = 2 * kPi * c / n, dx = u - 0.8 * std::cos(a), dy = v - 0.8 * std::sin(a),
               dz = w - (c % 2 ? 0.3 : -0.3);
  return std::polar(1 / (0.1 + dx * dx + dy * dy + dz * dz),
                    2 * kPi * turns * (c % 4) * v + 0.5 * std::sin(3 * u + 2 * v + c));
}

struct Phantom {
  int nx, ny, nz, nc;
  Image truth;
  double turns = 1;  // phase of the maps across the field of view
  double place(int i, int n) const { return n > 1 ? double(i) / (n - 1) - 0.5 : 0; }
  Phantom(int x_, int y_, int z_, int c_) : nx(x_), ny(y_), nz(z_), nc(c_) {
    Random random(5);
    for (int i = 0; i < nx * ny * nz; ++i) truth.emplace_back(random.real(), random.real());
  }
  Complex seen(int c, int x, int y, int z) const {
    return truth[x + nx * (y + ny * z)] *
           coil(c, nc, place(x, nx), place(y, ny), place(z, nz), turns);
  }
  void put_maps(Call& call, int my, int mz) const {
    call.sens = {nx, my, mz, nc};
    for (int c = 0; c < nc; ++c)
      for (int z = 0; z < mz; ++z)
        for (int y = 0; y < my; ++y)
          for (int x = 0; x < nx; ++x) {
            const Complex s = coil(c, nc, place(x, nx), place(y, my), place(z, mz), turns);
            call.sens_re.push_back(float(s.real()));
            call.sens_im.push_back(float(s.imag()));
          }
  }
  /// Folded by the sampling model, with maps of my x mz rows and slices.
  Call folded(int fy, int fz, int my, int mz) const {
    Call call;
    put_maps(call, my, mz);
    call.fold = {nx, fy, fz, nc};
    call.full = {nx, ny, nz};
    call.out = {nx, ny, nz, 1};
    call.psi_dims[0] = call.psi_dims[1] = nc;
    Image sum(nx * fy * fz * nc);
    for (int c = 0; c < nc; ++c)
      for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
          for (int x = 0; x < nx; ++x) {
            const int yf = TS_folded_pos(y, ny, fy), zf = TS_folded_pos(z, nz, fz);
            sum[x + nx * (yf + fy * (zf + fz * c))] += seen(c, x, y, z);
          }
    for (const Complex& v : sum) {
      call.fold_re.push_back(float(v.real()));
      call.fold_im.push_back(float(v.imag()));
    }
    return call;
  }
};

double worst(const Image& got, const Image& want) {
  double error = 0, largest = 0;
  for (std::size_t i = 0; i < want.size(); ++i) {
    error = std::max(error, std::abs(got[i] - want[i]));
    largest = std::max(largest, std::abs(want[i]));
  }
  return error / largest;
}

/// Centred discrete Fourier transform of n samples (sign -1) or its inverse, unscaled (+1).
Eigen::MatrixXcd centred_dft(int n, int sign) {
  Eigen::MatrixXcd F(n, n);
  for (int k = 0; k < n; ++k)
    for (int i = 0; i < n; ++i)
      F(k, i) = std::polar(1.0, sign * 2 * kPi * (k - n / 2) * (i - n / 2) / n);
  return F;
}

}  // namespace

TEST_CASE("A phantom folded by the sampling model comes back", "[sense_recon]") {
  struct Case {
    int ny, nz, fy, fz, my, mz;
    double tolerance;
  };
  for (const Case& c : {
           Case{48, 1, 24, 1, 48, 1, 1e-6}, Case{48, 1, 16, 1, 48, 1, 1e-6},
           Case{48, 1, 12, 1, 48, 1, 1e-6}, Case{48, 8, 24, 4, 48, 8, 1e-6},
           Case{50, 1, 20, 1, 50, 1, 1e-6},  // 2.5
           Case{48, 1, 48, 1, 48, 1, 1e-6},
           Case{96, 1, 48, 1, 48, 1, 4e-2},  // maps at half resolution
       }) {
    CAPTURE(c.ny, c.fy, c.fz, c.my);
    Phantom phantom(9, c.ny, c.nz, 12);
    if (c.my < c.ny) phantom.turns = 0;  // coarse maps need smooth coils
    Call call = phantom.folded(c.fy, c.fz, c.my, c.mz);
    CHECK(worst(call.image(), phantom.truth) < c.tolerance);
  }
}

TEST_CASE("Keeping every R-th line of k-space folds as the model says", "[sense_recon]") {
  struct Case {
    int full, fold;
  };
  for (const Case& c : {Case{48, 24}, Case{48, 16}, Case{48, 12}, Case{40, 10}}) {
    CAPTURE(c.full, c.fold);
    const int R = c.full / c.fold;
    const Phantom phantom(1, c.full, 1, 1);
    const Call model = phantom.folded(c.fold, 1, c.full, 1);
    Eigen::VectorXcd image(c.full), kept(c.fold);
    for (int y = 0; y < c.full; ++y) image[y] = phantom.seen(0, 0, y, 0);
    const Eigen::VectorXcd k = centred_dft(c.full, -1) * image;
    // Kept lines count from the centre, so that the folded k-space has it at its own centre.
    for (int i = 0; i < c.fold; ++i) kept[i] = k[c.full / 2 + R * (i - c.fold / 2)];
    const Eigen::VectorXcd folded = centred_dft(c.fold, 1) * kept / c.fold;
    for (int f = 0; f < c.fold; ++f) {
      CHECK(std::abs(folded[f] - Complex(model.fold_re[f], model.fold_im[f])) < 1e-6);
    }
  }
}

TEST_CASE("Locations and outer dimensions find their maps, data and outputs", "[sense_recon]") {
  // Extents 4..6 and 8.. merge on both sides of the location; every volume equals its own call.
  const Phantom phantom(5, 8, 1, 4);
  const int middle = 2, locations = 3, outer = 2;
  Call one = phantom.folded(4, 1, 8, 1), all = one;
  all.fold = {5, 4, 1, 4, 1, middle, 1, locations, outer};
  all.out = {5, 8, 1, 1, 1, middle, 1, locations, outer};
  Random random(3);
  CAPTURE(run_seed());
  const std::size_t n = one.fold_re.size(), maps = one.sens_re.size(), volumes = 12;
  all.fold_re = random.reals(n * volumes);
  all.fold_im = random.reals(n * volumes);
  all.sens_re = random.reals(maps * locations);
  all.sens_im = random.reals(maps * locations);
  const Image got = all.image();
  for (std::size_t v = 0; v < volumes; ++v) {
    CAPTURE(v);
    const std::size_t l = v / middle % locations;
    auto part = [](const std::vector<float>& from, std::size_t at, std::size_t count) {
      return std::vector<float>(from.begin() + at * count, from.begin() + (at + 1) * count);
    };
    one.fold_re = part(all.fold_re, v, n);
    one.fold_im = part(all.fold_im, v, n);
    one.sens_re = part(all.sens_re, l, maps);
    one.sens_im = part(all.sens_im, l, maps);
    const Image want = one.image();
    CHECK(std::equal(want.begin(), want.end(), got.begin() + v * want.size()));
  }
}

TEST_CASE("Covariance and regularisation enter as in the normal equations", "[sense_recon]") {
  const Phantom phantom(3, 8, 1, 4);
  Call call = phantom.folded(4, 1, 8, 1);
  Random random(4);
  CAPTURE(run_seed());
  Eigen::MatrixXcd psi = Eigen::MatrixXcd::Identity(4, 4) * 2.0;
  for (int i = 0; i < 4; ++i) psi(i, (i + 1) % 4) += 0.5, psi((i + 1) % 4, i) += 0.5;
  psi(0, 2) = Complex(0, 0.3), psi(2, 0) = Complex(0, -0.3);
  for (const Complex& p : psi.reshaped()) {
    call.psi_re.push_back(float(p.real()));
    call.psi_im.push_back(float(p.imag()));
  }
  call.ref = random.reals(24, 0.5f, 1);
  call.ref_dims = {3, 8};
  call.reg = random.reals(24, -1, 1);
  call.reg_dims = {3, 8, 1};
  call.scale = 1.5;
  for (bool regularised : {true, false}) {
    CAPTURE(regularised);
    if (!regularised) call.ref.clear();  // one of the two is not enough
    double fold2 = 0, ref2 = 0;
    for (std::size_t i = 0; i < call.fold_re.size(); ++i) {
      fold2 += std::pow(call.fold_re[i], 2) + std::pow(call.fold_im[i], 2);
    }
    for (float v : call.ref) ref2 += v * v;
    const double lambda = fold2 / call.fold_re.size() / std::pow(1.5, 2) / (ref2 / 24) / 2;
    const Image got = call.image();
    for (int x = 0; x < 3; ++x) {
      for (int y = 0; y < 4; ++y) {
        const int lines[] = {y + 2, (y + 6) % 8};
        Eigen::MatrixXcd S(4, 2), Rd = Eigen::MatrixXcd::Zero(2, 2);
        Eigen::VectorXcd v(4);
        for (int c = 0; c < 4; ++c) {
          v[c] = Complex(call.fold_re[x + 3 * (y + 4 * c)], call.fold_im[x + 3 * (y + 4 * c)]);
          for (int k = 0; k < 2; ++k) {
            const int at = x + 3 * (lines[k] + 8 * c);
            S(c, k) = Complex(call.sens_re[at], call.sens_im[at]);
          }
        }
        for (int k = 0; k < 2 && regularised; ++k) {
          Rd(k, k) = 1 / (std::pow(call.reg[x + 3 * lines[k]], 2) * lambda);
        }
        const Eigen::MatrixXcd W = S.adjoint() * psi.cast<Complex>().inverse();
        const Eigen::VectorXcd want = (W * S + Rd).fullPivLu().solve(W * v);
        for (int k = 0; k < 2; ++k) {
          CHECK(std::abs(got[x + 3 * lines[k]] - want[k]) < 1e-6 * (1 + std::abs(want[k])));
        }
      }
    }
  }
}

TEST_CASE("Data of two dimensions have a reduction of 1 along z", "[sense_recon]") {
  // With two slices named all the same, the second has no slot and stays as it was.
  const Phantom phantom(3, 8, 1, 4);
  Call call = phantom.folded(4, 1, 8, 1);
  call.fold = {3, 4};  // one coil
  call.sens[3] = 1;
  call.psi_dims[0] = call.psi_dims[1] = 1;
  call.out = {3, 8, 2};
  for (int slices : {1, 2, 5}) {
    call.full[2] = slices;
    Guarded<float> re(24, 0.0f), im(24, 0.0f);  // outdims are read as far as fold_ndims goes
    CHECK(call.run(re.data(), im.data()) == 1);
    CHECK((re.intact() && im.intact()));
  }
}

TEST_CASE("Extents that cannot be are refused before memory is touched", "[sense_recon]") {
  const Call good = Phantom(2, 4, 1, 2).folded(2, 1, 4, 1);
  auto refused = [&](auto change) {
    Call call = good;
    change(call);
    call.out.resize(call.fold.size(), 1);
    return call.run(nullptr, nullptr) == -1;
  };
  CHECK(refused([](Call& c) { c.fold = {70000, 70000, 1, 2}; }));
  CHECK(refused([](Call& c) { c.fold = {2, 2, 1, 2, 50000, 50000}; }));
  CHECK(refused([](Call& c) { c.sens = {70000, 70000, 1, 2}; }));
  CHECK(refused([](Call& c) { c.full = {70000, 70000, 1}; }));
  CHECK(refused([](Call& c) { c.out = {70000, 70000, 1, 1}; }));
  CHECK(refused([](Call& c) { c.fold[1] = -2; }));
  CHECK(refused([](Call& c) { c.psi_dims[0] = c.psi_dims[1] = 70000; }));
  CHECK(refused([](Call& c) { c.psi_dims[0] = 1; }));                          // not coils x coils
  CHECK(refused([](Call& c) { c.full = {1, 2147483647, 1}; }));                // aliases x coils
  CHECK(refused([](Call& c) { c.fold = {2, 0, 0, 2}, c.full = {2, 0, 0}; }));  // reduction 0 / 0
  Call none = good;
  none.fold = {2, 2, 1, 2, 1, 1, 1, 0};  // no location: nothing to do
  none.out = {2, 4, 1, 1, 1, 1, 1, 0};
  CHECK(none.run(nullptr, nullptr) == 1);
}

TEST_CASE("An output smaller than its volumes is not overrun", "[sense_recon]") {
  Call call = Phantom(2, 4, 1, 2).folded(2, 1, 4, 1);
  call.out = {2, 3, 1, 1};
  call.image();
}

// BART solves the same least squares from undersampled k-space.
TEST_CASE("BART's parallel imaging gives the same images", "[sense_recon]") {
  if (std::system("command -v bart >/dev/null 2>&1") != 0) {
    WARN("skipped: bart is not installed");
    return;
  }
  auto write = [](const std::string& name, const std::vector<int>& dims, const Image& data) {
    std::ofstream header(name + ".hdr"), out(name + ".cfl", std::ios::binary);
    header << "# Dimensions\n";
    for (int d : dims) header << d << ' ';
    header << '\n';
    for (const Complex& z : data) {
      const float pair[] = {float(z.real()), float(z.imag())};
      out.write(reinterpret_cast<const char*>(pair), sizeof pair);
    }
  };
  const int nx = 16, ny = 48, nc = 8;
  const Phantom phantom(nx, ny, 1, nc);
  const Eigen::MatrixXcd Fx = centred_dft(nx, -1), Fy = centred_dft(ny, -1);
  for (int R : {2, 3, 4}) {
    CAPTURE(R);
    Call call = phantom.folded(ny / R, 1, ny, 1);
    Image k(nx * ny * nc), pattern(nx * ny), maps;
    for (std::size_t i = 0; i < call.sens_re.size(); ++i) {
      maps.emplace_back(call.sens_re[i], call.sens_im[i]);
    }
    for (int y = ny / 2 % R; y < ny; y += R) std::fill_n(pattern.begin() + nx * y, nx, 1.0);
    for (int c = 0; c < nc; ++c) {
      Eigen::MatrixXcd image(nx, ny);
      for (int y = 0; y < ny; ++y)
        for (int x = 0; x < nx; ++x) image(x, y) = phantom.seen(c, x, y, 0);
      const Eigen::MatrixXcd t = Fx * image * Fy.transpose() / std::sqrt(double(nx * ny));
      for (int y = 0; y < ny; ++y)
        for (int x = 0; x < nx; ++x) k[x + nx * (y + ny * c)] = t(x, y) * pattern[x + nx * y];
    }
    write("bart_k", {nx, ny, 1, nc}, k);
    write("bart_maps", {nx, ny, 1, nc}, maps);
    write("bart_pattern", {nx, ny, 1, 1}, pattern);
    REQUIRE(std::system("bart pics -S -w 1 -l2 -r 0 -i 100 -p bart_pattern bart_k bart_maps "
                        "bart_image >/dev/null 2>&1") == 0);
    std::ifstream in("bart_image.cfl", std::ios::binary);
    Image theirs;
    for (float pair[2]; in.read(reinterpret_cast<char*>(pair), sizeof pair);) {
      theirs.emplace_back(pair[0], pair[1]);
    }
    REQUIRE(theirs.size() == phantom.truth.size());
    CHECK(worst(call.image(), theirs) < 5e-6);
    for (const char* name : {"bart_k", "bart_maps", "bart_pattern", "bart_image"}) {
      for (const char* end : {".hdr", ".cfl"}) std::remove((std::string(name) + end).c_str());
    }
  }
}
