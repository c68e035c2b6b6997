// Grids, interpolation, rounding, indices, search, folding of one axis: against the plainest loop
// that gives the same numbers, and the limit where a routine goes through memory.

#include <numeric>

#include "cTessel.h"
#include "routine.h"

namespace bench {

namespace {

/// A routine called for i = 0 .. s.n - 1, one number each.
template <class Ours, class Plain>
Case each(int n, const Ours& ours, const Plain& plain) {
  const auto a = std::make_shared<std::vector<double>>(static_cast<std::size_t>(n)),
             b = std::make_shared<std::vector<double>>(*a);
  Case c;
  c.kernel = [=] {
    for (int i = 0; i < n; ++i) (*a)[static_cast<std::size_t>(i)] = ours(i);
  };
  c.naive = [=] {
    for (int i = 0; i < n; ++i) (*b)[static_cast<std::size_t>(i)] = call_uninlined(plain, i);
  };
  c.difference = [=] { return difference(*a, *b); };
  return c;
}

Case rounding(const Setting&) {
  return each(
      1000, [](int i) { return TS_round(0.37 * i - 20); },
      [](int i) {
        const double x = 0.37 * i - 20;
        return x >= 0 ? static_cast<int>(std::floor(x + 0.5)) : static_cast<int>(std::trunc(x));
      });
}

Case subscripts(const Setting&) {
  const Eigen::VectorXi dims = Eigen::VectorXi::LinSpaced(5, 7, 11);
  const auto sub = std::make_shared<Eigen::VectorXi>(Eigen::VectorXi::LinSpaced(5, 0, 4));
  return each(
      1000,
      [=](int i) {
        (*sub)[0] = i % 7;
        return TS_sub2ind(dims, *sub);
      },
      [=](int i) {
        (*sub)[0] = i % 7;
        int index = 0;
        for (Eigen::Index d = 4; d >= 0; --d) index = index * dims[d] + (*sub)[d];
        return index;
      });
}

/// The value sought stands at the end of the list.
template <class T>
Case find(const Setting& s) {
  const auto list = std::make_shared<std::vector<T>>(static_cast<std::size_t>(s.n));
  list->back() = 1;
  const auto at = std::make_shared<std::vector<int>>(2);
  Case c;
  c.kernel = [=] { (*at)[0] = TS_find(list->data(), T{1}, static_cast<int>(list->size())); };
  c.naive = [=] {
    int i = 0;
    while ((*list)[static_cast<std::size_t>(i)] != 1) ++i;
    (*at)[1] = i;
  };
  c.limits = {{Kind::kRead, static_cast<double>(sizeof(T)) * s.n}};
  c.difference = [=] { return std::abs((*at)[0] - (*at)[1]); };
  return c;
}

Case rms(const Setting& s) {
  const auto re = std::make_shared<Floats>(values(s.n, 1)),
             im = std::make_shared<Floats>(values(s.n, 2));
  const auto out = std::make_shared<std::vector<double>>(2);
  Case c;
  c.kernel = [=] { (*out)[0] = TS_SA(re->data(), im->data(), static_cast<int>(re->size())); };
  c.naive = [=] {
    long double sum = 0;
    for (std::size_t i = 0; i < re->size(); ++i) {
      const long double x = (*re)[i], y = (*im)[i];
      sum += x * x + y * y;
    }
    (*out)[1] = static_cast<double>(sqrtl(sum / static_cast<long double>(re->size())));
  };
  c.limits = {{Kind::kRead, 8.0 * s.n}};
  c.difference = [=] { return std::abs((*out)[0] - (*out)[1]); };
  return c;
}

Case linspace(const Setting& s) {
  const auto ours = std::make_shared<std::unique_ptr<float[]>>(),
             plain = std::make_shared<std::unique_ptr<float[]>>();
  Case c;
  c.kernel = [=, n = s.n] { ours->reset(TS_linspace(-1, 2, n)); };
  c.naive = [=, n = s.n] {
    plain->reset(new float[static_cast<std::size_t>(n)]);
    double value = -1;
    for (int i = 0; i < n; ++i, value += 3.0 / (n - 1)) (*plain)[i] = static_cast<float>(value);
  };
  c.prepare = [=] { ours->reset(), plain->reset(); };
  c.limits = {{Kind::kWrite, 4.0 * s.n}};
  c.output = 4.0 * s.n;
  c.difference = [=, n = s.n] {
    return difference(Floats(ours->get(), ours->get() + n), Floats(plain->get(), plain->get() + n));
  };
  return c;
}

/// The eight corners, added in order.
template <class Sum, class Value>
Sum corners(const Value* v, const int* dims, double a, double b, double c) {
  Sum sum{};
  const int base =
      static_cast<int>(b) + dims[0] * (static_cast<int>(a) + dims[1] * static_cast<int>(c));
  const double fa = a - std::floor(a), fb = b - std::floor(b), fc = c - std::floor(c);
  for (int k = 0; k < 8; ++k) {
    const int db = k & 1, da = k >> 1 & 1, dc = k >> 2;
    const double weight = (db ? fb : 1 - fb) * (da ? fa : 1 - fa) * (dc ? fc : 1 - fc);
    sum += weight * Sum(v[base + db + dims[0] * (da + dims[1] * dc)]);
  }
  return sum;
}

Case interpolation(const Setting&) {
  static int dims[] = {32, 32, 32};
  const auto v = std::make_shared<Floats>(values(32 * 32 * 32));
  const auto x = [](int i) { return 0.03f * static_cast<float>(i); };
  Case c = each(
      1000, [=](int i) { return TS_linear_interpolation(v->data(), 7.25f, x(i), 9.5f, dims); },
      [=](int i) {
        return corners<double>(v->data(), dims, 7.25, static_cast<double>(x(i)), 9.5);
      });
  c.tolerance = 1e-6;
  return c;
}

Case complex_interpolation(const Setting&) {
  const Eigen::VectorXi dims = Eigen::VectorXi::Constant(3, 32);
  const auto v = std::make_shared<Eigen::VectorXcd>(Eigen::VectorXcd::Random(32 * 32 * 32));
  Case c = each(
      1000,
      [=](int i) {
        return TS_linear_interpolation(*v, dims, i % 31 + 1000, 0.25, 0.3, 0.5, 1024, 32768).real();
      },
      [=](int i) {
        const int at = i % 31 + 1000;
        return corners<std::complex<double>>(v->data(), dims.data(), at / 32 + 0.25, at % 32 + 0.3,
                                             0.5)
            .real();
      });
  c.tolerance = 1e-12;
  return c;
}

Case next_to_a_jump(const Setting& s) {
  static float A[] = {300, 700}, B[] = {150, 350};
  const double step = 500.0 / s.n;
  return each(
      1000, [=](int i) { return pos2interpolate(step * i, i, A, B); },
      [=](int i) {
        for (int k : {0, 1}) {
          if (i == A[k]) return static_cast<double>(B[k]);
          if (i == A[k] + 1) return B[k] + 1.0;
        }
        return step * i;
      });
}

Case folded_line(const Setting& s) {
  const int full = s.n, fold = full * 2 / 5, first = (full - fold + 1) / 2;
  return each(
      1000, [=](int i) { return TS_folded_pos(i, full, fold); },
      [=](int i) { return (i + full * fold - first) % fold; });
}

/// The list of the other routine, by trying every full line.
Case unfolded_lines(const Setting& s) {
  const int fold = std::max(1, s.n * 2 / 5);
  const auto list = std::make_shared<Eigen::VectorXi>(3),
             plain = std::make_shared<Eigen::VectorXi>(3);
  Case c;
  c.kernel = [=, n = s.n] { TS_get_unfolded_positions(n, fold, 0, *list); };
  c.naive = [=, n = s.n] {
    const int centre = (n - fold + 1) / 2;
    Eigen::Index k = 0;
    plain->setConstant(-1);
    for (int line = centre - 1; line >= 0; --line) {
      if ((centre - line) % fold == 0) (*plain)[k++] = line;
    }
    for (int line = centre; line < n; ++line) {
      if ((line - centre) % fold == 0) (*plain)[k++] = line;
    }
  };
  c.difference = [=] { return (*list - *plain).cwiseAbs().maxCoeff(); };
  return c;
}

/// Where the number of aliases changes, by counting the aliases of every folded line.
Case compartments(const Setting& s) {
  const int fold = std::max(1, s.n * 2 / 5);
  const auto out = std::make_shared<Floats>(4);
  Case c;
  c.kernel = [=, n = s.n] {
    (*out)[0] = (*out)[1] = -1;
    get_compartments(n, fold, out->data());
  };
  c.naive = [=, n = s.n] {
    std::vector<int> aliases(static_cast<std::size_t>(fold));
    for (int line = 0; line < n; ++line) {
      ++aliases[static_cast<std::size_t>((line + n * fold - (n - fold + 1) / 2) % fold)];
    }
    std::size_t found = 2;
    (*out)[2] = (*out)[3] = -1;
    for (int f = 1; f < fold && found < 4; ++f) {
      if (aliases[static_cast<std::size_t>(f)] != aliases[static_cast<std::size_t>(f - 1)]) {
        (*out)[found++] = static_cast<float>(f - 1);
      }
    }
    if (found == 3) std::swap((*out)[2], (*out)[3]);
  };
  c.difference = [=] { return std::abs((*out)[0] - (*out)[2]) + std::abs((*out)[1] - (*out)[3]); };
  return c;
}

Case edges(const Setting& s) {
  const Eigen::VectorXf a = Eigen::VectorXf::LinSpaced(s.n, 0, 1), b = a;
  const auto found = std::make_shared<std::vector<int>>(2);
  Case c;
  c.kernel = [=, n = s.n] { (*found)[0] = find_edges(a, b, n, n, n); };
  c.naive = [=, n = s.n] {
    (*found)[1] = ((a - b).array().abs() > static_cast<float>(n / 2)).any();
  };
  c.documented = 8.0 * s.n;
  c.difference = [=] { return std::abs((*found)[0] - (*found)[1]); };
  return c;
}

}  // namespace

std::vector<Routine> helper_routines() {
  Setting lines, list;
  lines.n = 256;
  list.n = 1000000;
  const std::vector<Sweep> lengths = {length_sweep({}, {1000, 10000, 100000, 1000000})},
                           extents = {length_sweep({}, {10, 100, 1000, 10000})};
  const std::vector<Row> thousand = {{"1000 calls", {}}}, million = {{"10^6 values", list}},
                         axis = {{"256 lines, R = 2.5", lines}};
  return {{"TS_folded_pos", folded_line, thousand, {}},
          {"get_compartments", compartments, axis, extents},
          {"TS_get_unfolded_positions", unfolded_lines, axis, extents},
          {"find_edges", edges, {{"4 aliases", {256, 256, 1, 16, 1, 2, 1, 4}}}, extents},
          {"TS_linspace", linspace, million, lengths},
          {"TS_linear_interpolation, real", interpolation, thousand, {}},
          {"TS_linear_interpolation, complex", complex_interpolation, thousand, {}},
          {"pos2interpolate", next_to_a_jump, thousand, {}},
          {"TS_round", rounding, thousand, {}},
          {"TS_sub2ind", subscripts, thousand, {}},
          {"TS_find, int", find<int>, million, lengths},
          {"TS_find, short", find<short>, million, lengths},
          {"TS_SA", rms, million, lengths}};
}

}  // namespace bench
