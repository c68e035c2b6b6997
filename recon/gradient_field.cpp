// Gradient non-linearity: encoded positions, their Jacobian and their inverse.
//
// Janke et al., Magnetic Resonance in Medicine 52:115-122, 2004. Recurrences and derivatives of solid
// harmonics: NIST Digital Library of Mathematical Functions, 14.10.
//
// A term is a product of two polynomials: Q_n^m(z, r^2) = r^(n-m) d^m/dt^m P_n(t) at t = z / r, and
// the real or imaginary part of (x + i y)^m. So there is no angle, no pole and no division by r.
// Their derivatives are terms again:
//
//   d/dz Q_n^m = (n + m) Q_(n-1)^m     d/dx Q_n^m = -x Q_(n-1)^(m+1)     (y alike)
//
// The recurrence runs on Q_n^m (n - m)! / (2n - 1)!!, whose power of z alone has the factor 1; the
// factor goes into the coefficients. Points are worked on in batches; each point's sums run in order,
// from the lowest degree and order on, inside its own lane.
#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#include "ctessel.hpp"
#include "dispatch.h"
#include "loops.h"
#include "simd.h"

namespace ctessel {

namespace {

constexpr int kBatch = 32;                              // points
constexpr int kOrders = GradientField::kMostOrder + 1;  // of a row of Q, from degree m on
constexpr int kInverseSteps = 200;
constexpr double kInverseStep = 1e-9;  // of the radius: what the last step may still move a point

/// Factors of one term: of the position, and of its derivatives along z and across it.
struct Factors {
  double here, along, across;
};

/// The terms of one axis, kind and degree; those of orders that were not given are 0.
struct Series {
  int axis;
  bool sine;
  int first = kOrders, last = -1;  // orders, minus the degree
  std::array<Factors, kOrders> factors = {};
};

/// (2n - 1)!! / (n - m)!, the factor of z^(n-m) in Q_n^m.
double leading_factor(int n, int m) {
  double factor = 1;
  for (int k = 1; k <= n; ++k) factor *= 2 * k - 1;
  for (int k = 2; k <= n - m; ++k) factor /= k;
  return factor;
}

}  // namespace

struct GradientField::Expansion {
  double radius;
  int degrees = 0;                                  // one more than the highest
  std::array<std::vector<Series>, kOrders> series;  // by degree
  std::array<int, kOrders + 1> entries = {}, entries_with_derivatives = {};  // of the rows of Q
  std::array<std::array<double, kOrders>, kOrders + 1> recurrence = {};

