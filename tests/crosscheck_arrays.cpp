// One routine applied to arrays in BART's file format, for comparison with other programs.
//
//   crosscheck_arrays random OUT EXTENT...     |  shift DIM IN OUT  |  ishift DIM IN OUT
//   crosscheck_arrays pad NX NY NZ IN OUT      |  sos DIM IN OUT    |  pcsos DIM IN OUT

#include <cTessel.h>

#include <cstdio>
#include <random>

#include "../examples/cfl.h"

namespace {

ComplexArray random_array(const std::vector<int>& dims) {
  ComplexArray a(dims);
  std::mt19937 engine(1);
  std::uniform_real_distribution<float> uniform(-1, 1);
  for (std::vector<float>* part : {&a.re, &a.im}) {
    for (float& v : *part) v = uniform(engine);
  }
  return a;
}

ComplexArray shifted(ComplexArray a, int dim, bool forward) {
  (forward ? TS_fftshift : TS_ifftshift)(a.re.data(), a.im.data(), a.dims.data(), a.ndims(), dim);
  return a;
}

ComplexArray padded(ComplexArray a, const int* to) {
  std::vector<int> dims = a.dims;
  std::copy_n(to, 3, dims.begin());
  ComplexArray out(dims);
  TS_zero_pad(a.re.data(), a.im.data(), a.ndims(), a.dims.data(), to[0], to[1], to[2],
              out.re.data(), out.im.data());
  return out;
}

ComplexArray combined(ComplexArray a, int coildim, bool phase) {
  a.dims.resize(std::max<std::size_t>(a.dims.size(), 10), 1);
  std::vector<int> one = a.dims;
  one[static_cast<std::size_t>(coildim - 1)] = 1;
  ComplexArray out(one);
  if (phase) {
    TS_perform_pcsos(a.re.data(), a.im.data(), a.ndims(), a.dims.data(), coildim, out.re.data(),
                     out.im.data(), one.data());
  } else {
    TS_perform_sos(a.re.data(), a.im.data(), a.ndims(), a.dims.data(), coildim, out.re.data(),
                   one.data());
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> args(argv + 1, argv + argc);
  const std::string& task = args.at(0);
  std::vector<int> numbers;
  for (std::size_t i = task == "random" ? 2 : 1; i < args.size(); ++i) {
    if (std::isdigit(static_cast<unsigned char>(args[i][0]))) numbers.push_back(std::stoi(args[i]));
  }
  if (task == "random") {
    write_cfl(args.at(1), random_array(numbers));
    return 0;
  }
  ComplexArray in = read_cfl(args.at(args.size() - 2));
  const int dim = numbers.at(0);
  write_cfl(args.back(), task == "pad"      ? padded(std::move(in), numbers.data())
                         : task == "sos"    ? combined(std::move(in), dim, false)
                         : task == "pcsos"  ? combined(std::move(in), dim, true)
                         : task == "shift"  ? shifted(std::move(in), dim, true)
                         : task == "ishift" ? shifted(std::move(in), dim, false)
                                            : throw std::runtime_error("no task " + task));
} catch (const std::exception& e) {
  std::fprintf(stderr, "crosscheck_arrays: %s\n", e.what());
  return 1;
}
