// The driver, and the physics: phantoms folded by the sampling model come back.

#include <cmath>
#include <complex>

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

TEST_CASE("Extents that cannot be are refused before memory is touched", "[sense_recon]") {
  const Call good = Phantom(2, 4, 1, 2).folded(2, 1, 4, 1);
  auto refused = [&](auto change) {
    Call call = good;
    change(call);
    return call.run(nullptr, nullptr) == -1;
  };
  CHECK(refused([](Call& c) { c.psi_dims[0] = 1; }));                          // not coils x coils
  CHECK(refused([](Call& c) { c.full = {1, 2147483647, 1}; }));                // aliases x coils
  CHECK(refused([](Call& c) { c.fold = {2, 0, 0, 2}, c.full = {2, 0, 0}; }));  // reduction 0 / 0
  Call none = good;
  none.fold = {2, 2, 1, 2, 1, 1, 1, 0};  // no location: nothing to do
  none.out = {2, 4, 1, 1, 1, 1, 1, 0};
  CHECK(none.run(nullptr, nullptr) == 1);
}
