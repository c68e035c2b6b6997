// Unfolding matrices of every folded voxel, on the grid of the sensitivity maps.

#include <algorithm>
#include <cmath>

#include "cTessel.h"
#include "conversion.h"
#include "factor_lines.h"
#include "loops.h"

namespace {

using std::int64_t;

constexpr int64_t kTile = 256;  // columns gathered at a time: keeps a row's samples in the cache

/// Factors of all voxels; false if `direct` left out samples that are not finite.
bool form_all(const ctessel::FactorProblem& problem, bool direct, std::complex<double>* factors) {
  const int64_t nx = problem.nx, rows = problem.y.lines, grid = nx * rows * problem.z.lines;
  bool finite = true;
  ctessel::for_each_chunk(nx, [&](int64_t begin, int64_t end) {
    for (int64_t x = begin; x < end; x += kTile) {
      ctessel::FactorLines strip(problem, {x, std::min(x + kTile, end)});
      for (int y = 0; y < problem.y.lines; ++y) {
        for (int z = 0; z < problem.z.lines; ++z) {
          strip.form(y, z, direct, factors + x + nx * (y + rows * z), grid);
        }
      }
      if (strip.finite()) continue;
#pragma omp atomic write
      finite = false;
    }
  });
  return finite;
}

}  // namespace

int find_edges(Eigen::VectorXf a, Eigen::VectorXf b, int na, int nb, int N) {
  if (na != nb) return 1;
  const int half = N / 2;
  for (int i = 0; i < na; ++i) {
    if (std::abs(a[i] - b[i]) > static_cast<float>(half)) return 1;
  }
  return 0;
}

int get_combination_factors(
    float* sens_re, float* sens_im, const Eigen::VectorXi& sens_dims, const Eigen::MatrixXcd& psi,
    const Eigen::Vector3f& reduction, double lambda, const Eigen::VectorXf& reference,
    Eigen::VectorXcd& factors, Eigen::VectorXi& folded,
    Eigen::VectorXi full,  // NOLINT(performance-unnecessary-value-param): public
    float* edges_y, float* edges_z) {
  const int64_t nx = sens_dims[0], ny = sens_dims[1], nz = sens_dims[2], nc = sens_dims[3];
  const int cRy = ctessel::to_int(std::ceil(reduction[1]));
  const int cRz = ctessel::to_int(std::ceil(reduction[2]));
  const auto lines = [&](int d) {
    return ctessel::to_int(std::ceil(static_cast<float>(sens_dims[d]) / reduction[d]));
  };
  // Compared as doubles, which hold the product of any extents.
  const double voxels = static_cast<double>(nx) * lines(1) * lines(2);
  if (psi.rows() != nc || psi.cols() != nc || sens_dims.minCoeff() < 0 ||
      std::min({cRy, cRz, lines(1), lines(2)}) < 0 ||
      static_cast<double>(factors.size()) < voxels * static_cast<double>(nc) * cRy * cRz) {
    return 0;
  }
  ctessel::FactorProblem problem(sens_dims, psi, reduction, folded, full);
  problem.record_edges(edges_y, edges_z);
  // The coordinates end at the last row and slice of the maps, so only maps of no coils, which have
  // no sample at all, can be overrun.
  if (nc == 0) return voxels > 0 ? -1 : 1;
  problem.maps = {sens_re, sens_im, 1, nx, nx * ny, nx * ny * nz};
  problem.expected = {reference.data(), nullptr, 1, nx, nx * ny};
  problem.expected_size = reference.size();
  problem.lambda = lambda;
  const bool direct = problem.y.same_grid && problem.z.same_grid;
  if (!direct || !form_all(problem, true, factors.data())) form_all(problem, false, factors.data());
  return problem.nowhere && voxels > 0 ? -1 : 1;
}
