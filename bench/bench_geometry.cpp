// Geometry correction and spherical harmonics. Limit: multiplications and additions of the sums, or
// writing of the table.

#include <omp.h>

#include <random>

#include "cTessel.h"
#include "ctessel.hpp"
#include "naive_geometry.h"
#include "routine.h"

namespace bench {

namespace {

struct Coefficients {
  float y[14][12] = {}, x[14][12] = {}, z[17][1] = {};
  Coefficients() {
    std::mt19937 engine(2);
    std::uniform_real_distribution<float> small(-1e-3f, 1e-3f);
    for (int m = 1; m < 12; ++m)
      for (int n = m; n < 14; ++n) {
        x[n][m] = small(engine);
        y[n][m] = small(engine);
      }
    for (int n = 1; n < 17; ++n) z[n][0] = small(engine);
    x[1][1] = y[1][1] = z[1][0] = 1;
  }
};

struct Points {
  Floats x, y, z;
  explicit Points(std::size_t n) : x(n), y(n), z(n) {}
  double difference(const Points& p) const {
    return std::fmax(bench::difference(x, p.x),
                     std::fmax(bench::difference(y, p.y), bench::difference(z, p.z)));
  }
};

/// Points within 500 mm, on a regular grid or, with the option, at random places.
Points cube(const Setting& s) {
  Points p(static_cast<std::size_t>(s.n));
  const int side = std::max(1, static_cast<int>(std::cbrt(s.n) + 0.5));
  std::mt19937 engine(1);
  std::uniform_real_distribution<float> anywhere(-250, 250);
  const auto at = [&](int i) {
    return s.option ? anywhere(engine)
                    : 500 * (static_cast<float>(i) + 0.5f) / static_cast<float>(side) - 250;
  };
  for (int k = 0; k < s.n; ++k) {
    const auto i = static_cast<std::size_t>(k);
    p.x[i] = at(k % side);
    p.y[i] = at(k / side % side);
    p.z[i] = at(k / side / side);
  }
  return p;
}

Case geometry_correction(const Setting& s) {
  struct Data {
    Points p, out, plain;
    Coefficients c;
  };
  const std::size_t n = static_cast<std::size_t>(s.n);
  const auto d = std::make_shared<Data>(Data{cube(s), Points(n), Points(n), {}});
  const auto run = [d, n = s.n](const auto& routine, Points& out) {
    routine(d->p.x.data(), d->p.y.data(), d->p.z.data(), out.x.data(), out.y.data(), out.z.data(),
            n, d->c.y, d->c.x, d->c.z, 250.0f);
  };
  Case c;
  c.kernel = [=] { run(TS_geometry_correction, d->out); };
  c.naive = [=] { run([](auto... a) { naive::geometry_correction(a...); }, d->plain); };
  // Per point 88 terms of three products and two sums, and 16 of two products and a sum.
  c.limits = {{Kind::kSingle, s.n * (88 * 3.0 + 16 * 2.0)}};
  c.documented = s.n >= 20000 ? 4.0 * 9001 * 104 : 0;
  c.difference = [=] { return d->out.difference(d->plain); };
  return c;
}

/// The same terms in double, with or without the Jacobian; the table path stands in for a naive one.
Case gradient_field(const Setting& s) {
  struct Data {
    Points p, plain;
    Coefficients c;
    std::vector<double> at, position, jacobian;
    std::shared_ptr<ctessel::GradientField> field;
  };
  const std::size_t n = static_cast<std::size_t>(s.n);
  const auto d = std::make_shared<Data>(Data{cube(s), Points(n), {}, {}, {}, {}, {}});
  std::vector<ctessel::GradientTerm> terms;
  for (int order = 1; order < 17; ++order) {
    terms.push_back({ctessel::Dim::z, false, order, 0, d->c.z[order][0]});
    for (int m = 1; order < 14 && m <= std::min(order, 11); ++m) {
      terms.push_back({ctessel::Dim::x, false, order, m, d->c.x[order][m]});
      terms.push_back({ctessel::Dim::y, true, order, m, d->c.y[order][m]});
    }
  }
  d->field = std::make_shared<ctessel::GradientField>(terms, 250);
  for (std::size_t i = 0; i < n; ++i) {
    for (float v : {d->p.x[i], d->p.y[i], d->p.z[i]}) d->at.push_back(v);
  }
  d->position.resize(3 * n);
  if (s.option) d->jacobian.resize(9 * n);
  Case c;
  c.kernel = [=, points = static_cast<std::ptrdiff_t>(n)] {
    d->field->evaluate(
        ctessel::FieldPoints::list(d->at.data(), points),
        {d->position.data(), nullptr, d->jacobian.empty() ? nullptr : d->jacobian.data()});
  };
  c.naive = [=] {
    TS_geometry_correction(d->p.x.data(), d->p.y.data(), d->p.z.data(), d->plain.x.data(),
                           d->plain.y.data(), d->plain.z.data(), static_cast<int>(n), d->c.y,
                           d->c.x, d->c.z, 250);
  };
  // Per entry of a row two products that are added, per term of a series one, with slopes three.
  c.limits = {{Kind::kDouble, s.n * (104 * 2.0 + 192 * (s.option ? 3.0 : 1.0))}};
  c.difference = [=] {
    std::vector<double> x(n);
    for (std::size_t i = 0; i < n; ++i) x[i] = d->position[3 * i];
    return difference(x, d->plain.x);
  };
  c.tolerance = 1e-2;  // the table's values are steps
  return c;
}

Case legendre_table(const Setting& s) {
  const std::size_t size = static_cast<std::size_t>(s.n) * 12 * 17;
  const auto table = std::make_shared<Floats>(size), plain = std::make_shared<Floats>(size);
  Case c;
  c.kernel = [=, n = s.n] { create_plgndr_lookup(17, 12, n, table->data()); };
  c.naive = [=, n = s.n] { naive::create_plgndr_lookup(17, 12, n, plain->data()); };
  c.limits = {{Kind::kDouble, 3.0 * static_cast<double>(size)},
              {Kind::kWrite, 4.0 * static_cast<double>(size)}};
  c.documented = 4 * 17 * 32;
  c.difference = [=] { return difference(*table, *plain); };
  return c;
}

/// A routine that makes one number from one of 1000 sets of arguments.
template <class Ours, class Plain>
Case one_by_one(const Setting&, const Ours& ours, const Plain& plain) {
  struct Data {
    Floats in = values(1002, 3);
    std::vector<double> out = std::vector<double>(1000), plain = out;
  };
  const auto d = std::make_shared<Data>();
  Case c;
  c.kernel = [=] {
    for (std::size_t i = 0; i < 1000; ++i) d->out[i] = ours(&d->in[i]);
  };
  c.naive = [=] {
    for (std::size_t i = 0; i < 1000; ++i) d->plain[i] = call_uninlined(plain, &d->in[i]);
  };
  c.difference = [=] { return difference(d->out, d->plain); };
  return c;
}

Case legendre(const Setting& s) {
  return one_by_one(
      s, [l = s.n](const float* v) { return plgndr(l, 5, v[0] - 1); },
      [l = s.n](const float* v) { return naive::plgndr(l, 5, v[0] - 1); });
}

Case polar(const Setting& s) {
  return one_by_one(
      s,
      [](const float* v) {
        float out[3];
        getRadiusThetaPhi(v[0] - 1, v[1] - 1, v[2] - 1, out);
        return static_cast<double>(out[0] + out[1] + out[2]);
      },
      [](const float* v) {
        const naive::Polar p = naive::polar(v[0] - 1, v[1] - 1, v[2] - 1);
        return static_cast<double>(p.r + p.theta + p.phi);
      });
}

Case radial(const Setting& s) {
  return one_by_one(
      s, [n = s.n](const float* v) { return static_cast<double>(radialFactor(v[0], 1.5f, n)); },
      [n = s.n](const float* v) { return static_cast<double>(naive::power(v[0] / 1.5f, n)); });
}

template <bool Sine>
Case term(const Setting& s) {
  const int n = s.n, m = s.n - 8;
  return one_by_one(
      s,
      [=](const float* v) {
        return static_cast<double>((Sine ? funcYS : funcYC)(n, m, v[0], v[1], 1.5f, v[2]));
      },
      [=](const float* v) {
        const float angle = static_cast<float>(m) * v[1];
        const float wave = Sine ? std::sin(angle) : std::cos(angle);
        return static_cast<double>(wave * (naive::power(v[0] / 1.5f, n) * v[2]));
      });
}

Case realign(const Setting&) {
  struct Data {
    Coefficients c;
    Floats ours = Floats(192), plain = ours;
  };
  const auto d = std::make_shared<Data>();
  Case c;
  c.kernel = [=] {
    float* out = d->ours.data();
    realign_corr_coeffs(out, out + 88, out + 176, 12, 14, 17, d->c.x, d->c.y, d->c.z);
  };
  c.naive = [=] {
    std::size_t k = 0;
    for (std::size_t m = 1; m < 12; ++m)
      for (std::size_t n = m; n < 14; ++n, ++k) {
        d->plain[k] = d->c.x[n][m];
        d->plain[88 + k] = d->c.y[n][m];
      }
    for (std::size_t n = 1; n < 17; ++n) d->plain[175 + n] = d->c.z[n][0];
  };
  c.difference = [=] { return difference(d->ours, d->plain); };
  return c;
}

}  // namespace

std::vector<Routine> geometry_routines() {
  Setting grid, anywhere, table, degree, slopes;
  grid.n = anywhere.n = slopes.n = 1000000;
  slopes.option = true;
  anywhere.option = true;
  table.n = 10000;
  degree.n = 13;
  const std::vector<int> points = {100, 1000, 10000, 19999, 30000, 100000, 300000, 1000000};
  return {{"TS_geometry_correction",
           geometry_correction,
           {{"10^6 points, grid", grid}, {"10^6 points, random", anywhere}},
           {length_sweep({}, points), thread_sweep(anywhere, omp_get_num_procs())}},
          {"GradientField",
           gradient_field,
           {{"10^6 points, positions", grid}, {"10^6 points, with Jacobian", slopes}},
           {length_sweep({}, {1, 100, 10000, 1000000}), thread_sweep(slopes, omp_get_num_procs())}},
          {"create_plgndr_lookup",
           legendre_table,
           {{"17 x 12, 10^4 samples", table}},
           {length_sweep({}, {100, 1000, 10000, 100000})}},
          {"plgndr", legendre, {{"l = 13, m = 5", degree}}, {length_sweep({}, {5, 50, 500, 5000})}},
          {"getRadiusThetaPhi", polar, {{"all octants", {}}}, {}},
          {"radialFactor", radial, {{"power 13", degree}}, {length_sweep({}, {1, 10, 100, 1000})}},
          {"funcYS", term<true>, {{"order 13, degree 5", degree}}, {}},
          {"funcYC", term<false>, {{"order 13, degree 5", degree}}, {}},
          {"realign_corr_coeffs", realign, {{"the tables of a correction", {}}}, {}}};
}

}  // namespace bench
