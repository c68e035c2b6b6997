// Uses the installed library: needs its header, Eigen's headers, its objects and OpenMP's runtime.
#include <cTessel.h>

#include <Eigen/LU>

bool arrays() {
  float line[] = {0, 1, 2, 3, 4}, out[7] = {};
  int dims[] = {5, 1};
  TS_fftshift(line, nullptr, dims, 2, 1);
  TS_zero_pad(line, nullptr, 2, dims, 7, 1, 1, out, nullptr);
  const bool moved = out[1] == 3 && out[3] == 0 && out[5] == 2 && out[6] == 0;

  float coils[] = {3, 4}, magnitude[1] = {};
  int coil_dims[] = {1, 2}, one[] = {1, 1};
  TS_perform_sos(coils, nullptr, 2, coil_dims, 2, magnitude, one);
  return moved && magnitude[0] == 5;
}

/// Vectors of the program's, however wide the vectors that it is compiled for.
bool vectors() {
  const Eigen::VectorXi extents = Eigen::Vector3i(4, 5, 6), at = Eigen::Vector3i(1, 2, 3);
  bool right = TS_sub2ind(extents, at) == 69;
  for (int reduction = 2; reduction < 30; ++reduction) {
    Eigen::VectorXi positions(reduction);
    right &= TS_get_unfolded_positions(4 * reduction, 4, 1, positions) == reduction &&
             positions.minCoeff() >= 0;
  }
  return right;
}

/// The program's own algebra, of small and of blocked sizes, beside the library's.
bool algebra() {
  for (int n : {3, 8, 24, 64, 200}) {
    const Eigen::MatrixXcd a =
        Eigen::MatrixXcd::Random(n, n) + n * Eigen::MatrixXcd::Identity(n, n);
    if (!(a * a.inverse()).isIdentity(1e-9)) return false;
  }
  return true;
}

/// The library inverts matrices of its own, between calls of the program's.
bool sense() {
  int fold[] = {4, 4, 1, 3}, sens[] = {4, 8, 1, 3}, psi_dims[] = {3, 3}, full[] = {4, 8, 1, 1};
  float fold_re[48] = {}, fold_im[48] = {}, sens_re[96] = {}, sens_im[96] = {};
  float out_re[32] = {}, out_im[32] = {};
  float psi_re[] = {1, 0, 0, 0, 1, 0, 0, 0, 1}, psi_im[9] = {};
  for (int i = 0; i < 96; ++i) sens_re[i] = static_cast<float>(i * 7919 % 97 + 1);
  for (int i = 0; i < 48; ++i) fold_re[i] = 1;
  TS_sense_recon(fold_re, fold_im, 4, fold, sens_re, sens_im, 4, sens, psi_re, psi_im, 2, psi_dims,
                 full, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr, 0, out_re,
                 out_im, full);
  return out_re[0] != 0;
}

int main() { return arrays() && vectors() && algebra() && sense() && algebra() ? 0 : 1; }
