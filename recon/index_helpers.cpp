// Rounding, subscripts, search and root-mean-square magnitude.

#include <cmath>

#include "cTessel.h"
#include "conversion.h"

namespace {

template <class T>
int find_first(const T* a, T v, int n) {
  for (int i = 0; i < n; ++i) {
    if (a[i] == v) return i;
  }
  return -1;
}

}  // namespace

int TS_round(double x) {
  double whole;
  const double fraction = std::modf(x, &whole);
  // The fraction carries the sign of x, so a negative value never rounds away from zero. Callers
  // pass coordinates, which are negative by rounding only, and rely on getting sample 0 then.
  if (fraction >= 0.5) return ctessel::to_int(std::ceil(x));
  return ctessel::to_int(whole);
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

double TS_SA(float* re, float* im, int n) {
  long double sum = 0;
  for (int i = 0; i < n; ++i) {
    const long double x = re[i], y = im ? im[i] : 0;
    sum += x * x + y * y;
  }
  return static_cast<double>(std::sqrt(sum / n));
}
