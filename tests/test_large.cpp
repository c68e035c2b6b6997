// Arrays of more than 2^31 samples, of which only a few pages take memory. 32 bits cannot hold them.
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>

#include "cTessel.h"
#include "dispatch.h"
#include "support.h"

#if __SIZEOF_POINTER__ < 8 || defined(CTESSEL_SANITIZED)
TEST_CASE("Arrays of more than 2^31 samples", "[large]") {
  WARN("skipped: 32 bits do not hold them, and a sanitizer's shadow of them is not sparse");
}
#else
namespace {

/// 4 x 2^30 floats. A signed 32-bit offset would lead to one of the sides, which may not be touched.
class Mapped {
 public:
  /// Sparse: pages come into being where they are written. Otherwise 2 MiB of memory stand in every
  /// place, so that a kernel may run through all of the array.
  explicit Mapped(bool sparse)
      : side_(static_cast<char*>(mmap(nullptr, 3 * kBytes, PROT_NONE, kReserve, -1, 0))) {
    ok_ = side_ != MAP_FAILED;
    if (ok_ && sparse) {
      ok_ = mmap(side_ + kBytes, kBytes, PROT_READ | PROT_WRITE, kReserve | MAP_FIXED, -1, 0) !=
            MAP_FAILED;
    } else if (ok_) {
      repeat();
    }
    if (!ok_) WARN("skipped: the system does not map arrays of this size");
  }
  ~Mapped() {
    if (side_ != MAP_FAILED) munmap(side_, 3 * kBytes);
  }
  Mapped(const Mapped&) = delete;
  Mapped& operator=(const Mapped&) = delete;
  bool ok() const { return ok_; }
  float* data() { return reinterpret_cast<float*>(side_ + kBytes); }

 private:
  static constexpr std::size_t kBytes = std::size_t{1} << 34, kWindow = std::size_t{2} << 20;
  static constexpr int kReserve = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
  void repeat() {
    const int file = memfd_create("window", 0);
    ok_ = file >= 0 && ftruncate(file, kWindow) == 0;
    for (std::size_t at = 0; ok_ && at < kBytes; at += kWindow) {
      ok_ = mmap(side_ + kBytes + at, kWindow, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file,
                 0) != MAP_FAILED;
    }
    close(file);
  }
  char* side_;
  bool ok_;
};

}  // namespace

TEST_CASE("Single samples beyond 2^31 are found where they are", "[large]") {
  Mapped big(true);
  if (!big.ok()) return;
  float re[] = {1, 2, 3};
  int three[] = {1, 1, 1, 3};
  TS_zero_pad(re, nullptr, 4, three, 32768, 32768, 1, big.data(), nullptr);
  const std::size_t volume = std::size_t{1} << 30, centre = 16384 + std::size_t{32768} * 16384;
  for (std::size_t p = 0; p < 3; ++p) CHECK(big.data()[p * volume + centre] == re[p]);

  big.data()[5] = 3;
  big.data()[2 * volume + 5] = 4;  // the third coil's
  int dims[] = {1 << 15, 1 << 15, 1, 3, 1, 1, 1, 1, 1, 1}, outdims[] = {8, 1, 1, 1};
  Guarded<float> sum(8, 0.0f), out_re(8, 9.0f), out_im(8, 9.0f);
  TS_perform_sos(big.data(), nullptr, 4, dims, 4, sum.data(), outdims);
  TS_perform_pcsos(big.data(), nullptr, 4, dims, 4, out_re.data(), out_im.data(), outdims);
  CHECK(sum.values() == std::vector<float>{0, 0, 0, 0, 0, 5, 0, 0});
  CHECK(out_re.values() == sum.values());
  CHECK((sum.intact() && out_re.intact() && out_im.intact()));

  int box[] = {1 << 11, 1 << 10, 1 << 11};
  big.data()[4 * volume - 1] = 6;
  CHECK(TS_linear_interpolation(big.data(), 1023, 2047, 2047, box) == 6);
  CHECK(TS_linear_interpolation(big.data(), 1023, 2046.5f, 2046.5f, box) == 1.5f);
  int none[] = {1 << 20, 1 << 20, 1 << 20, 0};
  for (int dim : {1, 2, 3}) TS_fftshift(big.data(), nullptr, none, 4, dim);
  CHECK(big.data()[5] == 3);
}

// One value everywhere stays, and an offset that has lost its upper bits ends the process.
TEST_CASE("Kernels that touch every sample run past 2^31", "[large]") {
  Mapped big(false);
  if (!big.ok()) return;
  float* const v = big.data();
  const std::size_t last = (std::size_t{65} << 25) - 1;
  std::fill_n(v, 1 << 19, 2.0f);
  int dims[] = {1 << 12, 1 << 9, 1 << 4, 65}, width[] = {1 << 12, 1 << 9, 1 << 4};
  double flat[] = {0, 0, 0};
  TS_fftshift(v, nullptr, dims, 4, 3);
  TS_ringing_filter(v, nullptr, 4, dims, flat, width);
  CHECK(v[last] == 2);
  TS_zero_pad(v + (1 << 20), nullptr, 4, dims, dims[0], dims[1], dims[2], v, nullptr);
  CHECK(v[last] == 2);
  create_plgndr_lookup(1, 1 << 28, 9, v);
  CHECK(v[last] == 0);
}

// Some ten seconds, so not among the usual runs: test_large "[.]".
TEST_CASE("Combinations of coils run past 2^31", "[.][large]") {
  Mapped big(false);
  if (!big.ok()) return;
  float* const v = big.data();
  std::fill_n(v, 1 << 19, 2.0f);
  int coils[] = {128, 1 << 14, 1040, 1, 1, 1, 1, 1, 1, 1}, close[] = {1 << 21, 1040};
  int out[] = {128, 1, 1040}, few[] = {1, 1040};
  std::vector<float> re(128 * 1040), im(re), sum(1040);
  TS_perform_pcsos(v, nullptr, 3, coils, 2, re.data(), im.data(), out);
  TS_perform_sos(v, nullptr, 2, close, 1, sum.data(), few);
  CHECK(std::count(re.begin(), re.end(), 256.0f) == 128 * 1040);
  CHECK(std::count(sum.begin(), sum.end(), std::sqrt(8388608.0f)) == 1040);
}
#endif
