// The field of non-linear gradients against explicit polynomials in extended precision.
#include <cmath>
#include <limits>

#include "ctessel.hpp"
#include "support.h"

namespace {

using ctessel::Dim;
using ctessel::FieldPoints;
using ctessel::GradientField;
using ctessel::GradientTerm;

using Doubles = std::vector<double>;
using Terms = std::vector<GradientTerm>;

#ifdef __SIZEOF_FLOAT128__
using Wide = __float128;
#else
using Wide = long double;
#endif

constexpr double kRadius = 250;
const Terms kLinear = {
    {Dim::x, false, 1, 1, 2}, {Dim::y, true, 1, 1, -1}, {Dim::z, false, 1, 0, 5}};

double factorial(int n) { return n < 2 ? 1 : n * factorial(n - 1); }

/// Factor that brings a function of order n and degree m to about 1 on the unit sphere.
double norm(int n, int m) {
  return std::sqrt((2 * n + 1) / 2.0 * factorial(n - m) / factorial(n + m));
}

/// Every cosine and sine term of every axis up to an order, each of about `size` mm at the radius.
Terms dense(Random& random, int highest, double size) {
  Terms terms = kLinear;
  for (Dim axis : {Dim::x, Dim::y, Dim::z}) {
    for (int n = 1; n <= highest; ++n) {
      for (int m = 0; m <= n; ++m) {
        const double most = size / kRadius * norm(n, m);
        for (bool sine : {false, true}) {
          if (n > 1 && (m > 0 || !sine)) {
            terms.push_back({axis, sine, n, m, most * random.real()});
          }
        }
      }
    }
  }
  return terms;
}

/// d^m/dt^m P_n is a sum of these times t^(n-m-2k): Rodrigues' formula, no recurrence.
std::vector<Wide> rodrigues(int n, int m) {
  std::vector<Wide> factors;
  for (int k = 0; n - 2 * k - m >= 0; ++k) {
    Wide factor = k % 2 ? -1 : 1;
    for (int i = 1; i <= 2 * n - 2 * k; ++i) factor *= i;
    for (int i = 1; i <= k; ++i) factor /= i;
    for (int i = 1; i <= n - k; ++i) factor /= i;
    for (int i = 1; i <= n - 2 * k - m; ++i) factor /= i;
    for (int i = 0; i < n; ++i) factor /= 2;
    factors.push_back(factor);
  }
  return factors;
}

/// The same for every n and m, made once.
const std::vector<Wide>& factors_of(int n, int m) {
  static const auto all = [] {
    std::vector<std::vector<std::vector<Wide>>> table(26);
    for (int order = 0; order <= 25; ++order)
      for (int degree = 0; degree <= order; ++degree)
        table[order].push_back(rodrigues(order, degree));
    return table;
  }();
  return all[n][m];
}

std::vector<Wide> powers(Wide x, int count) {
  std::vector<Wide> p(1, 1);
  for (int i = 1; i < count; ++i) p.push_back(p.back() * x);
  return p;
}

struct Place {
  Wide at[3];
};

/// Encoded position, term by term.
Place reference(const Terms& terms, const Place& p) {
  const Wide x = p.at[0] / kRadius, y = p.at[1] / kRadius, z = p.at[2] / kRadius;
  const auto z_to = powers(z, 26), square_to = powers(x * x + y * y + z * z, 13);
  std::vector<Wide> re(1, 1), im(1, 0);  // of (x + i y)^m
  for (std::size_t m = 1; m <= 25; ++m) {
    re.push_back(re[m - 1] * x - im[m - 1] * y);
    im.push_back(re[m - 1] * y + im[m - 1] * x);
  }
  Place out = {};
  for (const GradientTerm& t : terms) {
    Wide sum = 0;
    int k = 0;
    for (Wide factor : factors_of(t.order, t.degree)) {
      sum += factor * square_to[k] * z_to[t.order - t.degree - 2 * k];
      ++k;
    }
    const int axis = static_cast<int>(t.axis);
    out.at[axis] += kRadius * t.value / Wide(kLinear[axis].value) *
                    (t.sine ? im[t.degree] : re[t.degree]) * sum;
  }
  return out;
}

/// Origin, axes, planes, points next to a pole, and random ones in the ball.
Doubles places(Random& random, int count) {
  Doubles points = {0, 0,   0, 0,  0, 250, 0, 0,  -90, 1e-9, 0, 100,
                    0, 250, 0, -3, 0, 0,   7, -8, 0,   -0.0, 0, 1e-300};
  while (static_cast<int>(points.size()) < 3 * count) {
    double p[3], square = 0;
    for (double& c : p) {
      c = random.real(-250, 250);
      square += c * c;
    }
    if (square <= kRadius * kRadius) points.insert(points.end(), p, p + 3);
  }
  return points;
}

struct Results {
  Doubles position, displacement, jacobian, determinant;
};

Results evaluate(const GradientField& field, const FieldPoints& points) {
  const auto n = static_cast<std::size_t>(points.count);
  Guarded<double> out[] = {{3 * n, 7.0}, {3 * n, 7.0}, {9 * n, 7.0}, {n, 7.0}};
  field.evaluate(points, {out[0].data(), out[1].data(), out[2].data(), out[3].data()});
  for (const auto& o : out) CHECK(o.intact());
  return {out[0].values(), out[1].values(), out[2].values(), out[3].values()};
}

Results evaluate(const GradientField& field, const Doubles& points) {
  return evaluate(field, FieldPoints::list(points.data(), static_cast<int>(points.size()) / 3));
}

struct Deviation {
  double position = 0, jacobian = 0, determinant = 0;
};

/// Largest differences to the reference, whose Jacobian is by differences of 1e-6 mm.
Deviation deviation(const Terms& terms, const Doubles& points) {
  const Results got = evaluate(GradientField(terms, kRadius), points);
  Deviation most;
  const auto note = [](double& largest, Wide difference) {
    largest = std::fmax(largest, std::abs(static_cast<double>(difference)));
  };
  for (std::size_t i = 0; i < points.size(); i += 3) {
    const Place p = {{points[i], points[i + 1], points[i + 2]}}, want = reference(terms, p);
    Wide j[3][3];
    for (int d = 0; d < 3; ++d) {
      const Wide step = 1e-6;
      Place ahead = p, behind = p;
      ahead.at[d] += step;
      behind.at[d] -= step;
      ahead = reference(terms, ahead);
      behind = reference(terms, behind);
      for (int a = 0; a < 3; ++a) {
        j[a][d] = (ahead.at[a] - behind.at[a]) / (2 * step);
        note(most.jacobian, got.jacobian[3 * i + 3 * a + d] - j[a][d]);
      }
      note(most.position, got.position[i + d] - want.at[d]);
    }
    const Wide determinant = j[0][0] * (j[1][1] * j[2][2] - j[1][2] * j[2][1]) -
                             j[0][1] * (j[1][0] * j[2][2] - j[1][2] * j[2][0]) +
                             j[0][2] * (j[1][0] * j[2][1] - j[1][1] * j[2][0]);
    note(most.determinant, got.determinant[i / 3] - determinant);
  }
  return most;
}

}  // namespace

