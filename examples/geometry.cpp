// Where non-linear gradients put a regular grid: a picture of three planes through the isocentre
// and the largest and mean displacement in a cube.
//
//   example_geometry [coefficients.txt [grid.png]]
//
// A coefficient file has one term per line, `axis n m value`, with axis x, y or z, order n and
// degree m (0 for z); `r0 value` gives the reference radius in mm, 250 without it, and # starts a
// comment. Linear terms are 1 unless given. Values belong to unnormalised Legendre functions
// without the phase (-1)^m. A letter between axis and order (A for cosine, B for sine terms), as
// published tables have it, says that they belong to functions normalised for m > 0 by
// (-1)^m sqrt((2n + 1) (n - m)! / (2 (n + m)!)). A heading that starts with `axis` is passed over.
#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "cTessel.h"
#include "picture.h"

namespace {

// Made up, with the symmetry and the size of a whole-body coil: an odd order for every axis, four
// leaves for x and y, and fields that weaken towards the ends.
constexpr const char* kSyntheticCoil = R"(
r0 250
x 3 1 -0.018
x 3 3 -0.0012
x 5 1  0.003
x 5 3  0.00004
y 3 1 -0.018
y 3 3  0.0012
y 5 1  0.003
y 5 3 -0.00004
z 3 0 -0.12
z 5 0 -0.03
z 7 0  0.008
)";

struct Coil {
  float y[14][12] = {}, x[14][12] = {}, z[17][1] = {};
  float r0 = 250;  // mm
  Coil() { x[1][1] = y[1][1] = z[1][0] = 1; }
};

/// The place of a term in its table.
float& term(Coil& coil, char axis, int n, int m) {
  if (axis == 'z' && n >= 1 && n <= 16 && m == 0) return coil.z[n][0];
  if (axis != 'z' && m >= 1 && m <= 11 && n >= m && n <= 13) {
    return axis == 'x' ? coil.x[n][m] : coil.y[n][m];
  }
  throw std::runtime_error("no such term");
}

/// Factor of a function normalised for m > 0, beside the phase.
double normalisation(int n, int m) {
  if (m == 0) return 1;
  return std::sqrt((2 * n + 1) / 2.0 * std::tgamma(n - m + 1.0) / std::tgamma(n + m + 1.0));
}

void read_line(const std::string& line, Coil& coil) {
  std::istringstream words(line.substr(0, line.find('#')));
  std::string axis;
  if (!(words >> axis) || axis == "axis") return;
  int n = 0, m = 0;
  float value = 0;
  if (axis == "r0") {
    words >> coil.r0;
  } else {
    if (axis != "x" && axis != "y" && axis != "z") throw std::runtime_error("unknown axis " + axis);
    const bool lettered = std::isalpha((words >> std::ws).peek()) != 0;
    if (lettered) words.get();
    words >> n >> m >> value;
    term(coil, axis[0], n, m) = lettered ? static_cast<float>(value * normalisation(n, m)) : value;
  }
  if (!words) throw std::runtime_error("too few numbers");
}

Coil read_coil(std::istream& text) {
  Coil coil;
  std::string line;
  for (int number = 1; std::getline(text, line); ++number) try {
      read_line(line, coil);
    } catch (const std::exception& fault) {
      throw std::runtime_error("line " + std::to_string(number) + ": " + fault.what());
    }
  return coil;
}

Coil read_coil_file(const std::string& path) {
  std::ifstream file(path);
  if (!file || file.peek() == EOF) throw std::runtime_error(path + " cannot be read or is empty");
  return read_coil(file);
}

using Axes = std::array<std::vector<float>, 3>;  // x, y and z of some points, in mm

Axes corrected(Axes points, Coil& coil) {
  const std::size_t n = points[0].size();
  Axes out = {std::vector<float>(n), std::vector<float>(n), std::vector<float>(n)};
  TS_geometry_correction(points[0].data(), points[1].data(), points[2].data(), out[0].data(),
                         out[1].data(), out[2].data(), static_cast<int>(n), coil.y, coil.x, coil.z,
                         coil.r0);
  return out;
}

constexpr int kReach = 200, kSpacing = 20, kHalfPanel = 240;  // mm; a pixel is 1 mm

/// The lines of a grid in the plane of two axes, one point per mm.
Axes grid_lines(std::size_t across, std::size_t down) {
  Axes lines;
  for (const auto& [along, fixed] : {std::pair(across, down), std::pair(down, across)})
    for (int line = -kReach; line <= kReach; line += kSpacing)
      for (int i = -kReach; i <= kReach; ++i) {
        lines[along].push_back(static_cast<float>(i));
        lines[fixed].push_back(static_cast<float>(line));
      }
  lines[3 - across - down].resize(lines[across].size());
  return lines;
}

/// Marks every point; they lie so close together that they join up to lines.
void draw(Picture& panel, const std::vector<float>& across, const std::vector<float>& down,
          float level) {
  for (std::size_t i = 0; i < across.size(); ++i) {
    const float column = std::round(across[i] + kHalfPanel), row = std::round(kHalfPanel - down[i]);
    if (!(column >= 0 && row >= 0 && column < static_cast<float>(panel.width) &&
          row < static_cast<float>(panel.height))) {
      continue;  // off the picture, or not a number
    }
    panel.grey[static_cast<std::size_t>(row) * static_cast<std::size_t>(panel.width) +
               static_cast<std::size_t>(column)] = level;
  }
}

Picture plane(Coil& coil, std::size_t across, std::size_t down) {
  const int side = 2 * kHalfPanel + 1;
  Picture panel{side, side, std::vector<float>(std::size_t{side} * side)};
  const Axes straight = grid_lines(across, down), bent = corrected(straight, coil);
  draw(panel, straight[across], straight[down], 0.35f);
  draw(panel, bent[across], bent[down], 1);
  return panel;
}

void report(Coil& coil) {
  Axes cube;
  for (int z = -kReach; z <= kReach; z += kSpacing)
    for (int y = -kReach; y <= kReach; y += kSpacing)
      for (int x = -kReach; x <= kReach; x += kSpacing) {
        cube[0].push_back(static_cast<float>(x));
        cube[1].push_back(static_cast<float>(y));
        cube[2].push_back(static_cast<float>(z));
      }
  const Axes moved = corrected(cube, coil);
  float largest = 0, sum = 0;
  for (std::size_t i = 0; i < cube[0].size(); ++i) {
    const float distance =
        std::hypot(moved[0][i] - cube[0][i], moved[1][i] - cube[1][i], moved[2][i] - cube[2][i]);
    largest = std::max(largest, distance);
    sum += distance;
  }
  std::printf("displacement in a cube of %d mm: largest %.1f mm, mean %.1f mm\n", 2 * kReach,
              largest, sum / static_cast<float>(cube[0].size()));
}

}  // namespace

int main(int argc, char* argv[]) try {
  std::istringstream synthetic(kSyntheticCoil);
  Coil coil = argc > 1 ? read_coil_file(argv[1]) : read_coil(synthetic);
  const std::string path =
      argc > 2 ? argv[2] : (std::filesystem::temp_directory_path() / "geometry.png").string();
  write_png(path, beside({plane(coil, 0, 1), plane(coil, 0, 2), plane(coil, 1, 2)}));
  report(coil);
  std::printf("straight and corrected grid in the xy, xz and yz planes: %s\n", path.c_str());
} catch (const std::exception& fault) {
  std::fprintf(stderr, "%s\n", fault.what());
  return 1;
}
