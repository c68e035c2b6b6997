// Arrays of more than 2^31 samples, of which only a few pages take memory. 32 bits cannot hold them.
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>

#include "ctessel.hpp"
#include "dispatch.h"
#include "homodyne.h"
#include "host/memory.h"
#include "naive_homodyne.h"
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
  /// Gives one stretch of floats memory of its own.
  float* own(std::size_t first, std::size_t count) {
    float* part = data() + first;
    const void* at = mmap(part, count * sizeof(float), PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    return at == MAP_FAILED ? nullptr : part;
  }
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

/// A host's array of many small volumes in the shared memory, of which the last ones have memory of
/// their own.
struct HostArray {
  HostArray(Mapped& big, bool pairs) : volumes(pairs ? 33 << 10 : 65 << 10), step(pairs ? 2 : 1) {
    array = host::single({64, 32, 16, volumes}, {}, {}, host::Layout::kPairs);
    array.complex = pairs;
    array.borrowed = big.data();
    end = big.own((static_cast<std::size_t>(step) * volumes << 15) - kOwn, kOwn);
  }
  void fill(float others, const naive::Volume& last) {
    std::fill_n(array.borrowed, kOwn, others);
    for (std::size_t i = 0; i < last.re.size(); ++i) {
      end[step * i] = last.re[i];
      if (step == 2) end[2 * i + 1] = last.im[i];
    }
  }
  naive::Volume last() const {
    naive::Volume v{{64, 32, 16, kOwn / step >> 15}, {}, {}};
    for (int i = 0; i < kOwn; i += step) {
      v.re.push_back(end[i]);
      if (step == 2) v.im.push_back(end[i + 1]);
    }
    return v;
  }
  static constexpr int kOwn = 1 << 19;
  int volumes, step;
  host::Array array;
  float* end;
};

host::Array* call(const char* name, std::vector<const host::Array*> inputs) {
  const host::Array operation = host::text(name);
  inputs.insert(inputs.begin(), &operation);
  host::Array* out[1] = {nullptr};
  mexFunction(1, out, static_cast<int>(inputs.size()), inputs.data());
  return out[0];
}

}  // namespace

TEST_CASE("Single samples beyond 2^31 are found where they are", "[large]") {
  Mapped big(true);
  if (!big.ok()) return;
  float re[] = {1, 2, 3};
  int three[] = {1, 1, 1, 3};
  TS_zero_pad(re, nullptr, 4, three, 32768, 32768, 1, big.data(), nullptr);
  const std::size_t volume = std::size_t{1} << 30, centre = 16384 + std::size_t{32768} * 16384;
  for (std::size_t p = 0; p < 3; ++p) CHECK(big.data()[p * volume + centre] == re[p]);

  // Five coils: four that are added up together, and the last one alone.
  const std::size_t coil = std::size_t{25000} << 15;
  big.data()[5] = 3;
  big.data()[3 * coil + 5] = 12;
  big.data()[4 * coil + 5] = 4;
  int dims[] = {25000, 1 << 15, 1, 5, 1, 1, 1, 1, 1, 1}, outdims[] = {8, 1, 1, 1};
  Guarded<float> sum(8, 0.0f), out_re(8, 9.0f), out_im(8, 9.0f);
  TS_perform_sos(big.data(), nullptr, 4, dims, 4, sum.data(), outdims);
  TS_perform_pcsos(big.data(), nullptr, 4, dims, 4, out_re.data(), out_im.data(), outdims);
  CHECK(sum.values() == std::vector<float>{0, 0, 0, 0, 0, 13, 0, 0});
  CHECK(out_re.values() == sum.values());
  CHECK((sum.intact() && out_re.intact() && out_im.intact()));

  // Two coils at four times, the last of which gives the negative one the greater weight.
  int series[] = {1 << 14, 1 << 15, 1, 2, 1, 1, 1, 1, 1, 4};
  big.data()[6] = 4;
  big.data()[volume / 2 + 6] = -3;
  big.data()[3 * volume + volume / 2 + 6] = 9;
  TS_perform_pcsos(big.data(), nullptr, 4, series, 4, out_re.data(), out_im.data(), outdims);
  CHECK(out_re.values()[6] == -5);
  const auto times = static_cast<std::ptrdiff_t>(volume);
  const std::vector<std::ptrdiff_t> strides = {1, 8, 8, times / 2, 0, 0, 0, 0, 0, times};
  const float* const at = big.data();
  float* const to = big.data() + 64;
  ctessel::pcsos({at, nullptr, {8, 1, 1, 2, 1, 1, 1, 1, 1, 4}, strides}, ctessel::Dim::coil,
                 {to, to + 8, {8, 1, 1, 1, 1, 1, 1, 1, 1, 4}, strides});
  CHECK(to[6] == -5);
  CHECK(to[3 * volume + 6] == 9);

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

TEST_CASE("The gateway's operations run past 2^31 floats", "[.][large]") {
  host::state().layout = host::Layout::kPairs;
  const int threads = omp_get_max_threads();
  for (bool pairs : {false, true}) {
    CAPTURE(pairs);
    omp_set_num_threads(pairs ? 1 : 128);  // one long run, and runs that begin past 2^31
    Mapped big(false);
    if (!big.ok()) return;
    HostArray data(big, pairs);
    std::copy_n(Random(1).reals(HostArray::kOwn).data(), HostArray::kOwn, data.end);
    const naive::Volume given = data.last();

    naive::Volume want = given, low = given;
    data.fill(1, given);
    call("multiply", {&data.array, &data.array});
    naive::multiply(want, low);
    CHECK(differences(data.last().re, want.re) == "");
    CHECK(differences(data.last().im, want.im) == "");

    std::vector<float> phase(8 * data.volumes, 1);  // pi in the volumes that are looked at
    std::fill(phase.end() - 8 * given.outer(), phase.end(), -1.0f);
    const host::Array small =
        host::single({2, 2, 2, data.volumes}, phase, {}, host::Layout::kPairs);
    data.fill(1, given);
    call("multiply", {&data.array, &small});
    want = given;
    for (float& v : want.re) v = -v;
    for (float& v : want.im) v = 0;
    CHECK(differences(data.last().re, want.re) == "");
    CHECK(differences(data.last().im, want.im) == "");

    const std::vector<double> ranges[3] = {{-4, 31}, {-2, 15}, {-1, 7}};
    const host::Array kx = host::doubles({1, 2}, ranges[0]), ky = host::doubles({1, 2}, ranges[1]),
                      kz = host::doubles({1, 2}, ranges[2]);
    data.fill(0, given);
    const host::Array* out = call("filter", {&data.array, &kx, &ky, &kz});
    want = given;
    const naive::Volume centre = naive::filter(want, ranges);
    CHECK(differences(data.last().re, want.re) == "");
    CHECK(differences(data.last().im, want.im) == "");
    REQUIRE(out->dims == std::vector<int>{9, 5, 3, data.volumes});
    const std::vector<float> re = out->real(), im = out->imaginary();
    CHECK(std::equal(centre.re.begin(), centre.re.end(), re.end() - centre.re.size()));
    CHECK(std::equal(centre.im.begin(), centre.im.end(), im.end() - centre.im.size()));
    const auto others = re.end() - centre.re.size();
    CHECK(std::count(re.begin(), others, 0.0f) == others - re.begin());
    host::state().created.clear();
  }
  omp_set_num_threads(threads);
}
#endif
