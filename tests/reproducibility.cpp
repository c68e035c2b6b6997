// Whether builds and thread counts agree on every kernel's bits.
//
//   reproducibility write FILE             every kernel's results on 1, 2, 3 and 7 threads
//   reproducibility compare FILE FILE...   a table: the first file's results against the others'
//   reproducibility versions               versions of the hot loops that can run, the best last
//
// tools/reproducibility.sh makes the table of docs/numerics.md with it.
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "every_kernel.h"

namespace {

struct Result {
  std::string name;
  bool threads_agree;
  every::Floats values;
};

std::vector<every::Kernel> all_kernels() {
  std::vector<every::Kernel> kernels = every::kernels();
  kernels.push_back(every::sense_kernel("TS_sense_recon, maps of the image's columns", 27));
  for (const every::Kernel& k : every::gateway_kernels()) kernels.push_back(k);
  return kernels;
}

void write(const char* path) {
  std::ofstream file(path);
  for (const every::Kernel& k : all_kernels()) {
    std::vector<std::uint32_t> first;
    bool agree = true;
    for (int threads : {1, 2, 3, 7}) {
      omp_set_num_threads(threads);
      const auto now = bits(every::result(k));
      if (first.empty()) first = now;
      agree &= now == first;
    }
    file << k.name << '\n' << agree << ' ' << first.size() << '\n';
    for (std::uint32_t b : first) file << b << '\n';
  }
}

std::vector<Result> read(const char* path) {
  std::ifstream file(path);
  std::vector<Result> results;
  for (std::string name; std::getline(file, name);) {
    bool agree = false;
    std::size_t n = 0;
    file >> agree >> n;
    every::Floats values(n);
    for (float& v : values) {
      std::uint32_t b = 0;
      file >> b;
      std::memcpy(&v, &b, sizeof v);
    }
    file.ignore();
    results.push_back({name, agree, values});
  }
  return results;
}

/// "same", or the share of values that differ and the largest difference over the largest value.
std::string difference(const every::Floats& a, const every::Floats& b) {
  std::size_t differ = 0;
  double largest = 0, worst = 0;
  const auto x = bits(a), y = bits(b);
  for (std::size_t i = 0; i < a.size(); ++i) {
    differ += x[i] != y[i];
    largest = std::max<double>(largest, std::abs(a[i]));
    worst = std::max<double>(worst, std::abs(static_cast<double>(a[i]) - b[i]));
  }
  if (differ == 0) return "same";
  char text[64];
  std::snprintf(text, sizeof text, "%.2g %% differ, by %.1e", 100.0 * differ / a.size(),
                worst / largest);
  return text;
}

void compare(int files, char** paths) {
  const std::vector<Result> reference = read(paths[0]);
  for (std::size_t k = 0; k < reference.size(); ++k) {
    std::cout << "| " << reference[k].name << " | ";
    bool agree = reference[k].threads_agree;
    std::string row;
    for (int f = 1; f < files; ++f) {
      const Result other = read(paths[f]).at(k);
      agree &= other.threads_agree;
      row += " | " + difference(reference[k].values, other.values);
    }
    std::cout << (agree ? "same" : "DIFFER") << row << " |\n";
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "write" && argc == 3) {
    write(argv[2]);
  } else if (what == "versions") {
#ifdef __x86_64__
    std::cout << (__builtin_cpu_supports("avx2") ? "avx2" : "")
              << (__builtin_cpu_supports("avx512f") ? " avx512f" : "") << '\n';
#endif
  } else if (what == "compare" && argc > 2) {
    compare(argc - 2, argv + 2);
  } else {
    return 2;
  }
  return 0;
}
