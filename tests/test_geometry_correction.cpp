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

Coefficients linear() {
  Coefficients c;
  c.x[1][1] = 0.5f;
  c.y[1][1] = -2;
  c.z[1][0] = 3;
  return c;
}

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

Points cloud(Random& random, int n, float reach = 250) {
  Points p;
  for (int i = 0; i < n; ++i)
    p.add(random.real(-reach, reach), random.real(-reach, reach), random.real(-reach, reach));
  return p;
}

using Results = std::vector<std::vector<float>>;  // xd, yd, zd

Results correct(Points& p, Coefficients& c, float r0 = 250) {
  const std::size_t n = p.x.size();
  Guarded<float> xd(n, 7.0f), yd(n, 7.0f), zd(n, 7.0f);
  TS_geometry_correction(p.x.data(), p.y.data(), p.z.data(), xd.data(), yd.data(), zd.data(),
                         static_cast<int>(n), c.y, c.x, c.z, r0);
  CHECK((xd.intact() && yd.intact() && zd.intact()));
  return {xd.values(), yd.values(), zd.values()};
}

Results transcribed(const Points& p, const Coefficients& c, float r0 = 250) {
  Results out(3, std::vector<float>(p.x.size()));
  naive::geometry_correction(p.x.data(), p.y.data(), p.z.data(), out[0].data(), out[1].data(),
                             out[2].data(), static_cast<int>(p.x.size()), c.y, c.x, c.z, r0);
  return out;
}

/// Lists that differ in a bit; one NaN is as good as another.
int differences(const Results& a, const Results& b) {
  int count = 0;
  for (std::size_t k = 0; k < 3; ++k)
    for (std::size_t i = 0; i < a[k].size(); ++i)
      if (std::memcmp(&a[k][i], &b[k][i], sizeof(float)) != 0 &&
          !(std::isnan(a[k][i]) && std::isnan(b[k][i])))
        ++count;
  return count;
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
  for (int k = 1; k <= 44; ++k) {  // next to quarter turns the reduction cancels most
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
  CHECK(bits(sine) == bits(sine_want));
  CHECK(bits(cosine) == bits(cosine_want));
}

// Half a minute: test_geometry_correction "[exhaustive]" on a new platform.
TEST_CASE("block_sincos gives the library's bits for every float up to 70",
          "[.][sincos][exhaustive]") {
  CHECK(sincos_differences(kBitsOf70, 1) == 0);
}

// 25000 points take the packed table, fewer are computed one by one.
TEST_CASE("Positions are those of the transcription, bit for bit", "[geometry]") {
  Random random;
  CAPTURE(run_seed());
  Coefficients c = dense(random);
  for (int n : {0, 1, 31, 32, 33, 1000, 25000}) {
    CAPTURE(n);
    Points p = cloud(random, n);
    const Results want = transcribed(p, c);
    with_thread_counts([&] { CHECK(differences(correct(p, c), want) == 0); });
  }
}

TEST_CASE("Axes, planes, poles and the bounds of the table match the transcription", "[geometry]") {
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
  CHECK(differences(correct(p, c), transcribed(p, c)) == 0);
  Points many = p;
  for (int i = 0; i < 2; ++i) {  // once more with the packed table
    many.x.insert(many.x.end(), p.x.begin(), p.x.end());
    many.y.insert(many.y.end(), p.y.begin(), p.y.end());
    many.z.insert(many.z.end(), p.z.begin(), p.z.end());
  }
  CHECK(differences(correct(many, c), transcribed(many, c)) == 0);
}

TEST_CASE("Perfectly linear gradients return the points", "[geometry]") {
  Random random;
  CAPTURE(run_seed());
  Coefficients c = linear();
  Points p;
  p.add(0, 0, 0);
  p.add(0, 0, 77);
  Results got = correct(p, c);
  CHECK(got[0] == std::vector<float>{0, 0});
  CHECK(got[1] == std::vector<float>{0, 0});
  CHECK(got[2][0] == 0);
  CHECK(got[2][1] == Approx(77).epsilon(3e-7));

  // The table's own error inside the reference sphere: at most a sample's width times r0, and
  // d sin(theta) / d cos(theta) = 2.06 at the table's end times that in x and y.
  p = cloud(random, 60000);
  got = correct(p, c);
  double worst[3] = {}, square[3] = {};
  int inside = 0;
  for (std::size_t i = 0; i < p.x.size(); ++i) {
    if (std::hypot(p.x[i], p.y[i], p.z[i]) > 250) continue;
    ++inside;
    const double error[] = {got[0][i] - p.x[i], got[1][i] - p.y[i], got[2][i] - p.z[i]};
    for (int k = 0; k < 3; ++k) {
      worst[k] = std::max(worst[k], std::abs(error[k]));
      square[k] += error[k] * error[k];
    }
  }
  const double bound[] = {0.104, 0.104, 0.051}, rms[] = {0.0120, 0.0120, 0.0212};
  for (int k = 0; k < 3; ++k) {
    CHECK(worst[k] < bound[k]);
    CHECK(std::sqrt(square[k] / inside) == Approx(rms[k]).epsilon(0.05));
  }
}

// Reference: the expansion in double with std::assoc_legendre and exact angles.
TEST_CASE("Each coefficient moves its own axis by its own harmonic", "[geometry]") {
  Random random;
  CAPTURE(run_seed());
  Points p = cloud(random, 50, 140);
  Coefficients c = linear();
  const Results base = correct(p, c);
  auto harmonic = [&](std::size_t i, int n, int m, bool sine) {
    const double x = p.x[i], y = p.y[i], z = p.z[i], r = std::hypot(x, y, z);
    const double angle = m * std::atan2(y, x);
    return std::pow(r / 250, n) * (sine ? std::sin(angle) : std::cos(angle)) *
           std::assoc_legendre(static_cast<unsigned>(n), static_cast<unsigned>(m), z / r);
  };
  auto check = [&](float& entry, std::size_t axis, int n, int m, bool read, float scale) {
    CAPTURE(axis, n, m);
    const float before = entry;
    entry += 0.125f;
    Results got = correct(p, c);
    entry = before;
    for (std::size_t k = 0; k < 3; ++k)
      if (k != axis || !read) CHECK(bits(got[k]) == bits(base[k]));
    if (!read) return;
    double largest = 0, worst = 0;
    for (std::size_t i = 0; i < p.x.size(); ++i) {
      const double want = 250 / scale * 0.125 * harmonic(i, n, m, axis == 1);
      largest = std::max(largest, std::abs(want));
      worst = std::max(worst, std::abs(got[axis][i] - base[axis][i] - want));
    }
    CHECK(worst < 0.04 * largest + 1e-4);  // the table's spacing shows at high orders
  };
  for (int n = 0; n < 14; ++n)
    for (int m = 0; m < 12; ++m) {
      if (n == 1 && m == 1) continue;  // also the scale
      const bool read = m >= 1 && n >= m;
      check(c.x[n][m], 0, n, m, read, 0.5f);
      check(c.y[n][m], 1, n, m, read, -2);
    }
  for (int n = 0; n < 17; ++n)
    if (n != 1) check(c.z[n][0], 2, n, 0, n > 0, 3);
}