  void add(const GradientTerm& term, double value);
  void prepare();
};

namespace {

[[noreturn]] void refuse(const std::string& what) { throw std::invalid_argument(what); }

char name_of(Dim axis) { return static_cast<char>('x' + static_cast<int>(axis)); }

void check(const GradientTerm& t) {
  if (t.axis != Dim::x && t.axis != Dim::y && t.axis != Dim::z) refuse("axis: expected x, y or z");
  const std::string where = std::string(1, name_of(t.axis)) + (t.sine ? " B(" : " A(") +
                            std::to_string(t.order) + ", " + std::to_string(t.degree) + "): ";
  if (t.order < 1 || t.order > GradientField::kMostOrder) {
    refuse(where + "orders go from 1 to " + std::to_string(GradientField::kMostOrder));
  }
  if (t.degree < 0 || t.degree > t.order) refuse(where + "degrees go from 0 to the order");
  if (t.sine && t.degree == 0) refuse(where + "there is no sine term of degree 0");
  if (!std::isfinite(t.value)) refuse(where + "expected a finite number");
}

/// Whether a term is what the axis would have alone if its gradient were linear.
bool is_linear(const GradientTerm& t) {
  return t.order == 1 && t.degree == (t.axis == Dim::z ? 0 : 1) && t.sine == (t.axis == Dim::y);
}

std::array<double, 3> linear_terms(const std::vector<GradientTerm>& terms) {
  std::array<double, 3> linear = {};
  for (const GradientTerm& t : terms) {
    check(t);
    if (is_linear(t)) linear[static_cast<std::size_t>(t.axis)] += t.value;
  }
  for (int axis = 0; axis < 3; ++axis) {
    if (linear[static_cast<std::size_t>(axis)] == 0) {
      refuse(std::string("the ") + name_of(Dim(axis)) + " gradient has no linear term");
    }
  }
  return linear;
}

}  // namespace

void GradientField::Expansion::add(const GradientTerm& t, double value) {
  auto& all = series[static_cast<std::size_t>(t.degree)];
  const int axis = static_cast<int>(t.axis), n = t.order, m = t.degree;
  auto mine = std::find_if(all.begin(), all.end(),
                           [&](const Series& s) { return s.axis == axis && s.sine == t.sine; });
  if (mine == all.end()) mine = all.insert(all.end(), {axis, t.sine});
  Factors& f = mine->factors[static_cast<std::size_t>(n - m)];
  f.here += value * leading_factor(n, m);
  if (n > m) f.along += value * (n + m) * leading_factor(n - 1, m);
  if (n > m + 1) f.across += value * leading_factor(n - 1, m + 1);
  mine->first = std::min(mine->first, n - m);
  mine->last = std::max(mine->last, n - m);
}

void GradientField::Expansion::prepare() {
  for (std::size_t m = 0; m < series.size(); ++m) {
    for (const Series& s : series[m]) {
      degrees = static_cast<int>(m) + 1;
      entries[m] = std::max(entries[m], s.last + 1);
      entries_with_derivatives[m] = std::max(entries_with_derivatives[m], s.last + 1);
      entries_with_derivatives[m + 1] = std::max(entries_with_derivatives[m + 1], s.last - 1);
    }
    for (std::size_t k = 2; k < kOrders; ++k) {
      const double n = static_cast<double>(m + k), d = static_cast<double>(m);
      recurrence[m][k] = (n + d - 1) * (n - d - 1) / ((2 * n - 1) * (2 * n - 3));
    }
  }
}

// ---- Sums over all terms ------------------------------------------------------------------------

namespace {

using Expansion = GradientField::Expansion;

/// Points side by side, in units of the radius, and what becomes of them.
struct alignas(64) Batch {
  double at[3][kBatch];
  double moved[3][kBatch];     // by how much, in units of the radius
  double slope[3][3][kBatch];  // its derivatives: component, then direction
};

/// How many vectors are worked on at once: as many as there are registers for.
template <int W>
constexpr int kTogether = W == 8 ? 4 : 2;

template <int W>
struct Lanes {
  Vector<double, W> v[kTogether<W>];
};

template <int W>
CTESSEL_INLINE void add_product(Lanes<W>& sum, const Lanes<W>& a, const Lanes<W>& b) {
  for (int i = 0; i < kTogether<W>; ++i) sum.v[i] += a.v[i] * b.v[i];
}

template <int W>
CTESSEL_INLINE void subtract_product(Lanes<W>& sum, const Lanes<W>& a, const Lanes<W>& b) {
  for (int i = 0; i < kTogether<W>; ++i) sum.v[i] -= a.v[i] * b.v[i];
}

/// Two entries of 0 before a row stand for the orders below its degree.
template <int W>
using Row = std::array<Lanes<W>, kOrders + 2>;

/// Q of one degree from its lowest order on, as far as any sum reads it.
template <int W>
CTESSEL_INLINE void fill_row(const std::array<double, kOrders>& c, int entries, const Lanes<W>& z,
                             const Lanes<W>& square, Row<W>& row) {
  row[0] = row[1] = {};
  for (int i = 0; i < kTogether<W>; ++i) row[2].v[i] = Vector<double, W>{} + 1;
  row[3] = z;
  for (int k = 2; k < entries; ++k) {
    for (int i = 0; i < kTogether<W>; ++i) {
      row[k + 2].v[i] = z.v[i] * row[k + 1].v[i] - c[k] * square.v[i] * row[k].v[i];
    }
  }
}

/// (x + i y)^m, and m (x + i y)^(m-1): the derivatives of the real and imaginary part.
template <int W>
struct Turns {
  Lanes<W> re, im, slope_re, slope_im;
};

template <int W>
CTESSEL_INLINE void turn(const Lanes<W>& x, const Lanes<W>& y, int to, Turns<W>& t) {
  for (int i = 0; i < kTogether<W>; ++i) {
    const auto re = t.re.v[i], im = t.im.v[i];
    t.slope_re.v[i] = re * to;
    t.slope_im.v[i] = im * to;
    t.re.v[i] = re * x.v[i] - im * y.v[i];
    t.im.v[i] = re * y.v[i] + im * x.v[i];
  }
}

template <int W>
struct Sums {
  Lanes<W> moved[3] = {}, slope[3][3] = {};
  Lanes<W> across[3] = {};  // the part of the slopes that x and y are still to multiply
};

template <int W, bool Slopes>
CTESSEL_INLINE void add_series(const Series& s, const Row<W>& row, const Row<W>& next,
                               const Turns<W>& t, Sums<W>& sums) {
  Lanes<W> here = {}, along = {}, across = {};
  for (int k = s.first; k <= s.last; ++k) {
    const Factors& f = s.factors[static_cast<std::size_t>(k)];
    for (int i = 0; i < kTogether<W>; ++i) {
      here.v[i] += f.here * row[k + 2].v[i];
      if (Slopes) along.v[i] += f.along * row[k + 1].v[i];
      if (Slopes) across.v[i] += f.across * next[k].v[i];
    }
  }
  const Lanes<W>& part = s.sine ? t.im : t.re;
  add_product(sums.moved[s.axis], part, here);
  if (!Slopes) return;
  add_product(sums.slope[s.axis][0], s.sine ? t.slope_im : t.slope_re, here);
  if (s.sine) {
    add_product(sums.slope[s.axis][1], t.slope_re, here);
  } else {
    subtract_product(sums.slope[s.axis][1], t.slope_im, here);
  }
  add_product(sums.slope[s.axis][2], part, along);
  add_product(sums.across[s.axis], part, across);
}

template <int W>
CTESSEL_INLINE void get(const double* from, Lanes<W>& to) {
  std::memcpy(&to, from, sizeof to);
}

/// The sums of kTogether<W> vectors of points, from point `first` of the batch on.
template <int W, bool Slopes>
CTESSEL_INLINE void sum_up(const Expansion& e, int first, Batch& b) {
  Lanes<W> x, y, z, square = {};
  get(b.at[0] + first, x);
  get(b.at[1] + first, y);
  get(b.at[2] + first, z);
  for (const Lanes<W>* u : {&x, &y, &z}) add_product(square, *u, *u);
  Sums<W> sums;
  Turns<W> turns = {};
  for (int i = 0; i < kTogether<W>; ++i) turns.re.v[i] += 1;
  Row<W> rows[2];
  const auto& entries = Slopes ? e.entries_with_derivatives : e.entries;
  fill_row(e.recurrence[0], entries[0], z, square, rows[0]);
  for (int m = 0; m < e.degrees; ++m) {
    if (m > 0) turn(x, y, m, turns);
    const auto d = static_cast<std::size_t>(m);
    Row<W>&row = rows[d % 2], &next = rows[1 - d % 2];
    fill_row(e.recurrence[d + 1], entries[d + 1], z, square, next);
    for (const Series& s : e.series[d]) add_series<W, Slopes>(s, row, next, turns, sums);
  }
  for (int axis = 0; axis < 3; ++axis) {
    std::memcpy(b.moved[axis] + first, &sums.moved[axis], sizeof x);
    if (!Slopes) continue;
    subtract_product(sums.slope[axis][0], x, sums.across[axis]);
    subtract_product(sums.slope[axis][1], y, sums.across[axis]);
    for (int to = 0; to < 3; ++to)
      std::memcpy(b.slope[axis][to] + first, &sums.slope[axis][to], sizeof x);
  }
}

template <int W>
CTESSEL_INLINE void sum_up_batch(const Expansion& e, bool slopes, Batch& b) {
  for (int first = 0; first < kBatch; first += W * kTogether<W>) {
    if (slopes) {
      sum_up<W, true>(e, first, b);
    } else {
      sum_up<W, false>(e, first, b);
    }
  }
}

CTESSEL_BY_WIDTH(void sum_up_here(const Expansion& e, bool slopes, Batch& b), sum_up_batch,
                 (e, slopes, b))

// ---- Points in, results out ---------------------------------------------------------------------

void place(const FieldPoints& p, std::ptrdiff_t i, double (&at)[3]) {
  if (p.xyz) {
    std::copy(p.xyz + 3 * i, p.xyz + 3 * i + 3, at);
    return;
  }
  const double voxel[] = {static_cast<double>(i % p.extents[0]),
                          static_cast<double>(i / p.extents[0] % p.extents[1]),
                          static_cast<double>(i / p.extents[0] / p.extents[1])};
  for (int d = 0; d < 3; ++d) {
    const double* row = p.affine[d];
    at[d] = row[0] * voxel[0] + row[1] * voxel[1] + row[2] * voxel[2] + row[3];
  }
}

/// Calls work(first, count) for every batch, on a team of threads.
template <class Work>
void for_each_batch(std::ptrdiff_t count, const Work& work) {
  for_each_chunk((count + kBatch - 1) / kBatch, [&](std::int64_t begin, std::int64_t end) {
    for (std::int64_t i = begin; i < end; ++i) {
      const std::ptrdiff_t first = static_cast<std::ptrdiff_t>(i) * kBatch;
      work(first, static_cast<int>(std::min<std::ptrdiff_t>(kBatch, count - first)));
    }
  });
}

double determinant_of(const double (&m)[9]) {
  return m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
         m[2] * (m[3] * m[7] - m[4] * m[6]);
}

void deliver_slopes(const Batch& b, int j, std::ptrdiff_t point, const FieldValues& out) {
  double jacobian[9];
  for (int axis = 0; axis < 3; ++axis) {
    for (int to = 0; to < 3; ++to) {
      jacobian[3 * axis + to] = b.slope[axis][to][j] + (axis == to ? 1 : 0);
    }
  }
  if (out.jacobian) std::copy(jacobian, jacobian + 9, out.jacobian + 9 * point);
  if (out.determinant) out.determinant[point] = determinant_of(jacobian);
}

}  // namespace

GradientField::GradientField(const std::vector<GradientTerm>& terms, double radius) {
  if (!(radius > 0 && std::isfinite(radius))) refuse("radius: expected a number above 0");
  const std::array<double, 3> linear = linear_terms(terms);
  const auto expansion = std::make_shared<Expansion>();
  expansion->radius = radius;
  for (const GradientTerm& t : terms) {
    if (!is_linear(t)) expansion->add(t, t.value / linear[static_cast<std::size_t>(t.axis)]);
  }
  expansion->prepare();
  expansion_ = expansion;
}

double GradientField::radius() const { return expansion_->radius; }

void GradientField::evaluate(const FieldPoints& points, const FieldValues& out) const {
  const Expansion& e = *expansion_;
  const bool slopes = out.jacobian || out.determinant;
  for_each_batch(points.count, [&](std::ptrdiff_t first, int count) {
    Batch b = {};
    double at[kBatch][3];
    for (int j = 0; j < count; ++j) {
      place(points, first + j, at[j]);
      for (int d = 0; d < 3; ++d) b.at[d][j] = at[j][d] / e.radius;
    }
    sum_up_here(e, slopes, b);
    for (int j = 0; j < count; ++j) {
      for (int d = 0; d < 3; ++d) {
        const double moved = b.moved[d][j] * e.radius;
        if (out.displacement) out.displacement[3 * (first + j) + d] = moved;
        if (out.position) out.position[3 * (first + j) + d] = at[j][d] + moved;
      }
      if (slopes) deliver_slopes(b, j, first + j, out);
    }
  });
}

namespace {

/// The points whose encoded positions are given, in units of the radius: b.at is the solution where
/// `found` is set.
struct Search {
  double goal[3][kBatch] = {};
  bool found[kBatch] = {};
  Batch b = {};
};

/// Moves a point to where its displacement was its goal's; true once that is no further on.
bool step(Search& s, int j) {
  double most = 0, next[3];
  for (int d = 0; d < 3; ++d) {
    next[d] = s.goal[d][j] - s.b.moved[d][j];
    most = std::max(most, std::abs(next[d] - s.b.at[d][j]));
    if (!std::isfinite(next[d])) most = std::numeric_limits<double>::infinity();
    s.b.at[d][j] = next[d];
  }
  return most <= kInverseStep;
}

/// Each point stops by itself: its result does not depend on the others of its batch.
void search(const Expansion& e, int count, Search& s) {
  std::copy(&s.goal[0][0], &s.goal[0][0] + 3 * kBatch, &s.b.at[0][0]);
  int left = count;
  for (int k = 0; k < kInverseSteps && left > 0; ++k) {
    sum_up_here(e, false, s.b);
    for (int j = 0; j < count; ++j) {
      if (s.found[j] || !step(s, j)) continue;
      s.found[j] = true;
      --left;
    }
  }
}

}  // namespace

std::ptrdiff_t GradientField::inverse(const FieldPoints& encoded, double* out) const {
  const Expansion& e = *expansion_;
  std::atomic<std::ptrdiff_t> lost = 0;
  for_each_batch(encoded.count, [&](std::ptrdiff_t first, int count) {
    Search s;
    for (int j = 0; j < count; ++j) {
      double at[3];
      place(encoded, first + j, at);
      for (int d = 0; d < 3; ++d) s.goal[d][j] = at[d] / e.radius;
    }
    search(e, count, s);
    for (int j = 0; j < count; ++j) {
      lost += !s.found[j];
      for (int d = 0; d < 3; ++d) {
        out[3 * (first + j) + d] = s.found[j] ? s.b.at[d][j] * e.radius : std::nan("");
      }
    }
  });
  return lost;
}

}  // namespace ctessel
