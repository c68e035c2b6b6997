// Associated Legendre functions for a block of arguments at once, and the lookup table's samples.
// Shared by the table and the geometry correction, which must agree to the last bit.
#pragma once

#include <cstdint>

namespace ctessel {

/// Arguments worked on together. A lane never depends on its neighbours.
constexpr int kLanes = 32;

/// Where the recurrence over the degrees stands for each lane.
struct LegendreLanes {
  double x[kLanes];
  double sine[kLanes];      // sqrt(1 - x^2) rounded to float, as in plgndr
  double diagonal[kLanes];  // P_m^m of the degree done last
};

/// Starts all lanes before degree 0.
void legendre_start(LegendreLanes& lanes, const float* x);

/// P_l^m of every lane for l = m .. orders - 1, rounded to float: out[l - m]. Degrees must be asked
/// for one after another, from 0 on. The bits are those of plgndr.
void legendre_degree(LegendreLanes& lanes, int m, int orders, float (*out)[kLanes]);

/// Distance of the samples of a table over [-1, 1].
inline float lookup_step(int npts) { return static_cast<float>(2.0 / (npts - 1.0)); }

/// Sample i: the product and the difference are exact in double, so this rounds once.
inline float lookup_sample(std::int64_t i, float step) {
  return static_cast<float>(static_cast<double>(i) * step - 1.0);
}

}  // namespace ctessel
