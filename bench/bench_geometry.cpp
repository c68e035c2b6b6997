// Figure of merit: time per call, one thread, against the straight transcription in
// tests/naive_geometry.h. Each iteration times both in turn, so that a busy machine slows both; the
// counter `ratio` is the quotient of the two fastest runs. Set-up is part of every call.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "cTessel.h"
#include "naive_geometry.h"
#include "ratio.h"

namespace {

/// Times naive and ours alternately; the reported time is ours.
template <class Naive, class Ours>
void compare(benchmark::State& state, const Naive& naive, const Ours& ours) {
  omp_set_num_threads(1);
  double best_naive = INFINITY, best_ours = INFINITY;
  for (auto _ : state) {
    best_naive = std::min(best_naive, bench::seconds(naive));
    const double t = bench::seconds(ours);
    best_ours = std::min(best_ours, t);
    state.SetIterationTime(t);
  }
  state.counters["ratio"] = best_naive / best_ours;
  state.counters["best_ms"] = 1e3 * best_ours;
}

struct Points {
  std::vector<float> x, y, z, xd, yd, zd;
  explicit Points(std::size_t n) : x(n), y(n), z(n), xd(n), yd(n), zd(n) {}
};

/// side^3 points of a regular grid in a cube of 500 mm, or as many at random places in it.
Points cube(int side, bool regular) {
  Points p(static_cast<std::size_t>(side) * side * side);
  std::mt19937 engine(1);
  std::uniform_real_distribution<float> anywhere(-250, 250);
  auto at = [&](int i) { return regular ? 500 * (i + 0.5f) / side - 250 : anywhere(engine); };
  for (std::size_t i = 0; i < p.x.size(); ++i) {
    const int k = static_cast<int>(i);
    p.x[i] = at(k % side);
    p.y[i] = at(k / side % side);
    p.z[i] = at(k / side / side);
  }
  return p;
}

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

void BM_geometry_correction(benchmark::State& state) {
  Points p = cube(static_cast<int>(state.range(0)), state.range(1) != 0);
  Coefficients c;
  const int n = static_cast<int>(p.x.size());
  compare(
      state,
      [&] {
        naive::geometry_correction(p.x.data(), p.y.data(), p.z.data(), p.xd.data(), p.yd.data(),
                                   p.zd.data(), n, c.y, c.x, c.z, 250);
      },
      [&] {
        TS_geometry_correction(p.x.data(), p.y.data(), p.z.data(), p.xd.data(), p.yd.data(),
                               p.zd.data(), n, c.y, c.x, c.z, 250);
      });
}

void BM_legendre_table(benchmark::State& state) {
  std::vector<float> table(10000 * 12 * 17);
  compare(
      state, [&] { naive::create_plgndr_lookup(17, 12, 10000, table.data()); },
      [&] { create_plgndr_lookup(17, 12, 10000, table.data()); });
}

BENCHMARK(BM_legendre_table)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_geometry_correction)
    ->ArgNames({"side", "regular"})
    ->ArgsProduct({{1, 10, 20, 27, 28, 100}, {1, 0}})
    ->UseManualTime()
    ->Iterations(7)
    ->Unit(benchmark::kMillisecond);

}  // namespace
