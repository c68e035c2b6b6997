// Runs a target on random bytes, on 1, 2, 3 and 7 threads: what a fuzzer would find soon is
// found by every compiler, at every word size.
//
//   random_NAME [RUNS [SEED]]

#include <omp.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::stoi(argv[1]) : 1000;
  const auto seed = argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : std::random_device{}();
  std::printf("%d runs, seed %u\n", runs, seed);
  std::fflush(stdout);
  std::mt19937 engine(seed);
  for (int run = 0; run < runs; ++run) {
    std::vector<std::uint8_t> bytes(16 + engine() % 1024);
    for (std::uint8_t& b : bytes) b = static_cast<std::uint8_t>(engine());
    constexpr int kThreads[] = {1, 2, 3, 7};
    omp_set_num_threads(kThreads[run * 4LL / runs]);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  return 0;
}
