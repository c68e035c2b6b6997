// Conversion of floating-point values to int that is defined for every value.
#pragma once

#include <climits>

namespace ctessel {

/// v truncated toward zero; NaN and values outside int give INT_MIN, which is what the x86
/// conversion instructions deliver.
inline int to_int(double v) {
  return v > -2147483649.0 && v < 2147483648.0 ? static_cast<int>(v) : INT_MIN;
}

}  // namespace ctessel
