// The gateway on the memory host, in both layouts of complex values.
#include <limits>

#include "homodyne.h"
#include "host/memory.h"
#include "naive_homodyne.h"
#include "support.h"

using host::Array;
using host::Layout;

namespace {

constexpr Layout kLayouts[] = {Layout::kParts, Layout::kPairs};
constexpr double kInf = std::numeric_limits<double>::infinity();

Array to_host(const naive::Volume& v, Layout layout) {
  return host::single(v.dims, v.re, v.im, layout);
}

Array range_of(const std::vector<double>& r) {
  return host::doubles({r.empty() ? 0 : 1, static_cast<int>(r.size())}, r);
}

/// Calls the gateway; the result is the error text, empty where it returned.
std::string call(std::vector<const Array*> inputs, Array** out = nullptr) {
  Array* outputs[1] = {nullptr};
  host::state().created.clear();
  host::state().warnings.clear();
  try {
    mexFunction(1, outputs, static_cast<int>(inputs.size()), inputs.data());
  } catch (const host::Error& e) {
    return e.text;
  }
  if (out) *out = outputs[0];
  return "";
}

const Array kFilter = host::text("filter"), kMultiply = host::text("multiply");

std::vector<int> random_dims(Random& random, int low = 1) {
  std::vector<int> dims(static_cast<std::size_t>(random.integer(1, 5)));
  for (int& d : dims) d = random.integer(low, 9);
  return dims;
}

naive::Volume random_volume(Random& random, const std::vector<int>& dims, bool complex) {
  naive::Volume v{dims, {}, {}};
  std::size_t n = 1;
  for (int d : dims) n *= static_cast<std::size_t>(d);
  v.re = random.reals(n);
  if (complex) v.im = random.reals(n);
  return v;
}

}  // namespace

TEST_CASE("filter equals the straight transcription to the bit", "[filter]") {
  Random random(1);
  CAPTURE(run_seed());
  for (int run = 0; run < 300; ++run) {
    const bool large = run == 0;  // axes long enough for products that float would round
    const naive::Volume data = random_volume(
        random, large ? std::vector<int>{64, 48, 32} : random_dims(random), random.integer(0, 1));
    std::vector<double> ranges[3];
    for (auto& r : ranges) {
      const double first = random.integer(-6, 2) - 0.4, last = random.integer(-2, 6) + 0.3;
      if (random.integer(0, 2)) r = {first, last};
      if (large) r = {-11, 15};
    }
    CAPTURE(run, data.dims, ranges[0], ranges[1], ranges[2]);
    naive::Volume want = data;
    const naive::Volume centre = naive::filter(want, ranges);
    for (Layout layout : kLayouts) {
      host::state().layout = layout;
      with_thread_counts([&] {
        Array mine = to_host(data, layout), *out = nullptr;
        const Array kx = range_of(ranges[0]), ky = range_of(ranges[1]), kz = range_of(ranges[2]);
        REQUIRE(call({&kFilter, &mine, &kx, &ky, &kz}, &out) == "");
        CHECK(bits(mine.real()) == bits(want.re));
        CHECK(bits(mine.imaginary()) == bits(want.im));
        CHECK(out->dims == centre.dims);
        CHECK(bits(out->real()) == bits(centre.re));
        CHECK(bits(out->imaginary()) == bits(centre.im));
        CHECK((mine.intact() && out->intact()));
      });
    }
  }
}

TEST_CASE("calculate_filter: 84 of 128 lines, worked by hand", "[filter]") {
  double range[] = {-20, 63};
  std::vector<float> w(128, -1.0f);
  int bounds[] = {-7, -7};
  REQUIRE(calculate_filter(128, range, w.data(), bounds) == 1);
  CHECK((bounds[0] == 44 && bounds[1] == 84));
  for (int n = 0; n <= 44; ++n) CHECK(w[n] == 0.0f);
  for (int n = 84; n < 128; ++n) CHECK(w[n] == 2.0f);
  CHECK((w[54] == 0.75f && w[64] == 1.0f && w[74] == 1.25f));
  for (int m = 0; m <= 20; ++m) CHECK(w[64 - m] + w[64 + m] == 2.0f);
}

TEST_CASE("calculate_filter takes any range on any axis", "[filter]") {
  const double odd[] = {-kInf,
                        -1e300,
                        -2147483649.0,
                        -2147483648.0,
                        -1e9,
                        -65,
                        -64,
                        -63,
                        -20,
                        -1,
                        -0.9,
                        0,
                        0.9,
                        1,
                        2,
                        62,
                        63,
                        64,
                        1e9,
                        2147483647.0,
                        1e300,
                        kInf,
                        NAN};
  for (int N : {0, 1, 2, 3, 127, 128}) {
    for (double first : odd) {
      for (double last : odd) {
        double range[] = {first, last};
        Guarded<float> w(static_cast<std::size_t>(N), 5.0f);
        int bounds[] = {-7, -7};
        CAPTURE(N, first, last);
        const bool written = calculate_filter(N, range, w.data(), bounds) == 1;
        CHECK(w.intact());
        for (float v : w.values()) CHECK((written ? v >= 0 && v <= 2 : v == 5.0f));
        for (int b : bounds) CHECK((written ? b >= 0 && b < std::max(N, 1) : b == -7));
        if (std::abs(first) > 1e8 || std::abs(last) > 1e8 || N == 0 || std::isnan(first + last))
          continue;
        std::vector<float> want(static_cast<std::size_t>(N), 5.0f);
        int want_bounds[] = {-7, -7};
        CHECK(naive::calculate_filter(N, range, want.data(), want_bounds) == written);
        CHECK(bits(w.values()) == bits(want));
        CHECK((bounds[0] == want_bounds[0] && bounds[1] == want_bounds[1]));
      }
    }
  }
}

