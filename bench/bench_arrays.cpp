// Shifts, padding, filtering and combination, on one thread (set OMP_NUM_THREADS=1).
//
// of_memcpy: bytes per second that must move (each sample read and written once), relative to
// memcpy's. of_read: bytes per second read, relative to a plain sum over the same array. speedup:
// against the naive loops of the tests.

#include <functional>
#include <numeric>

#include "cTessel.h"
#include "naive_arrays.h"
#include "ratio.h"

namespace {

std::vector<float> values(std::size_t n) {
  std::vector<float> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = 0.5f + static_cast<float>(i % 1009) / 1009;
  return v;
}

constexpr std::size_t kSamples = 256u * 256 * 64 * 8;

void shift(benchmark::State& state) {
  const int n = static_cast<int>(state.range(1));  // odd lengths beside even ones
  int dims[] = {n, n, n == 256 ? 64 : 63, 8};
  const std::size_t count = naive::product(dims, 0, 4);
  std::vector<float> re = values(count), im = re;
  bench::Memcpy copy(count * 8);
  bench::against(state, "of_memcpy", std::ref(copy), [&] {
    TS_fftshift(re.data(), im.data(), dims, 4, static_cast<int>(state.range(0)));
  });
}
BENCHMARK(shift)
    ->ArgNames({"dim", "n"})
    ->ArgsProduct({{1, 2, 3}, {256, 255}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(15);

void zero_pad(benchmark::State& state) {
  int dims[] = {192, 192, 32, 8};
  const std::size_t count = naive::product(dims, 0, 4);
  std::vector<float> re = values(count), im = re, out_re(256u * 256 * 64 * 8, 1.0f),
                     out_im = out_re;
  bench::Memcpy copy(count * 8);
  bench::against(state, "of_memcpy", std::ref(copy), [&] {
    TS_zero_pad(re.data(), im.data(), 4, dims, 256, 256, 64, out_re.data(), out_im.data());
  });
}

void ringing_filter(benchmark::State& state) {
  int dims[] = {256, 256, 64, 8}, width[] = {256, 256, 64};
  double strength[] = {0.01, 0.01, 0.01};  // weak, so that repeated runs do not reach denormals
  std::vector<float> re = values(kSamples), im = re;
  bench::Memcpy copy(kSamples * 8);
  bench::against(state, "of_memcpy", std::ref(copy),
                 [&] { TS_ringing_filter(re.data(), im.data(), 4, dims, strength, width); });
}

void sos_of_read(benchmark::State& state) {
  int dims[] = {256, 256, 32, 16}, outdims[] = {256, 256, 32, 1};
  std::vector<float> re = values(256u * 256 * 32 * 16), im = re, out(256u * 256 * 32);
  const auto read = [&] {
    for (const std::vector<float>* part : {&re, &im}) {
      float lane[64] = {};  // independent sums, so that memory alone limits
      for (std::size_t i = 0; i < part->size(); i += 64) {
#pragma omp simd
        for (std::size_t j = 0; j < 64; ++j) lane[j] += (*part)[i + j];
      }
      benchmark::DoNotOptimize(lane);
    }
  };
  bench::against(state, "of_read", read,
                 [&] { TS_perform_sos(re.data(), im.data(), 4, dims, 4, out.data(), outdims); });
}

void sos_speedup(benchmark::State& state) {
  const bool first = state.range(0) == 1;
  std::vector<int> dims =
      first ? std::vector<int>{16, 256, 256, 8} : std::vector<int>{256, 256, 8, 16};
  std::vector<int> outdims = dims;
  outdims[first ? 0 : 3] = 1;
  const std::size_t voxels = 256u * 256 * 8;
  std::vector<float> re = values(voxels * 16), im = re, out(voxels);
  const int coildim = first ? 1 : 4;
  bench::against(
      state, "speedup",
      [&] { naive::perform_sos(re.data(), im.data(), dims.data(), coildim, out.data(), voxels); },
      [&] {
        TS_perform_sos(re.data(), im.data(), 4, dims.data(), coildim, out.data(), outdims.data());
      });
}

void pcsos_speedup(benchmark::State& state) {
  const int D = static_cast<int>(state.range(0));
  int dims[] = {256, 256, 1, 16, 1, 1, 1, 1, 1, D}, outdims[] = {256, 256, 1, 1, 1, 1, 1, 1, 1, D};
  const std::size_t voxels = naive::product(outdims, 0, 10);
  std::vector<float> re = values(voxels * 16), im = values(voxels * 16), a(voxels), b(voxels);
  bench::against(
      state, "speedup",
      [&] { naive::perform_pcsos(re.data(), im.data(), dims, 4, a.data(), b.data(), voxels); },
      [&] { TS_perform_pcsos(re.data(), im.data(), 10, dims, 4, a.data(), b.data(), outdims); });
}

}  // namespace

#define ARRAY_BENCHMARK(f) \
  BENCHMARK(f)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(15)
ARRAY_BENCHMARK(zero_pad);
ARRAY_BENCHMARK(ringing_filter);
ARRAY_BENCHMARK(sos_of_read);
ARRAY_BENCHMARK(sos_speedup)->ArgName("coildim")->Arg(1)->Arg(4);
ARRAY_BENCHMARK(pcsos_speedup)->ArgName("D")->Arg(1)->Arg(4)->Arg(20);
