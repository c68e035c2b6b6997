// The steps of the SENSE reconstruction on any geometry and any values against the naive reference,
// the driver against its steps, and listed aliases against folded pixels one by one. Not with the other kernels, which are faster.

#include <omp.h>

#include <climits>

#include "cTessel.h"
#include "ctessel.hpp"
#include "guarded.h"
#include "input.h"
#include "naive_sense.h"

namespace {

constexpr double kUntouched = 1234567;

/// Mostly without infinities and their like, beside which no image could be compared.
Floats samples(Input& input, std::size_t n) {
  if (input.within(0, 3) == 0) return any_floats(input, n);
  Floats v(n);
  for (std::size_t i = 0; i < n; ++i)
    v[i] = i < 64 ? static_cast<float>(input.any<std::int8_t>()) / 8 : v[i - 61];
  return v;
}

Floats imaginary_samples(Input& input, std::size_t n) {
  return input.within(0, 3) == 0 ? Floats() : samples(input, n);
}

/// A SENSE problem of any geometry, with maps and data of any values.
struct Scene {
  explicit Scene(Input& input) : maps(4), folded(4), full(3), slots(4) {
    for (int d = 0; d < 4; ++d) maps[d] = input.within(1, d == 0 ? 9 : 4);
    for (int d = 0; d < 3; ++d) {
      folded[d] = input.within(1, 3);
      full[d] = folded[d] + (d == 0 ? 0 : input.within(0, 3));
      R[d] = static_cast<float>(full[d]) / static_cast<float>(folded[d]);
    }
    folded[3] = maps[3];
    slots << maps[0], static_cast<int>(std::ceil(static_cast<float>(maps[1]) / R[1])),
        static_cast<int>(std::ceil(static_cast<float>(maps[2]) / R[2])),
        static_cast<int>(std::ceil(R[1])) * static_cast<int>(std::ceil(R[2])) * maps[3];
    re = samples(input, static_cast<std::size_t>(maps.prod()));
    im = imaginary_samples(input, re.size());
    psi = Eigen::MatrixXcd::Identity(maps[3], maps[3]);
    plain_noise = input.flag();
    for (std::complex<double>& p : psi.reshaped())
      if (!plain_noise) p += any_float(input);
    lambda = input.flag() ? 0 : any_float(input);
    const int all = maps.head(3).prod();
    reference =
        Eigen::VectorXf::Constant(input.flag() ? all : input.within(0, all), any_float(input));
    if (input.within(0, 7) > 0) return;
    maps.conservativeResize(5);  // of an entry behind the coils only a 0 counts
    maps[4] = input.within(0, 2);
  }
  Eigen::VectorXi maps, folded, full, slots;
  Eigen::Vector3f R;
  Floats re, im;
  Eigen::MatrixXcd psi;
  bool plain_noise;
  double lambda;
  Eigen::VectorXf reference;
};

/// Factors agree to rounding where a bound on the condition of B = S^H S + 1 / (r^2 lambda) is
/// known: with the same r at every sample, or with one alias. Elsewhere B may be singular, and then
/// its inverse is noise in both.
void compare_factors(const Scene& s, const Eigen::VectorXcd& got, const Eigen::VectorXcd& want) {
  double size = 0;
  for (float v : s.re) size += static_cast<double>(v) * v;
  for (float v : s.im) size += static_cast<double>(v) * v;
  const bool one = s.slots[3] == s.maps[3], whole = s.reference.size() >= s.maps.head(3).prod();
  const double r = whole ? s.reference[0] : 0, inverse = r * r * s.lambda;
  const double condition = 1 + size * inverse;
  const bool bounded = s.plain_noise && inverse > 1e-9 && condition < 1e6;
  const int grid = s.slots.head(3).prod();
  for (Eigen::Index i = 0; i < got.size(); ++i) {
    require((got[i] == kUntouched) == (want[i] == kUntouched), "slots written");
    if (want[i] == kUntouched) continue;
    const double error = std::abs(got[i] - want[i]);
    if (bounded) require(error <= 1e-13 * condition * inverse * std::sqrt(size), "factors");
    if (!one || !s.plain_noise || s.lambda != 0 || !std::isfinite(std::abs(want[i]))) continue;
    double largest = 0;
    for (Eigen::Index k = i % grid; k < want.size(); k += grid)
      largest = std::max(largest, std::abs(want[k]));
    if (std::isfinite(largest)) require(error <= 1e-13 * largest, "factors of one alias");
  }
}

double sum(const Floats& re, const Floats& im) {
  double total = 0;
  for (float v : re) total += std::abs(v);
  for (float v : im) total += std::abs(v);
  return total;
}

void sense_steps(Input& input) {
  Scene s(input);
  const Eigen::Index n = s.slots.prod();
  Eigen::VectorXcd got = Eigen::VectorXcd::Constant(n, kUntouched), want = got;
  float ey[] = {-1, -1}, ez[] = {-1, -1}, want_ey[] = {-1, -1}, want_ez[] = {-1, -1};
  const int status = get_combination_factors(s.re.data(), pointer(s.im), s.maps, s.psi, s.R,
                                             s.lambda, s.reference, got, s.folded, s.full, ey, ez);
  require(status == naive::get_combination_factors(s.re.data(), pointer(s.im), s.maps, s.psi, s.R,
                                                   s.lambda, s.reference, want, s.folded, s.full,
                                                   want_ey, want_ez),
          "status of the factors");
  require(std::equal(ey, ey + 2, want_ey) && std::equal(ez, ez + 2, want_ez), "edges");
  compare_factors(s, got, want);
  for (std::complex<double>& f : want)
    if (f == kUntouched) f = 0;  // slots that no alias has may take part in an interpolation

  Floats fold_re = samples(input, static_cast<std::size_t>(s.folded.prod())),
         fold_im = imaginary_samples(input, fold_re.size());
  const std::size_t pixels = static_cast<std::size_t>(s.full.prod());
  Guarded<float> re(pixels, static_cast<float>(kUntouched)), im = re;
  Floats want_re = re.values(), want_im = want_re;
  require(unfold(fold_re.data(), pointer(fold_im), s.folded, want, s.slots, s.maps, s.full, ey, ez,
                 re.data(), im.data()) == naive::unfold(fold_re.data(), pointer(fold_im), s.folded,
                                                        want, s.slots, s.full, ey, ez,
                                                        want_re.data(), want_im.data()),
          "status of the unfolding");
  require(re.intact() && im.intact(), "guard zones of the image");
  const double bound = sum(fold_re, fold_im) * (1e-5 * want.cwiseAbs().sum() + 1e-43);
  for (std::size_t i = 0; i < pixels; ++i) {
    const float a = re.values()[i], b = want_re[i];
    require((a == static_cast<float>(kUntouched)) == (b == static_cast<float>(kUntouched)),
            "pixels written");
    if (bound < 1e6 && want.cwiseAbs().maxCoeff() < 1e30) {  // nothing leaves the range of float
      require(std::abs(a - b) <= bound && std::abs(im.values()[i] - want_im[i]) <= bound, "image");
    }
  }
}

/// A call of the driver, whose arrays have the sizes that the extents say.
struct Call {
  enum Part { kFold = 0, kSens = 2, kPsi = 4, kRef = 6, kReg = 8, kOut = 10, kParts = 10 };
  explicit Call(Input& input) : scale(any_float(input)) {
    fold.resize(input.within<std::size_t>(2, 9), 1);
    // Columns between the maps' own, and more coils than go together.
    constexpr int kMost[] = {7, 3, 3, 6};
    for (std::size_t d = 0; d < fold.size(); ++d) fold[d] = extent(input, d < 4 ? kMost[d] : 2);
    const auto folded = [&](std::size_t d) { return d < fold.size() ? fold[d] : 1; };
    full = {folded(0), folded(1) + extent(input, 3) - 1, folded(2) + extent(input, 3) - 1};
    sens = {extent(input, 5), extent(input, 4), extent(input, 4), folded(3), folded(7)};
    reg = {sens[0], sens[1], sens[2], folded(7)};
    ref = {extent(input, 3), extent(input, 3)};
    psi = {folded(3), folded(3)};
    out = fold;
    std::copy_n(full.begin(), std::min<std::size_t>(out.size(), 3), out.begin());
    if (out.size() > 3) out[3] = 1;
    if (input.within(0, 3) == 0) spoil(input);
    regularised = input.flag();
  }
  static int extent(Input& input, int most) {
    return input.within(input.within(0, 63) == 0 ? 0 : 1, most);
  }
  /// Changes one extent, so that shapes need not fit each other or any memory.
  void spoil(Input& input) {
    constexpr int kExtents[] = {-1, 0, 1, 2, 3, 50000, INT_MAX};
    std::vector<int>* lists[] = {&fold, &sens, &out, &reg, &ref, &psi, &full};
    std::vector<int>& list = *input.pick(lists);
    list[input.within<std::size_t>(0, list.size() - 1)] = input.pick(kExtents);
    fits = false;
  }
  /// What is refused before anything is read. Of the maps and the expected magnitude one location
  /// counts.
  bool refused() const {
    const std::vector<int> maps(sens.begin(), sens.begin() + 4),
        expected(reg.begin(), reg.end() - 1);
    for (const auto* list : {&fold, &out, &full, &psi, &maps, &ref, &expected}) {
      if (!regularised && (list == &ref || list == &expected)) continue;
      double samples = 1;
      for (int d : *list) samples *= d;
      if (samples > INT_MAX || *std::min_element(list->begin(), list->end()) < 0) return true;
    }
    return false;
  }
  /// Small enough to run, with as many locations of everything as the folded data have.
  bool runs() const {
    const int locations = fold.size() > 7 ? fold[7] : 1;
    for (const auto* list : {&fold, &sens, &out, &reg, &ref, &psi, &full})
      if (*std::max_element(list->begin(), list->end()) > 100) return false;
    return sens[4] >= locations && reg[3] >= locations && sens[4] >= 0 && reg[3] >= 0;
  }
  int operator()(float* const* parts, float* re, float* im) {
    return TS_sense_recon(parts[kFold], parts[kFold + 1], static_cast<int>(fold.size()),
                          fold.data(), parts[kSens], parts[kSens + 1], 5, sens.data(), parts[kPsi],
                          parts[kPsi + 1], 2, psi.data(), full.data(), parts[kRef], parts[kRef + 1],
                          2, ref.data(), parts[kReg], parts[kReg + 1], 4, reg.data(), scale, re, im,
                          out.data());
  }
  std::vector<int> fold, sens, out, reg, ref, psi, full;
  double scale;
  bool fits = true, regularised;
};

/// The steps of a call, one volume at a time.
void recon_by_steps(Call& call, float* const* parts, float* out_re, float* out_im) {
  const auto folded = [&](std::size_t d) { return d < call.fold.size() ? call.fold[d] : 1; };
  Eigen::VectorXi fold(4), sens = Eigen::Map<Eigen::VectorXi>(call.sens.data(), 4), slots(4);
  const Eigen::VectorXi full = Eigen::Map<Eigen::VectorXi>(call.full.data(), 3);
  Eigen::Vector3f R;
  double reduction = 1;
  for (int d = 0; d < 4; ++d) fold[d] = folded(static_cast<std::size_t>(d));
  for (int d = 0; d < 3; ++d) {
    R[d] = static_cast<float>(full[d]) / static_cast<float>(fold[d]);
    reduction *= static_cast<double>(full[d]) / fold[d];
  }
  if (call.fold.size() < 3) R[2] = 1;  // but not the reduction: the weight counts the slices
  slots << sens[0], static_cast<int>(std::ceil(static_cast<float>(sens[1]) / R[1])),
      static_cast<int>(std::ceil(static_cast<float>(sens[2]) / R[2])),
      static_cast<int>(std::ceil(R[1])) * static_cast<int>(std::ceil(R[2])) * sens[3];
  Eigen::MatrixXcd psi = Eigen::MatrixXcd::Identity(fold[3], fold[3]);
  for (Eigen::Index k = 0; k < psi.size() && parts[Call::kPsi]; ++k)
    psi.data()[k] = {parts[Call::kPsi][k], parts[Call::kPsi + 1][k]};
  const int samples = static_cast<int>(count(call.fold)), voxels = sens.head(3).prod();
  double ratio = 0;
  if (call.regularised)
    ratio = TS_SA(parts[Call::kFold], parts[Call::kFold + 1], samples) / call.scale /
            TS_SA(parts[Call::kRef], parts[Call::kRef + 1], static_cast<int>(count(call.ref)));
  const auto at = [&](int part, std::ptrdiff_t n) {
    return parts[part] ? parts[part] + n : nullptr;
  };
  const std::ptrdiff_t middle =
                           naive::product(call.fold.data(), 4,
                                          std::min<int>(static_cast<int>(call.fold.size()), 7)),
                       volumes = samples / fold.prod();
  Eigen::VectorXcd factors = Eigen::VectorXcd::Zero(slots.prod());
  for (int l = 0; l < folded(7); ++l) {
    Eigen::VectorXf expected(call.regularised ? voxels : 0);
    for (Eigen::Index i = 0; i < expected.size(); ++i) {
      const double x = parts[Call::kReg][l * voxels + i],
                   y = parts[Call::kReg + 1] ? parts[Call::kReg + 1][l * voxels + i] : 0;
      expected[i] = static_cast<float>(std::sqrt(x * x + y * y));
    }
    float ey[] = {-1, -1}, ez[] = {-1, -1};
    get_combination_factors(at(Call::kSens, l * sens.prod()), at(Call::kSens + 1, l * sens.prod()),
                            sens, psi, R, call.regularised ? ratio * ratio / reduction : 0,
                            expected, factors, fold, full, ey, ez);
    for (std::ptrdiff_t v = 0; v < volumes; ++v) {
      if (v / middle % folded(7) != l) continue;
      unfold(at(Call::kFold, v * fold.prod()), at(Call::kFold + 1, v * fold.prod()), fold, factors,
             slots, sens, full, ey, ez, out_re + v * full.prod(), out_im + v * full.prod());
    }
  }
}

void sense_recon(Input& input) {
  Call call(input);
  const bool refused = call.refused();
  if (!refused && !call.runs()) return;
  float *parts[Call::kParts] = {}, unread = 0;
  if (refused) {
    if (call.regularised) parts[Call::kRef] = parts[Call::kReg] = &unread;
    return require(call(parts, nullptr, nullptr) == -1, "refused");
  }
  const std::vector<int>* extents[] = {&call.fold, &call.sens, &call.psi, &call.ref, &call.reg};
  Floats store[Call::kParts];
  for (int p = 0; p < Call::kParts; ++p) {
    const std::size_t n = count(*extents[p / 2]);
    // The real parts of the covariance may be left out, those of the reference and of the expected
    // magnitude to switch the regularisation off; the imaginary parts of the covariance may not.
    const bool present = p == Call::kFold || p == Call::kSens ? true
                         : p == Call::kPsi + 1                ? parts[Call::kPsi] != nullptr
                         : p >= Call::kRef && !call.regularised
                             ? false
                             : p == Call::kRef || p == Call::kReg || input.flag();
    if (!present) continue;
    store[p] = any_floats(input, n);
    parts[p] = n > 0 ? store[p].data() : &unread;
  }
  const Floats before(count(call.out), static_cast<float>(kUntouched));
  Guarded<float> re(before), im(before);
  // Rows that are longer or shorter than the image's are the caller's fault, and so are volumes that lie
  // closer together than their pixels need: threads would then meet at the same pixels.
  const auto depth = static_cast<std::ptrdiff_t>(std::min<std::size_t>(call.out.size(), 3));
  const bool separate = std::equal(call.out.begin(), call.out.begin() + depth, call.full.begin());
  if (call.full[0] != call.fold[0] || !separate) omp_set_num_threads(1);
  const int status = call(parts, re.data(), im.data());
  require(re.intact() && im.intact(), "guard zones of the output");
  require(status == 1 || status == -1, "status");
  const auto empty = [](const std::vector<int>& list) { return count(list) == 0; };
  if (!call.fits || empty(call.fold) || empty(call.sens) || empty(call.full)) return;
  require(status == 1, "success");
  Floats want_re = before, want_im = before;
  recon_by_steps(call, parts, want_re.data(), want_im.data());
  require(same(re.values(), want_re) && same(im.values(), want_im), "image, by steps");
}

using List = std::vector<std::array<int, 2>>;

/// Voxels that alias in a sampling pattern of any steps and shift, in any order and wrapped any number of
/// times; or any list.
List any_list(Input& input, const std::array<int, 2>& steps, const std::array<int, 2>& folded) {
  List list;
  const bool swapped = input.flag(), regular = input.within(0, 7) > 0;
  const int own = swapped ? 1 : 0, other = 1 - own, shift = input.within(0, steps[other] - 1);
  for (int t = 0; t < steps[other]; ++t) {
    for (int r = 0; r < steps[own]; ++r) {
      std::array<int, 2> at{};
      at[own] = folded[own] * r - shift * t * folded[own] / steps[other] +
                folded[own] * steps[own] * input.within(-2, 2);
      at[other] = folded[other] * t + folded[other] * steps[other] * input.within(-2, 2);
      if (!regular) at[own] += input.within(-1, 1);
      list.insert(list.begin() + input.within<std::ptrdiff_t>(0, std::ssize(list)), at);
    }
  }
  if (!regular && list.size() > 1 && input.flag()) list.pop_back();
  return list;
}

/// Images, maps and mask of a listed problem, and what it is to be.
struct Listed {
  explicit Listed(Input& input)
      : steps{input.within(1, 3), input.within(1, 3)},
        folded{steps[1] * input.within(1, 2), steps[0] * input.within(1, 2)},
        list(any_list(input, steps, folded)),
        nx(input.within(1, 20)),
        nc(input.within(1, 4)),
        ny(steps[0] * folded[0]),
        nz(steps[1] * folded[1]),
        in(samples(input, static_cast<std::size_t>(2 * nx * folded[0] * folded[1] * nc))),
        maps(samples(input, static_cast<std::size_t>(2 * nx * ny * nz * nc))),
        mask(static_cast<std::size_t>(nx * ny * nz)),
        expected(mask.size(), 1.0f) {
    for (float& m : mask) m = input.within(0, 7) > 0;
    options.mask = ctessel::Samples::parts(mask.data(), nullptr, {nx, ny, nz});
    if (input.flag()) options.expected = view(expected, nullptr, {nx, ny, nz});
  }
  static ctessel::ConstSamples view(const Floats& re, const float* im, const ctessel::Extents& n) {
    return ctessel::ConstSamples::parts(re.data(), im, n);
  }
  static ctessel::ConstSamples half(const Floats& v, const ctessel::Extents& n) {
    return view(v, v.data() + v.size() / 2, n);
  }
  /// The voxel of an alias; -1 where it was met before.
  int voxel(int x, int y, int z, const std::array<int, 2>& offset) const {
    const auto around = [](int at, int n) { return (at % n + n) % n; };
    return x + nx * (around(y + (ny - folded[0] + 1) / 2 + offset[0], ny) +
                     ny * around(z + (nz - folded[1] + 1) / 2 + offset[1], nz));
  }
  bool meets_all() const {
    std::vector<int> met(mask.size());
    for (const auto& offset : list)
      for (int z = 0; z < folded[1]; ++z)
        for (int y = 0; y < folded[0]; ++y) ++met[static_cast<std::size_t>(voxel(0, y, z, offset))];
    for (int z = 0; z < nz; ++z)
      for (int y = 0; y < ny; ++y)
        if (met[static_cast<std::size_t>(nx * (y + ny * z))] != 1) return false;
    return true;
  }
  /// The pixels of one folded pixel as those of a row along y, in the order in which they are listed.
  void unfold_pixel(int x, int y, int z, Floats& re, Floats& im) const {
    const auto n = static_cast<int>(list.size());
    Eigen::VectorXi order(n);
    naive::fold_lines(n, 1, 0, order);
    const std::size_t count = list.size(), size = count * static_cast<std::size_t>(nc);
    Floats own_maps(2 * size), own_mask(count), ones(count, 1.0f),
        v(2 * static_cast<std::size_t>(nc)), u(2 * count, static_cast<float>(kUntouched));
    for (int k = 0; k < n; ++k) {
      const int from = voxel(x, y, z, list[static_cast<std::size_t>(k)]);
      own_mask[order[k]] = mask[static_cast<std::size_t>(from)];
      for (int c = 0; c < nc; ++c)
        for (std::size_t part : {0, 1})
          own_maps[order[k] + n * c + part * size] =
              maps[from + nx * ny * nz * c + part * maps.size() / 2];
    }
    for (int c = 0; c < nc; ++c)
      for (std::size_t part : {0, 1})
        v[c + part * nc] =
            in[x + nx * (y + folded[0] * (z + folded[1] * c)) + part * in.size() / 2];
    ctessel::SenseOptions own;
    own.mask = ctessel::Samples::parts(own_mask.data(), nullptr, {1, n, 1});
    if (options.expected) own.expected = view(ones, nullptr, {1, n, 1});
    ctessel::sense(half(v, {1, 1, 1, nc}), half(own_maps, {1, n, 1, nc}), {1, n, 1},
                   ctessel::Samples::parts(u.data(), u.data() + n, {1, n, 1}), own);
    for (int k = 0; k < n; ++k) {
      const int to = voxel(x, y, z, list[static_cast<std::size_t>(k)]);
      re[to] = u[order[k]];
      im[to] = u[order[k] + n];
    }
  }

