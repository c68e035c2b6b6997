// Shifts, padding, filter and combination. Limit: memcpy, a pass in place, or reading, of the samples
// that must move.

#include <omp.h>

#include <algorithm>

#include "cTessel.h"
#include "naive_arrays.h"
#include "routine.h"

namespace bench {

namespace {

/// Three library copies per line, as the straightforward shift does them.
void shift_by_copies(float* part, std::size_t line, std::size_t shift, std::size_t lines,
                     std::vector<float>& scratch) {
  scratch.resize(shift);
  for (std::size_t j = 0; j < lines; ++j, part += line) {
    std::memcpy(scratch.data(), part + line - shift, shift * sizeof(float));
    std::memmove(part + shift, part, (line - shift) * sizeof(float));
    std::memcpy(part, scratch.data(), shift * sizeof(float));
  }
}

/// Coils, then volumes, as the outer extents.
struct Complex {
  explicit Complex(const Setting& s)
      : dims{s.nx, s.ny, s.nz, s.coils, s.volumes},
        re(values(s.samples(), 1)),
        im(values(s.samples(), 2)) {}
  std::vector<int> dims;
  Floats re, im;
};

/// Data and a copy of them for the naive version.
struct InPlace {
  explicit InPlace(const Setting& s) : ours(s), plain(ours) {}
  double difference() const {
    return std::fmax(bench::difference(ours.re, plain.re), bench::difference(ours.im, plain.im));
  }
  Complex ours, plain;
  Floats scratch;
};

using Shift = void (*)(float*, float*, int*, int, int);

Case shift(const Setting& s, Shift routine, int axis, bool forward) {
  const auto d = std::make_shared<InPlace>(s);
  const std::size_t N = static_cast<std::size_t>(d->ours.dims[axis - 1]);
  const std::size_t block = naive::product(d->ours.dims.data(), 0, axis - 1);
  const std::size_t by = (forward ? N / 2 : N - N / 2) * block;
  Case c;
  c.kernel = [=] { routine(d->ours.re.data(), d->ours.im.data(), d->ours.dims.data(), 5, axis); };
  c.naive = [=] {
    const std::size_t lines = d->plain.re.size() / (N * block);
    shift_by_copies(d->plain.re.data(), N * block, by, lines, d->scratch);
    shift_by_copies(d->plain.im.data(), N * block, by, lines, d->scratch);
  };
  c.limits = {{Kind::kUpdate, 8 * s.samples()}};
  c.documented = N % 2 ? 4.0 * static_cast<double>(block) : 0;
  c.difference = [=] { return d->difference(); };
  return c;
}

Case zero_pad(const Setting& s) {
  struct Padding {
    Complex in;
    double to[3];
    Floats re, im, plain_re, plain_im;
  };
  const double nx = s.nx * 4 / 3, ny = s.ny * 4 / 3, nz = s.nz > 1 ? s.nz * 2 : 1;
  const std::size_t size = static_cast<std::size_t>(nx * ny * nz) * s.coils * s.volumes;
  const Floats zeros(size);
  const auto d =
      std::make_shared<Padding>(Padding{Complex(s), {nx, ny, nz}, zeros, zeros, zeros, zeros});
  Case c;
  c.kernel = [=] {
    TS_zero_pad(d->in.re.data(), d->in.im.data(), 5, d->in.dims.data(), d->to[0], d->to[1],
                d->to[2], d->re.data(), d->im.data());
  };
  c.naive = [=] {
    naive::zero_pad(d->in.re, d->in.dims, d->to, d->plain_re);
    naive::zero_pad(d->in.im, d->in.dims, d->to, d->plain_im);
  };
  c.limits = {{Kind::kCopy, 8 * s.samples()}};
  c.difference = [=] {
    return std::fmax(difference(d->re, d->plain_re), difference(d->im, d->plain_im));
  };
  return c;
}

Case ringing_filter(const Setting& s) {
  const auto d = std::make_shared<InPlace>(s);
  static double strength[] = {0.01, 0.01, 0.01};  // weak: repeated runs must not reach denormals
  Case c;
  c.kernel = [=] {
    TS_ringing_filter(d->ours.re.data(), d->ours.im.data(), 5, d->ours.dims.data(), strength,
                      d->ours.dims.data());
  };
  c.naive = [=] {
    const int* dims = d->plain.dims.data();
    naive::ringing_filter(d->plain.re.data(), d->plain.im.data(), dims, naive::product(dims, 3, 5),
                          strength, dims);
  };
  c.limits = {{Kind::kUpdate, 8 * s.samples()}};
  c.documented = 4.0 * (s.nx + s.ny + s.nz) + 4.0 * std::max(1 << 14, s.nx);
  c.difference = [=] { return d->difference(); };
  return c;
}

struct Combination {
  explicit Combination(const Setting& s) : in(s), outdims(in.dims) {
    in.dims = {s.nx, s.ny, s.nz, s.coils, 1, 1, 1, 1, 1, s.volumes};
    outdims = in.dims;
    outdims[3] = 1;
    re.resize(static_cast<std::size_t>(s.samples() / s.coils));
    im = plain_re = plain_im = re;
  }
  Complex in;
  std::vector<int> outdims;
  Floats re, im, plain_re, plain_im;
};

Case sos(const Setting& s) {
  const auto d = std::make_shared<Combination>(s);
  Case c;
  c.kernel = [=] {
    TS_perform_sos(d->in.re.data(), d->in.im.data(), 10, d->in.dims.data(), 4, d->re.data(),
                   d->outdims.data());
  };
  c.naive = [=] {
    naive::perform_sos(d->in.re.data(), d->in.im.data(), d->in.dims.data(), 4, d->plain_re.data(),
                       d->plain_re.size());
  };
  c.limits = {{Kind::kRead, 8 * s.samples()}};
  c.difference = [=] { return difference(d->re, d->plain_re); };
  return c;
}

Case pcsos(const Setting& s) {
  const auto d = std::make_shared<Combination>(s);
  Case c;
  c.kernel = [=] {
    TS_perform_pcsos(d->in.re.data(), d->in.im.data(), 10, d->in.dims.data(), 4, d->re.data(),
                     d->im.data(), d->outdims.data());
  };
  c.naive = [=] {
    naive::perform_pcsos(d->in.re.data(), d->in.im.data(), d->in.dims.data(), 4, d->plain_re.data(),
                         d->plain_im.data(), d->plain_re.size());
  };
  c.limits = {{Kind::kRead, 8 * s.samples()}};
  c.documented = 3072.0 * s.volumes;
  c.difference = [=] {
    return std::fmax(difference(d->re, d->plain_re), difference(d->im, d->plain_im));
  };
  return c;
}

std::vector<Sweep> sweeps() {
  return {size_sweep({0, 0, 2, 2}), coil_sweep({64, 64, 8}),
          thread_sweep({256, 256, 4, 16}, omp_get_num_procs())};
}

Routine shift_routine(const std::string& name, Shift routine, int axis, bool forward,
                      const Row& row) {
  return {name + ", axis " + std::to_string(axis),
          [=](const Setting& s) { return shift(s, routine, axis, forward); },
          {row},
          sweeps()};
}

}  // namespace

std::vector<Routine> array_routines() {
  std::vector<Routine> all;
  // The routines for one axis are what these two call.
  for (int axis : {1, 2, 3}) {
    all.push_back(shift_routine("TS_fftshift", TS_fftshift, axis, true, kBrain));
    all.push_back(shift_routine("TS_ifftshift", TS_ifftshift, axis, false, kOddVolume));
  }
  all[0].rows.push_back(kSeries);
  const Sweep entries = sweep(
      "entries", {64, 64, 1, 16}, {1, 2, 4, 8, 16, 32}, [](Setting& s, int v) { s.volumes = v; },
      [](const Setting& s) { return s.volumes; });
  const auto add = [&](const char* name, Case (*make)(const Setting&)) {
    all.push_back({name, make, {kBrain, kVolume, kSeries}, sweeps()});
  };
  add("TS_zero_pad", zero_pad);
  add("TS_ringing_filter", ringing_filter);
  add("TS_perform_sos", sos);
  add("TS_perform_pcsos", pcsos);
  all.back().sweeps.push_back(entries);
  return all;
}

}  // namespace bench
