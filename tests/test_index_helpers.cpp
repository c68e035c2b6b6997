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

TEST_CASE("TS_sub2ind is column-major and lets entries carry", "[sub2ind]") {
  const auto index = [](std::vector<int> dims, std::vector<int> sub) {
    return TS_sub2ind(
        Eigen::Map<Eigen::VectorXi>(dims.data(), static_cast<Eigen::Index>(dims.size())),
        Eigen::Map<Eigen::VectorXi>(sub.data(), static_cast<Eigen::Index>(sub.size())));
  };
  CHECK(index({4, 5, 6}, {1, 2, 3}) == 69);
  CHECK(index({4, 5, 0}, {1, 2, 3}) == 69);  // the last extent is not read
  CHECK(index({4, 5, 6}, {1, 7, 0}) == 29);  // 7 carries into the third
  CHECK(index({4}, {9}) == 9);
  CHECK(index({}, {}) == 0);
  CHECK(index({4, 5}, {1, 2, 99}) == 9);  // further subscripts are not read
}

TEMPLATE_TEST_CASE("TS_find gives the first match or -1", "[find]", unsigned short, short, int,
                   unsigned int) {
  TestType a[] = {5, 7, 7, static_cast<TestType>(-1)};
  CHECK(TS_find(a, TestType{7}, 4) == 1);
  CHECK(TS_find(a, static_cast<TestType>(-1), 4) == 3);
  CHECK(TS_find(a, static_cast<TestType>(-1), 3) == -1);
  CHECK(TS_find(static_cast<TestType*>(nullptr), TestType{7}, 0) == -1);
  CHECK(TS_find(static_cast<TestType*>(nullptr), TestType{7}, -3) == -1);
}

TEST_CASE("TS_SA: root-mean-square magnitude in extended precision", "[rms]") {
  float re[] = {3, 0, 6}, im[] = {4, 0, 8};
  CHECK(TS_SA(re, im, 3) == Approx(std::sqrt(125 / 3.0)).epsilon(1e-15));
  CHECK(TS_SA(re, nullptr, 3) == Approx(std::sqrt(15.0)).epsilon(1e-15));
  CHECK(std::isnan(TS_SA(re, im, 0)));
  CHECK((TS_SA(re, im, -2) == 0 && std::signbit(TS_SA(re, im, -2))));
  // Addends below the last bit of a double sum still count.
  std::vector<float> many(1 << 16, 1.0f);
  many[0] = 67108864.0f;  // its square is 2^52
  CHECK(TS_SA(many.data(), nullptr, 1 << 16) ==
        static_cast<double>(std::sqrt((4503599627370496.0L + 65535) / 65536)));
}
