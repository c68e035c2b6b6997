#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "cTessel.h"
#include "support.h"

namespace {

/// Exit status of a child process that runs f, and whether it wrote anything.
template <class F>
std::pair<int, bool> fate_of(const F& f) {
  int ends[2];
  REQUIRE(pipe(ends) == 0);
  std::fflush(nullptr);  // or what waits to be written ends up in the pipe
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

}  // namespace

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

TEST_CASE("A sample that rounding puts past 1 is 0 throughout", "[legendre]") {
  int npts = 2;  // the first count whose step, rounded up, carries the last sample past 1
  while (static_cast<float>((npts - 1.0) * static_cast<float>(2.0 / (npts - 1)) - 1) <= 1) ++npts;
  std::vector<float> table(static_cast<std::size_t>(npts) * 6, 7.0f);
  create_plgndr_lookup(3, 2, npts, table.data());
  CHECK(std::vector<float>(table.end() - 6, table.end()) == std::vector<float>(6, 0.0f));
  CHECK(table[table.size() - 12] == 1);  // P_0^0 of the sample before
}
