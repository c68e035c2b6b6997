// Every kernel, called with all offsets of the stack that the 32-bit system interface allows: it asks
// for multiples of 4 bytes, compilers of today count on 16. This file is compiled for 4.
#include <cstdio>

#include "every_kernel.h"

namespace {

/// Calls with the stack lower by `bytes`.
[[gnu::noinline]] every::Floats result_at(unsigned bytes, const every::Kernel& kernel) {
  volatile char* below = static_cast<char*>(__builtin_alloca_with_align(bytes, 32));
  below[0] = 0;
  return every::result(kernel);
}

}  // namespace

int main() {
  std::vector<every::Kernel> kernels = every::kernels();
  for (const every::Kernel& k : every::gateway_kernels()) kernels.push_back(k);
  int failures = 0;
  for (const every::Kernel& k : kernels) {
    const every::Floats first = result_at(4, k);
    for (unsigned bytes : {8u, 12u, 16u}) {
      if (result_at(bytes, k) == first) continue;
      std::printf("FAILED: %s with the stack %u bytes lower\n", k.name.c_str(), bytes);
      ++failures;
    }
  }
  return failures != 0;
}
