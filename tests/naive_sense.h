// Straight transcription of the SENSE steps: one interpolation call per coil and alias, dynamic
// matrices and a general inverse per voxel. Yardstick of the tests and the benchmark.
#pragma once

#include <Eigen/Dense>
#include <cmath>
#include <complex>

#include "cTessel.h"

namespace naive {

inline Eigen::VectorXf grid(int n, float high) {
  Eigen::VectorXf g(n);
  for (int i = 0; i < n; ++i) g[i] = static_cast<float>(i) * (high / static_cast<float>(n - 1));
  if (n == 1) g[0] = high;
  return g;
}

/// Notes an edge before `line` if the aliases jumped; remembers them for the next line.
struct EdgeFinder {
  Eigen::VectorXf before;
  int count = -1, found = 0;
  void look(const Eigen::VectorXf& coord, int n, int lines, int line, float* edges) {
    if (count != -1 && find_edges(coord, before, n, count, lines) && found < 2) {
      edges[found++] = static_cast<float>(line - 1);
    }
    before = coord;
    count = n;
  }
};

/// Aliases of folded line i of the factor grid: coordinates and nearest lines on the map grid.
inline int aliases(const Eigen::VectorXf& to_folded, const Eigen::VectorXf& to_map, int i, int full,
                   int folded, Eigen::VectorXi& pos, Eigen::VectorXf& coord) {
  const int n = TS_get_unfolded_positions(full, folded, TS_round(to_folded[i]), pos);
  for (int k = 0; k < n; ++k) {
    coord[k] = to_map[pos[k]];
    pos[k] = TS_round(to_map[pos[k]]);
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
  const int P = cRy * cRz, V = nx * ny * nz, T = V * nc;
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
  float comp_y[] = {-1, -1}, comp_z[] = {-1, -1};
  get_compartments(Y, ny, comp_y);
  get_compartments(Z, nz, comp_z);
  const int Ay = static_cast<int>(std::ceil(static_cast<float>(Y) / static_cast<float>(ny)));
  const int Az = static_cast<int>(std::ceil(static_cast<float>(Z) / static_cast<float>(nz)));
  int status = 1;
  for (int x = 0; x < nx; ++x) {
    Eigen::VectorXi mask(Ay * Az), ylines(Ay), zlines(Az);
    Eigen::VectorXcf v(nc), u;
    for (int y = 0; y < ny; ++y) {
      const int ny_a = TS_get_unfolded_positions(Y, ny, y, ylines);
      for (int z = 0; z < nz; ++z) {
        const int nz_a = TS_get_unfolded_positions(Z, nz, z, zlines), n = ny_a * nz_a;
        const float px = std::max(xq[x], 0.0f);
        const float py =
            std::max(static_cast<float>(pos2interpolate(yq[y], y, comp_y, edges_y)), 0.0f);
        const float pz =
            std::max(static_cast<float>(pos2interpolate(zq[z], z, comp_z, edges_z)), 0.0f);
        const int i0 = TS_round(py) * fx + TS_round(pz) * fx * fy + TS_round(px);
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