TEST_CASE("Ranges that are symmetric, empty or rejected", "[filter]") {
  struct Case {
    std::vector<double> range;
    int kept, first;  // positions of the axis in the centre block
  };
  std::vector<float> line(128);
  for (int i = 0; i < 128; ++i) line[static_cast<std::size_t>(i)] = static_cast<float>(i + 1);
  for (const Case& c :
       {Case{{}, 128, 0}, Case{{-64, 63}, 128, 0}, Case{{-3, 4}, 128, 0}, Case{{NAN, 63}, 128, 0},
        Case{{-kInf, kInf}, 128, 0}, Case{{-21.9, 20.5}, 1, 0}, Case{{-40, 20}, 1, 0},
        Case{{-kInf, 63}, 1, 0}, Case{{-63, 66}, 0, 0}}) {
    CAPTURE(c.range);
    Array data = host::single({1, 128}, line, {}, Layout::kParts), *out = nullptr;
    const Array none = range_of({}), ky = range_of(c.range);
    REQUIRE(call({&kFilter, &data, &none, &ky, &none}, &out) == "");
    CHECK(out->dims == std::vector<int>{1, c.kept});
    CHECK(out->complex);
    if (c.kept) CHECK(out->real()[0] == line[static_cast<std::size_t>(c.first)]);
    if (c.kept) CHECK(data.real() == line);  // no weighting
  }
}

TEST_CASE("multiply equals the straight transcription", "[multiply]") {
  Random random(2);
  CAPTURE(run_seed());
  for (int run = 0; run < 300; ++run) {
    const bool large = run == 0;  // grids long enough for their rounding to show
    const std::vector<int> dims = large ? std::vector<int>{256, 61, 3} : random_dims(random);
    std::vector<int> low_dims = large ? std::vector<int>{64, 16, 2} : dims;
    const bool same = random.integer(0, 1);
    for (std::size_t d = 0; !large && !same && d < dims.size() && d < 3; ++d)
      low_dims[d] = random.integer(1, 9);
    const naive::Volume data = random_volume(random, dims, random.integer(0, 1));
    naive::Volume low = random_volume(random, low_dims, random.integer(0, 1));
    if (random.integer(0, 9) == 0)
      low.re[0] = static_cast<float>(random.integer(0, 1) ? kInf : NAN);
    naive::Volume want = data;
    naive::multiply(want, low);
    CAPTURE(run, dims, low_dims);
    for (Layout layout : kLayouts) {
      std::vector<float> first;
      with_thread_counts([&] {
        Array mine = to_host(data, layout);
        const Array theirs = to_host(low, layout);
        REQUIRE(call({&kMultiply, &mine, &theirs}) == "");
        CHECK((mine.intact() && theirs.intact()));
        const std::vector<float> got = mine.real();
        CHECK(mine.imaginary() == std::vector<float>(want.im.size(), 0.0f));
        if (dims == low_dims) {
          CHECK(bits(got) == bits(want.re));
        } else {
          for (std::size_t i = 0; i < got.size(); ++i) {
            if (std::isnan(want.re[i])) {
              CHECK(std::isnan(got[i]));
              continue;
            }
            // One rounding of an interpolated part turns the phase by up to one float epsilon.
            const float size = std::hypot(data.re[i], data.im.empty() ? 0.0f : data.im[i]);
            CHECK(std::abs(got[i] - want.re[i]) <=
                  size * 4 * std::numeric_limits<float>::epsilon());
          }
        }
        if (first.empty()) first = got;
        CHECK(bits(got) == bits(first));
      });
    }
  }
}

TEST_CASE("multiply on hand-worked samples", "[multiply]") {
  for (Layout layout : kLayouts) {
    Array data = host::single({3}, {1, 2, 3}, {4, 5, 6}, layout);
    const Array quarter_turn = host::single({3}, {0, 0, 0}, {2, 0.5f, 0}, layout);
    REQUIRE(call({&kMultiply, &data, &quarter_turn}) == "");
    CHECK((data.real()[0] == 4 && data.real()[1] == 5 && std::isnan(data.real()[2])));
    CHECK(data.imaginary() == std::vector<float>{0, 0, 0});
    Array itself = host::single({2}, {3, -4}, {4, 3}, layout);
    REQUIRE(call({&kMultiply, &itself, &itself}) == "");
    CHECK(itself.real() == std::vector<float>{5, 5});
  }
}

