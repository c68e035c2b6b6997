// Rounding, subscripts, search and root-mean-square magnitude.

#include <cmath>

#include "cTessel.h"
#include "conversion.h"
#include "samples.h"

namespace {

/// Blocks without the value are passed over in vectors, which a search that may end at every
/// element does not allow.
template <class T>
int find_first(const T* a, T v, int n) {
  constexpr int kBlock = 64;
  int i = 0;
  for (; n - i >= kBlock; i += kBlock) {
    int matches = 0;
    for (int j = 0; j < kBlock; ++j) matches |= a[i + j] == v;
    if (matches) break;
  }
  for (; i < n; ++i) {
    if (a[i] == v) return i;
  }
  return -1;
}

}  // namespace

int TS_round(double x) {
  const int whole = ctessel::to_int(x);
  // The fraction carries the sign of x, so a negative value never rounds away from zero: a
  // coordinate that is negative by rounding only names sample 0.
  const double fraction = x - whole;  // 1 or more only for an x beyond int
  return fraction >= 0.5 && fraction < 1 ? ctessel::to_int(whole + 1.0) : whole;
}

int TS_round(float x) { return TS_round(static_cast<double>(x)); }

int TS_sub2ind(const Eigen::VectorXi& dims, const Eigen::VectorXi& sub) {
  unsigned index = 0, stride = 1;  // int arithmetic, with the wrap-around of overflow defined
  for (Eigen::Index i = 0; i < dims.size(); ++i) {
    index += stride * static_cast<unsigned>(sub[i]);
    if (i + 1 < dims.size()) stride *= static_cast<unsigned>(dims[i]);
  }
  return static_cast<int>(index);
}

int TS_find(unsigned short* a, unsigned short v, int n) { return find_first(a, v, n); }
int TS_find(short* a, short v, int n) { return find_first(a, v, n); }
int TS_find(int* a, int v, int n) { return find_first(a, v, n); }
int TS_find(unsigned int* a, unsigned int v, int n) { return find_first(a, v, n); }

double ctessel::root_mean_square(const ConstSamples& samples) {
  const std::ptrdiff_t n = samples.size(), row = samples.extent(Dim::x);
  long double sum = 0;
  for (std::ptrdiff_t first = 0; first < n; first += row) {
    std::ptrdiff_t at = offset_of(samples, 1, first / row);
    for (std::ptrdiff_t i = 0; i < row; ++i, at += samples.stride(Dim::x)) {
      const long double x = samples.re[at], y = samples.im ? samples.im[at] : 0;
      sum += x * x + y * y;
    }
  }
  return static_cast<double>(std::sqrt(sum / n));
}

double TS_SA(float* re, float* im, int n) {
  if (n < 0) return -0.0;  // the root of 0 by a negative count
  return ctessel::root_mean_square(ctessel::ConstSamples::parts(re, im, {n}));
}
