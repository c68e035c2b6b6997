// Views and the one strided copy: every layout against a loop over single samples.

#include <cstring>
#include <numeric>
#include <stdexcept>

#include "samples.h"
#include "support.h"

using ctessel::ConstSamples;
using ctessel::Dim;
using ctessel::Extents;
using ctessel::Order;
using ctessel::Samples;
using std::ptrdiff_t;

namespace {

constexpr float kUntouched = -7.5f;

/// Storage of an array in one of six layouts, each sample at a place of its own.
struct Array {
  std::vector<float> store;
  Samples view;
};

Array array(const Extents& extents, int layout) {
  ptrdiff_t n = 1;
  for (ptrdiff_t e : extents) n *= e;
  Array a{std::vector<float>(static_cast<std::size_t>(4 * n + 8), kUntouched), {}};
  float* p = a.store.data();
  auto* pairs = reinterpret_cast<std::complex<float>*>(p);
  const Order order = layout % 2 ? Order::c : Order::fortran;
  if (layout / 2 == 0) a.view = Samples::pairs(pairs, extents, order);
  if (layout / 2 == 1) a.view = Samples::parts(p, p + 2 * n, extents, order);
  if (layout / 2 == 2) a.view = Samples::parts(p, nullptr, extents, order);
  if (layout / 2 == 3) {  // every second sample, the first axis downwards
    a.view = Samples::pairs(pairs, extents, order);
    for (ptrdiff_t& step : a.view.strides) step *= 2;
    const ptrdiff_t back = a.view.stride(Dim::x);
    a.view = a.view.from(back * (extents[0] - 1));
    a.view.strides[0] = -back;
  }
  return a;
}

ptrdiff_t offset(const ConstSamples& s, ptrdiff_t index) {
  ptrdiff_t at = 0;
  for (std::size_t d = 0; d < s.extents.size(); ++d) {
    at += index % s.extents[d] * s.strides[d];
    index /= s.extents[d];
  }
  return at;
}

}  // namespace

TEST_CASE("copy puts every sample in its place for all pairs of layouts", "[samples]") {
  const Extents extents =
      GENERATE(Extents{1}, Extents{5, 1, 3}, Extents{70, 3, 66}, Extents{3, 130, 5, 2});
  const int in = GENERATE(range(0, 8)), out = GENERATE(range(0, 8));
  CAPTURE(extents, in, out);
  Array from = array(extents, in), to = array(extents, out);
  std::iota(from.store.begin(), from.store.end(), 1.0f);
  std::vector<float> want = to.store;
  for (ptrdiff_t i = 0; i < to.view.size(); ++i) {
    const ptrdiff_t f = offset(from.view, i), t = offset(to.view, i);
    const auto place = [&](float* p) { return static_cast<std::size_t>(p - to.store.data() + t); };
    want[place(to.view.re)] = from.view.re[f];
    if (to.view.im) want[place(to.view.im)] = from.view.im ? from.view.im[f] : 0.0f;
  }
  ctessel::copy(from.view, to.view);
  CHECK(to.store == want);
}

TEST_CASE("copy refuses views of other extents and writes nothing", "[samples]") {
  Array from = array({4, 3}, 0), to = array({3, 4}, 0);
  const std::vector<float> before = to.store;
  CHECK_THROWS_AS(ctessel::copy(from.view, to.view), std::invalid_argument);
  CHECK(to.store == before);
}

TEST_CASE("Slices see the samples of their view", "[samples]") {
  Array a = array({4, 3, 2}, 1);
  std::iota(a.store.begin(), a.store.end(), 0.0f);
  const Samples s = a.view.slice(Dim::y, 1, 2);
  CHECK(s.extents == Extents{4, 2, 2});
  CHECK(s.re[s.stride(Dim::x)] == a.view.re[a.view.stride(Dim::y) + a.view.stride(Dim::x)]);
  CHECK(s.im == s.re + 1);
  CHECK((s.extent(Dim::coil) == 1 && s.stride(Dim::coil) == 0));
}
