// Images of receive coils into one, both ways: the root sum of squares, and the same magnitude with
// a phase. Takes measured multi-coil k-space, or a made-up head seen by eight coils.
//
//   example_coil_combination [FOLDER [NAME]]
//
// NAME.cfl and NAME.hdr hold k-space of extents x, y, z, coils, line 0 in the centre; the plane in
// the middle of z is shown. FOLDER, by default that for temporary files, gets coils.png (the first
// coils side by side), magnitude.png, phase.png (black to white: -pi to pi, dark where there is no
// signal) and, with both beside each other, combined.png. Without a NAME the combination is checked
// against the known head.

#include <cTessel.h>

#include <cmath>
#include <cstdio>
#include <filesystem>

#include "cfl.h"
#include "fourier.h"
#include "phantom.h"
#include "picture.h"

namespace {

/// One image, as magnitude and as complex values with that magnitude.
struct Combined {
  std::vector<float> magnitude;
  ComplexArray image;
};

/// Extents padded with ones to ten, which is how many TS_perform_pcsos reads.
std::vector<int> ten(std::vector<int> dims) {
  dims.resize(std::max<std::size_t>(dims.size(), 10), 1);
  return dims;
}

Combined combine(ComplexArray& coils) {
  constexpr int kCoilDim = 4;
  std::vector<int> dims = ten(coils.dims), one = dims;
  one[kCoilDim - 1] = 1;
  Combined c{{}, ComplexArray(one)};
  c.magnitude.resize(c.image.re.size());
  const int ndims = static_cast<int>(dims.size());
  TS_perform_sos(coils.re.data(), coils.im.data(), ndims, dims.data(), kCoilDim, c.magnitude.data(),
                 one.data());
  TS_perform_pcsos(coils.re.data(), coils.im.data(), ndims, dims.data(), kCoilDim,
                   c.image.re.data(), c.image.im.data(), one.data());
  return c;
}

/// Picture of `value(i)` over the plane of `a` that starts at sample `first`.
template <class F>
Picture plane(const ComplexArray& a, std::size_t first, const F& value) {
  Picture p{a.dims[0], a.dims[1], {}};
  const std::size_t n = static_cast<std::size_t>(p.width) * static_cast<std::size_t>(p.height);
  for (std::size_t i = first; i < first + n; ++i) p.grey.push_back(value(i));
  return p;
}

std::size_t plane_size(const ComplexArray& a) {
  return static_cast<std::size_t>(a.dims[0]) * static_cast<std::size_t>(a.dims[1]);
}

std::size_t planes(const ComplexArray& a) {
  return a.dims.size() > 2 ? static_cast<std::size_t>(a.dims[2]) : 1;
}

void write_pictures(const std::string& folder, const ComplexArray& coils, const Combined& c) {
  const std::size_t n = plane_size(coils), middle = planes(coils) / 2 * n;
  std::vector<Picture> some;
  for (std::size_t coil = 0; coil < 4 && coil < coils.re.size() / n / planes(coils); ++coil) {
    some.push_back(plane(coils, middle + coil * n * planes(coils),
                         [&](std::size_t i) { return std::hypot(coils.re[i], coils.im[i]); }));
  }
  write_png(folder + "/coils.png", scaled(beside(some)));

  const Picture magnitude =
      scaled(plane(c.image, middle, [&](std::size_t i) { return c.magnitude[i]; }));
  const float largest = *std::max_element(c.magnitude.begin(), c.magnitude.end());
  const Picture phase = scaled(plane(c.image, middle,
                                     [&](std::size_t i) {
                                       return c.magnitude[i] < 0.1f * largest
                                                  ? -4.0f
                                                  : std::atan2(c.image.im[i], c.image.re[i]);
                                     }),
                               -3.1415927f, 3.1415927f);
  write_png(folder + "/magnitude.png", magnitude);
  write_png(folder + "/phase.png", phase);
  write_png(folder + "/combined.png", beside({magnitude, phase}));
}

/// Largest deviation of the combination from what the head and the coils give, relative to the
/// largest magnitude: the magnitude |head| sqrt(sum |s|^2), the phase of sum |s| s.
float deviation(const Combined& c, int coils) {
  const int n = c.image.dims[0];
  float worst = 0, largest = 0;
  std::size_t i = 0;
  for (int iy = 0; iy < n; ++iy) {
    for (int ix = 0; ix < n; ++ix, ++i) {
      const double x = (ix - n / 2) * 2.0 / n, y = (iy - n / 2) * 2.0 / n;
      std::complex<float> sum = 0;
      float squares = 0;
      for (int k = 0; k < coils; ++k) {
        const std::complex<float> s = coil_sensitivity(k, coils, x, y);
        squares += std::norm(s);
        sum += std::abs(s) * s;
      }
      const float head = head_signal(x, -y), magnitude = std::abs(head) * std::sqrt(squares);
      const std::complex<float> want = head * std::sqrt(squares) * sum / std::abs(sum);
      worst = std::max({worst, std::abs(c.magnitude[i] - magnitude),
                        std::abs(std::complex<float>(c.image.re[i], c.image.im[i]) - want)});
      largest = std::max(largest, magnitude);
    }
  }
  return worst / largest;
}

}  // namespace

int main(int argc, char** argv) try {
  constexpr int kCoils = 8;
  const std::string folder = argc > 1 ? argv[1] : std::filesystem::temp_directory_path().string();
  std::filesystem::create_directories(folder);
  ComplexArray data = argc > 2 ? read_cfl(argv[2]) : phantom_images(128, kCoils);
  if (argc <= 2) transform_planes(data, false);  // to k-space, as a scanner would give it
  transform_planes(data, true);
  const Combined c = combine(data);
  write_pictures(folder, data, c);
  std::printf("coils.png, magnitude.png, phase.png and combined.png are in %s\n", folder.c_str());
  if (argc > 2) return 0;
  const float off = deviation(c, kCoils);
  std::printf("largest deviation from the known head: %.1e of its largest value\n",
              static_cast<double>(off));
  return off < 1e-5f ? 0 : 1;
} catch (const std::exception& e) {
  std::fprintf(stderr, "%s\n", e.what());
  return 1;
}
