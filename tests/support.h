// What every test file uses: thread counts, guarded arrays, seeded random data, bit comparison.
#pragma once

#include <omp.h>

#include <catch2/catch.hpp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

/// Bit patterns, so that NaNs and signed zeros compare as what they are.
inline std::vector<std::uint32_t> bits(const std::vector<float>& v) {
  std::vector<std::uint32_t> out(v.size());
  if (!v.empty()) std::memcpy(out.data(), v.data(), v.size() * sizeof(float));
  return out;
}

/// Array with guard zones on both sides, which must keep their pattern.
template <class T>
class Guarded {
 public:
  explicit Guarded(std::vector<T> content) : size_(content.size()), store_(size_ + 2 * kGuard) {
    std::memset(static_cast<void*>(store_.data()), kPattern, store_.size() * sizeof(T));
    std::copy(content.begin(), content.end(), data());
  }
  Guarded(std::size_t n, T value) : Guarded(std::vector<T>(n, value)) {}
  T* data() { return store_.data() + kGuard; }
  std::vector<T> values() const {
    return {store_.begin() + kGuard, store_.begin() + kGuard + static_cast<std::ptrdiff_t>(size_)};
  }
  bool intact() const {
    const auto* bytes = reinterpret_cast<const unsigned char*>(store_.data());
    const std::size_t zone = kGuard * sizeof(T), end = store_.size() * sizeof(T);
    for (std::size_t i = 0; i < zone; ++i) {
      if (bytes[i] != kPattern || bytes[end - 1 - i] != kPattern) return false;
    }
    return true;
  }

 private:
  static constexpr std::ptrdiff_t kGuard = 64;
  static constexpr unsigned char kPattern = 0xA5;
  std::size_t size_;
  std::vector<T> store_;
};

/// Runs f with 1, 2, 3 and 7 threads.
template <class F>
void with_thread_counts(const F& f) {
  const int before = omp_get_max_threads();
  for (int threads : {1, 2, 3, 7}) {
    omp_set_num_threads(threads);
    CAPTURE(threads);
    f();
  }
  omp_set_num_threads(before);
}

/// Seed of this run: CTESSEL_SEED, or a new one. Shown with every failure that captures it.
inline unsigned run_seed() {
  static const unsigned seed = [] {
    const char* given = std::getenv("CTESSEL_SEED");
    return given ? static_cast<unsigned>(std::stoul(given)) : std::random_device{}();
  }();
  return seed;
}

class Random {
 public:
  explicit Random(unsigned salt = 0) : engine_(run_seed() + salt) {}
  int integer(int low, int high) { return std::uniform_int_distribution<int>(low, high)(engine_); }
  float real(float low = -1, float high = 1) {
    return std::uniform_real_distribution<float>(low, high)(engine_);
  }
  std::vector<float> reals(std::size_t n, float low = -1, float high = 1) {
    std::vector<float> v(n);
    for (float& x : v) x = real(low, high);
    return v;
  }

 private:
  std::mt19937 engine_;
};
