// Unfolding of one multi-coil volume with factors that are there already, and what every unfolding
// knows of its lines and columns.

#include <algorithm>
#include <cmath>

#include "cTessel.h"
#include "conversion.h"
#include "sense_volumes.h"

namespace {

using ctessel::RowGrid;
using ctessel::UnfoldAxis;
using std::int64_t;

/// Lines along an axis; none of their interpolation mixes both sides of a jump of the factors.
UnfoldAxis list_lines(int folded_len, int full_len, int room, int factor_len, const float* edges) {
  UnfoldAxis axis{folded_len, room, {}, {}, {}};
  float compartments[] = {-1, -1};
  if (folded_len > 0) get_compartments(full_len, folded_len, compartments);
  const Eigen::VectorXf plain = ctessel::even_grid(folded_len, factor_len - 1, 0);
  Eigen::VectorXi lines(room);
  for (int i = 0; i < folded_len; ++i) {
    axis.count.push_back(TS_get_unfolded_positions(full_len, folded_len, i, lines));
    axis.full.insert(axis.full.end(), lines.begin(), lines.end());
    const float at = static_cast<float>(pos2interpolate(plain[i], i, compartments, edges));
    axis.coord.push_back(at < 0 ? 0 : at);
  }
  return axis;
}

RowGrid row_grid(int folded_len, int factor_len) {
  RowGrid grid{{}, {}, {}, folded_len == factor_len};
  const Eigen::VectorXf plain = ctessel::even_grid(folded_len, factor_len - 1, 0);
  for (float x : plain) {
    x = x < 0 ? 0 : x;
    grid.index.push_back(ctessel::to_int(x));
    grid.nearest.push_back(TS_round(x));
    grid.fraction.push_back(static_cast<double>(x) - grid.index.back());
    grid.regular &= grid.index.back() + 1 == static_cast<int>(grid.index.size());
  }
  return grid;
}

}  // namespace

std::vector<int> ctessel::listed_lines(int folded_line, int folded_len, int full_len,
                                       const std::vector<int>& offsets) {
  std::vector<int> lines;
  const int64_t first = (int64_t{full_len} - folded_len + 1) / 2 + folded_line;
  for (int offset : offsets) {
    const int64_t line = (first + offset) % full_len;
    lines.push_back(static_cast<int>(line < 0 ? line + full_len : line));
  }
  return lines;
}

void ctessel::SenseProblem::lay_out(const Eigen::VectorXi& fold, const Eigen::VectorXi& full,
                                    const float* edges_y, const float* edges_z) {
  folded_coils = fold[3];
  nx = fold[0];
  full_x = full[0];
  full_y = full[1];
  full_z = full[2];
  x = row_grid(fold[0], static_cast<int>(factors.nx));
  y = list_lines(fold[1], full[1], factors.y.room, factors.y.lines, edges_y);
  z = list_lines(fold[2], full[2], factors.z.room, factors.z.lines, edges_z);
}

int unfold(float* fold_re, float* fold_im, Eigen::VectorXi& fold4, Eigen::VectorXcd& factors,
           Eigen::VectorXi& factor_dims, Eigen::VectorXi& /*sens4*/, Eigen::VectorXi full_size,
           float* edges_y, float* edges_z, float* out_re, float* out_im) {
  if (factors.size() == 0 || factor_dims.head(3).minCoeff() < 1 || fold4.head(3).minCoeff() < 1 ||
      fold4[3] < 0 || full_size.minCoeff() < 0) {
    return 1;
  }
  // Aliases along z that the factors have no slot for are left out: data of two dimensions are
  // unfolded with one slice however many the full size names.
  const int64_t nx = fold4[0], plane = nx * fold4[1];
  const int64_t slots =
      factors.size() / (int64_t{factor_dims[0]} * factor_dims[1] * factor_dims[2]);
  const auto most = [&](int d) {
    return ctessel::to_int(
        std::ceil(static_cast<float>(full_size[d]) / static_cast<float>(fold4[d])));
  };
  const int coils = std::max(fold4[3], 1);
  const int64_t room_z = slots / std::max<int64_t>(1, int64_t{coils} * most(1));
  const int Ay = most(1), Az = static_cast<int>(std::min<int64_t>(most(2), room_z));
  const ctessel::FactorProblem stored(factors, factor_dims, coils, Ay, Az);
  const int64_t pixels = int64_t{full_size[0]} * full_size[1] * full_size[2];
  ctessel::SenseProblem problem{
      .factors = stored,
      .folded = {fold_re, fold_im, 1, nx, plane, plane * fold4[2]},
      .out = {out_re, out_im, 1, full_size[0], int64_t{full_size[0]} * full_size[1]},
      .place = [=](int64_t) {
        return ctessel::VolumePlace{0, 0, pixels};
      }};
  problem.lay_out(fold4, full_size, edges_y, edges_z);
  return ctessel::unfold_volumes(problem) ? 1 : -1;
}
