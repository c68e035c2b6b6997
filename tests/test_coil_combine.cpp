#include <cmath>

#include "cTessel.h"
#include "support.h"

TEST_CASE("Coils may lie in the tenth dimension itself", "[pcsos]") {
  float re[] = {1, 2, 3, 4, 5, 6}, im[] = {6, 5, 4, 3, 2, 1};
  int dims[] = {2, 1, 1, 1, 1, 1, 1, 1, 1, 3}, outdims[] = {2, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  Guarded<float> a(2, 9), b(2, 9);
  TS_perform_pcsos(re, im, 10, dims, 10, a.data(), b.data(), outdims);
  CHECK(std::hypot(a.values()[1], b.values()[1]) == Approx(std::sqrt(4 + 16 + 36 + 25 + 9 + 1.0)));
  CHECK((a.intact() && b.intact()));
}
