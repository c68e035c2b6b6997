#include <sys/wait.h>
#include <unistd.h>

#include <cmath>

#include "cTessel.h"
#include "naive_geometry.h"
#include "support.h"

namespace {

/// Exit status of a child process that runs f, and whether it wrote anything.
template <class F>
std::pair<int, bool> fate_of(const F& f) {
  int ends[2];
  REQUIRE(pipe(ends) == 0);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], 1);
    dup2(ends[1], 2);
    f();
    _exit(0);
  }
  close(ends[1]);
  char c;
  const bool wrote = read(ends[0], &c, 1) > 0;
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, wrote};
}

std::vector<float> polar(float x, float y, float z) {
  std::vector<float> out(3);
  getRadiusThetaPhi(x, y, z, out.data());
  return out;
}

}  // namespace

// Reference: the library function of C++17, which leaves the phase (-1)^m out.
TEST_CASE("plgndr agrees with std::assoc_legendre", "[legendre]") {
  for (int l = 0; l <= 17; ++l)
    for (int m = 0; m <= l; ++m)
      for (float x : {-1.0f, -0.95f, -0.7f, 0.0f, 0.3f, 0.9f, 1.0f}) {
        CAPTURE(l, m, x);
        const double want =
            (m % 2 ? -1 : 1) *
            std::assoc_legendre(static_cast<unsigned>(l), static_cast<unsigned>(m), double(x));
        // The root is kept in float, so its error of 2^-25 comes in m times.
        CHECK(plgndr(l, m, x) == Approx(want).epsilon(1e-6).margin(1e-9));
      }
}

TEST_CASE("plgndr keeps its root in float and the rest in double", "[legendre]") {
  for (float x : {-0.9f, -0.3f, 0.1f, 0.77f}) {
    CAPTURE(x);
    const double xx = x;
    CHECK(plgndr(0, 0, x) == 1);
    CHECK(plgndr(1, 0, x) == xx);
    CHECK(plgndr(2, 0, x) == (3 * xx * xx - 1) / 2);
    CHECK(plgndr(1, 1, x) == -static_cast<double>(static_cast<float>(std::sqrt(1 - xx * xx))));
  }
}

TEST_CASE("plgndr ends the process with status 1 and no message where it is not defined",
          "[legendre]") {
  struct Case {
    int l, m;
    float x;
    int status;
  };
  for (const Case& c :
       {Case{2, -1, 0, 1}, Case{2, 3, 0, 1}, Case{2, 1, 1.0000001f, 1}, Case{2, 1, -INFINITY, 1},
        Case{-1, 0, 0, 1}, Case{2, 2, -1, 0}, Case{2, 1, NAN, 0}}) {
    CAPTURE(c.l, c.m, c.x);
    CHECK(fate_of([&] { plgndr(c.l, c.m, c.x); }) == std::pair(c.status, false));
  }
  CHECK(std::isnan(plgndr(3, 1, NAN)));
}

TEST_CASE("The table's entries are plgndr at the samples, rounded to float", "[legendre]") {
  struct Case {
    int nl, nm, npts;
  };
  for (const Case& c :
       {Case{17, 12, 333}, Case{3, 7, 65}, Case{40, 40, 32}, Case{1, 1, 2}, Case{5, 2, 1},
        Case{17, 12, 10000}, Case{0, 3, 5}, Case{3, 0, 5}, Case{4, 4, 0}, Case{4, 4, -3}}) {
    CAPTURE(c.nl, c.nm, c.npts);
    const std::size_t size =
        c.npts < 0 ? 0 : static_cast<std::size_t>(c.nl) * c.nm * static_cast<unsigned>(c.npts);
    Guarded<float> got(size, 7.0f);
    std::vector<float> want(size, 7.0f);
    create_plgndr_lookup(c.nl, c.nm, c.npts, got.data());
    naive::create_plgndr_lookup(c.nl, c.nm, c.npts, want.data());
    CHECK(bits(got.values()) == bits(want));
    CHECK(got.intact());
  }
}

TEST_CASE("A sample that rounding puts past 1 is 0 throughout", "[legendre]") {
  int npts = 2;  // the first count whose step, rounded up, carries the last sample past 1
  while (static_cast<float>((npts - 1.0) * static_cast<float>(2.0 / (npts - 1)) - 1) <= 1) ++npts;
  std::vector<float> table(static_cast<std::size_t>(npts) * 6, 7.0f);
  create_plgndr_lookup(3, 2, npts, table.data());
  CHECK(std::vector<float>(table.end() - 6, table.end()) == std::vector<float>(6, 0.0f));
  CHECK(table[table.size() - 12] == 1);  // P_0^0 of the sample before
}

TEST_CASE("Polar coordinates on the axes and at the origin", "[polar]") {
  const float half_pi = 1.5707964f, pi = 3.1415927f;
  struct Case {
    float x, y, z;
    std::vector<float> want;
  };
  for (const Case& c :
       {Case{0, 0, 0, {0, half_pi, 0}}, Case{2, 0, 0, {2, half_pi, 0}},
        Case{-1, 0, 0, {1, half_pi, pi}}, Case{0, 3, 0, {3, half_pi, half_pi}},
        Case{0, -1, 0, {1, half_pi, 4.712389f}}, Case{0, 0, 5, {5, 0, 0}},
        Case{0, 0, -5, {5, pi, 0}}, Case{1, -1e-30f, 0, {1, half_pi, 6.2831855f}},
        Case{1e-30f, 0, 1e-30f, {1.41421356e-30f, 0.785398185f, 0}},  // no underflow in the squares
        Case{2e38f, 2e38f, 1e38f, {3e38f, 1.2309594f, 0.785398185f}}}) {
    CAPTURE(c.x, c.y, c.z);
    const std::vector<float> got = polar(c.x, c.y, c.z);
    for (std::size_t i = 0; i < 3; ++i) CHECK(got[i] == Approx(c.want[i]).epsilon(1.2e-7));
  }
}
