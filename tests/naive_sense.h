// Naive version of the SENSE steps: one interpolation call per coil and alias, dynamic matrices and
// a general inverse per voxel. Yardstick of the tests and the benchmark. Fold geometry, rounding and
// the rules next to a jump are written out, so that they do not move with the library's.
#pragma once

#include <Eigen/Dense>
#include <array>
#include <cmath>
#include <complex>
#include <vector>

#include "cTessel.h"

namespace naive {

inline Eigen::VectorXf grid(int n, float high) {
  Eigen::VectorXf g(n);
  for (int i = 0; i < n; ++i) g[i] = static_cast<float>(i) * (high / static_cast<float>(n - 1));
  if (n == 1) g[0] = high;
  return g;
}

/// Halves go up; negative values go toward 0.
inline int round(float x) {
  return static_cast<int>(x < 0 ? std::ceil(x) : std::floor(static_cast<double>(x) + 0.5));
}

/// Full lines that alias onto folded line `at`: those below the central copy downward, then the
/// others upward. Of more lines than `lines` has room for, the first.
inline int fold_lines(int full, int folded, int at, Eigen::VectorXi& lines) {
  const int central = (full - folded + 1) / 2 + at;
  int count = 0;
  lines.setConstant(-1);
  const auto list = [&](int q) {
    if (count < lines.size()) lines[count++] = q;
  };
  for (int q = central - folded; q >= 0; q -= folded) list(q);
  for (int q = central; q < full; q += folded) list(q);
  return count;
}

/// Last folded lines before the number of aliases changes, -1 where there is no such line.
inline std::array<float, 2> jumps(int full, int folded) {
  const int first = (full - folded + 1) / 2;  // full line on folded line 0
  int before = -1, last = -1;
  for (int line = 0; line < folded; ++line) {
    if ((line + first) % folded == 0) before = line - 1;
    if ((full - 1 - first - line) % folded == 0 && line != full - 1) last = line;
  }
  if (before > last) std::swap(before, last);
  return {static_cast<float>(before == last ? -1 : before), static_cast<float>(last)};
}

/// Coordinate of folded line `line` on the factor grid: `pos`, unless one of eight rules, tried in
/// this order, keeps it on its side of a jump behind line[k] at coordinate at[k].
inline double beside_jumps(double pos, int line, const float* jump, const float* at) {
  struct Rule {
    int pair, past;
    bool snap;
  };
  for (const Rule& r : {Rule{0, 0, true}, Rule{1, 1, true}, Rule{0, 0, false}, Rule{1, 1, false},
                        Rule{0, 1, true}, Rule{1, 0, true}, Rule{0, 1, false}, Rule{1, 0, false}}) {
    if (jump[r.pair] == -1 || at[r.pair] == -1) continue;
    const int last = static_cast<int>(jump[r.pair]);
    const double b = static_cast<double>(at[r.pair]) + r.past;
    const bool crossed = r.past ? line > last && static_cast<int>(b) > pos
                                : line < last && pos > static_cast<int>(b);
    if (r.snap ? line == last + r.past : crossed) return b;
  }
  return pos;
}

/// Whether the aliases of two neighbouring lines differ in number, or one by more than half of the
/// lines, rounded down.
inline bool jumped(const Eigen::VectorXf& a, const Eigen::VectorXf& b, int na, int nb, int lines) {
  return na != nb || ((a - b).head(na).cwiseAbs().array() > static_cast<float>(lines / 2)).any();
}

/// Notes an edge before `line` if the aliases jumped; remembers them for the next line.
struct EdgeFinder {
  Eigen::VectorXf before;
  int count = -1, found = 0;
  void look(const Eigen::VectorXf& coord, int n, int lines, int line, float* edges) {
    if (count != -1 && found < 2 && jumped(coord, before, n, count, lines)) {
      edges[found++] = static_cast<float>(line - 1);
    }
    before = coord;
    count = n;
  }
};

/// Aliases of folded line i of the factor grid: coordinates and nearest lines on the map grid.
inline int aliases(const Eigen::VectorXf& to_folded, const Eigen::VectorXf& to_map, int i, int full,
                   int folded, Eigen::VectorXi& pos, Eigen::VectorXf& coord) {
  const int n = fold_lines(full, folded, naive::round(to_folded[i]), pos);
  for (int k = 0; k < n; ++k) {
    coord[k] = to_map[pos[k]];
    pos[k] = naive::round(to_map[pos[k]]);
  }
  return n;
}

inline int get_combination_factors(float* re, float* im, const Eigen::VectorXi& dims,
                                   const Eigen::MatrixXcd& psi, const Eigen::Vector3f& R,
                                   double lambda, const Eigen::VectorXf& reference,
                                   Eigen::VectorXcd& factors, const Eigen::VectorXi& folded,
                                   const Eigen::VectorXi& full, float* edges_y, float* edges_z) {
  using Eigen::MatrixXcd;
  const int nx = dims[0], ny = dims[1], nz = dims[2], nc = dims[3];
  const int cRy = static_cast<int>(std::ceil(R[1])), cRz = static_cast<int>(std::ceil(R[2]));
  const int nyF = static_cast<int>(std::ceil(static_cast<float>(ny) / R[1]));
  const int nzF = static_cast<int>(std::ceil(static_cast<float>(nz) / R[2]));
  const int P = cRy * cRz, V = nx * ny * nz, T = dims.prod();
  Eigen::VectorXi factor_dims(5), sub(5);
  factor_dims << nx, nyF, nzF, nc, P;
  auto store = [&](int x, int y, int z, int slot, std::complex<double> value) {
    sub << x, y, z, slot, 0;
    factors[TS_sub2ind(factor_dims, sub)] = value;
  };
  const Eigen::VectorXf gy = grid(nyF, static_cast<float>(folded[1] - 1)),
                        gz = grid(nzF, static_cast<float>(folded[2] - 1)),
                        hy = grid(full[1], static_cast<float>(ny - 1)),
                        hz = grid(full[2], static_cast<float>(nz - 1));
  const MatrixXcd psi_inverse = Eigen::PartialPivLU<MatrixXcd>(psi).inverse();
  int status = 1;
  for (int x = 0; x < nx; ++x) {
    MatrixXcd S(nc, P);
    std::vector<double> expected(P);
    std::vector<int> flag(P, 0);
    Eigen::VectorXi posY(cRy), posZ(cRz);
    Eigen::VectorXf coordY(cRy), coordZ(cRz);
    EdgeFinder finder_y, finder_z;
    for (int yF = 0; yF < nyF; ++yF) {
      const int ny_pos = aliases(gy, hy, yF, full[1], folded[1], posY, coordY);
      if (x == 0) finder_y.look(coordY, ny_pos, nyF, yF, edges_y);
      for (int zF = 0; zF < nzF; ++zF) {
        const int nz_pos = aliases(gz, hz, zF, full[2], folded[2], posZ, coordZ);
        if (x == 0 && yF == 0) finder_z.look(coordZ, nz_pos, nzF, zF, edges_z);
        int m = 0, j = 0;
        for (int ky = 0; ky < ny_pos; ++ky) {
          for (int kz = 0; kz < nz_pos; ++kz) {
            const int idx = x + nx * posY[ky] + nx * ny * posZ[kz];
            if (idx >= T) {
              status = -1;
              continue;
            }
            if (im && re[idx] != 0) flag[j] = 1;
            if (flag[j]) {
              expected[m] = idx < reference.size() ? reference[idx] : 0;
              for (int c = 0; c < nc; ++c) {
                const float a = coordY[ky], b = static_cast<float>(x), d = coordZ[kz];
                S(c, m) = {TS_linear_interpolation(re + c * V, a, b, d, dims),
                           TS_linear_interpolation(im + c * V, a, b, d, dims)};
              }
              ++m;
            }
            ++j;
          }
        }
        const int n = ny_pos * nz_pos;
        if (m == 0) {
          for (int slot = 0; slot < nc * n; ++slot) store(x, yF, zF, slot, 0);
          continue;
        }
        MatrixXcd Rd = MatrixXcd::Zero(m, m);
        for (int i = 0; i < m && lambda != 0; ++i) {
          if (expected[i] != 0) Rd(i, i) = 1.0 / (std::pow(expected[i], 2.0) * lambda);
        }
        const MatrixXcd Sm = S.leftCols(m);
        const MatrixXcd A = (Sm.adjoint() * psi_inverse) * Sm, B = A + Rd, Binv = B.inverse();
        const MatrixXcd U = (Binv * Sm.adjoint()) * psi_inverse;
        for (int c = 0; c < nc; ++c) {
          for (int i = 0, k = 0; i < n; ++i) {
            store(x, yF, zF, c * n + i, flag[i] ? U(k++, c) : 0);
          }
        }
      }
    }
  }
  if (edges_y[0] > edges_y[1]) std::swap(edges_y[0], edges_y[1]);
  if (edges_z[0] > edges_z[1]) std::swap(edges_z[0], edges_z[1]);
  return status;
}

inline int unfold(const float* fold_re, const float* fold_im, const Eigen::VectorXi& fold4,
                  const Eigen::VectorXcd& factors, const Eigen::VectorXi& factor_dims,
                  const Eigen::VectorXi& full, const float* edges_y, const float* edges_z,
                  float* out_re, float* out_im) {
  const int nx = fold4[0], ny = fold4[1], nz = fold4[2], nc = fold4[3];
  const int fx = factor_dims[0], fy = factor_dims[1], fz = factor_dims[2], V = fx * fy * fz;
  const int X = full[0], Y = full[1], Z = full[2];
  Eigen::VectorXf xq = grid(nx, static_cast<float>(fx - 1)),
                  yq = grid(ny, static_cast<float>(fy - 1)),
                  zq = grid(nz, static_cast<float>(fz - 1));
  for (Eigen::VectorXf* q : {&xq, &yq, &zq}) {
    if (q->size() == 1) (*q)[0] = 0;
  }
  const std::array<float, 2> comp_y = jumps(Y, ny), comp_z = jumps(Z, nz);
  const int Ay = static_cast<int>(std::ceil(static_cast<float>(Y) / static_cast<float>(ny)));
  const int Az = static_cast<int>(std::ceil(static_cast<float>(Z) / static_cast<float>(nz)));
  int status = 1;
  for (int x = 0; x < nx; ++x) {
    Eigen::VectorXi mask(Ay * Az), ylines(Ay), zlines(Az);
    Eigen::VectorXcf v(nc), u;
    for (int y = 0; y < ny; ++y) {
      const int ny_a = fold_lines(Y, ny, y, ylines);
      for (int z = 0; z < nz; ++z) {
        const int nz_a = fold_lines(Z, nz, z, zlines), n = ny_a * nz_a;
        const float px = std::max(xq[x], 0.0f);
        const float py =
            std::max(static_cast<float>(beside_jumps(yq[y], y, comp_y.data(), edges_y)), 0.0f);
        const float pz =
            std::max(static_cast<float>(beside_jumps(zq[z], z, comp_z.data(), edges_z)), 0.0f);
        const int i0 = naive::round(py) * fx + naive::round(pz) * fx * fy + naive::round(px);
        bool any = false;
        for (int k = 0; k < n; ++k) any |= (mask[k] = factors[i0 + k * V] != 0.0);
        if (!any) continue;
        const int ix = static_cast<int>(px), iy = static_cast<int>(py), iz = static_cast<int>(pz);
        const int base = iy * fx + ix + iz * fx * fy;
        Eigen::MatrixXcf M = Eigen::MatrixXcf::Zero(n, nc);
        for (int c = 0; c < nc; ++c) {
          for (int k = 0, r = 0; k < n; ++k) {
            const int j = c * n + k;
            if (!mask[k]) continue;
            M(r++, c) = std::complex<float>(TS_linear_interpolation(
                factors, factor_dims, base + j * V, static_cast<double>(py) - iy,
                static_cast<double>(px) - ix, static_cast<double>(pz) - iz, fx * fy, (j + 1) * V));
          }
        }
        const int i = nx * y + x + nx * ny * z;
        for (int c = 0; c < nc; ++c) {
          v[c] = {fold_re[i + c * nx * ny * nz], fold_im ? fold_im[i + c * nx * ny * nz] : 0};
        }
        u = M * v;
        for (int iy_a = 0, k = 0, r = 0; iy_a < ny_a; ++iy_a) {
          for (int iz_a = 0; iz_a < nz_a; ++iz_a) {
            if (!mask[k]) {
              ++k;
              continue;
            }
            const int o = ylines[iy_a] * X + x + zlines[iz_a] * X * Y;
            if (o < X * Y * Z) {
              out_re[o] = u[r].real();
              out_im[o] = u[r++].imag();
              ++k;
            } else {
              status = -1;
            }
          }
        }
      }
    }
  }
  return status;
}

}  // namespace naive
