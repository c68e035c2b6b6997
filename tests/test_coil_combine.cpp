#include <cmath>

#include "cTessel.h"
#include "support.h"

TEST_CASE("One coil comes back as it is; real data keep their sign", "[pcsos][sos]") {
  float re[] = {3, -3, 0, -2}, im[] = {4, 4, 0, 0}, a[4], b[4], magnitude[4] = {};
  int dims[] = {4, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  TS_perform_pcsos(re, im, 4, dims, 4, a, b, dims);
  TS_perform_sos(re, im, 4, dims, 4, magnitude, dims);
  for (int i = 0; i < 4; ++i) {
    CHECK(a[i] == Approx(re[i]).margin(1e-6));
    CHECK(b[i] == Approx(im[i]).margin(1e-6));
    CHECK(magnitude[i] == std::hypot(re[i], im[i]));
  }
  TS_perform_pcsos(re, nullptr, 4, dims, 4, a, b, dims);
  CHECK((a[0] == 3 && a[1] == -3 && b[0] == 0));
}

TEST_CASE("Coils may lie in the tenth dimension itself", "[pcsos]") {
  float re[] = {1, 2, 3, 4, 5, 6}, im[] = {6, 5, 4, 3, 2, 1};
  int dims[] = {2, 1, 1, 1, 1, 1, 1, 1, 1, 3}, outdims[] = {2, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  Guarded<float> a(2, 9), b(2, 9);
  TS_perform_pcsos(re, im, 10, dims, 10, a.data(), b.data(), outdims);
  CHECK(std::hypot(a.values()[1], b.values()[1]) == Approx(std::sqrt(4 + 16 + 36 + 25 + 9 + 1.0)));
  CHECK((a.intact() && b.intact()));
}
