// What a benchmark is made of: for every routine one function that sets up a case from extents, the
// rows of the report, and the sweeps that show how cost grows.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "limit.h"

namespace bench {

using Floats = std::vector<float>;

/// Extents and options of a case. A routine reads those that mean something to it.
struct Setting {
  int nx = 256, ny = 256, nz = 1, coils = 16, volumes = 1;
  double ry = 2, rz = 1;  // reduction factors
  int n = 1000;           // length of a list
  bool option = false;    // the routine's own: other layout, other noise, ...
  bool coarse = false;    // maps have every second sample along x
  double samples() const { return 1.0 * nx * ny * nz * coils * volumes; }
};

/// One call, its naive version with results of its own, and what is claimed of it.
struct Case {
  std::function<void()> kernel, naive;
  std::function<void()> prepare;       // needed before each timing where calls spoil their input
  std::vector<Limit> limits;           // the slowest counts
  double documented = 0;               // bytes beyond inputs and outputs, as in the docstring
  double output = 0;                   // bytes that the call allocates for its caller
  std::function<double()> difference;  // of both results after one call each, relative
  double tolerance = 0;                // 0: the same bits
  /// The call without what is optional in it, and the part of the work that this is compared with.
  std::function<void()> without, part;
};

struct Row {
  std::string data;
  Setting setting;
};

struct Point {
  double x;
  Setting setting;
  int threads = 1;
};

struct Sweep {
  std::string axis;
  std::vector<Point> points;
};

struct Routine {
  std::string name;
  std::function<Case(const Setting&)> make;
  std::vector<Row> rows;
  std::vector<Sweep> sweeps;
};

std::vector<Routine> array_routines();
std::vector<Routine> geometry_routines();
std::vector<Routine> helper_routines();
std::vector<Routine> homodyne_routines();
std::vector<Routine> sense_routines();

// Realistic sizes, all larger than the caches.
const Row kBrain{"2-D multi-slice, 16 coils", {256, 256, 16, 16}};
const Row kVolume{"3-D, 32 coils", {128, 128, 32, 32}};
const Row kOddVolume{"3-D, odd, 32 coils", {127, 127, 31, 32}};
const Row kSeries{"dynamic, 8 coils", {96, 96, 12, 8, 20}};

/// Points of one setting with `change(setting, value)` applied; x is what `x_of` makes of it.
template <class Change, class Measure>
Sweep sweep(const std::string& axis, const Setting& base, const std::vector<int>& values,
            const Change& change, const Measure& x_of) {
  Sweep s{axis, {}};
  for (int value : values) {
    Setting setting = base;
    change(setting, value);
    s.points.push_back({static_cast<double>(x_of(setting)), setting});
  }
  return s;
}

inline Sweep thread_sweep(const Setting& setting, int most) {
  Sweep s{"threads", {}};
  for (int t = 1; t <= most; ++t) s.points.push_back({static_cast<double>(t), setting, t});
  return s;
}

inline Sweep coil_sweep(const Setting& setting) {
  return sweep(
      "coils", setting, {1, 2, 4, 8, 16, 32, 64}, [](Setting& s, int c) { s.coils = c; },
      [](const Setting& s) { return s.coils; });
}

/// Planes of growing side: a little over three decades of samples.
inline Sweep size_sweep(const Setting& setting) {
  return sweep(
      "samples", setting, {16, 32, 64, 128, 256, 512, 724},
      [](Setting& s, int n) { s.nx = s.ny = n; }, [](const Setting& s) { return s.samples(); });
}

inline Sweep length_sweep(const Setting& setting, const std::vector<int>& values) {
  return sweep(
      "length", setting, values, [](Setting& s, int n) { s.n = n; },
      [](const Setting& s) { return s.n; });
}

/// Values between 0.5 and 1.5, without any pattern along power-of-two strides.
inline Floats values(double count, std::uint32_t seed = 1) {
  Floats v(static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < v.size(); ++i) {
    std::uint32_t h = static_cast<std::uint32_t>(i) * 2654435769u + seed * 40503u;
    h = (h ^ (h >> 16)) * 0x7feb352du;
    h = (h ^ (h >> 15)) * 0x846ca68bu;
    v[i] = 0.5f + static_cast<float>((h ^ (h >> 16)) >> 8) / 16777216.0f;
  }
  return v;
}

/// Calls f where the compiler cannot fold it into the loop, as it cannot with a library's routine.
template <class F, class Argument>
[[gnu::noinline]] double call_uninlined(const F& f, Argument argument) {
  return f(argument);
}

/// Largest difference over the largest value.
template <class A, class B>
double difference(const A& a, const B& b) {
  double most = 0, scale = 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(a.size()); ++i) {
    const auto k = static_cast<decltype(a.size())>(i);
    most = std::fmax(most, std::abs(a[k] - b[k]));
    if (!(std::abs(a[k] - b[k]) >= 0)) most = INFINITY;
    scale = std::fmax(scale, std::abs(b[k]));
  }
  return most == 0 ? 0 : most / scale;
}

}  // namespace bench
