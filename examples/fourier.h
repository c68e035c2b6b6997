// Centred two-dimensional Fourier transforms of stacks of planes, with Eigen's bundled transform.
#pragma once

#include <cTessel.h>

#include <cmath>
#include <complex>
#include <unsupported/Eigen/FFT>
#include <vector>

#include "cfl.h"

/// Transforms every line of dimension 1 or 2 in place; zero frequency at index 0.
inline void transform_lines(ComplexArray& a, int dim, bool inverse) {
  const std::size_t nx = static_cast<std::size_t>(a.dims[0]),
                    ny = static_cast<std::size_t>(a.dims[1]), n = dim == 1 ? nx : ny,
                    step = dim == 1 ? 1 : nx, lines = a.re.size() / n;
  Eigen::FFT<float> fft;
  std::vector<std::complex<float>> in(n), out(n);
  for (std::size_t line = 0; line < lines; ++line) {
    const std::size_t first = dim == 1 ? line * nx : line / nx * nx * ny + line % nx;
    for (std::size_t i = 0; i < n; ++i) in[i] = {a.re[first + i * step], a.im[first + i * step]};
    if (inverse) {
      fft.inv(out, in);
    } else {
      fft.fwd(out, in);
    }
    for (std::size_t i = 0; i < n; ++i) {
      a.re[first + i * step] = out[i].real();
      a.im[first + i * step] = out[i].imag();
    }
  }
}

/// k-space to images (inverse) or back, over x and y; both with index floor(N / 2) as the centre.
inline void transform_planes(ComplexArray& a, bool inverse) {
  for (int dim : {1, 2}) {
    TS_ifftshift(a.re.data(), a.im.data(), a.dims.data(), a.ndims(), dim);
    transform_lines(a, dim, inverse);
    TS_fftshift(a.re.data(), a.im.data(), a.dims.data(), a.ndims(), dim);
  }
}
