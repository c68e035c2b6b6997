// SENSE: factors, unfolding and the whole reconstruction. Limit: multiplications and additions in
// double precision that the laid-down sums take, with interpolation blended row by row, or writing
// or reading of the factors.

#include <omp.h>

#include "cTessel.h"
#include "ctessel.hpp"
#include "naive_sense.h"
#include "routine.h"

namespace bench {

namespace {

struct Scene {
  explicit Scene(const Setting& s) : maps(4), folded(4), full(3), dims(4) {
    maps << (s.coarse ? s.nx / 2 : s.nx), s.ny, s.nz, s.coils;
    full << s.nx, s.ny, s.nz;
    folded << s.nx, static_cast<int>(s.ny / s.ry), static_cast<int>(s.nz / s.rz), s.coils;
    R << 1, static_cast<float>(full[1]) / static_cast<float>(folded[1]),
        static_cast<float>(full[2]) / static_cast<float>(folded[2]);
    aliases = static_cast<int>(std::ceil(R[1])) * static_cast<int>(std::ceil(R[2]));
    dims << maps[0], static_cast<int>(std::ceil(static_cast<float>(s.ny) / R[1])),
        static_cast<int>(std::ceil(static_cast<float>(s.nz) / R[2])), aliases * s.coils;
    re = values(maps.cast<double>().prod(), 1);
    im = values(maps.cast<double>().prod(), 2);
    psi = Eigen::MatrixXcd::Identity(s.coils, s.coils);
    if (s.option) psi.array() += std::complex<double>(0.2, 0);
    factors = Eigen::VectorXcd::Zero(dims.prod());
    plain = factors;
  }
  double volume() const { return full.cast<double>().prod(); }
  double bytes() const { return 16.0 * static_cast<double>(factors.size()); }

  template <class Routine>
  void find_factors(const Routine& routine, Eigen::VectorXcd& out) {
    for (float* e : {edges_y, edges_z}) e[0] = e[1] = -1;
    routine(re.data(), im.data(), maps, psi, R, 0.0, reference, out, folded, full, edges_y,
            edges_z);
  }
  void find_factors() { find_factors(get_combination_factors, factors); }
  void find_plain_factors() {
    find_factors([](auto&&... a) { naive::get_combination_factors(a...); }, plain);
  }

