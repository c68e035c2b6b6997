#include "limit.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

namespace bench {

namespace {

constexpr double kMostBytes = 64 << 20;
constexpr int kRounds = 20000;

/// Sums in many lanes, so that memory alone limits.
template <int Lanes>
[[gnu::always_inline]] inline void read_all(const float* v, std::size_t n) {
  float lane[Lanes] = {};
  for (std::size_t i = 0; i + Lanes <= n; i += Lanes) {
#pragma omp simd
    for (std::size_t j = 0; j < Lanes; ++j) lane[j] += v[i + j];
  }
  benchmark::DoNotOptimize(lane);
}

/// Every value read, changed and written again where it was.
template <int Lanes>
[[gnu::always_inline]] inline void update_all(float* v, std::size_t n) {
  for (std::size_t i = 0; i + Lanes <= n; i += Lanes) {
#pragma omp simd
    for (std::size_t j = 0; j < Lanes; ++j) v[i + j] = 1 - v[i + j];
  }
  benchmark::ClobberMemory();
}

/// a = a b + c in as many registers as there are, products and sums rounded separately.
template <class Vector, int Count>
[[gnu::always_inline]] inline void multiply_add() {
  Vector a[Count] = {};
  Vector b = Vector{} + static_cast<decltype(b[0] + b[0])>(0.5), c = b;
  benchmark::DoNotOptimize(b);
  benchmark::DoNotOptimize(c);
  for (int r = 0; r < kRounds; ++r) {
#pragma GCC unroll 32
    for (int i = 0; i < Count; ++i) a[i] = a[i] * b + c;
  }
  for (int i = 0; i < Count; ++i) benchmark::DoNotOptimize(a[i]);
}

template <class T, int Bytes>
using Vector [[gnu::vector_size(Bytes)]] = T;

// The instruction sets of recon/dispatch.h.
template <class T>
[[gnu::target("avx512f")]] void peak_512() {
  multiply_add<Vector<T, 64>, 24>();
}
template <class T>
[[gnu::target("avx2")]] void peak_256() {
  multiply_add<Vector<T, 32>, 12>();
}
template <class T>
void peak_128() {
  multiply_add<Vector<T, 16>, 12>();
}
[[gnu::target("avx512f")]] void update_512(float* v, std::size_t n) { update_all<64>(v, n); }
[[gnu::target("avx2")]] void update_256(float* v, std::size_t n) { update_all<64>(v, n); }
void update_128(float* v, std::size_t n) { update_all<64>(v, n); }
[[gnu::target("avx512f")]] void read_512(const float* v, std::size_t n) { read_all<128>(v, n); }
[[gnu::target("avx2")]] void read_256(const float* v, std::size_t n) { read_all<64>(v, n); }
void read_128(const float* v, std::size_t n) { read_all<32>(v, n); }

void read(const float* v, std::size_t n) {
  if (__builtin_cpu_supports("avx512f")) return read_512(v, n);
  if (__builtin_cpu_supports("avx2")) return read_256(v, n);
  read_128(v, n);
}

void update(float* v, std::size_t n) {
  if (__builtin_cpu_supports("avx512f")) return update_512(v, n);
  if (__builtin_cpu_supports("avx2")) return update_256(v, n);
  update_128(v, n);
}

template <class T>
Yardstick arithmetic(double amount) {
  const double lanes = 1.0 / sizeof(T);
  if (__builtin_cpu_supports("avx512f")) {
    return {{peak_512<T>, {}}, amount / (24 * 64 * lanes * kRounds)};
  }
  if (__builtin_cpu_supports("avx2")) {
    return {{peak_256<T>, {}}, amount / (12 * 32 * lanes * kRounds)};
  }
  return {{peak_128<T>, {}}, amount / (12 * 16 * lanes * kRounds)};
}

std::shared_ptr<std::vector<float>> memory(double bytes) {
  return std::make_shared<std::vector<float>>(static_cast<std::size_t>(bytes / sizeof(float)) + 1,
                                              1.0f);
}

}  // namespace

const char* name(Kind kind) {
  const char* const names[] = {"",       "memcpy",           "in-place pass",   "read",
                               "memset", "multiply-add (f)", "multiply-add (d)"};
  return names[static_cast<int>(kind)];
}

Yardstick yardstick(const Limit& limit) {
  if (limit.kind == Kind::kSingle) return arithmetic<float>(limit.amount);
  if (limit.kind == Kind::kDouble) return arithmetic<double>(limit.amount);
  const double bytes = std::min(limit.amount, kMostBytes), times = limit.amount / bytes;
  const auto a = memory(bytes);
  const auto size = static_cast<std::size_t>(bytes);
  if (limit.kind == Kind::kRead) return {{[a] { read(a->data(), a->size()); }, {}}, times};
  if (limit.kind == Kind::kUpdate) return {{[a] { update(a->data(), a->size()); }, {}}, times};
  if (limit.kind == Kind::kWrite) {
    return {{[a, size] {
               std::memset(a->data(), 0, size);
               benchmark::ClobberMemory();
             },
             {}},
            times};
  }
  const auto b = memory(bytes);
  return {{[a, b, size] {
             std::memcpy(b->data(), a->data(), size);
             benchmark::ClobberMemory();
           },
           {}},
          times};
}

}  // namespace bench