TEST_CASE("A low-resolution image in the data's own storage counts as it was", "[multiply]") {
  Random random(9);
  CAPTURE(run_seed());
  const std::vector<float> re = random.reals(4200), im = random.reals(4200);
  for (std::vector<int> low_dims : {std::vector<int>{10, 1, 1, 400}, {5, 2, 1, 400}, {10}}) {
    const std::vector<int> dims = low_dims.size() == 1 ? low_dims : std::vector<int>{10, 1, 1, 400};
    for (int offset : {1, 15, 100}) {
      CAPTURE(low_dims, offset);
      std::vector<float> first;
      with_thread_counts([&] {
        // A part of an array is an array over the same floats: built here by hand.
        Array whole = host::single({4200}, re, im, Layout::kPairs), data = whole, low = whole;
        data.dims = dims;
        low.dims = low_dims;
        Array apart = data;
        const Array alone =
            host::single(low_dims, {re.begin() + offset, re.begin() + offset + 4000},
                         {im.begin() + offset, im.begin() + offset + 4000}, Layout::kPairs);
        low.borrowed = data.re.data() + 2 * offset;
        REQUIRE(call({&kMultiply, &data, &low}) == "");
        REQUIRE(call({&kMultiply, &apart, &alone}) == "");
        CHECK(bits(data.real()) == bits(apart.real()));
        if (first.empty()) first = data.real();
        CHECK(bits(data.real()) == bits(first));
      });
    }
  }
}

TEST_CASE("More dimensions than anyone uses", "[filter]") {
  std::vector<int> dims(40, 1);
  dims[0] = 4;
  dims[33] = 2;
  Array data = host::single(dims, std::vector<float>(8, 1.0f), {}, Layout::kParts), *out = nullptr;
  const Array none = range_of({});
  REQUIRE(call({&kFilter, &data, &none, &none, &none}, &out) == "");
  CHECK(out->dims == dims);
  CHECK(out->real() == data.real());
}

TEST_CASE("Arrays without samples, and volumes without a phase, are left alone",
          "[multiply][filter]") {
  const Array none = range_of({}), range = range_of({-2, 5});
  for (Layout layout : kLayouts) {
    host::state().layout = layout;
    for (std::vector<int> dims : {std::vector<int>{4, 0},
                                  {4, 3, 0},
                                  {4, 3, 2, 0},
                                  {2147483647, 0, 2147483647, 2147483647, 2147483647}}) {
      Array data = host::single(dims, {}, {}, layout), *out = nullptr;
      data.complex = true;
      CHECK(call({&kMultiply, &data, &data}) == "");
      if (dims[0] > 4) continue;
      CHECK(call({&kFilter, &data, &range, &range, &range}, &out) == "");
      CHECK(call({&kFilter, &data, &none, &none, &none}, &out) == "");
      CHECK(out->dims == dims);
    }
    const std::vector<float> ones(8, 1.0f);
    Array data = host::single({2, 1, 1, 4}, ones, ones, layout);
    const Array fewer = host::single({2, 1, 1, 3}, {1, 1, 1, 1, 1, 1}, {}, layout);
    const Array hollow = host::single({2, 0, 1, 4}, {}, {}, layout);
    CHECK(call({&kMultiply, &data, &hollow}) == "");
    CHECK(data.imaginary() == ones);
    CHECK(call({&kMultiply, &data, &fewer}) == "");
    CHECK(data.real() == ones);
    CHECK(data.imaginary() == std::vector<float>{0, 0, 0, 0, 0, 0, 1, 1});
  }
}

TEST_CASE("The operation name is compared whole, as bytes up to the NUL", "[gateway]") {
  const std::string first = "The first input must be a string describing the functionality.";
  CHECK(call({}) == first);
  const Array number = host::doubles({1, 1}, {1});
  CHECK(call({&number}) == first);
  for (const char* name : {"", "Filter", "filt", "filterx", "multiplyy", "MULTIPLY", " filter"}) {
    CAPTURE(name);
    const Array text = host::text(name);
    Array* out = nullptr;
    CHECK(call({&text}, &out) == "");
    CHECK(out == nullptr);
  }
  const Array with_nul = host::text(std::string("filter\0 and more", 16));
  CHECK(call({&with_nul}) == "There must be at least 5 inputs.");
  Array tall = host::text("filter");
  tall.dims = {2, 3};
  CHECK(call({&tall}) == "There must be at least 5 inputs.");

  host::state().text_limit = 6;
  const Array longer = host::text("filterx");
  CHECK(call({&longer}) == "There must be at least 5 inputs.");  // the text that was left matches
  CHECK(host::state().warnings ==
        std::vector<std::string>{"Not enough space. String is truncated."});
  host::state().text_limit = std::string::npos;
}

TEST_CASE("mexVersion names the classic interface", "[gateway]") {
  CHECK(std::string(mexVersion()) == "MATLAB R14 native");
}
