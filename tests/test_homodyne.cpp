// The gateway on the memory host, in both layouts of complex values: numbers worked by hand, and what
// fuzz_gateway does not draw.
#include <array>
#include <limits>

#include "ctessel.hpp"
#include "homodyne.h"
#include "host/memory.h"
#include "naive_homodyne.h"
#include "support.h"

using host::Array;
using host::Layout;

namespace {

constexpr Layout kLayouts[] = {Layout::kParts, Layout::kPairs};
constexpr double kInf = std::numeric_limits<double>::infinity();

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

}  // namespace

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

TEST_CASE("Weights of three axes are multiplied in double and rounded once", "[filter]") {
  naive::Volume want{{64, 48, 32}, std::vector<float>(98304, 1.0f), {}};
  Array data = host::single(want.dims, want.re, {}, Layout::kParts);
  const Array range = range_of({-11, 15});
  REQUIRE(call({&kFilter, &data, &range, &range, &range}) == "");
  naive::filter(want, {{-11, 15}, {-11, 15}, {-11, 15}});
  CHECK(differences(data.real(), want.re) == "");
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
    if (c.kept) CHECK(differences(data.real(), line) == "");  // no weighting
  }
}

TEST_CASE("multiply on hand-worked samples", "[multiply]") {
  for (Layout layout : kLayouts) {
    Array data = host::single({3}, {1, 2, 3}, {4, 5, 6}, layout);
    const Array imaginary = host::single({3}, {0, 0, 0}, {2, 0.5f, 0}, layout);
    REQUIRE(call({&kMultiply, &data, &imaginary}) == "");
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
      with_thread_counts([&] {
        // A part of an array is an array over the same floats: built here by hand.
        Array whole = host::single({4200}, re, im, Layout::kPairs), data = whole, low = whole;
        data.dims = dims;
        low.dims = low_dims;
        Array copy = data;
        const Array alone =
            host::single(low_dims, {re.begin() + offset, re.begin() + offset + 4000},
                         {im.begin() + offset, im.begin() + offset + 4000}, Layout::kPairs);
        low.borrowed = data.re.data() + 2 * offset;
        REQUIRE(call({&kMultiply, &data, &low}) == "");
        REQUIRE(call({&kMultiply, &copy, &alone}) == "");
        CHECK(differences(data.real(), copy.real()) == "");
      });
    }
  }
}

TEST_CASE("Separate parts may share storage with the image, too", "[multiply]") {
  Random random(10);
  CAPTURE(run_seed());
  const std::vector<float> v = random.reals(60);
  const auto view = [](auto* all, int re, int im) {
    return ctessel::ConstSamples::parts(all + re, all + im, {5, 2, 2});
  };
  // Real parts of the phase among the image's imaginary ones, and the other way round.
  for (const std::array<int, 2>& at : {std::array{21, 40}, std::array{40, 1}, std::array{3, 18}}) {
    CAPTURE(at);
    std::vector<float> shared = v, copy = v;
    const auto image = [](float* all) { return ctessel::Samples::parts(all, all + 20, {5, 2, 2}); };
    ctessel::remove_phase(image(shared.data()), view(shared.data(), at[0], at[1]));
    ctessel::remove_phase(image(copy.data()), view(v.data(), at[0], at[1]));
    CHECK(differences(shared, copy) == "");
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

TEST_CASE("The operation name is compared whole, as bytes up to the NUL", "[gateway]") {
  for (const char* name : {"filt", "multiplyy", " filter"}) {
    CAPTURE(name);
    const Array text = host::text(name);
    CHECK(call({&text}) == "");
  }
  const Array with_nul = host::text(std::string("filter\0 and more", 16));
  CHECK(call({&with_nul}) == "There must be at least 5 inputs.");
  Array tall = host::text("filter");
  tall.dims = {2, 3};
  CHECK(call({&tall}) == "There must be at least 5 inputs.");
}
