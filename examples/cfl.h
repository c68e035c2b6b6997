// Complex arrays in BART's file format: NAME.hdr holds the extents as text, NAME.cfl the samples as
// interleaved little-endian float pairs, first index fastest.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

/// Complex array as the library takes it: two float arrays of one layout, and its extents.
struct ComplexArray {
  std::vector<int> dims;
  std::vector<float> re, im;

  ComplexArray() = default;
  explicit ComplexArray(std::vector<int> extents) : dims(std::move(extents)) {
    std::size_t count = 1;
    for (int n : dims) count *= static_cast<std::size_t>(n);
    re.resize(count);
    im.resize(count);
  }
  int ndims() const { return static_cast<int>(dims.size()); }
};

/// Reads NAME.hdr and NAME.cfl. Throws std::runtime_error where a file is missing or too short.
inline ComplexArray read_cfl(const std::string& name) {
  std::ifstream header(name + ".hdr"), samples(name + ".cfl", std::ios::binary);
  std::string line;
  std::getline(header, line);  // "# Dimensions"
  std::getline(header, line);
  std::istringstream numbers(line);
  std::vector<int> dims;
  for (int n; numbers >> n;) dims.push_back(n);
  if (dims.empty()) throw std::runtime_error("no extents in " + name + ".hdr");
  ComplexArray a(dims);
  std::vector<float> pairs(2 * a.re.size());
  samples.read(reinterpret_cast<char*>(pairs.data()),
               static_cast<std::streamsize>(pairs.size() * sizeof(float)));
  if (!samples) throw std::runtime_error("too few samples in " + name + ".cfl");
  for (std::size_t i = 0; i < a.re.size(); ++i) {
    a.re[i] = pairs[2 * i];
    a.im[i] = pairs[2 * i + 1];
  }
  return a;
}

/// Writes NAME.hdr and NAME.cfl. Throws std::runtime_error where that fails.
inline void write_cfl(const std::string& name, const ComplexArray& a) {
  std::ofstream header(name + ".hdr"), samples(name + ".cfl", std::ios::binary);
  header << "# Dimensions\n";
  for (int n : a.dims) header << n << ' ';
  header << '\n';
  for (std::size_t i = 0; i < a.re.size(); ++i) {
    const float pair[] = {a.re[i], a.im[i]};
    samples.write(reinterpret_cast<const char*>(pair), sizeof pair);
  }
  if (!header.flush() || !samples.flush()) throw std::runtime_error("cannot write " + name);
}

/// Folder with measured data: CTESSEL_DATA, or ../shared/data beside the checkout; empty if absent.
inline std::string data_folder() {
  const char* given = std::getenv("CTESSEL_DATA");
  const std::filesystem::path folder = given ? given : CTESSEL_CHECKOUT "/../shared/data";
  return std::filesystem::is_directory(folder) ? folder.string() : std::string();
}
