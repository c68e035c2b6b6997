// Aliasing along one phase-encoding axis: which full lines share a folded line, and in which order.
//
// The folded image shows the central fold_len lines of the full field of view; every other full
// line wraps onto the folded line that is a multiple of fold_len away. Any ratio is allowed.

#include <cmath>
#include <utility>

#include "cTessel.h"
#include "conversion.h"

int TS_folded_pos(int pos, int full_len, int fold_len) {
  const float fold = static_cast<float>(fold_len);
  const int off = ctessel::to_int(std::ceil((static_cast<double>(full_len) - fold) * 0.5));
  const double below = off + 1.0 - (pos + 1.0);
  const int wraps = ctessel::to_int(std::ceil(static_cast<float>(below / fold)));
  return pos - off + fold_len * wraps;
}

void get_compartments(int full_len, int fold_len, float* compartments) {
  const int first = TS_folded_pos(0, full_len, fold_len);
  const int last = TS_folded_pos(full_len - 1, full_len, fold_len);
  if (first != 0) compartments[0] = static_cast<float>(first - 1);
  // Against the full length, not the folded one: a boundary at the last folded line counts too.
  if (last != full_len - 1) compartments[1] = static_cast<float>(last);
  if (compartments[0] > compartments[1]) std::swap(compartments[0], compartments[1]);
  if (compartments[0] == compartments[1]) compartments[0] = -1.0f;
}

int TS_get_unfolded_positions(int full_len, int fold_len, int fold_pos,
                              Eigen::VectorXi& positions) {
  positions.setConstant(-1);
  if (fold_len < 1) return 0;
  const float off = std::ceil(static_cast<float>((full_len - fold_len) * 0.5));
  const int central = ctessel::to_int(off + static_cast<float>(fold_pos));
  int count = 0;
  auto list = [&](int line) {
    if (count < positions.size()) positions[count++] = line;
  };
  // Nearest first on the way down, then the central line and upward: this order numbers the aliases
  // everywhere.
  for (std::int64_t q = std::int64_t{central} - fold_len; q >= 0; q -= fold_len) {
    list(static_cast<int>(q));
  }
  for (std::int64_t q = central; q < full_len; q += fold_len) {
    if (q >= 0) list(static_cast<int>(q));
  }
  return count;
}