  Eigen::VectorXi maps, folded, full, dims;
  Eigen::Vector3f R;
  Eigen::MatrixXcd psi;
  Eigen::VectorXcd factors, plain;
  Eigen::VectorXf reference;
  Floats re, im;
  int aliases;
  float edges_y[2], edges_z[2];
};

double factor_work(const Scene& s, bool correlated) {
  const double n = s.aliases, nc = s.maps[3], rows = s.maps[2] > 1 ? 4 : 2;
  const double each =
      2 * rows * n * nc + (correlated ? 4 * n * nc * nc : 0) + 8 * n * n * nc + 6 * n * n * n;
  return each * s.dims.head(3).cast<double>().prod();
}

double unfold_work(const Scene& s) {
  const double n = s.aliases, nc = s.maps[3];
  // Blending of complex factors between slices, rows and columns, and products in half the width.
  const double each = (s.maps[2] > 1 ? 14 : 10) * n * nc;
  return each * s.folded.head(3).cast<double>().prod();
}

/// Bytes that a thread keeps for up to 256 columns.
double factor_memory(const Scene& s) {
  const double n = s.aliases, nc = s.maps[3], columns = std::min(s.maps[0], 256) + 16;
  return (8 * n * nc + 5 * n + 40) * columns + 64 * (6 * n * nc + 4 * n * n) + 16 * nc * nc;
}

Case factors(const Setting& setting) {
  const auto s = std::make_shared<Scene>(setting);
  Case c;
  c.kernel = [=] { s->find_factors(); };
  c.naive = [=] { s->find_plain_factors(); };
  c.limits = {{Kind::kDouble, factor_work(*s, setting.option)}, {Kind::kWrite, s->bytes()}};
  c.documented = factor_memory(*s);
  c.difference = [=] { return difference(s->factors, s->plain); };
  c.tolerance = 1e-9;
  return c;
}

/// Folded volumes and what becomes of them.
struct Series : Scene {
  explicit Series(const Setting& s)
      : Scene(s),
        fold_re(values(folded.cast<double>().prod() * s.volumes, 3)),
        fold_im(values(folded.cast<double>().prod() * s.volumes, 4)),
        out_re(static_cast<std::size_t>(volume() * s.volumes)),
        out_im(out_re),
        plain_re(out_re),
        plain_im(out_re),
        volumes(s.volumes) {}
  void unfold_plainly(const Eigen::VectorXcd& by, int v) {
    const auto in = static_cast<std::size_t>(folded.prod()) * static_cast<std::size_t>(v);
    const auto out = static_cast<std::size_t>(full.prod()) * static_cast<std::size_t>(v);
    naive::unfold(&fold_re[in], &fold_im[in], folded, by, dims, full, edges_y, edges_z,
                  &plain_re[out], &plain_im[out]);
  }
  double difference() const {
    return std::fmax(bench::difference(out_re, plain_re), bench::difference(out_im, plain_im));
  }
  Floats fold_re, fold_im, out_re, out_im, plain_re, plain_im;
  int volumes;
};

Case unfolding(const Setting& setting) {
  const auto s = std::make_shared<Series>(setting);
  s->find_factors();
  Case c;
  c.kernel = [=] {
    unfold(s->fold_re.data(), s->fold_im.data(), s->folded, s->factors, s->dims, s->maps, s->full,
           s->edges_y, s->edges_z, s->out_re.data(), s->out_im.data());
  };
  c.naive = [=] { s->unfold_plainly(s->factors, 0); };
  c.limits = {{Kind::kDouble, unfold_work(*s)}, {Kind::kRead, s->bytes()}};
  c.documented = 1.5 * (1 << 20);
  c.difference = [=] { return s->difference(); };
  c.tolerance = 1e-5;
  return c;
}

Case recon(const Setting& setting) {
  const auto s = std::make_shared<Series>(setting);
  Case c;
  c.kernel = [=] {
    int fold[] = {s->folded[0], s->folded[1], s->folded[2], s->folded[3], s->volumes};
    int out[] = {s->full[0], s->full[1], s->full[2], 1, s->volumes};
    int psi[] = {s->folded[3], s->folded[3]};
    TS_sense_recon(s->fold_re.data(), s->fold_im.data(), 5, fold, s->re.data(), s->im.data(), 4,
                   s->maps.data(), nullptr, nullptr, 2, psi, s->full.data(), nullptr, nullptr, 0,
                   nullptr, nullptr, nullptr, 0, nullptr, 1.0, s->out_re.data(), s->out_im.data(),
                   out);
  };
  c.naive = [=] {
    s->find_plain_factors();
    for (int v = 0; v < s->volumes; ++v) s->unfold_plainly(s->plain, v);
  };
  c.limits = {{Kind::kDouble, factor_work(*s, false) + s->volumes * unfold_work(*s)},
              {Kind::kRead, s->volumes * s->bytes()}};
  c.documented = 1.3 * (1 << 20);
  c.difference = [=] { return s->difference(); };
  c.tolerance = 1e-5;
  return c;
}

/// Factors, image, and images of noise. Naively a unit of noise of every coil is unfolded.
struct NoiseScene : Series {
  explicit NoiseScene(const Setting& s)
      : Series(s), g(static_cast<std::size_t>(volume())), sd(g), condition(g), plain(g) {
    if (s.option) {
      for (const std::complex<double>& p : psi.reshaped()) {
        psi_re.push_back(static_cast<float>(p.real()));
        psi_im.push_back(static_cast<float>(p.imag()));
      }
    }
    mask.assign(static_cast<std::size_t>(volume()), 1.0f);
  }
  void unfold(bool with_noise) {
    const ctessel::Extents image = {full[0], full[1], full[2]};
    ctessel::SenseOptions options;
    options.mask = ctessel::Samples::parts(mask.data(), nullptr, image);
    if (!psi_re.empty()) {
      options.covariance =
          ctessel::Samples::parts(psi_re.data(), psi_im.data(), {maps[3], maps[3]});
    }
    if (with_noise) {
      options.g = ctessel::Samples::parts(g.data(), nullptr, image);
      options.sd = ctessel::Samples::parts(sd.data(), nullptr, image);
      options.condition = ctessel::Samples::parts(condition.data(), nullptr, image);
    }
    ctessel::sense(view(fold_re, fold_im, folded), view(re, im, maps), {full[0], full[1], full[2]},
                   ctessel::Samples::parts(out_re.data(), out_im.data(), image), options);
  }
  void unfold_units() {
    find_plain_factors();
    std::ranges::fill(fold_im, 0.0f);
    std::ranges::fill(plain, 0.0f);
    const auto samples = static_cast<std::size_t>(folded.head(3).prod());
    Eigen::MatrixXcd u(plain.size(), maps[3]);
    for (int c = 0; c < maps[3]; ++c) {
      std::ranges::fill(fold_re, 0.0f);
      std::fill_n(fold_re.data() + samples * static_cast<std::size_t>(c), samples, 1.0f);
      unfold_plainly(Scene::plain, 0);
      for (std::size_t i = 0; i < plain.size(); ++i)
        u(static_cast<Eigen::Index>(i), c) = {plain_re[i], plain_im[i]};
    }
    const Eigen::MatrixXcd weighted = u * psi;
    for (Eigen::Index i = 0; i < u.rows(); ++i) {
      plain[static_cast<std::size_t>(i)] =
          static_cast<float>(std::sqrt(weighted.row(i).dot(u.row(i)).real()));
    }
  }
  static ctessel::ConstSamples view(const Floats& a, const Floats& b, const Eigen::VectorXi& n) {
    return ctessel::ConstSamples::parts(a.data(), b.data(), {n[0], n[1], n[2], n[3]});
  }
  Floats g, sd, condition, plain, mask, psi_re, psi_im;
};

Case noise(const Setting& setting) {
  const auto s = std::make_shared<NoiseScene>(setting);
  Case c;
  c.kernel = [=] { s->unfold(true); };
  c.without = [=] { s->unfold(false); };
  c.part = [=] { s->find_factors(); };
  c.naive = [=] { s->unfold_units(); };
  c.limits = {{Kind::kDouble, factor_work(*s, setting.option) + unfold_work(*s)}};
  c.documented = 1.3 * (1 << 20);
  c.difference = [=] { return difference(s->sd, s->plain); };
  c.tolerance = 1e-4;
  return c;
}

/// Number of aliases, over two axes from four on.
Sweep alias_sweep(const Setting& setting) {
  return sweep(
      "aliases", setting, {1, 2, 3, 4, 6, 9},
      [](Setting& s, int n) {
        s.rz = n == 4 ? 2 : n > 4 ? 3 : 1;
        s.ry = n / s.rz;
      },
      [](const Setting& s) { return s.ry * s.rz; });
}

Setting with(Setting s, double ry, double rz, bool option = false) {
  s.ry = ry;
  s.rz = rz;
  s.option = option;
  return s;
}

}  // namespace

std::vector<Routine> sense_routines() {
  const Setting slice{192, 192, 1, 16}, volume{96, 64, 32, 32};
  Setting interpolated{192, 96, 32, 32, 1, 2, 2};
  interpolated.coarse = true;
  const std::vector<Sweep> sweeps = {size_sweep({0, 0, 1, 8}), coil_sweep({48, 48, 1}),
                                     alias_sweep({36, 36, 36, 16}),
                                     thread_sweep(slice, omp_get_num_procs())};
  const std::vector<Row> volumes = {{"2-D, 16 coils, R = 2", slice},
                                    {"3-D, 32 coils, R = 2 x 2", with(volume, 2, 2)}};
  std::vector<Row> noises = volumes;
  noises.push_back({"the same, correlated noise", with(volume, 2, 2, true)});
  const Row few = {"2-D, 8 coils, R = 2", {192, 192, 1, 8}};
  std::vector<Row> with_noise = noises;
  with_noise.push_back(few);
  const std::vector<Row> whole = {
      few,
      {"2-D, 16 coils, R = 2.5, 8 volumes", with({256, 256, 1, 16, 8}, 2.5, 1)},
      {"3-D, 32 coils, R = 2 x 2, maps half as fine along x", interpolated},
      {"dynamic, 8 coils, R = 2.5, 40 volumes", with({128, 128, 1, 8, 40}, 2.5, 1)}};
  return {{"get_combination_factors", factors, noises, sweeps},
          {"unfold", unfolding, volumes, sweeps},
          {"TS_sense_recon", recon, whole, sweeps},
          {"ctessel::sense with noise", noise, with_noise, {}}};
}

}  // namespace bench
