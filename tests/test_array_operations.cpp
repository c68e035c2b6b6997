// Circular shifts, zero padding and the ringing filter.
#include <sys/mman.h>

#include <array>
#include <cmath>

#include "cTessel.h"
#include "naive_arrays.h"
#include "support.h"

namespace {

std::vector<int> random_dims(Random& random) {
  std::vector<int> dims(static_cast<std::size_t>(random.integer(2, 5)));
  for (int& d : dims) d = random.integer(1, 9);
  if (random.integer(0, 3) == 0) dims[0] = random.integer(10, 70);
  return dims;
}

using Shift = void (*)(float*, float*, int*, int, int);

}  // namespace

TEST_CASE("Shifts turn one axis by floor(N / 2) and back", "[shift]") {
  Random random(3);
  CAPTURE(run_seed());
  const Shift forward[] = {TS_fftshift_dim1, TS_fftshift_dim2, TS_fftshift_dim3},
              back[] = {TS_ifftshift_dim1, TS_ifftshift_dim2, TS_ifftshift_dim3};
  for (int run = 0; run < 60; ++run) {
    std::vector<int> dims = random_dims(random);
    const int ndims = static_cast<int>(dims.size()), dim = random.integer(1, std::min(ndims, 3));
    const std::size_t n = naive::product(dims.data(), 0, ndims);
    const std::vector<float> re = random.reals(n), im = random.reals(n);
    const std::size_t m = static_cast<std::size_t>(dims[dim - 1]) / 2;
    CAPTURE(dims, dim);
    with_thread_counts([&] {
      Guarded<float> a(re), b(im), alone(re);
      TS_fftshift(a.data(), b.data(), dims.data(), ndims, dim);
      forward[dim - 1](alone.data(), nullptr, dims.data(), ndims, dim);
      CHECK(a.values() == naive::rotated(re, dims, dim, m));
      CHECK(b.values() == naive::rotated(im, dims, dim, m));
      CHECK(alone.values() == a.values());
      back[dim - 1](alone.data(), nullptr, dims.data(), ndims, dim);
      TS_ifftshift(a.data(), b.data(), dims.data(), ndims, dim);
      CHECK((alone.values() == re && a.values() == re && b.values() == im));
      for (int none : {0, 4, -1}) TS_fftshift(a.data(), b.data(), dims.data(), ndims, none);
      CHECK((a.values() == re && a.intact() && b.intact() && alone.intact()));
    });
  }
}

TEST_CASE("Long axes of odd length and wide blocks are turned exactly", "[shift]") {
  Random random(4);
  for (std::vector<int> dims : {std::vector<int>{3, 1031}, {1500, 7}, {70, 33, 9}, {4097, 1}}) {
    const int ndims = static_cast<int>(dims.size());
    for (int dim = 1; dim <= ndims; ++dim) {
      const std::vector<float> v = random.reals(naive::product(dims.data(), 0, ndims));
      std::vector<float> shifted = v, back = v;
      const std::size_t N = static_cast<std::size_t>(dims[dim - 1]);
      TS_fftshift(shifted.data(), nullptr, dims.data(), ndims, dim);
      TS_ifftshift(back.data(), nullptr, dims.data(), ndims, dim);
      CHECK(shifted == naive::rotated(v, dims, dim, N / 2));
      CHECK(back == naive::rotated(v, dims, dim, N - N / 2));
    }
  }
}

TEST_CASE("TS_zero_pad puts an odd spare zero in front", "[zero_pad]") {
  struct Case {
    double nx;
    std::vector<float> row;
  };
  for (const Case& c : {Case{2, {7, 8}}, Case{5, {0, 0, 7, 8, 0}}, Case{6, {0, 0, 7, 8, 0, 0}}}) {
    CAPTURE(c.nx);
    float re[] = {7, 8};
    int dims[] = {2, 1};
    std::vector<float> out(c.row.size(), 0.0f);
    TS_zero_pad(re, nullptr, 2, dims, c.nx, 1, 1, out.data(), nullptr);
    CHECK(out == c.row);
  }
}

