// SENSE steps on one thread. Figure of merit: time of the straight transcription over time of the
// kernel ("ratio"), both in the same run, the best of several turns each. "scratch_MiB" is the
// peak memory of one call over the inputs, outputs and factors that exist before; for the whole
// reconstruction it includes the factors.

#include <benchmark/benchmark.h>
#include <omp.h>

#include <chrono>
#include <cmath>
#include <complex>
#include <fstream>
#include <string>
#include <vector>

#include "cTessel.h"
#include "naive_sense.h"

namespace {

struct Scene {
  Scene(int nx, int ny, int nz, int nc, int fold_y, int fold_z, bool correlated)
      : maps(4), folded(4), full(3), dims(4) {
    maps << nx, ny, nz, nc;
    full << nx, ny, nz;
    folded << nx, fold_y, fold_z, nc;
    size_grid();
    re = noise(maps.prod());
    im = noise(maps.prod());
    psi = Eigen::MatrixXcd::Identity(nc, nc);
    if (correlated) psi.array() += std::complex<double>(0.2, 0);
  }
  void size_grid() {
    R << 1, float(full[1]) / float(folded[1]), float(full[2]) / float(folded[2]);
    dims << maps[0], int(std::ceil(maps[1] / R[1])), int(std::ceil(maps[2] / R[2])),
        int(std::ceil(R[1])) * int(std::ceil(R[2])) * maps[3];
    factors = Eigen::VectorXcd::Constant(std::int64_t{1} * dims.prod(), 0.5);
  }
  static std::vector<float> noise(int n) {
    std::vector<float> v(n);
    unsigned state = 1;
    for (float& x : v)
      x = float((state = state * 1664525u + 1013904223u) >> 8) / float(1 << 24) + 0.1f;
    return v;
  }
  Eigen::VectorXi maps, folded, full, dims;
  Eigen::Vector3f R;
  Eigen::MatrixXcd psi;
  Eigen::VectorXcd factors;
  Eigen::VectorXf reference;
  std::vector<float> re, im;
  float edges_y[2] = {-1, -1}, edges_z[2] = {-1, -1};
};

/// A memory figure of this process in MiB: VmRSS now, VmHWM at its highest.
double memory_mib(const std::string& figure) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    double kib = 0;
    if (word == figure + ":" && status >> kib) return kib / 1024;
  }
  return 0;
}

void reset_peak() { std::ofstream("/proc/self/clear_refs") << '5'; }

template <class F>
double seconds(const F& f) {
  const auto begin = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

template <class Kernel, class Yardstick>
void compare(benchmark::State& state, const Kernel& kernel, const Yardstick& yardstick) {
  omp_set_num_threads(1);
  reset_peak();
  const double before = memory_mib("VmRSS");
  kernel();
  state.counters["scratch_MiB"] = memory_mib("VmHWM") - before;
  double best = 1e9, naive_best = 1e9;
  for (auto _ : state) {
    const double t = seconds(kernel);
    state.SetIterationTime(t);
    best = std::min(best, t);
    naive_best = std::min(naive_best, seconds(yardstick));
  }
  state.counters["naive_s"] = naive_best;
  state.counters["ratio"] = naive_best / best;
}

void BM_factors(benchmark::State& state, Scene s) {
  auto run = [&](auto f) {
    f(s.re.data(), s.im.data(), s.maps, s.psi, s.R, 0.0, s.reference, s.factors, s.folded, s.full,
      s.edges_y, s.edges_z);
  };
  compare(
      state, [&] { run(get_combination_factors); }, [&] { run(naive::get_combination_factors); });
}

void BM_unfold(benchmark::State& state, Scene s) {
  const std::vector<float> fold = Scene::noise(s.folded.prod());
  std::vector<float> fold_re = fold, fold_im = fold, out_re(s.full.prod()), out_im(out_re);
  compare(
      state,
      [&] {
        unfold(fold_re.data(), fold_im.data(), s.folded, s.factors, s.dims, s.maps, s.full,
               s.edges_y, s.edges_z, out_re.data(), out_im.data());
      },
      [&] {
        naive::unfold(fold_re.data(), fold_im.data(), s.folded, s.factors, s.dims, s.full,
                      s.edges_y, s.edges_z, out_re.data(), out_im.data());
      });
}

/// The whole driver; the transcription's share is its two steps, once and once per volume.
void BM_recon(benchmark::State& state, Scene s, int volumes) {
  std::vector<float> fold_re = Scene::noise(s.folded.prod() * volumes), fold_im = fold_re;
  std::vector<float> out_re(s.full.prod() * volumes), out_im(out_re);
  int fold_dims[] = {s.folded[0], s.folded[1], s.folded[2], s.folded[3], volumes};
  int out_dims[] = {s.full[0], s.full[1], s.full[2], 1, volumes};
  int psi_dims[] = {s.folded[3], s.folded[3]};
  compare(
      state,
      [&] {
        TS_sense_recon(fold_re.data(), fold_im.data(), 5, fold_dims, s.re.data(), s.im.data(), 4,
                       s.maps.data(), nullptr, nullptr, 2, psi_dims, s.full.data(), nullptr,
                       nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr, 1.0, out_re.data(),
                       out_im.data(), out_dims);
      },
      [&] {
        naive::get_combination_factors(s.re.data(), s.im.data(), s.maps, s.psi, s.R, 0.0,
                                       s.reference, s.factors, s.folded, s.full, s.edges_y,
                                       s.edges_z);
        for (int v = 0; v < volumes; ++v) {
          naive::unfold(fold_re.data() + v * s.folded.prod(), fold_im.data() + v * s.folded.prod(),
                        s.folded, s.factors, s.dims, s.full, s.edges_y, s.edges_z,
                        out_re.data() + v * s.full.prod(), out_im.data() + v * s.full.prod());
        }
      });
}

/// 192 x 96 x 32 folded samples from twice as many lines and slices, with the maps given.
Scene large_unfold() {
  Scene s(192, 96, 32, 32, 48, 16, false);
  s.folded << 192, 96, 32, 32;
  s.full << 192, 192, 64;
  s.size_grid();
  return s;
}

}  // namespace

#define SENSE_BENCH(turns, f, name, ...)  \
  BENCHMARK_CAPTURE(f, name, __VA_ARGS__) \
      ->UseManualTime()                   \
      ->Iterations(turns)                 \
      ->Unit(benchmark::kMillisecond)
SENSE_BENCH(15, BM_unfold, 8_coils_2, Scene(192, 384, 1, 8, 192, 1, false));
SENSE_BENCH(15, BM_factors, 8_coils_2, Scene(192, 192, 1, 8, 96, 1, true));
SENSE_BENCH(15, BM_factors, 8_coils_2_white, Scene(192, 192, 1, 8, 96, 1, false));
SENSE_BENCH(9, BM_recon, 16_coils_2_5, Scene(256, 255, 1, 16, 102, 1, false), 8);
SENSE_BENCH(3, BM_factors, 32_coils_2x2_white, Scene(192, 96, 32, 32, 48, 16, false));
SENSE_BENCH(3, BM_factors, 32_coils_2x2, Scene(192, 96, 32, 32, 48, 16, true));
SENSE_BENCH(3, BM_unfold, 32_coils_2x2, large_unfold());
