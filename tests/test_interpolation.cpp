#include "cTessel.h"
#include "support.h"

TEST_CASE("Corners past the end count as 0 and rows wrap around", "[interpolation]") {
  std::vector<float> v = {1, 2, 3, 4};
  int dims[] = {2, 2, 1};
  auto at = [&](float a, float b, float c) {
    return TS_linear_interpolation(v.data(), a, b, c, dims);
  };
  CHECK(at(0, 0.5f, 0) == 1.5f);
  CHECK(at(0.5f, 0, 0) == 2.0f);
  CHECK(at(1, 1, 0) == 4.0f);
  CHECK(at(0, 1.5f, 0) == 2.5f);   // half of sample 2 and half of the next row's 3
  CHECK(at(1.5f, 0, 0) == 1.5f);   // the row past the end counts as 0
  CHECK(at(1, 1.25f, 0) == 3.0f);  // so does the sample past the last
  CHECK(at(0, 0, 0.5f) == 0.5f);   // and the plane
  CHECK(at(5, 0, 0) == 0.0f);
  CHECK(TS_linear_interpolation(Eigen::VectorXf(), 0, 0, 0, Eigen::Vector3i(2, 2, 1)) == 0.0f);
  CHECK(at(0, -0.5f, 0) == 0.5f);  // -0.5 truncates to sample 0 with fraction -0.5: 1.5 - 1
}

TEST_CASE("pos2interpolate: the first matching rule decides", "[interpolation]") {
  const float A[] = {10, 20}, B[] = {3.5f, 7.5f};
  struct Case {
    double pos;
    int idx;
    double want;
  };
  for (const Case& c : {
           Case{3.0, 10, 3.5},  // on the first jump
           Case{8.0, 21, 8.5},  // one past the second
           Case{4.2, 9, 3.5},   // crossed the first from below
           Case{7.9, 22, 8.5},  // not yet past the second
           Case{4.1, 11, 4.5},  // one past the first
           Case{7.4, 20, 7.5},  // on the second
           Case{3.2, 15, 4.5},  // not yet past the first
           Case{8.2, 15, 7.5},  // crossed the second from below
           Case{6.0, 15, 6.0},  // free
           Case{3.0, 9, 3.0},   // below the first and still below its coordinate
       }) {
    CAPTURE(c.pos, c.idx);
    CHECK(pos2interpolate(c.pos, c.idx, A, B) == c.want);
  }
  // Two rules hold at once: which one is tried first decides.
  const float touching[] = {10, 9}, next[] = {10, 11}, crossed[] = {10, 5};
  CHECK(pos2interpolate(3.0, 10, touching, B) == 3.5);  // on the first, one past the second
  CHECK(pos2interpolate(3.0, 11, next, B) == 4.5);      // one past the first, on the second
  CHECK(pos2interpolate(5.0, 9, crossed, B) == 3.5);    // both crossed, the first from below
  CHECK(pos2interpolate(4.0, 12, next, B) == 8.5);      // one past the second
  const float none[] = {-1, -1}, nan[] = {NAN, NAN};
  CHECK(pos2interpolate(4.2, 9, none, B) == 4.2);
  CHECK(pos2interpolate(4.2, 9, A, none) == 4.2);
  CHECK(pos2interpolate(4.2, 9, nan, nan) == 4.2);
}
