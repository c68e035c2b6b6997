#include <cmath>

#include "cTessel.h"
#include "naive_arrays.h"
#include "support.h"

namespace {

struct Case {
  std::vector<int> dims, outdims;  // padded to ten with ones
  int ndims, coildim;
  std::vector<float> re, im;
  std::size_t voxels;
};

Case random_case(Random& random, bool tenth) {
  Case c;
  c.ndims = tenth ? random.integer(10, 11) : random.integer(1, 5);
  c.dims.assign(static_cast<std::size_t>(std::max(c.ndims, 10)), 1);
  for (int d = 0; d < std::min(c.ndims, 5); ++d) c.dims[d] = random.integer(1, 6);
  if (random.integer(0, 3) == 0) c.dims[0] = random.integer(20, 700);
  if (tenth) {
    for (int d = 2; d < 5; ++d) c.dims[d] = random.integer(1, 3);
    for (int d = 9; d < c.ndims; ++d) c.dims[d] = random.integer(1, 5);
  }
  c.coildim = random.integer(1, std::min(c.ndims, 5));
  c.outdims = c.dims;
  c.outdims[c.coildim - 1] = 1;
  const std::size_t n = naive::product(c.dims.data(), 0, c.ndims);
  c.voxels = n / c.dims[c.coildim - 1];
  c.re = random.reals(n);
  c.im = random.reals(n);
  for (std::size_t i = 0; i < n; i += 7) c.re[i] = c.im[i] = 0;
  return c;
}

}  // namespace

TEST_CASE("TS_perform_sos equals the straight loop to the bit", "[sos]") {
  Random random(7);
  CAPTURE(run_seed());
  for (int run = 0; run < 60; ++run) {
    Case c = random_case(random, false);
    const std::vector<float> prior = random.reals(c.voxels, 0, random.integer(0, 1));
    std::vector<float> want = prior, want_real = prior;
    naive::perform_sos(c.re.data(), c.im.data(), c.dims.data(), c.coildim, want.data(), c.voxels);
    naive::perform_sos(c.re.data(), nullptr, c.dims.data(), c.coildim, want_real.data(), c.voxels);
    CAPTURE(c.dims, c.ndims, c.coildim);
    with_thread_counts([&] {
      Guarded<float> out(prior), real(prior);
      TS_perform_sos(c.re.data(), c.im.data(), c.ndims, c.dims.data(), c.coildim, out.data(),
                     c.outdims.data());
      TS_perform_sos(c.re.data(), nullptr, c.ndims, c.dims.data(), c.coildim, real.data(),
                     c.outdims.data());
      CHECK((bits(out.values()) == bits(want) && bits(real.values()) == bits(want_real)));
      CHECK((out.intact() && real.intact()));
    });
  }
}

TEST_CASE("TS_perform_pcsos equals the straight loop to the bit", "[pcsos]") {
  Random random(8);
  CAPTURE(run_seed());
  for (int run = 0; run < 60; ++run) {
    Case c = random_case(random, random.integer(0, 2));
    std::vector<float> re(c.voxels), im(c.voxels), real_re(c.voxels), real_im(c.voxels);
    naive::perform_pcsos(c.re.data(), c.im.data(), c.dims.data(), c.coildim, re.data(), im.data(),
                         c.voxels);
    naive::perform_pcsos(c.re.data(), nullptr, c.dims.data(), c.coildim, real_re.data(),
                         real_im.data(), c.voxels);
    CAPTURE(c.dims, c.ndims, c.coildim);
    with_thread_counts([&] {
      Guarded<float> a(c.voxels, 9), b(c.voxels, 9), ra(c.voxels, 9), rb(c.voxels, 9);
      TS_perform_pcsos(c.re.data(), c.im.data(), c.ndims, c.dims.data(), c.coildim, a.data(),
                       b.data(), c.outdims.data());
      TS_perform_pcsos(c.re.data(), nullptr, c.ndims, c.dims.data(), c.coildim, ra.data(),
                       rb.data(), c.outdims.data());
      CHECK((bits(a.values()) == bits(re) && bits(b.values()) == bits(im)));
      CHECK((bits(ra.values()) == bits(real_re) && bits(rb.values()) == bits(real_im)));
      CHECK((a.intact() && b.intact() && ra.intact() && rb.intact()));
    });
  }
}

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

TEST_CASE("Shapes that no scan has stay inside their arrays", "[pcsos][sos]") {
  float re[] = {1, 2, 3, 4, 5, 6}, im[] = {6, 5, 4, 3, 2, 1};
  {  // coils in the tenth dimension itself
    int dims[] = {2, 1, 1, 1, 1, 1, 1, 1, 1, 3}, outdims[] = {2, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    Guarded<float> a(2, 9), b(2, 9);
    TS_perform_pcsos(re, im, 10, dims, 10, a.data(), b.data(), outdims);
    CHECK(std::hypot(a.values()[1], b.values()[1]) ==
          Approx(std::sqrt(4 + 16 + 36 + 25 + 9 + 1.0)));
    CHECK((a.intact() && b.intact()));
  }
  {  // no entry of the tenth dimension: a mean over nothing
    int dims[] = {2, 3, 1, 1, 1, 1, 1, 1, 1, 0}, outdims[] = {2, 1};
    Guarded<float> a(2, 9), b(2, 9);
    TS_perform_pcsos(re, im, 2, dims, 2, a.data(), b.data(), outdims);
    for (float v : a.values()) CHECK(std::isnan(v));
    CHECK((a.intact() && b.intact()));
  }
  {  // no coils
    int dims[] = {2, 0, 1, 1, 1, 1, 1, 1, 1, 1}, outdims[] = {2, 1};
    float magnitude[] = {4, 9};
    Guarded<float> a(2, 9), b(2, 9);
    TS_perform_sos(re, im, 2, dims, 2, magnitude, outdims);
    TS_perform_pcsos(re, im, 2, dims, 2, a.data(), b.data(), outdims);
    CHECK((magnitude[0] == 2 && magnitude[1] == 3));
    CHECK(a.values() == std::vector<float>{0, 0});
  }
}
