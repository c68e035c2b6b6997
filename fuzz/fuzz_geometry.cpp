// Geometry correction and the harmonics against the transcription. Apart from the other kernels
// because each call builds a table of two million entries.

#include <cstring>

#include "cTessel.h"
#include "guarded.h"
#include "input.h"
#include "naive_geometry.h"

namespace {

void harmonics(FuzzedDataProvider& input) {
  const int l = input.ConsumeIntegralInRange(0, 40), m = input.ConsumeIntegralInRange(0, l);
  const float x = static_cast<float>(input.ConsumeIntegral<std::int8_t>()) / 128;
  require(plgndr(l, m, x) == naive::plgndr(l, m, x), "plgndr");
  const float at[] = {any_float(input), any_float(input), any_float(input)};
  float polar[3];
  getRadiusThetaPhi(at[0], at[1], at[2], polar);
  const naive::Polar want = naive::polar(at[0], at[1], at[2]);
  require(same(polar[0], want.r) && same(polar[1], want.theta) && same(polar[2], want.phi),
          "polar");
  const int n = input.ConsumeIntegral<int>();
  const float q = any_float(input), r0 = any_float(input);
  require(same(radialFactor(q, r0, n), naive::power(q / r0, n)), "radial factor");
  const int nl = input.ConsumeIntegralInRange(0, 9), nm = input.ConsumeIntegralInRange(0, 9),
            npts = input.ConsumeIntegralInRange(-1, 20);
  Guarded<float> table(static_cast<std::size_t>(nl * nm * std::max(npts, 0)), 9);
  std::vector<float> entries(table.values());
  create_plgndr_lookup(nl, nm, npts, table.data());
  naive::create_plgndr_lookup(nl, nm, npts, entries.data());
  require(same(table.values(), entries) && table.intact(), "table");
}

void correction(FuzzedDataProvider& input) {
  float cy[14][12], cx[14][12], cz[17][1];
  const float scale = any_float(input);
  for (auto* c : {&cy, &cx})
    for (auto& row : *c)
      for (float& v : row) v = scale * any_float(input);
  for (auto& row : cz) row[0] = scale * any_float(input);
  if (input.ConsumeBool()) cx[1][1] = cy[1][1] = cz[1][0] = 1;
  const float r0 = any_float(input);
  std::vector<float> in[3], want[3];
  const std::size_t n = input.ConsumeIntegralInRange<std::size_t>(0, 70);
  for (auto& axis : in) axis.resize(n);
  for (std::size_t i = 0; i < n; ++i)
    for (auto& axis : in) axis[i] = any_float(input);
  for (auto& axis : want) axis.resize(n);
  Guarded<float> xd(n, 9), yd(n, 9), zd(n, 9);
  TS_geometry_correction(in[0].data(), in[1].data(), in[2].data(), xd.data(), yd.data(), zd.data(),
                         static_cast<int>(n), cy, cx, cz, r0);
  static const std::vector<float> table = naive::lookup();
  naive::geometry_correction(in[0].data(), in[1].data(), in[2].data(), want[0].data(),
                             want[1].data(), want[2].data(), static_cast<int>(n), cy, cx, cz, r0,
                             table);
  require(same(xd.values(), want[0]) && xd.intact(), "x");
  require(same(yd.values(), want[1]) && yd.intact(), "y");
  require(same(zd.values(), want[2]) && zd.intact(), "z");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider input(bytes, size);
  if (input.ConsumeIntegralInRange(0, 15) != 0) {
    harmonics(input);
  } else {
    correction(input);
  }
  return 0;
}
