// What the targets draw from their bytes, and how they end.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "naive_arrays.h"

using Floats = std::vector<float>;

/// Makes values of bytes, from the last byte on; once they are used up every value is the lowest.
class Input {
 public:
  Input(const std::uint8_t* bytes, std::size_t left) : bytes_(bytes), left_(left) {}
  template <class T>
  T within(T low, T high) {
    const auto range = static_cast<std::uint64_t>(high) - static_cast<std::uint64_t>(low);
    std::uint64_t value = 0;
    for (unsigned used = 0; used < 8 * sizeof(T) && range >> used > 0 && left_ > 0; used += 8)
      value = value << 8 | bytes_[--left_];
    if (range != UINT64_MAX) value %= range + 1;
    return static_cast<T>(static_cast<std::uint64_t>(low) + value);
  }
  template <class T>
  T any() {
    return within(std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
  }
  bool flag() { return within<std::uint8_t>(0, 1) == 1; }
  template <class T, std::size_t N>
  const T& pick(const T (&values)[N]) {
    return values[within<std::size_t>(0, N - 1)];
  }
  double any_double() {
    const double top = std::numeric_limits<double>::max(), low = flag() ? 0 : -top;
    return low + top * (static_cast<double>(any<std::uint64_t>()) / 18446744073709551615.0);
  }

 private:
  const std::uint8_t* bytes_;
  std::size_t left_;
};

inline void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "violated: %s\n", what);
  std::abort();
}

inline float any_float(Input& input) {
  constexpr float kSpecial[] = {0.0f, -0.0f, 1.0f, INFINITY, -INFINITY, NAN, 3e38f, 1e-45f};
  const int kind = input.within(0, 15);
  if (kind <= 1) return input.pick(kSpecial);
  if (kind == 2) {
    const auto pattern = input.any<std::uint32_t>();
    float value;
    std::memcpy(&value, &pattern, sizeof value);
    return value;
  }
  return static_cast<float>(input.any<std::int8_t>()) / 8;
}

/// The first values are the input's, the others repeat them: long arrays cost few bytes.
inline Floats any_floats(Input& input, std::size_t n) {
  Floats v(n);
  const std::size_t own = input.within<std::size_t>(1, 32);
  for (std::size_t i = 0; i < n; ++i) v[i] = i < own ? any_float(input) : v[i - own];
  return v;
}

/// Imaginary parts, or none.
inline Floats any_imaginary(Input& input, std::size_t n) {
  return input.flag() ? any_floats(input, n) : Floats();
}

inline float* pointer(Floats& v) { return v.empty() ? nullptr : v.data(); }

/// The same bits, or both not a number.
inline bool same(float a, float b) {
  return std::isnan(b) ? std::isnan(a) : a == b && std::signbit(a) == std::signbit(b);
}

inline bool same(const std::vector<float>& a, const std::vector<float>& b) {
  for (std::size_t i = 0; i < b.size(); ++i) {
    if (!same(a[i], b[i])) return false;
  }
  return a.size() == b.size();
}

inline std::size_t count(const std::vector<int>& dims) {
  return naive::product(dims.data(), 0, static_cast<int>(dims.size()));
}