TEST_CASE("TS_zero_pad places every sample and writes nothing else", "[zero_pad]") {
  Random random(5);
  CAPTURE(run_seed());
  for (int run = 0; run < 60; ++run) {
    const bool large = run == 0;  // so that rows are streamed past the caches
    std::vector<int> dims = large ? std::vector<int>{75, 41, 20} : random_dims(random), to = dims;
    const int ndims = static_cast<int>(dims.size());
    for (int d = 0; d < std::min(ndims, 3); ++d) to[d] += random.integer(0, 4) + 140 * large;
    const int nz = ndims > 2 ? to[2] : random.integer(1, 4);
    if (ndims == 2) to.push_back(nz);
    const std::size_t n = naive::product(dims.data(), 0, ndims),
                      n_out = naive::product(to.data(), 0, static_cast<int>(to.size()));
    std::vector<float> re = random.reals(n), im = random.reals(n), want_re(n_out, -9),
                       want_im(n_out, -9);
    const double target[] = {to[0] * 1.0, to[1] * 1.0, nz * 1.0};
    naive::zero_pad(re, dims, target, want_re);
    naive::zero_pad(im, dims, target, want_im);
    CAPTURE(dims, to);
    with_thread_counts([&] {
      Guarded<float> out_re(n_out, -9), out_im(n_out, -9), alone(n_out, -9);
      TS_zero_pad(re.data(), im.data(), ndims, dims.data(), to[0], to[1], nz, out_re.data(),
                  out_im.data());
      TS_zero_pad(re.data(), nullptr, ndims, dims.data(), to[0], to[1], nz, alone.data(), nullptr);
      CHECK(
          (out_re.values() == want_re && out_im.values() == want_im && alone.values() == want_re));
      CHECK((out_re.intact() && out_im.intact() && alone.intact()));
    });
  }
}

TEST_CASE("TS_zero_pad writes nothing for a target that does not hold the input", "[zero_pad]") {
  std::vector<float> re(24, 1.0f);
  int dims[] = {2, 3, 4};
  for (auto [nx, ny, nz] : {std::array<double, 3>{1, 3, 4},
                            {2, 2, 9},
                            {9, 9, 3},
                            {2.5, 3, 4},
                            {NAN, 3, 4},
                            {2, INFINITY, 4},
                            {1e10, 1e10, 1e10},
                            {3e9, 3e9, 4},
                            {-2, -3, -4}}) {
    CAPTURE(nx, ny, nz);
    Guarded<float> out(24, 0.0f);
    TS_zero_pad(re.data(), re.data(), 3, dims, nx, ny, nz, out.data(), out.data());
    CHECK(out.values() == std::vector<float>(24, 0.0f));
    CHECK(out.intact());
  }
}

TEST_CASE("TS_ringing_filter equals the straight transcription to the bit", "[ringing_filter]") {
  Random random(6);
  CAPTURE(run_seed());
  for (int run = 0; run < 60; ++run) {
    std::vector<int> dims = random_dims(random);
    const int ndims = static_cast<int>(dims.size());
    const int first[] = {dims[0], dims[1], ndims > 2 ? dims[2] : 1};
    const std::size_t n = naive::product(dims.data(), 0, ndims);
    std::vector<float> re = random.reals(n), im = random.reals(n);
    re[n / 2] = im[n / 2] = -0.0f;
    double strength[3];
    int width[3];
    for (int d = 0; d < 3; ++d) {
      strength[d] = random.integer(0, 3) ? random.real(-0.2f, 1.2f) : NAN;
      width[d] = random.integer(0, first[d] + 3);
    }
    std::vector<float> want_re = re, want_im = im, want_alone = re;
    const std::size_t P = ndims > 3 ? naive::product(dims.data(), 3, ndims) : 1;
    naive::ringing_filter(want_re.data(), want_im.data(), first, P, strength, width);
    naive::ringing_filter(want_alone.data(), nullptr, first, P, strength, width);
    CAPTURE(dims);
    with_thread_counts([&] {
      Guarded<float> a(re), b(im), alone(re);
      TS_ringing_filter(a.data(), b.data(), ndims, dims.data(), strength, width);
      TS_ringing_filter(alone.data(), nullptr, ndims, dims.data(), strength, width);
      const auto same = [](const std::vector<float>& x, const std::vector<float>& y) {
        for (std::size_t i = 0; i < x.size(); ++i) {
          if (std::isnan(y[i]) ? !std::isnan(x[i]) : bits({x[i]}) != bits({y[i]})) return false;
        }
        return true;
      };
      CHECK((same(a.values(), want_re) && same(b.values(), want_im)));
      CHECK((same(alone.values(), want_alone) && a.intact() && b.intact() && alone.intact()));
    });
  }
}

