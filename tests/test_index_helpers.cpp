#include <climits>
#include <cmath>

#include "cTessel.h"
#include "support.h"

TEST_CASE("TS_round: halves up, negative values toward zero, INT_MIN for the rest", "[round]") {
  struct Case {
    double x;
    int want;
  };
  for (const Case& c :
       {Case{0.5, 1}, Case{1.5, 2}, Case{2.5, 3}, Case{2.49, 2}, Case{0.4999, 0}, Case{-0.5, 0},
        Case{-0.6, 0}, Case{-1.5, -1}, Case{-2.7, -2}, Case{-3.99, -3}, Case{7, 7}, Case{-7, -7},
        Case{NAN, INT_MIN}, Case{INFINITY, INT_MIN}, Case{-INFINITY, INT_MIN}, Case{3e9, INT_MIN},
        Case{-3e9, INT_MIN}}) {
    CAPTURE(c.x);
    CHECK(TS_round(c.x) == c.want);
    CHECK(TS_round(static_cast<float>(c.x)) == c.want);
  }
  CHECK(TS_round(0.49999999999999994) == 0);
  CHECK(TS_round(2147483647.0) == INT_MAX);
  CHECK(TS_round(2147483647.5) == INT_MIN);
  CHECK(TS_round(-2147483648.7) == INT_MIN);
}

TEST_CASE("TS_SA: root-mean-square magnitude in extended precision", "[rms]") {
  float re[] = {3, 0}, im[] = {4, 0};
  CHECK((TS_SA(re, im, -2) == 0 && std::signbit(TS_SA(re, im, -2))));
  // Addends below the last bit of a double sum still count.
  std::vector<float> many(1 << 16, 1.0f);
  many[0] = 67108864.0f;  // its square is 2^52
  CHECK(TS_SA(many.data(), nullptr, 1 << 16) ==
        static_cast<double>(std::sqrt((4503599627370496.0L + 65535) / 65536)));
}
