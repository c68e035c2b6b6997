// Shifts, padding, filtering and combination written straight down: the reference for tests and the
// yardstick of the benchmarks.
#pragma once

#include <cmath>
#include <cstring>
#include <vector>

namespace naive {

inline std::size_t product(const int* dims, int begin, int end) {
  std::size_t n = 1;
  for (int d = begin; d < end; ++d) n *= static_cast<std::size_t>(dims[d]);
  return n;
}

/// Element i of axis `dim` goes to (i + shift) mod N.
inline std::vector<float> rotated(const std::vector<float>& v, const std::vector<int>& dims,
                                  int dim, std::size_t shift) {
  const std::size_t N = static_cast<std::size_t>(dims[static_cast<std::size_t>(dim - 1)]);
  const std::size_t B = product(dims.data(), 0, dim - 1);
  std::vector<float> out(v.size());
  for (std::size_t i = 0; i < v.size(); ++i) {
    const std::size_t x = i / B % N;
    std::memcpy(&out[i - x * B + (x + shift) % N * B], &v[i], sizeof(float));
  }
  return out;
}

/// Copies each sample to the centre of its target volume.
inline void zero_pad(const std::vector<float>& in, const std::vector<int>& dims, const double* to,
                     std::vector<float>& out) {
  std::size_t from[] = {1, 1, 1}, target[3], offset[3];
  for (std::size_t d = 0; d < 3; ++d) {
    if (d < dims.size()) from[d] = static_cast<std::size_t>(dims[d]);
    target[d] = static_cast<std::size_t>(to[d]);
    offset[d] = (target[d] - from[d] + 1) / 2;
  }
  for (std::size_t i = 0; i < in.size(); ++i) {
    const std::size_t x = i % from[0] + offset[0], y = i / from[0] % from[1] + offset[1],
                      z = i / from[0] / from[1] % from[2] + offset[2],
                      p = i / from[0] / from[1] / from[2];
    std::memcpy(&out[x + target[0] * (y + target[1] * (z + target[2] * p))], &in[i], sizeof(float));
  }
}

inline std::vector<float> window(int N, double strength, int width) {
  const double s = strength > 0.915 ? 0.085 : strength < 0 ? 1.0 : 1 - strength;
  const double L = static_cast<double>(width) * 6.2831855f * 0.5 / std::acos((s - 0.54) / 0.46);
  std::vector<float> w;
  for (int i = 0; i < N; ++i) {
    const int j = i - N / 2;
    const int lo = -static_cast<int>(std::floor(width * 0.5f)),
              hi = static_cast<int>(std::ceil(width * 0.5f)) - 1;
    const float angle = static_cast<float>(static_cast<double>(6.2831855f) * j / L);
    w.push_back(j < lo || j > hi ? 0.0f : static_cast<float>(0.54 + 0.46 * cosf(angle)));
  }
  return w;
}

inline void ringing_filter(float* re, float* im, const int* dims, std::size_t P,
                           const double* strength, const int* width) {
  const std::vector<float> wx = window(dims[0], strength[0], width[0]),
                           wy = window(dims[1], strength[1], width[1]),
                           wz = window(dims[2], strength[2], width[2]);
  std::size_t i = 0;
  for (std::size_t p = 0; p < P; ++p)
    for (float z : wz)
      for (float y : wy)
        for (float x : wx) {
          if (re[i] != 0 || (im && im[i] != 0)) {
            const float w = z * (y * x);
            re[i] *= w;
            if (im) im[i] *= w;
          }
          ++i;
        }
}

inline void perform_sos(const float* re, const float* im, const int* dims, int coildim, float* out,
                        std::size_t n_out) {
  const std::size_t Nc = static_cast<std::size_t>(dims[coildim - 1]),
                    S = product(dims, 0, coildim - 1);
  for (std::size_t n = 0; n < n_out; ++n) {
    const std::size_t base = n / S * Nc * S + n % S;
    for (std::size_t c = 0; c < Nc; ++c) {
      out[n] += re[base + c * S] * re[base + c * S];
      if (im) out[n] += im[base + c * S] * im[base + c * S];
    }
    out[n] = sqrtf(out[n]);
  }
}

inline void perform_pcsos(const float* re, const float* im, const int* dims, int coildim,
                          float* out_re, float* out_im, std::size_t n_out) {
  const std::size_t Nc = static_cast<std::size_t>(dims[coildim - 1]),
                    S = product(dims, 0, coildim - 1);
  const std::size_t V = product(dims, 0, 9), D = static_cast<std::size_t>(dims[9]);
  for (std::size_t n = 0; n < n_out; ++n) {
    const std::size_t b = n / S * Nc * S + n % S;
    float Q = 0, A = 0, B = 0;
    for (std::size_t c = 0; c < Nc; ++c) {
      const std::size_t i = b + c * S, i0 = i - b % (D * V) / V * V;
      float w = 0;
      for (std::size_t k = 0; k < D; ++k) {
        const float x = re[i0 + k * V], y = im ? im[i0 + k * V] : 0;
        w += sqrtf(x * x + y * y);
      }
      w /= static_cast<float>(D);
      Q += re[i] * re[i];
      A += re[i] * w;
      if (im) {
        Q += im[i] * im[i];
        B += w * im[i];
      }
    }
    const float m = sqrtf(Q), phi = atan2f(B, A);
    out_re[n] = m * cosf(phi);
    out_im[n] = m * sinf(phi);
  }
}

}  // namespace naive