  std::array<int, 2> steps, folded;
  List list;
  int nx, nc, ny, nz;
  Floats in, maps, mask, expected;
  ctessel::SenseOptions options;
};

void listed_aliases(Input& input) {
  Listed s(input);
  Guarded<float> re(s.mask.size(), static_cast<float>(kUntouched)), im = re;
  s.options.aliases = s.list;
  bool refused = false;
  try {
    ctessel::sense(Listed::half(s.in, {s.nx, s.folded[0], s.folded[1], s.nc}),
                   Listed::half(s.maps, {s.nx, s.ny, s.nz, s.nc}), {s.nx, s.ny, s.nz},
                   ctessel::Samples::parts(re.data(), im.data(), {s.nx, s.ny, s.nz}), s.options);
  } catch (const std::invalid_argument&) {
    refused = true;
  }
  require(refused != s.meets_all(), "lists that meet every voxel once");
  require(re.intact() && im.intact(), "guard zones of listed aliases");
  if (refused) return;
  Floats want_re(s.mask.size()), want_im = want_re;
  for (int z = 0; z < s.folded[1]; ++z)
    for (int y = 0; y < s.folded[0]; ++y)
      for (int x = 0; x < s.nx; ++x) s.unfold_pixel(x, y, z, want_re, want_im);
  for (const Floats* v : {&s.maps, &want_re, &want_im})
    for (float value : *v)
      if (!std::isfinite(value)) return;  // which spreads
  require(same(re.values(), want_re) && same(im.values(), want_im), "listed aliases, one by one");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  constexpr void (*kTargets[])(Input&) = {sense_steps, sense_recon, listed_aliases};
  Input input(bytes, size);
  input.pick(kTargets)(input);
  return 0;
}
