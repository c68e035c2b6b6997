#include <cmath>
#include <complex>

#include "cTessel.h"
#include "support.h"

TEST_CASE("Coils may lie in the tenth dimension itself", "[pcsos]") {
  float re[] = {1, 2, 3, 4, 5, 6}, im[] = {6, 5, 4, 3, 2, 1};
  int dims[] = {2, 1, 1, 1, 1, 1, 1, 1, 1, 3}, outdims[] = {2, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  Guarded<float> a(2, 9), b(2, 9);
  TS_perform_pcsos(re, im, 10, dims, 10, a.data(), b.data(), outdims);
  for (int n = 0; n < 2; ++n) {
    // The weight of coil c is the mean over the tenth dimension from its own entry on, of three as always.
    std::complex<double> sum;
    double squares = 0;
    for (int c = 0; c < 3; ++c) {
      const std::complex<double> x(re[n + 2 * c], im[n + 2 * c]);
      double weight = 0;
      for (int k = c; k < 3; ++k) weight += std::hypot(re[n + 2 * k], im[n + 2 * k]) / 3;
      sum += weight * x;
      squares += std::norm(x);
    }
    const std::complex<double> want = std::sqrt(squares) * sum / std::abs(sum);
    CHECK(a.values()[n] == Approx(want.real()).epsilon(1e-6));
    CHECK(b.values()[n] == Approx(want.imag()).epsilon(1e-6));
  }
  CHECK((a.intact() && b.intact()));
}
