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
  int degree;
  int first = kOrders, last = -1;  // orders, minus the degree
  Factors factors[kOrders] = {};
};

/// What the sums read. Versions for wide vectors are made of plain arrays: clang leaves out the members
/// of the library's classes that only they call.
struct Sequence {
  int degrees = 0;                   // one more than the highest
  const Series* series = nullptr;    // degree by degree
  int first[kOrders + 1] = {};       // of a degree
  int entries[2][kOrders + 1] = {};  // of the rows of Q, without and with derivatives
  double recurrence[kOrders + 1][kOrders] = {};
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
  std::vector<Series> series;
  Sequence sequence;

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
  const int axis = static_cast<int>(t.axis), n = t.order, m = t.degree;
  auto mine = std::find_if(series.begin(), series.end(), [&](const Series& s) {
    return s.axis == axis && s.sine == t.sine && s.degree == m;
  });
  if (mine == series.end()) mine = series.insert(series.end(), {axis, t.sine, m});
  Factors& f = mine->factors[n - m];
  f.here += value * leading_factor(n, m);
  if (n > m) f.along += value * (n + m) * leading_factor(n - 1, m);
  if (n > m + 1) f.across += value * leading_factor(n - 1, m + 1);
  mine->first = std::min(mine->first, n - m);
  mine->last = std::max(mine->last, n - m);
}

void GradientField::Expansion::prepare() {
  std::stable_sort(series.begin(), series.end(),
                   [](const Series& a, const Series& b) { return a.degree < b.degree; });
  sequence.series = series.data();
  for (const Series& s : series) {
    const int m = s.degree;
    sequence.degrees = m + 1;
    const auto reach = [&](int slopes, int degree, int entries) {
      int& now = sequence.entries[slopes][degree];
      now = std::max(now, entries);
    };
    reach(0, m, s.last + 1);
    reach(1, m, s.last + 1);
    reach(1, m + 1, s.last - 1);
    for (int d = m + 1; d <= kOrders; ++d) ++sequence.first[d];
  }
  for (int m = 0; m <= kOrders; ++m) {
    for (int k = 2; k < kOrders; ++k) {
      const double n = m + k;
      sequence.recurrence[m][k] = (n + m - 1) * (k - 1) / ((2 * n - 1) * (2 * n - 3));
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
struct Row {
  Lanes<W> at[kOrders + 2];
};

/// Q of one degree from its lowest order on, as far as any sum reads it.
template <int W>
CTESSEL_INLINE void fill_row(const double* c, int entries, const Lanes<W>& z,
                             const Lanes<W>& square, Row<W>& row) {
  Lanes<W>* q = row.at;
  q[0] = q[1] = {};
  for (int i = 0; i < kTogether<W>; ++i) q[2].v[i] = Vector<double, W>{} + 1;
  q[3] = z;
  for (int k = 2; k < entries; ++k) {
    for (int i = 0; i < kTogether<W>; ++i) {
      q[k + 2].v[i] = z.v[i] * q[k + 1].v[i] - c[k] * square.v[i] * q[k].v[i];
    }
  }
}

/// (x + i y)^m, and m (x + i y)^(m-1): the derivatives of the real and imaginary part.
template <int W>
struct Powers {
  Lanes<W> re, im, slope_re, slope_im;
};

template <int W>
CTESSEL_INLINE void raise(const Lanes<W>& x, const Lanes<W>& y, int to, Powers<W>& t) {
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
  Lanes<W> moved[3], slope[3][3];
  Lanes<W> across[3];  // the part of the slopes that x and y are still to multiply
};

template <int W, bool Slopes>
CTESSEL_INLINE void add_series(const Series& s, const Row<W>& row, const Row<W>& next,
                               const Powers<W>& t, Sums<W>& sums) {
  Lanes<W> here = {}, along = {}, across = {};
  for (int k = s.first; k <= s.last; ++k) {
    const Factors& f = s.factors[k];
    for (int i = 0; i < kTogether<W>; ++i) {
      here.v[i] += f.here * row.at[k + 2].v[i];
      if (Slopes) along.v[i] += f.along * row.at[k + 1].v[i];
      if (Slopes) across.v[i] += f.across * next.at[k].v[i];
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
CTESSEL_INLINE void sum_up(const Sequence& e, int first, Batch& b) {
  Lanes<W> x, y, z, square = {};
  get(b.at[0] + first, x);
  get(b.at[1] + first, y);
  get(b.at[2] + first, z);
  add_product(square, x, x);
  add_product(square, y, y);
  add_product(square, z, z);
  Sums<W> sums = {};
  Powers<W> powers = {};
  for (int i = 0; i < kTogether<W>; ++i) powers.re.v[i] += 1;
  Row<W> rows[2];
  const int* entries = e.entries[Slopes];
  fill_row(e.recurrence[0], entries[0], z, square, rows[0]);
  for (int m = 0; m < e.degrees; ++m) {
    if (m > 0) raise(x, y, m, powers);
    Row<W>&row = rows[m % 2], &next = rows[1 - m % 2];
    fill_row(e.recurrence[m + 1], entries[m + 1], z, square, next);
    for (int k = e.first[m]; k < e.first[m + 1]; ++k) {
      add_series<W, Slopes>(e.series[k], row, next, powers, sums);
    }
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
CTESSEL_INLINE void sum_up_batch(const Sequence& e, bool slopes, Batch& b) {
  for (int first = 0; first < kBatch; first += W * kTogether<W>) {
    if (slopes) {
      sum_up<W, true>(e, first, b);
    } else {
      sum_up<W, false>(e, first, b);
    }
  }
}

CTESSEL_BY_WIDTH(void sum_up_here(const Sequence& e, bool slopes, Batch& b), sum_up_batch,
                 (e, slopes, b))

// ---- Points in, results out ---------------------------------------------------------------------

void place(const FieldPoints& p, std::ptrdiff_t i, double (&at)[3]) {
  if (p.xyz) {
    std::copy(p.xyz + 3 * i, p.xyz + 3 * i + 3, at);
    return;
  }
  const std::ptrdiff_t line = i / p.extents[0], plane = line / p.extents[1];
  const double voxel[] = {static_cast<double>(i % p.extents[0]),
                          static_cast<double>(line % p.extents[1]), static_cast<double>(plane)};
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
    sum_up_here(e.sequence, slopes, b);
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
  std::copy_n(&s.goal[0][0], 3 * kBatch, &s.b.at[0][0]);
  int left = count;
  for (int k = 0; k < kInverseSteps && left > 0; ++k) {
    sum_up_here(e.sequence, false, s.b);
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
