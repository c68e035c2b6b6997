// How loops are shared between threads and how outer extents merge: stated here and nowhere else.
//
// The split is fixed by the iteration count and the team size alone, so a run can be reproduced
// and every thread streams through one contiguous part of memory.
#pragma once

#include <omp.h>

#include <algorithm>
#include <cstdint>

namespace ctessel {

/// Half-open range of iterations.
struct Range {
  std::int64_t begin, end;
};

/// Share of thread t of T in n iterations: chunks of ceil(n / T), the last ones shorter or empty.
inline Range static_chunk(std::int64_t n, int T, int t) {
  const std::int64_t chunk = (n + T - 1) / T;
  const std::int64_t begin = std::min(t * chunk, n);
  return {begin, std::min(begin + chunk, n)};
}

/// A stack frame besides that of the team, which no exception leaves: where both are one, GCC 14
/// for 32 bits hands a wrong exception to the runtime, which then crashes in place of saying its name.
template <class Body>
[[gnu::noinline]] void run_chunk(const Body& body, Range chunk) {
  body(chunk.begin, chunk.end);
}

/// Runs body(begin, end) once on every thread of a team, with that thread's chunk of n iterations
/// (an empty one for some threads where n is small). A single iteration wakes no team.
template <class Body>
void for_each_chunk(std::int64_t n, const Body& body) {
#pragma omp parallel if (n > 1)
  run_chunk(body, static_chunk(n, omp_get_num_threads(), omp_get_thread_num()));
}

/// Product of the extents from dimension `first` (0-based) on: the merged outer count.
template <class Int>
std::int64_t merged_outer(int ndims, const Int* dims, int first = 3) {
  std::int64_t count = 1;
  for (int d = first; d < ndims; ++d) count *= dims[d];
  return count;
}

}  // namespace ctessel
