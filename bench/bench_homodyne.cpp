// The gateway's operations on the memory host. Limit: a pass in place over the samples that must move.

#include <omp.h>

#include <algorithm>

#include "homodyne.h"
#include "host/memory.h"
#include "naive_homodyne.h"
#include "routine.h"

namespace bench {

namespace {

using host::Array;
using host::Layout;

void call(std::vector<const Array*> inputs) {
  Array* out[1] = {nullptr};
  mexFunction(1, out, static_cast<int>(inputs.size()), inputs.data());
}

/// An image of the host, and the same for the naive version.
struct Image {
  Image(const std::vector<int>& dims, double samples, float imaginary)
      : re(values(samples, 1)), im(values(samples, 2)), plain{dims, re, im} {
    for (float& v : im) v *= imaginary;
    plain.im = im;
    array = host::single(dims, re, im, Layout::kParts);
  }
  void restore() {
    std::copy(re.begin(), re.end(), array.re.data());
    std::copy(im.begin(), im.end(), array.im.data());
    plain.re = re;
    plain.im = im;
    host::state().created.clear();
  }
  double difference() const {
    return std::fmax(bench::difference(array.real(), plain.re),
                     bench::difference(array.imaginary(), plain.im));
  }
  Floats re, im;
  naive::Volume plain;
  Array array;
};

std::vector<int> extents(const Setting& s) { return {s.nx, s.ny, s.nz, s.coils, s.volumes}; }

/// Lines from -N/6 on are sampled: along y, or with the option along x, y and z.
Case filter(const Setting& s) {
  struct Data {
    Image image;
    std::vector<double> ranges[3];
    Array arguments[3], name = host::text("filter");
  };
  const auto d = std::make_shared<Data>(Data{Image(extents(s), s.samples(), 1), {}, {}});
  const int N[] = {s.nx, s.ny, s.nz};
  double centre = 8 * s.samples();
  for (std::size_t k = 0; k < 3; ++k) {
    const bool filtered = (k == 1 || s.option) && N[k] > 5;
    const double first = -N[k] / 6, last = N[k] - N[k] / 2 - 1;
    if (filtered) d->ranges[k] = {first, last};
    d->arguments[k] = host::doubles({filtered ? 1 : 0, filtered ? 2 : 0}, d->ranges[k]);
    if (filtered) centre *= (1 - 2 * first) / N[k];
  }
  Case c;
  c.kernel = [=] {
    host::state().created.clear();
    call({&d->name, &d->image.array, &d->arguments[0], &d->arguments[1], &d->arguments[2]});
  };
  c.naive = [=] { naive::filter(d->image.plain, d->ranges); };
  c.prepare = [=] { d->image.restore(); };
  c.limits = {{Kind::kUpdate, 8 * s.samples() + centre}};
  c.documented = 4.0 * (s.nx + s.ny + s.nz) + 4.0 * std::max(1 << 14, s.nx);
  c.output = centre;
  c.difference = [=] { return d->image.difference(); };
  c.tolerance = 1e-6;
  return c;
}

/// With the option the low-resolution image has a quarter of the extents and is resampled.
Case multiply(const Setting& s) {
  struct Data {
    Image image, low;
    Array name = host::text("multiply");
  };
  std::vector<int> low = extents(s);
  double samples = s.samples();
  for (std::size_t k = 0; k < 3 && s.option; ++k) {
    samples /= low[k];
    low[k] = (low[k] + 3) / 4;
    samples *= low[k];
  }
  const auto d =
      std::make_shared<Data>(Data{Image(extents(s), s.samples(), 0.1f), Image(low, samples, 0.1f)});
  Case c;
  c.kernel = [=] { call({&d->name, &d->image.array, &d->low.array}); };
  c.naive = [=] { naive::multiply(d->image.plain, d->low.plain); };
  c.prepare = [=] { d->image.restore(); };
  // Both images are read and one is written: a pass moves twice its bytes.
  c.limits = {{Kind::kUpdate, 8 * s.samples() + 4 * samples}};
  c.documented = s.option ? 16.0 * (s.nx + s.ny + s.nz) + 72.0 * s.nx : 0;
  c.difference = [=] { return d->image.difference(); };
  c.tolerance = 1e-6;
  return c;
}

}  // namespace

std::vector<Routine> homodyne_routines() {
  Row all_axes = kVolume, resampled = kVolume;
  all_axes.data += ", three axes";
  resampled.data += ", resampled";
  all_axes.setting.option = resampled.setting.option = true;
  const std::vector<Sweep> sweeps = {size_sweep({0, 0, 2, 2}), coil_sweep({64, 64, 8}),
                                     thread_sweep({256, 256, 4, 16}, omp_get_num_procs())};
  return {{"homodyne filter", filter, {kBrain, all_axes, kSeries}, sweeps},
          {"homodyne multiply", multiply, {kBrain, resampled, kSeries}, sweeps}};
}

}  // namespace bench
