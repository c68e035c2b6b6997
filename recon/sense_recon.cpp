// SENSE reconstruction of a whole data set: extents, noise, regularisation weight, locations.
//
// Pruessmann et al., SENSE: sensitivity encoding for fast MRI, MRM 1999;42:952.

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>

#include "cTessel.h"
#include "sense_steps.h"

namespace {

using std::int64_t;

constexpr int64_t kTooMany = -1;

/// Product of extents, or kTooMany if it leaves int or an extent is negative.
int64_t product(std::initializer_list<int64_t> extents) {
  int64_t n = 1;
  for (int64_t e : extents) {
    if (e < 0 || e > INT_MAX) return kTooMany;
  }
  if (std::find(extents.begin(), extents.end(), 0) != extents.end()) return 0;
  for (int64_t e : extents) {
    n *= e;
    if (n > INT_MAX) return kTooMany;
  }
  return n;
}

/// Thirteen extents: x, y, z, coil, three that merge, location, five that merge.
struct Extents {
  std::array<int, 13> d;
  Extents(int count, const int* dims) {
    d.fill(1);
    std::copy_n(dims, std::clamp(count, 0, 13), d.begin());
  }
  Extents() { d.fill(1); }
  int64_t volume() const { return product({d[0], d[1], d[2]}); }
  int64_t coils() const { return product({d[0], d[1], d[2], d[3]}); }
  int64_t middle() const { return product({d[4], d[5], d[6]}); }
  int64_t outer() const { return product({d[8], d[9], d[10], d[11], d[12]}); }
  int64_t total() const {
    const int64_t parts[] = {coils(), middle(), outer()};
    if (std::find(parts, parts + 3, kTooMany) != parts + 3) return kTooMany;
    return product({parts[0], parts[1], parts[2], d[7]});
  }
  Eigen::VectorXi first_four() const { return Eigen::Map<const Eigen::VectorXi>(d.data(), 4); }
};

Eigen::MatrixXcd noise_covariance(const float* re, const float* im, int rows, int columns) {
  if (!re) return Eigen::MatrixXcd::Identity(rows, columns);
  Eigen::MatrixXcd psi(rows, columns);
  for (Eigen::Index k = 0; k < psi.size(); ++k) psi.data()[k] = {re[k], im[k]};
  return psi;
}

Eigen::Vector3f reduction_factors(const Extents& fold, int fold_ndims, const int* full_size) {
  Eigen::Vector3f R;
  for (int i = 0; i < 3; ++i)
    R[i] = static_cast<float>(full_size[i]) / static_cast<float>(fold.d[i]);
  // Data of two dimensions have one slice to unfold, whatever the full size says of z.
  if (fold_ndims <= 2) R[2] = 1.0f;
  return R;
}

/// Rounded-up quotient as an extent: -1 if it is none.
int64_t ceiling(float quotient) {
  const float c = std::ceil(quotient);
  return c >= 0 && c < 2147483648.0f ? static_cast<int64_t>(c) : -1;
}

/// Extents of the factors, x, y, z and slots: all 0 if they cannot be held.
Eigen::VectorXi factor_extents(const Extents& sens, const Eigen::Vector3f& R) {
  const int64_t y = ceiling(static_cast<float>(sens.d[1]) / R[1]),
                z = ceiling(static_cast<float>(sens.d[2]) / R[2]),
                slots = product({ceiling(R[2]), ceiling(R[1]), sens.d[3]});
  Eigen::VectorXi dims = Eigen::VectorXi::Zero(4);
  if (slots == kTooMany || product({sens.d[0], y, z, slots}) == kTooMany) return dims;
  dims << sens.d[0], static_cast<int>(y), static_cast<int>(z), static_cast<int>(slots);
  return dims;
}

/// Level of the folded data over the reference, squared, per unfolded pixel. The ratio
/// along z is not forced to 1 for data of two dimensions, unlike the reduction factor: a scale that
/// suits a slice cut from a volume then suits the volume too.
double regularisation_weight(double fold_rms, double scale, double reference_rms,
                             const Extents& fold, const int* full_size) {
  double reduction = 1;
  for (int i = 0; i < 3; ++i) reduction *= static_cast<double>(full_size[i]) / fold.d[i];
  const double ratio = fold_rms / scale / reference_rms;
  return ratio * ratio / reduction;
}

void magnitude(const float* re, const float* im, int64_t first, Eigen::VectorXf& out) {
  for (Eigen::Index i = 0; i < out.size(); ++i) {
    const double x = re[first + i], y = im ? im[first + i] : 0.0f;
    out[i] = static_cast<float>(std::sqrt(x * x + y * y));
  }
}

float* offset(float* p, int64_t by) { return p ? p + by : nullptr; }

}  // namespace

