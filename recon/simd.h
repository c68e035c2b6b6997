// One notation for what plain loops cannot say: vectors of a fixed width, inlining into each version
// of a hot loop, stores past the caches, and squares transposed in registers.
#pragma once

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

/// Before a function that must become part of its caller: one in a version for wider vectors.
#define CTESSEL_INLINE [[gnu::always_inline]] inline

namespace ctessel {

constexpr std::ptrdiff_t kLine = 64;  // bytes of a cache line

/// N values of T that are worked on together.
template <class T, int N>
struct VectorOf {
  typedef T Type __attribute__((vector_size(N * sizeof(T))));
};
template <class T, int N>
using Vector = typename VectorOf<T, N>::Type;

/// Vectors from and to memory of any alignment.
template <class V>
CTESSEL_INLINE V load(const void* from) {
  V v;
  std::memcpy(&v, from, sizeof(v));
  return v;
}
template <class V>
CTESSEL_INLINE void store(void* to, V v) {
  std::memcpy(to, &v, sizeof(v));
}

/// By how many bytes p lies behind the start of its cache line.
inline std::ptrdiff_t into_line(const void* p) {
  return static_cast<std::ptrdiff_t>(reinterpret_cast<std::uintptr_t>(p) % kLine);
}

/// Writes whole lines past the caches, which would read them first. finish_streams() follows before
/// another thread may read them.
inline void stream_bytes(char* to, const char* from, std::ptrdiff_t bytes) {
  std::ptrdiff_t i = 0;
#ifdef __SSE2__
  i = std::min(bytes, (kLine - into_line(to)) % kLine);
  std::memcpy(to, from, static_cast<std::size_t>(i));
  for (; i + kLine <= bytes; i += kLine) {
    for (std::ptrdiff_t k = i; k < i + kLine; k += 16) {
      _mm_stream_si128(reinterpret_cast<__m128i*>(to + k),
                       _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + k)));
    }
  }
#endif
  std::memcpy(to + i, from + i, static_cast<std::size_t>(bytes - i));
}

inline void finish_streams() {
#ifdef __SSE2__
  _mm_sfence();
#endif
}

/// Transposes a square of four by four words of 4 bytes, or two by two of 8: row i is read from rows[i] +
/// at bytes, column j written to `to` + j pitch.
CTESSEL_INLINE void transpose_square(std::uint32_t, const char* const* rows, std::ptrdiff_t at,
                                     char* to, std::ptrdiff_t pitch) {
  using Four = Vector<std::uint32_t, 4>;
  const Four a = load<Four>(rows[0] + at), b = load<Four>(rows[1] + at),
             c = load<Four>(rows[2] + at), d = load<Four>(rows[3] + at);
  const Four ab = __builtin_shufflevector(a, b, 0, 4, 1, 5),
             AB = __builtin_shufflevector(a, b, 2, 6, 3, 7),
             cd = __builtin_shufflevector(c, d, 0, 4, 1, 5),
             CD = __builtin_shufflevector(c, d, 2, 6, 3, 7);
  store<Four>(to, __builtin_shufflevector(ab, cd, 0, 1, 4, 5));
  store<Four>(to + pitch, __builtin_shufflevector(ab, cd, 2, 3, 6, 7));
  store<Four>(to + 2 * pitch, __builtin_shufflevector(AB, CD, 0, 1, 4, 5));
  store<Four>(to + 3 * pitch, __builtin_shufflevector(AB, CD, 2, 3, 6, 7));
}

CTESSEL_INLINE void transpose_square(std::uint64_t, const char* const* rows, std::ptrdiff_t at,
                                     char* to, std::ptrdiff_t pitch) {
  using Two = Vector<std::uint64_t, 2>;
  const Two a = load<Two>(rows[0] + at), b = load<Two>(rows[1] + at);
  store<Two>(to, __builtin_shufflevector(a, b, 0, 2));
  store<Two>(to + pitch, __builtin_shufflevector(a, b, 1, 3));
}

}  // namespace ctessel
