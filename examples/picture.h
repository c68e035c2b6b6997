// Grey pictures of images, written as PNG files with libpng's simplified interface.
#pragma once

#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

/// Grey values, x fastest: x runs to the right, y downwards.
struct Picture {
  int width, height;
  std::vector<float> grey;
};

/// Values mapped from [black, white] to [0, 1] and clipped; a NaN becomes black.
inline Picture scaled(Picture p, float black, float white) {
  for (float& v : p.grey) {
    const float level = (v - black) / (white - black);
    v = level > 0 ? std::min(level, 1.0f) : 0.0f;
  }
  return p;
}

/// Values scaled so that 0 is black and the largest one white.
inline Picture scaled(const Picture& p) {
  const float largest = *std::max_element(p.grey.begin(), p.grey.end());
  return scaled(p, 0, largest > 0 ? largest : 1);
}

/// Pictures of one height side by side.
inline Picture beside(const std::vector<Picture>& panels) {
  Picture all{0, panels.at(0).height, {}};
  for (const Picture& p : panels) all.width += p.width;
  for (int y = 0; y < all.height; ++y) {
    for (const Picture& p : panels) {
      const auto row = p.grey.begin() + std::ptrdiff_t{y} * p.width;
      all.grey.insert(all.grey.end(), row, row + p.width);
    }
  }
  return all;
}

/// Writes values of 0 (black) to 1 (white) as an 8-bit grey PNG file.
/// Throws std::runtime_error where that fails.
inline void write_png(const std::string& path, const Picture& p) {
  std::vector<png_byte> bytes(p.grey.size());
  std::transform(p.grey.begin(), p.grey.end(), bytes.begin(),
                 [](float v) { return static_cast<png_byte>(std::lround(v * 255)); });
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(p.width);
  image.height = static_cast<png_uint_32>(p.height);
  image.format = PNG_FORMAT_GRAY;
  if (!png_image_write_to_file(&image, path.c_str(), 0, bytes.data(), 0, nullptr)) {
    throw std::runtime_error(path + ": " + image.message);
  }
}