// 16 orders of tables in use, 25 at most. The Jacobian of a term grows with its order.
TEST_CASE("Positions and Jacobians are those of explicit polynomials", "[gradient_field]") {
  Random random;
  CAPTURE(run_seed());
  const Doubles points = places(random, 70);
  for (int highest : {3, 16, 25}) {
    const Deviation most = deviation(dense(random, highest, 3), points);
    CAPTURE(highest, most.position, most.jacobian, most.determinant);
    CHECK(most.position < 1e-10);
    CHECK(most.jacobian < 1e-10);
    CHECK(most.determinant < 1e-9);
  }
}

TEST_CASE("Linear gradients move nothing, also where they are divided", "[gradient_field]") {
  Random random;
  const Doubles points = places(random, 40);
  const Results got = evaluate(GradientField(kLinear, kRadius), points);
  CHECK(got.position == points);
  CHECK(got.displacement == Doubles(points.size()));
  CHECK(got.determinant == Doubles(points.size() / 3, 1));
  const Doubles first(got.jacobian.begin(), got.jacobian.begin() + 9);
  CHECK(first == Doubles{1, 0, 0, 0, 1, 0, 0, 0, 1});
}

TEST_CASE("Neighbours, threads, outputs and lists or grids do not change a point's bits",
          "[gradient_field]") {
  Random random;
  CAPTURE(run_seed());
  const GradientField field(dense(random, 9, 3), kRadius);
  const double affine[3][4] = {{-1.5, 0.25, 0, 20}, {0.125, 2, -0.5, -31}, {0, 0.75, 3, -44}};
  const std::ptrdiff_t extents[3] = {13, 7, 5};
  const FieldPoints grid = FieldPoints::grid(extents, affine);
  Doubles list;
  for (int k = 0; k < 5; ++k)
    for (int j = 0; j < 7; ++j)
      for (int i = 0; i < 13; ++i)
        for (const auto& row : affine)
          list.push_back(row[0] * i + row[1] * j + row[2] * k + row[3]);
  const Results whole = evaluate(field, list);
  with_thread_counts([&] {
    const Results again = evaluate(field, grid);
    CHECK(differences(again.position, whole.position) == "");
    CHECK(differences(again.jacobian, whole.jacobian) == "");
    CHECK(differences(again.determinant, whole.determinant) == "");
  });
  const std::ptrdiff_t from = 3 * 217;
  const Results tail = evaluate(field, Doubles(list.begin() + from, list.end()));
  CHECK(differences(tail.position, Doubles(whole.position.begin() + from, whole.position.end())) ==
        "");
  Doubles alone(whole.position.size());
  field.position(grid, alone.data());
  CHECK(differences(alone, whole.position) == "");
  for (double odd : {std::nan(""), HUGE_VAL, -HUGE_VAL, 1e300}) {
    Doubles spoilt = list;
    spoilt[4] = odd;
    const Results got = evaluate(field, spoilt);
    CHECK(!std::isfinite(got.position[3]));
    CHECK(differences(Doubles(got.position.begin() + 6, got.position.end()),
                      Doubles(whole.position.begin() + 6, whole.position.end())) == "");
  }
  CHECK(evaluate(field, Doubles{}).position.empty());
}

