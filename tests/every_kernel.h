// Every kernel that fills arrays, with fixed inputs: for tests of what holds for all of them.
#pragma once

#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cTessel.h"
#include "ctessel.hpp"
#include "guarded.h"
#include "homodyne.h"
#include "host/memory.h"

namespace every {

using Floats = std::vector<float>;

/// `call` gets a pointer to each output, which holds its initial values.
struct Kernel {
  std::string name;
  std::vector<Floats> initial;
  std::function<void(const std::vector<float*>&)> call;
};

/// Values in -1 .. 1 that are the same wherever this is built.
inline Floats noise(std::size_t n, unsigned seed) {
  Floats v(n);
  for (float& x : v) {
    seed = seed * 1664525u + 1013904223u;
    x = static_cast<float>(seed >> 8) / 8388608.0f - 1;
  }
  return v;
}

inline std::vector<Kernel> array_kernels() {
  // Rows longer than a vector of any version, and volumes longer than the shifts' short lines.
  static int dims[] = {37, 29, 5, 4}, dims10[] = {37, 5, 3, 4, 1, 1, 1, 1, 1, 2};
  static int padded[] = {39, 29, 8}, out10[] = {37, 5, 3, 1, 1, 1, 1, 1, 1, 2},
             width[] = {30, 28, 3};
  static double strength[] = {0.4, 0.9, 0.2};
  static Floats re = noise(21460, 1), im = noise(21460, 2);
  const std::vector<Floats> data = {re, im};
  std::vector<Kernel> kernels;
  for (int dim : {1, 2, 3}) {
    kernels.push_back({"TS_fftshift, axis " + std::to_string(dim), data,
                       [=](const auto& o) { TS_fftshift(o[0], o[1], dims, 4, dim); }});
    kernels.push_back({"TS_ifftshift, axis " + std::to_string(dim), data,
                       [=](const auto& o) { TS_ifftshift(o[0], o[1], dims, 4, dim); }});
  }
  kernels.push_back({"TS_zero_pad", {Floats(36192), Floats(36192)}, [](const auto& o) {
                       TS_zero_pad(re.data(), im.data(), 4, dims, padded[0], padded[1], padded[2],
                                   o[0], o[1]);
                     }});
  kernels.push_back({"TS_ringing_filter", data, [](const auto& o) {
                       TS_ringing_filter(o[0], o[1], 4, dims, strength, width);
                     }});
  kernels.push_back({"TS_perform_sos", {Floats(1110)}, [](const auto& o) {
                       TS_perform_sos(re.data(), im.data(), 10, dims10, 4, o[0], out10);
                     }});
  kernels.push_back({"TS_perform_pcsos", {Floats(1110), Floats(1110)}, [](const auto& o) {
                       TS_perform_pcsos(re.data(), im.data(), 10, dims10, 4, o[0], o[1], out10);
                     }});
  return kernels;
}

/// Maps with as many columns as the image, or with fewer.
inline Kernel sense_kernel(const std::string& name, int columns) {
  static int fold[] = {27, 8, 4, 5, 2}, psi_dims[] = {5, 5}, full[] = {27, 18, 7}, ref[] = {4, 4},
             out[] = {27, 18, 7, 1, 2};
  static Floats fold_re = noise(8640, 3), fold_im = noise(8640, 4), sens_re = noise(8505, 5),
                sens_im = noise(8505, 6), psi_re(25, 0.1f), psi_im(25), image = noise(1701, 7);
  static const bool filled = [] {  // once, whichever thread comes first
    for (std::size_t i = 0; i < 25; i += 6) psi_re[i] = 1;
    return true;
  }();
  static_cast<void>(filled);
  return {name, {Floats(6804), Floats(6804)}, [columns](const std::vector<float*>& o) {
            int sens[] = {columns, 9, 7, 5}, reg[] = {columns, 9, 7};
            TS_sense_recon(fold_re.data(), fold_im.data(), 5, fold, sens_re.data(), sens_im.data(),
                           4, sens, psi_re.data(), psi_im.data(), 2, psi_dims, full, image.data(),
                           nullptr, 2, ref, image.data(), image.data(), 3, reg, 2.0, o[0], o[1],
                           out);
          }};
}

inline std::vector<Kernel> geometry_kernels() {
  static Floats x = noise(500, 8), y = noise(500, 9), z = noise(500, 10);
  static float cy[14][12], cx[14][12], cz[17][1];
  static const bool filled = [] {
    const Floats c = noise(17, 11);
    for (int n = 0; n < 17; ++n) cz[n][0] = n == 1 ? 1 : 0.1f * c[static_cast<std::size_t>(n)];
    for (int n = 0; n < 14; ++n)
      for (int m = 0; m < 12; ++m) cy[n][m] = cx[n][m] = n == 1 && m == 1 ? 1 : cz[n][0] / 99;
    return true;
  }();
  static_cast<void>(filled);
  return {{"TS_geometry_correction",
           {Floats(500), Floats(500), Floats(500)},
           [](const std::vector<float*>& o) {
             TS_geometry_correction(x.data(), y.data(), z.data(), o[0], o[1], o[2], 500, cy, cx, cz,
                                    1.5f);
           }},
          {"create_plgndr_lookup", {Floats(40800)}, [](const std::vector<float*>& o) {
             create_plgndr_lookup(17, 12, 200, o[0]);
           }}};
}

/// Doubles as what a float holds of them, and as what it leaves over.
inline void split(const std::vector<double>& values, float* high, float* low) {
  for (double v : values) {
    *high = static_cast<float>(v);
    *low++ = static_cast<float>(v - *high++);
  }
}

inline Kernel field_kernel() {
  using ctessel::Dim;
  static const Floats at = noise(1200, 12), weights = noise(200, 13);
  return {"GradientField", {Floats(5200), Floats(5200)}, [](const std::vector<float*>& o) {
            std::vector<ctessel::GradientTerm> terms = {
                {Dim::x, false, 1, 1, 1}, {Dim::y, true, 1, 1, 1}, {Dim::z, false, 1, 0, 1}};
            for (int k = 0; k < 200; ++k) {
              const int n = 2 + k % 12, m = k / 12 % (n + 1);
              double value = 0.1 * weights[static_cast<std::size_t>(k)];
              for (int i = 2; i < 2 * m + 2; ++i) value /= i;  // the functions grow with the degree
              terms.push_back({Dim(k % 3), m > 0 && k % 2 == 0, n, m, value});
            }
            const ctessel::GradientField field(terms, 2);
            const std::vector<double> points(at.begin(), at.end());
            const auto list = ctessel::FieldPoints::list(points.data(), 400);
            std::vector<double> position(1200), jacobian(3600), determinant(400);
            field.evaluate(list, {position.data(), nullptr, jacobian.data(), determinant.data()});
            position.insert(position.end(), jacobian.begin(), jacobian.end());
            position.insert(position.end(), determinant.begin(), determinant.end());
            split(position, o[0], o[1]);
          }};
}

/// The gateway's operations work on a host array; afterwards its parts count as outputs. One call at
/// a time, as hosts have it.
inline std::vector<Kernel> gateway_kernels() {
  const auto run = [](const char* operation, std::vector<host::Array> rest, const auto& o) {
    host::Array data = host::single({40, 6, 4, 2}, Floats(o[0], o[0] + 1920),
                                    Floats(o[1], o[1] + 1920), host::Layout::kParts);
    const host::Array name = host::text(operation);
    std::vector<const host::Array*> in = {&name, &data};
    for (const host::Array& a : rest) in.push_back(&a);
    host::Array* out[1] = {nullptr};
    const auto deliver = [&] {
      std::copy_n(data.re.data(), 1920, o[0]);
      std::copy_n(data.im.data(), 1920, o[1]);
      host::state().created.clear();
    };
    try {
      mexFunction(1, out, static_cast<int>(in.size()), in.data());
    } catch (...) {
      deliver();
      throw;
    }
    deliver();
  };
  const std::vector<Floats> data = {noise(1920, 12), noise(1920, 13)};
  return {
      {"filter", data,
       [run](const auto& o) {
         run("filter",
             {host::doubles({1, 2}, {-8, 19}), host::doubles({1, 2}, {-3, 1}),
              host::doubles({0, 0}, {})},
             o);
       }},
      {"multiply", data, [run](const auto& o) {
         run("multiply",
             {host::single({25, 4, 3, 2}, noise(600, 14), noise(600, 15), host::Layout::kParts)},
             o);
       }}};
}

inline std::vector<Kernel> kernels() {
  std::vector<Kernel> all = array_kernels();
  all.push_back(sense_kernel("TS_sense_recon", 22));
  for (Kernel& k : geometry_kernels()) all.push_back(k);
  all.push_back(field_kernel());
  return all;
}

/// Outputs of one call, between guard zones.
struct Outputs {
  explicit Outputs(const Kernel& k) {
    for (const Floats& v : k.initial) arrays.emplace_back(v);
    for (auto& a : arrays) pointers.push_back(a.data());
  }
  bool intact() const {
    for (const auto& a : arrays)
      if (!a.intact()) return false;
    return true;
  }
  Floats values() const {
    Floats all;
    for (const auto& a : arrays) {
      const Floats v = a.values();
      all.insert(all.end(), v.begin(), v.end());
    }
    return all;
  }
  std::vector<Guarded<float>> arrays;
  std::vector<float*> pointers;
};

inline Floats result(const Kernel& k) {
  Outputs out(k);
  k.call(out.pointers);
  return out.values();
}

}  // namespace every
