// Geometry correction and the harmonics against the naive version. Not with the other kernels
// because the reference needs a table of two million entries.

#include <cstring>

#include "cTessel.h"
#include "guarded.h"
#include "input.h"
#include "naive_geometry.h"

namespace {

void harmonics(Input& input) {
  const int l = input.within(0, 40), m = input.within(0, l);
  const float x = static_cast<float>(input.any<std::int8_t>()) / 128;
  require(plgndr(l, m, x) == naive::plgndr(l, m, x), "plgndr");
  const float at[] = {any_float(input), any_float(input), any_float(input)};
  float polar[3];
  getRadiusThetaPhi(at[0], at[1], at[2], polar);
  const naive::Polar want = naive::polar(at[0], at[1], at[2]);
  require(same(polar[0], want.r) && same(polar[1], want.theta) && same(polar[2], want.phi),
          "polar");
  const int n = input.any<int>();
  const float q = any_float(input), r0 = any_float(input);
  const float factor = naive::power(q / r0, n), p = any_float(input), phi = any_float(input);
  require(same(radialFactor(q, r0, n), factor), "radial factor");
  const float angle = static_cast<float>(m) * phi;
  require(same(funcYS(n, m, q, phi, r0, p), std::sin(angle) * (factor * p)), "sine term");
  require(same(funcYC(n, m, q, phi, r0, p), std::cos(angle) * (factor * p)), "cosine term");
  const int nl = input.within(0, 20), nm = input.within(0, 20), npts = input.within(-1, 40);
  Guarded<float> table(static_cast<std::size_t>(nl * nm * std::max(npts, 0)), 9);
  std::vector<float> entries(table.values());
  create_plgndr_lookup(nl, nm, npts, table.data());
  naive::create_plgndr_lookup(nl, nm, npts, entries.data());
  require(same(table.values(), entries) && table.intact(), "table");
}

/// Tables of any size that the routine splits, with a mark in front of what it must not read.
void packing(Input& input) {
  const int nm = input.within(0, 12), nn = input.within(0, 14), nz = input.within(0, 17);
  std::vector<float> a(static_cast<std::size_t>(12 * nn)), b(a.size()),
      c(static_cast<std::size_t>(nz)), tesseral[2], zonal;
  for (auto* table : {&a, &b, &c})
    for (float& v : *table) v = static_cast<float>(&v - table->data());
  for (int m = 1; m < nm; ++m)
    for (int n = m; n < nn; ++n) tesseral[0].push_back(static_cast<float>(12 * n + m));
  tesseral[1] = tesseral[0];
  for (int n = 1; n < nz; ++n) zonal.push_back(static_cast<float>(n));
  Guarded<float> first(tesseral[0].size(), 9), second(tesseral[0].size(), 9),
      third(zonal.size(), 9);
  realign_corr_coeffs(first.data(), second.data(), third.data(), nm, nn, nz,
                      reinterpret_cast<float(*)[12]>(a.data()),
                      reinterpret_cast<float(*)[12]>(b.data()),
                      reinterpret_cast<float(*)[1]>(c.data()));
  require(first.values() == tesseral[0] && second.values() == tesseral[1] &&
              third.values() == zonal && first.intact() && second.intact() && third.intact(),
          "packed coefficients");
}

/// An axis of points, or the terms of a coefficient table, times `scale`.
std::vector<float> any_values(Input& input, std::size_t n, float scale) {
  std::vector<float> v = any_floats(input, n);
  for (float& x : v) x *= scale;
  return v;
}

void correction(Input& input) {
  const std::size_t n = input.within<std::size_t>(0, 20);
  const bool usual = input.flag();
  const float r0 = any_float(input), scale = usual ? 1e-3f : any_float(input);
  float cy[14][12], cx[14][12], cz[17][1];
  std::copy_n(any_values(input, 168, scale).data(), 168, cy[0]);
  std::copy_n(any_values(input, 168, scale).data(), 168, cx[0]);
  std::copy_n(any_values(input, 17, scale).data(), 17, cz[0]);
  if (usual) cx[1][1] = cy[1][1] = cz[1][0] = 1;
  std::vector<float> in[3], want[3];
  for (auto& axis : in) axis = any_values(input, n, 1);
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
  Input input(bytes, size);
  const int choice = input.within(0, 255);
  if (choice < 160) {
    harmonics(input);
  } else if (choice < 192) {
    packing(input);
  } else {
    correction(input);
  }
  return 0;
}