int TS_sense_recon(float* fold_re, float* fold_im, int fold_ndims, int* fold_dims, float* sens_re,
                   float* sens_im, int sens_ndims, int* sens_dims, float* psi_re, float* psi_im,
                   int /*psi_ndims*/, int* psi_dims, int* full_size, float* ref_re, float* ref_im,
                   int ref_ndims, int* ref_dims, float* reg_re, float* reg_im, int reg_ndims,
                   int* reg_dims, double scale, float* out_re, float* out_im, int* outdims) {
  const bool regularised = ref_re && reg_re;
  const Extents F(fold_ndims, fold_dims), S(sens_ndims, sens_dims), O(fold_ndims, outdims);
  const Extents Ref = regularised ? Extents(ref_ndims, ref_dims) : Extents();
  const Extents Reg = regularised ? Extents(reg_ndims, reg_dims) : Extents();
  for (int64_t n :
       {F.total(), S.coils(), O.total(), Ref.total(), Reg.volume(),
        product({full_size[0], full_size[1], full_size[2]}), product({psi_dims[0], psi_dims[1]})}) {
    if (n == kTooMany) return -1;
  }
  const Eigen::Vector3f R = reduction_factors(F, fold_ndims, full_size);
  Eigen::VectorXi factor_dims = factor_extents(S, R);
  if (factor_dims[3] == 0 && S.d[3] != 0 && F.total() != 0) return -1;

  const Eigen::MatrixXcd psi = noise_covariance(psi_re, psi_im, psi_dims[0], psi_dims[1]);
  const double lambda =
      regularised ? regularisation_weight(
                        TS_SA(fold_re, fold_im, static_cast<int>(F.total())), scale,
                        TS_SA(ref_re, ref_im, static_cast<int>(Ref.total())), F, full_size)
                  : 0.0;
  // Cleared: voxels with fewer aliases than the most leave slots unwritten, and their neighbours'
  // interpolation may read those.
  Eigen::VectorXcd factors = Eigen::VectorXcd::Zero(factor_dims.prod());
  Eigen::VectorXf expected(static_cast<Eigen::Index>(regularised ? Reg.volume() : 0));
  Eigen::VectorXi fold4 = F.first_four();
  const Eigen::VectorXi full = Eigen::Map<const Eigen::VectorXi>(full_size, 3);

  for (int64_t l = 0; l < F.d[7]; ++l) {
    magnitude(reg_re, reg_im, l * Reg.volume(), expected);
    float edges_y[] = {-1, -1}, edges_z[] = {-1, -1};
    // Only a refusal ends the run: positions outside the maps leave the rest of the image good.
    if (get_combination_factors(sens_re + l * S.coils(), offset(sens_im, l * S.coils()),
                                S.first_four(), psi, R, lambda, expected, factors, fold4, full,
                                edges_y, edges_z) == 0) {
      return -1;
    }
    for (int64_t a = 0; a < F.middle(); ++a) {
      for (int64_t b = 0; b < F.outer(); ++b) {
        // Both arrays have the folded data's outer extents; only the volumes differ.
        const int64_t volume = a + F.middle() * (l + F.d[7] * b);
        const int64_t in = volume * F.coils(), out = volume * O.coils();
        if (out >= O.total() || in >= F.total()) return -1;
        const int64_t room = std::min(O.total() - out, product({full[0], full[1], full[2]}));
        ctessel::unfold_within(fold_re + in, offset(fold_im, in), fold4, factors, factor_dims, full,
                               edges_y, edges_z, out_re + out, out_im + out, room);
      }
    }
  }
  return 1;
}
