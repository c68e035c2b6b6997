// Where padding takes another way, or none, on large arrays; and the ringing filter by hand.
#include "cTessel.h"
#include "naive_arrays.h"
#include "support.h"

TEST_CASE("TS_zero_pad places the rows that it streams past the caches", "[zero_pad]") {
  std::vector<int> dims = {75, 41, 20, 2};
  const double to[] = {201, 180, 160};  // rows begin everywhere in a cache line
  Random random(5);
  std::vector<float> re = random.reals(123000), im = random.reals(123000);
  const std::size_t n = 201u * 180 * 160 * 2;
  std::vector<float> want_re(n, -9), want_im(n, -9);
  naive::zero_pad(re, dims, to, want_re);
  naive::zero_pad(im, dims, to, want_im);
  Guarded<float> out_re(n, -9), out_im(n, -9);
  TS_zero_pad(re.data(), im.data(), 4, dims.data(), to[0], to[1], to[2], out_re.data(),
              out_im.data());
  CHECK(differences(out_re.values(), want_re) == "");
  CHECK(differences(out_im.values(), want_im) == "");
  CHECK((out_re.intact() && out_im.intact()));
}

TEST_CASE("TS_zero_pad writes nothing for a target that no memory holds", "[zero_pad]") {
  std::vector<float> re(24, 1.0f);
  int dims[] = {2, 3, 4};
  for (double n : {3e9, 1e10}) {
    CAPTURE(n);
    Guarded<float> out(24, 0.0f);
    TS_zero_pad(re.data(), re.data(), 3, dims, n, n, n, out.data(), out.data());
    CHECK(out.values() == std::vector<float>(24, 0.0f));
    CHECK(out.intact());
  }
}

TEST_CASE("TS_ringing_filter: the strength is how far the window falls at its edge",
          "[ringing_filter]") {
  struct Case {
    double strength;
    float edge;
  };
  for (const Case& c :
       {Case{0, 1}, Case{-3, 1}, Case{0.3, 0.7f}, Case{0.918, 0.085f}, Case{7, 0.085f}}) {
    CAPTURE(c.strength);
    std::vector<float> line(16, 1.0f);
    int dims[] = {16, 1}, width[] = {12, 1, 1};
    double strength[] = {c.strength, 0, 0};
    TS_ringing_filter(line.data(), nullptr, 2, dims, strength, width);
    CHECK(line[8] == 1.0f);                          // the centre
    CHECK(line[2] == Approx(c.edge).epsilon(1e-6));  // half a width below it
    CHECK((line[1] == 0 && line[14] == 0));          // twelve samples, one more below the centre
    CHECK((line[13] > 0 && line[13] == Approx(line[3])));
  }
}