TEST_CASE("TS_ringing_filter: the strength is how far the window falls at its edge",
          "[ringing_filter]") {
  struct Case {
    double strength;
    float edge;
  };
  for (const Case& c :
       {Case{0, 1}, Case{-3, 1}, Case{0.3, 0.7f}, Case{0.915, 0.085f}, Case{7, 0.085f}}) {
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

#if __SIZEOF_POINTER__ == 8
namespace {

/// 3 x 2^30 floats, of which only the pages that hold samples take memory.
class Sparse {
 public:
  Sparse()
      : memory_(mmap(nullptr, kBytes, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {
    REQUIRE(memory_ != MAP_FAILED);
  }
  ~Sparse() { munmap(memory_, kBytes); }
  Sparse(const Sparse&) = delete;
  Sparse& operator=(const Sparse&) = delete;
  float* data() { return static_cast<float*>(memory_); }

 private:
  static constexpr std::size_t kBytes = std::size_t{3} << 32;
  void* memory_;
};

}  // namespace

TEST_CASE("Padding forms offsets beyond 2^31 samples in 64 bits", "[zero_pad][large]") {
  Sparse big;
  float re[] = {1, 2, 3};
  int dims[] = {1, 1, 1, 3};
  TS_zero_pad(re, nullptr, 4, dims, 32768, 32768, 1, big.data(), nullptr);
  const std::size_t volume = std::size_t{1} << 30, centre = 16384 + std::size_t{32768} * 16384;
  for (std::size_t p = 0; p < 3; ++p) CHECK(big.data()[p * volume + centre] == re[p]);
}

// A shift touches all that it moves, so that only one that moves nothing can be this large.
TEST_CASE("Extents whose product overflows int are multiplied in 64 bits", "[shift][sos][large]") {
  Sparse big;
  const std::size_t last = (std::size_t{2} << 30) + 5;  // the third coil's sample 5
  big.data()[5] = 3;
  big.data()[last] = 4;
  int dims[] = {1 << 15, 1 << 15, 1, 3, 1, 1, 1, 1, 1, 1}, outdims[] = {8, 1, 1, 1};
  Guarded<float> sum(8, 0.0f), re(8, 9.0f), im(8, 9.0f);
  TS_perform_sos(big.data(), nullptr, 4, dims, 4, sum.data(), outdims);
  TS_perform_pcsos(big.data(), nullptr, 4, dims, 4, re.data(), im.data(), outdims);
  CHECK(sum.values() == std::vector<float>{0, 0, 0, 0, 0, 5, 0, 0});
  CHECK(re.values() == sum.values());
  CHECK((sum.intact() && re.intact() && im.intact()));
  int none[] = {1 << 20, 1 << 20, 1 << 20, 0};
  for (int dim : {1, 2, 3}) TS_fftshift(big.data(), nullptr, none, 4, dim);
  CHECK((big.data()[5] == 3 && big.data()[last] == 4));
}
#endif
