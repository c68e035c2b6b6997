// How everything here is timed, decided once: two or three sides alternate, each round gives one
// ratio, and the median of these ratios counts. The machine's speed drifts and other programs come
// and go; what neighbours in time have in common cancels.
//
// Times are processor time of this thread, so that being put aside for another program costs
// nothing. Only cost against the number of threads needs the clock on the wall, and there the
// shortest times count.
#pragma once

#include <algorithm>
#include <ctime>
#include <functional>
#include <limits>
#include <vector>

namespace bench {

/// One side of a comparison. `prepare` puts inputs right that calls spoil, and is not timed.
struct Side {
  std::function<void()> call, prepare;
};

struct Timing {
  double budget;      // seconds for all rounds together
  std::size_t least;  // rounds at least
  clockid_t clock = CLOCK_THREAD_CPUTIME_ID;
};

inline double now(clockid_t clock) {
  timespec t;
  clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

/// Seconds per call. Short calls are repeated, so that reading the clock does not show.
inline double seconds(const Side& side, int repeats, clockid_t clock) {
  if (side.prepare) side.prepare();
  const double start = now(clock);
  for (int i = 0; i < repeats; ++i) side.call();
  return (now(clock) - start) / repeats;
}

/// Calls per timing: about 0.3 ms, but few where calls spoil their input.
inline int repeats_for(const Side& side) {
  const double once = std::max(seconds(side, 1, CLOCK_MONOTONIC), 1e-9);
  const int most = side.prepare ? 16 : 1 << 20;
  return std::clamp(static_cast<int>(3e-4 / once), 1, most);
}

inline double median(std::vector<double> v) {
  if (v.empty()) return std::numeric_limits<double>::quiet_NaN();
  const auto middle = v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2);
  std::nth_element(v.begin(), middle, v.end());
  return *middle;
}

/// Each side's time over that of the first one: the median over the rounds, or, by the clock on the
/// wall, the shortest over the shortest.
inline std::vector<double> against_first(const std::vector<Side>& sides, const Timing& timing) {
  constexpr std::size_t kMostRounds = 25;
  std::vector<int> repeats;
  for (const Side& side : sides) repeats.push_back(repeats_for(side));
  std::vector<std::vector<double>> times(sides.size()), ratios(sides.size());
  const double start = now(CLOCK_MONOTONIC);
  for (std::size_t round = 0; round < kMostRounds; ++round) {
    if (round >= timing.least && now(CLOCK_MONOTONIC) - start > timing.budget) break;
    for (std::size_t i = 0; i < sides.size(); ++i) {
      times[i].push_back(seconds(sides[i], repeats[i], timing.clock));
      ratios[i].push_back(times[i].back() / times[0].back());
    }
  }
  std::vector<double> results;
  for (std::size_t i = 0; i < sides.size(); ++i) {
    const auto shortest = [&](std::size_t k) { return *std::ranges::min_element(times[k]); };
    const bool wall = timing.clock == CLOCK_MONOTONIC;
    results.push_back(wall ? shortest(i) / shortest(0) : median(ratios[i]));
  }
  return results;
}

}  // namespace bench
