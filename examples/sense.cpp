// SENSE: undersamples fully sampled coil images along y, reconstructs them and shows the error.
//
//   example_sense [folder for pictures] [k-space.cfl without .cfl] [noise covariance without .cfl]
//
// Without data a made-up head is used. Maps are low-resolution images over their root sum of
// squares; fractional reductions are reached by folding the images as sampling would.

#include <cTessel.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <exception>
#include <string>

#include "cfl.h"
#include "phantom.h"
#include "picture.h"

namespace {

using Plane = Eigen::MatrixXcf;

/// Centred transform of n samples: to k-space for sign -1, back (scaled) for +1.
Plane transform(int n, int sign) {
  Plane F(n, n);
  for (int k = 0; k < n; ++k) {
    for (int i = 0; i < n; ++i) {
      const double turn = 2 * 3.14159265358979 * (k - n / 2) * (i - n / 2) / n;
      F(k, i) = std::complex<float>(std::polar(sign > 0 ? 1.0 / n : 1.0, sign * turn));
    }
  }
  return F;
}

Plane coil_plane(const ComplexArray& a, int c) {
  Plane p(a.dims[0], a.dims[1]);
  for (Eigen::Index i = 0; i < p.size(); ++i) {
    const auto at = static_cast<std::size_t>(i + c * p.size());
    p.data()[i] = {a.re[at], a.im[at]};
  }
  return p;
}

void put_plane(ComplexArray& a, int c, const Plane& p) {
  for (Eigen::Index i = 0; i < p.size(); ++i) {
    const auto at = static_cast<std::size_t>(i + c * p.size());
    a.re[at] = p.data()[i].real();
    a.im[at] = p.data()[i].imag();
  }
}

/// Root sum of squares over coils.
std::vector<float> root_sum_of_squares(const ComplexArray& a) {
  Eigen::ArrayXXf sum = Eigen::ArrayXXf::Zero(a.dims[0], a.dims[1]);
  for (int c = 0; c < a.dims[3]; ++c) sum += coil_plane(a, c).array().abs2();
  sum = sum.sqrt();
  return {sum.data(), sum.data() + sum.size()};
}

/// Keeps the centre of k-space under a raised cosine: smooth enough for maps, without ringing.
ComplexArray low_resolution(const ComplexArray& images, int width) {
  const int nx = images.dims[0], ny = images.dims[1];
  auto window = [&](int i, int n) {
    const double t = double(std::abs(i - n / 2)) / width;
    return t < 1 ? 0.5f * static_cast<float>(1 + std::cos(3.14159265358979 * t)) : 0.0f;
  };
  Plane Fx = transform(nx, -1), Fy = transform(ny, -1);
  for (int i = 0; i < nx; ++i) Fx.row(i) *= window(i, nx);
  for (int i = 0; i < ny; ++i) Fy.row(i) *= window(i, ny);
  const Plane left = transform(nx, 1) * Fx, right = transform(ny, 1) * Fy;
  ComplexArray out(images.dims);
  for (int c = 0; c < images.dims[3]; ++c) {
    put_plane(out, c, left * coil_plane(images, c) * right.transpose());
  }
  return out;
}

/// Sensitivities everywhere, air included: an alias without any would make its matrix singular.
ComplexArray estimate_maps(const ComplexArray& images) {
  ComplexArray maps = low_resolution(images, 16);
  const std::vector<float> rss = root_sum_of_squares(maps);
  for (std::size_t i = 0; i < maps.re.size(); ++i) {
    maps.re[i] /= rss[i % rss.size()];
    maps.im[i] /= rss[i % rss.size()];
  }
  return maps;
}

/// What an undersampled acquisition with `lines` lines shows.
ComplexArray fold(const ComplexArray& images, int lines) {
  ComplexArray folded({images.dims[0], lines, 1, images.dims[3]});
  for (int c = 0; c < images.dims[3]; ++c) {
    const Plane full = coil_plane(images, c);
    Plane sum = Plane::Zero(full.rows(), lines);
    for (int y = 0; y < full.cols(); ++y) {
      sum.col(TS_folded_pos(y, static_cast<int>(full.cols()), lines)) += full.col(y);
    }
    put_plane(folded, c, sum);
  }
  return folded;
}

struct Options {
  bool regularised = false;
  ComplexArray* noise = nullptr;
};

/// Magnitude of the reconstruction.
Picture reconstruct(ComplexArray& folded, ComplexArray& maps, ComplexArray& guess, Options with) {
  ComplexArray out({maps.dims[0], maps.dims[1], 1, 1});
  int coils[] = {maps.dims[3], maps.dims[3]}, size[] = {out.dims[0], out.dims[1], 1};
  // Noise of an image sample, in units of the covariance (that of k-space) or as 1 % of the signal,
  // for a signal level of all coils together.
  const double noise_level = with.noise ? std::sqrt(1.0 / (out.dims[0] * folded.dims[1]))
                                        : 0.01 * TS_SA(folded.re.data(), folded.im.data(),
                                                       static_cast<int>(folded.re.size()));
  const double scale = noise_level / std::sqrt(maps.dims[3]);
  float* prior = with.regularised ? guess.re.data() : nullptr;
  const int status = TS_sense_recon(
      folded.re.data(), folded.im.data(), folded.ndims(), folded.dims.data(), maps.re.data(),
      maps.im.data(), maps.ndims(), maps.dims.data(), with.noise ? with.noise->re.data() : nullptr,
      with.noise ? with.noise->im.data() : nullptr, 2, coils, size, prior, nullptr, guess.ndims(),
      guess.dims.data(), prior, nullptr, guess.ndims(), guess.dims.data(), scale, out.re.data(),
      out.im.data(), out.dims.data());
  if (status != 1) throw std::runtime_error("reconstruction failed");
  Picture p{out.dims[0], out.dims[1], {}};
  for (std::size_t i = 0; i < out.re.size(); ++i) {
    p.grey.push_back(std::hypot(out.re[i], out.im[i]));
  }
  return p;
}

/// Difference from the full data over the full data, inside the object.
double error_of(const Picture& got, const Picture& want) {
  double difference = 0, size = 0;
  for (std::size_t i = 0; i < want.grey.size(); ++i) {
    difference += std::pow(got.grey[i] - want.grey[i], 2);
    size += std::pow(want.grey[i], 2);
  }
  return std::sqrt(difference / size);
}

ComplexArray load(const std::string& name) {
  if (name.empty()) return phantom_images(128, 16);
  ComplexArray k = read_cfl(name);
  k.dims.resize(4, 1);
  const Plane Fx = transform(k.dims[0], 1), Fy = transform(k.dims[1], 1);
  for (int c = 0; c < k.dims[3]; ++c) put_plane(k, c, Fx * coil_plane(k, c) * Fy.transpose());
  return k;
}

int run(const std::string& folder, const std::string& data, const std::string& covariance) {
  ComplexArray images = load(data), maps = estimate_maps(images), noise;
  if (!covariance.empty()) noise = read_cfl(covariance);
  // Expected magnitude: a blurred root sum of squares, as a quick scan would give.
  ComplexArray guess({images.dims[0], images.dims[1], 1});
  guess.re = root_sum_of_squares(low_resolution(images, 32));
  Options none;
  const Picture full = reconstruct(images, maps, guess, none);
  const double R[] = {2, 3, 2.5};
  std::vector<Picture> panels = {full};
  bool good = true;
  for (double r : R) {
    ComplexArray folded = fold(images, static_cast<int>(images.dims[1] / r));
    for (Options with :
         {none, Options{true, nullptr}, Options{false, &noise}, Options{true, &noise}}) {
      if (with.noise && covariance.empty()) continue;
      const Picture image = reconstruct(folded, maps, guess, with);
      const double error = error_of(image, full);
      std::printf("R = %.2f%s%s: error %.3f\n", double(images.dims[1]) / folded.dims[1],
                  with.regularised ? ", regularised" : "", with.noise ? ", noise covariance" : "",
                  error);
      good &= error < 0.25;
      if (!with.regularised && !with.noise) panels.push_back(image);
    }
  }
  if (!folder.empty()) {
    const float white = *std::max_element(full.grey.begin(), full.grey.end());
    write_png(folder + "/sense.png", scaled(beside(panels), 0, 0.8f * white));
  }
  return good ? 0 : 1;
}

}  // namespace

int main(int argc, char* argv[]) try {
  auto argument = [&](int i) { return argc > i ? std::string(argv[i]) : std::string(); };
  return run(argument(1), argument(2), argument(3));
} catch (const std::exception& e) {
  std::fprintf(stderr, "%s\n", e.what());
  return 1;
}
