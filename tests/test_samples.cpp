// Views and the one strided copy: every layout against a loop over single samples.

#include <cstring>
#include <functional>
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

/// Storage of an array in one of ten layouts, each sample at a place of its own.
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
  if (layout / 2 == 4)
    a.view = {p, p + 2 * n, extents, Samples::pairs(pairs, extents, order).strides};
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
  CHECK(differences(to.store, want) == "");
}

TEST_CASE("copy refuses views of other extents and writes nothing", "[samples]") {
  Array from = array({4, 3}, 0), to = array({3, 4}, 0);
  const std::vector<float> before = to.store;
  CHECK_THROWS_AS(ctessel::copy(from.view, to.view), std::invalid_argument);
  CHECK(to.store == before);
}

namespace {

/// What a kernel makes of data in one layout, as parts in Fortran order.
using Kernel = std::function<void(const Samples& data, const Samples& out)>;

std::vector<float> run(const Kernel& kernel, const std::vector<float>& values, const Extents& in,
                       const Extents& out, int layout_in, int layout_out) {
  Array data = array(in, layout_in), result = array(out, layout_out);
  const ptrdiff_t n = data.view.size(), m = result.view.size();
  ctessel::copy(ConstSamples::parts(values.data(), values.data() + n, in), data.view);
  ctessel::copy(ConstSamples::parts(values.data(), values.data() + m, out), result.view);
  kernel(data.view, result.view);
  std::vector<float> re(static_cast<std::size_t>(m)), im(re);
  ctessel::copy(result.view, Samples::parts(re.data(), im.data(), out));
  re.insert(re.end(), im.begin(), im.end());
  return re;
}

/// Real outputs are compared as such: of a complex view the kernel gets the real parts alone.
Samples real(Samples s) {
  s.im = nullptr;
  return s;
}

}  // namespace

TEST_CASE("Kernels give the same bits for every layout and number of threads", "[samples]") {
  const Extents shape{20, 18, 5, 3, 2};
  const std::vector<Dim> all{Dim::x, Dim::y, Dim::z}, some{Dim::y};
  const ctessel::LineRanges ranges{ctessel::LineRange{-4, 9}, ctessel::LineRange{-3, 8}, {}};
  struct Case {
    Kernel kernel;
    Extents out;
  };
  const Extents one_coil{20, 18, 5, 1, 2};
  const std::vector<Case> cases{
      {[&](auto& d, auto& out) { ctessel::fftshift(d, out, all); }, shape},
      {[&](auto& d, auto& out) { ctessel::ifftshift(d, out, some); }, shape},
      {[&](auto&, auto& out) { ctessel::ifftshift(out, all); }, shape},
      {[&](auto&, auto& out) {
         ctessel::fftshift(out.slice(Dim::coil, 1, 1).slice(Dim(4), 0, 1), all);
       },
       shape},
      {[&](auto& d, auto& out) { ctessel::zero_pad(d, out); }, {23, 20, 5, 3, 2}},
      {[&](auto& d, auto& out) {
         ctessel::ringing_filter(d, out, {{0.5, 0.9, 0.1}, {16, 18, 4}});
       },
       shape},
      {[&](auto& d, auto& out) { ctessel::sos(d, Dim::coil, real(out)); }, one_coil},
      {[&](auto& d, auto& out) { ctessel::pcsos(d, Dim::coil, out); }, one_coil},
      {[&](auto& d, auto& out) { ctessel::homodyne_filter(d, ranges, out); }, shape},
      {[&](auto& d, auto& out) { ctessel::homodyne_centre(d, ranges, out); }, {9, 7, 5, 3, 2}},
      {[&](auto& d, auto& out) { ctessel::remove_phase(out, d); }, shape},
      {[&](auto& d, auto& out) { ctessel::remove_phase(out, d); }, {20, 18, 7, 3, 2}}};
  Random random(3);
  CAPTURE(run_seed());
  const std::vector<float> values = random.reals(2 * 23 * 20 * 7 * 6);
  for (std::size_t k = 0; k < cases.size(); ++k) {
    const auto with = [&](int in, int out) {
      return run(cases[k].kernel, values, shape, cases[k].out, in, out);
    };
    const auto want = with(2, 2);
    for (int in : {0, 1, 3, 6, 7, 9}) {
      for (int out : {0, 1, 3, 6, 7, 9}) {
        CAPTURE(k, in, out);
        with_thread_counts([&] { CHECK(differences(with(in, out), want) == ""); });
      }
    }
  }
}

TEST_CASE("Views overlap where they share a place, and not where they touch", "[samples]") {
  std::vector<float> v(40);
  const auto parts = [&](int re, int im) {
    return ConstSamples::parts(&v[re], im < 0 ? nullptr : &v[im], {5, 2});
  };
  const ConstSamples image = parts(10, 20);
  for (int at : {0, 30}) {
    CHECK_FALSE(
        overlap(image, parts(at, -1)));  // ends where the image begins, or begins where it ends
    CHECK_FALSE(overlap(parts(at, -1), image));
  }
  for (const ConstSamples& other : {parts(1, -1), parts(29, -1), parts(0, 29), parts(30, 11)}) {
    CHECK(overlap(image, other));
    CHECK(overlap(other, image));
  }
  const ConstSamples back(&v[29], nullptr, {10}, {-1}), none(&v[12], nullptr, {5, 0}, {1, 5});
  CHECK((overlap(image, back) && !overlap(parts(10, -1), back) && !overlap(image, none)));
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
