#include <algorithm>
#include <cmath>

#include "block_sincos.h"
#include "cTessel.h"
#include "legendre.h"
#include "naive_geometry.h"
#include "support.h"

namespace {

struct Coefficients {
  float y[14][12] = {}, x[14][12] = {}, z[17][1] = {};
};

/// Every entry of the tables, those that are never read as well.
Coefficients dense(Random& random) {
  Coefficients c;
  for (auto* table : {c.x, c.y})
    for (int n = 0; n < 14; ++n)
      for (int m = 0; m < 12; ++m) table[n][m] = random.real(-0.01f, 0.01f);
  for (auto& row : c.z) row[0] = random.real(-0.01f, 0.01f);
  c.x[1][1] = c.y[1][1] = c.z[1][0] = 1;
  return c;
}

struct Points {
  std::vector<float> x, y, z;
  void add(float px, float py, float pz) {
    x.push_back(px);
    y.push_back(py);
    z.push_back(pz);
  }
};

using Floats = std::vector<float>;

/// xd, yd and zd, one after the other.
Floats correct(Points& p, Coefficients& c) {
  const std::size_t n = p.x.size();
  Guarded<float> out(3 * n, 7.0f);
  TS_geometry_correction(p.x.data(), p.y.data(), p.z.data(), out.data(), out.data() + n,
                         out.data() + 2 * n, static_cast<int>(n), c.y, c.x, c.z, 250);
  CHECK(out.intact());
  return out.values();
}

Floats naive_positions(const Points& p, const Coefficients& c) {
  const std::size_t n = p.x.size();
  Floats out(3 * n);
  naive::geometry_correction(p.x.data(), p.y.data(), p.z.data(), &out[0], &out[n], &out[2 * n],
                             static_cast<int>(n), c.y, c.x, c.z, 250);
  return out;
}

/// Of the floats with bit patterns from 0 to last, every stride-th: how many get other bits from
/// block_sincos than from the maths library.
std::int64_t sincos_differences(std::uint32_t last, std::uint32_t stride) {
  const int lanes = ctessel::kLanes;
  std::int64_t count = 0;
  for (std::uint32_t next = 0; next <= last;) {
    float angle[lanes], sine[lanes], cosine[lanes];
    for (int j = 0; j < lanes; ++j, next += stride) std::memcpy(&angle[j], &next, sizeof next);
    ctessel::block_sincos(angle, sine, cosine);
    for (int j = 0; j < lanes; ++j)
      count += sine[j] != std::sin(angle[j]) || cosine[j] != std::cos(angle[j]);
  }
  return count;
}

constexpr std::uint32_t kBitsOf70 = 0x428c0000u;  // 11 times 2 pi is 69.1

}  // namespace

TEST_CASE("block_sincos gives the bits of the maths library", "[sincos]") {
  CHECK(sincos_differences(kBitsOf70, 997) == 0);
  std::vector<float> odd = {0, -0.0f, 1e-45f, -1, 100, 1e30f, -1e30f, INFINITY, -INFINITY, NAN};
  for (int k = 1; k <= 44; ++k) {  // next to multiples of pi / 2 the reduction cancels most
    const float quarter = static_cast<float>(k * 1.5707963267948966);
    for (float angle : {std::nextafter(quarter, 0.0f), quarter, std::nextafter(quarter, 99.0f)})
      odd.push_back(angle);
  }
  odd.resize((odd.size() / ctessel::kLanes + 1) * ctessel::kLanes);
  std::vector<float> sine(odd.size()), cosine(odd.size()), sine_want, cosine_want;
  for (std::size_t i = 0; i < odd.size(); i += ctessel::kLanes)
    ctessel::block_sincos(&odd[i], &sine[i], &cosine[i]);
  for (volatile float angle : odd) {
    sine_want.push_back(std::sin(angle));
    cosine_want.push_back(std::cos(angle));
  }
  CHECK(differences(sine, sine_want) == "");
  CHECK(differences(cosine, cosine_want) == "");
}

// Half a minute: test_geometry_correction "[exhaustive]" on a new platform.
TEST_CASE("block_sincos gives the library's bits for every float up to 70",
          "[.][sincos][exhaustive]") {
  CHECK(sincos_differences(kBitsOf70, 1) == 0);
}

// The shorter list is computed point by point, the longer one takes the packed table.
TEST_CASE("Positions are those of the naive version, bit for bit", "[geometry]") {
  Random random;
  CAPTURE(run_seed());
  Coefficients c = dense(random);
  Points p;
  for (float x : {-200.0f, 0.0f, 200.0f})
    for (float y : {-200.0f, 0.0f, 200.0f})
      for (float z : {-200.0f, -0.0f, 0.0f, 1e-3f, 200.0f}) p.add(x, y, z);
  for (float sign : {-1.0f, 1.0f})
    for (int i = -4000; i <= 4000; ++i) {  // straddles |cos(theta)| = 0.9 by a few ulp per step
      const float side = 43.588989f * (1 + 3e-8f * i);
      p.add(side, 0, sign * 90);
    }
  int below = 0, at = 0, above = 0;
  for (std::size_t i = 0; i < p.x.size(); ++i) {
    const float bound = std::abs(std::cos(naive::polar(p.x[i], p.y[i], p.z[i]).theta));
    below += bound < 0.9f && bound > 0.8999f;
    at += bound == 0.9f;
    above += bound > 0.9f && bound < 0.9001f;
  }
  CHECK((below > 0 && at > 0 && above > 0));
  CHECK(differences(correct(p, c), naive_positions(p, c)) == "");
  for (int i = 0; i < 8954; ++i)
    p.add(random.real(-250, 250), random.real(-250, 250), random.real(-250, 250));
  const Floats want = naive_positions(p, c);
  with_thread_counts([&] { CHECK(differences(correct(p, c), want) == ""); });
}

// The table serves lists of 20000 points; near the poles the terms are computed.
TEST_CASE("Batches of points that end with one point, or hold a few only", "[geometry]") {
  Random random;
  CAPTURE(run_seed());
  Coefficients c = dense(random);
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  for (const int sampled : {1, 5, ctessel::kLanes - 1, ctessel::kLanes + 1, 20000 - 1}) {
    CAPTURE(sampled);
    Points p;
    for (int i = 0; i < 20000; ++i) p.add(random.real(5, 9), 0, i < sampled ? 5.0f : 200.0f);
    CHECK(differences(correct(p, c), naive_positions(p, c)) == "");
  }
  omp_set_num_threads(threads);
}
