// The gateway's operations on the memory host.
//
// of_memcpy: bytes per second read and written by the operation, relative to memcpy's.
// speedup: against the same samples done one by one (one powf, or one interpolation, per sample).
// Arguments: layout (0 separate parts, 1 pairs). OMP_NUM_THREADS sets the threads of the operation;
// memcpy and the naive loops use one.

#include <functional>

#include "homodyne.h"
#include "host/memory.h"
#include "naive_homodyne.h"
#include "ratio.h"

namespace {

using host::Array;
using host::Layout;

std::vector<float> values(std::size_t n) {
  std::vector<float> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = 1.0f + static_cast<float>(i % 1009) / 1009;
  return v;
}

Array image(const std::vector<int>& dims, Layout layout) {
  std::size_t n = 1;
  for (int d : dims) n *= static_cast<std::size_t>(d);
  const std::vector<float> v = values(n);
  return host::single(dims, v, v, layout);
}

void call(std::vector<const Array*> inputs) {
  Array* out[1] = {nullptr};
  mexFunction(1, out, static_cast<int>(inputs.size()), inputs.data());
  host::state().created.clear();
}

const Array kFilter = host::text("filter"), kMultiply = host::text("multiply");
const Array kNone = host::doubles({0, 0}, {}), kRange = host::doubles({1, 2}, {-40, 127});
const std::vector<int> kDims = {256, 256, 32, 16};
constexpr std::size_t kSamples = 256u * 256 * 32 * 16;

// Weighting alone: the centre block is one position of kx (a range there is rejected and costs
// nothing), so that what is timed is the pass over the data.
const Array kOnePosition = host::doubles({1, 2}, {-40, 20});

void filter_of_memcpy(benchmark::State& state) {
  host::state().layout = state.range(0) ? Layout::kPairs : Layout::kParts;
  Array data = image(kDims, host::state().layout);
  bench::Memcpy copy(kSamples * 8);
  bench::against(state, "of_memcpy", std::ref(copy), [&] {
    call({&kFilter, &data, &kOnePosition, &kRange, &kNone});
  });
}

void filter_speedup(benchmark::State& state) {
  const Array ranges[] = {state.range(0) ? kRange : kOnePosition, kRange, kNone};
  Array data = image(kDims, Layout::kParts);
  float* re = data.re.data();
  float* im = data.im.data();
  std::vector<float> wx(256, 1.0f), wy(256, 1.0f);
  int bounds[2];
  double r[] = {-40, 127};
  calculate_filter(256, r, wy.data(), bounds);
  if (state.range(0)) wx = wy;
  const float exponent = state.range(0) ? 0.5f : 1.0f;
  const auto naive = [&] {
    for (std::size_t i = 0; i < kSamples; ++i) {
      const float w = powf(wx[i % 256] * wy[i / 256 % 256], exponent);
      re[i] *= w;
      im[i] *= w;
    }
  };
  bench::against(state, "speedup", naive, [&] {
    call({&kFilter, &data, &ranges[0], &ranges[1], &ranges[2]});
  });
}

void multiply_of_memcpy(benchmark::State& state) {
  const Layout layout = state.range(0) ? Layout::kPairs : Layout::kParts;
  Array data = image(kDims, layout), low = image(kDims, layout);
  bench::Memcpy copy(kSamples * 8);
  // Both images are read and the data written: three halves of what memcpy moves.
  bench::against(
      state, "of_memcpy", std::ref(copy),
      [&] {
        call({&kMultiply, &data, &low});
      },
      1.5);
}

void multiply_resampled(benchmark::State& state) {
  const Layout layout = state.range(0) ? Layout::kPairs : Layout::kParts;
  const std::vector<int> dims = {256, 256, 32}, low_dims = {64, 64, 16};
  Array data = image(dims, layout), low = image(low_dims, layout);
  naive::Volume plain{dims, values(256 * 256 * 32), values(256 * 256 * 32)};
  naive::Volume plain_low{low_dims, values(64 * 64 * 16), values(64 * 64 * 16)};
  bench::against(
      state, "speedup", [&] { naive::multiply(plain, plain_low); },
      [&] {
        call({&kMultiply, &data, &low});
      });
}

}  // namespace

#define GATEWAY_BENCHMARK(f) \
  BENCHMARK(f)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(9)
GATEWAY_BENCHMARK(filter_of_memcpy);
GATEWAY_BENCHMARK(filter_speedup)->ArgName("two_axes");
GATEWAY_BENCHMARK(multiply_of_memcpy);
GATEWAY_BENCHMARK(multiply_resampled);