TEST_CASE("The inverse gives back the points, or NaN and their number", "[gradient_field]") {
  Random random;
  CAPTURE(run_seed());
  const GradientField field(dense(random, 5, 0.4), kRadius);
  Doubles points = places(random, 200);
  Doubles encoded = evaluate(field, points).position, back(points.size());
  const auto list = FieldPoints::list(encoded.data(), 200);
  REQUIRE(field.inverse(list, back.data()) == 0);
  for (std::size_t i = 0; i < points.size(); ++i) REQUIRE(std::abs(back[i] - points[i]) < 1e-5);
  with_thread_counts([&] {
    Doubles again(points.size());
    CHECK(field.inverse(list, again.data()) == 0);
    CHECK(differences(again, back) == "");
  });

  // x (1 - (x / 250)^2 / 2) for y = z = 0 has its highest value, 136, at 204: no point is encoded beyond.
  Terms folding = kLinear;
  folding.push_back({Dim::x, false, 3, 1, 2 / 3.0});  // P_3^1 cos(phi) is -1.5 x there
  const double beyond[] = {60, 0, 0, 240, 0, 0, std::nan(""), 0, 0, 0, 0, 0};
  const Doubles way = {120, 0, 0};
  const GradientField folded(folding, kRadius);
  CHECK(evaluate(folded, way).position[0] == Approx(120 * (1 - 0.2304 / 2)));
  double out[12];
  CHECK(folded.inverse(FieldPoints::list(beyond, 4), out) == 2);
  CHECK(evaluate(folded, Doubles(out, out + 3)).position[0] == Approx(60));
  for (int i = 3; i < 9; ++i) CHECK(std::isnan(out[i]));
  CHECK((out[9] == 0 && out[10] == 0 && out[11] == 0));
}

TEST_CASE("Fields that do not exist are refused in one line", "[gradient_field]") {
  struct Case {
    Terms terms;
    double radius;
    const char* text;
  };
  const auto with = [](GradientTerm t) {
    Terms terms = kLinear;
    terms.push_back(t);
    return terms;
  };
  const double inf = std::numeric_limits<double>::infinity();
  for (const Case& c : {
           Case{kLinear, 0, "radius: expected a number above 0"},
           Case{kLinear, inf, "radius: expected a number above 0"},
           Case{with({Dim::coil, false, 2, 0, 1}), 1, "axis: expected x, y or z"},
           Case{with({Dim::x, false, 26, 0, 1}), 1, "x A(26, 0): orders go from 1 to 25"},
           Case{with({Dim::x, false, 0, 0, 1}), 1, "x A(0, 0): orders go from 1 to 25"},
           Case{with({Dim::y, true, 2, 3, 1}), 1, "y B(2, 3): degrees go from 0 to the order"},
           Case{with({Dim::z, false, 2, -1, 1}), 1, "z A(2, -1): degrees go from 0 to the order"},
           Case{with({Dim::z, true, 2, 0, 1}), 1, "z B(2, 0): there is no sine term of degree 0"},
           Case{with({Dim::z, true, 2, 1, inf}), 1, "z B(2, 1): expected a finite number"},
           Case{{kLinear[0], kLinear[2]}, 1, "the y gradient has no linear term"},
           Case{with({Dim::z, false, 1, 0, -5}), 1, "the z gradient has no linear term"},
       }) {
    CHECK_THROWS_WITH(GradientField(c.terms, c.radius), c.text);
  }
}
