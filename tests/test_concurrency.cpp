// Kernels that run at the same time: from two host threads, and inside a caller's parallel region.
#include <omp.h>

#include <thread>

#include "every_kernel.h"
#include "support.h"

namespace {

std::vector<std::vector<std::uint32_t>> all_results() {
  std::vector<std::vector<std::uint32_t>> all;
  for (const every::Kernel& k : every::kernels()) all.push_back(bits(every::result(k)));
  return all;
}

}  // namespace

TEST_CASE("Every kernel gives the same bits on every thread count", "[threads]") {
  for (const every::Kernel& k : every::kernels()) {
    CAPTURE(k.name);
    std::vector<float> first;
    with_thread_counts([&] {
      every::Outputs out(k);
      k.call(out.pointers);
      if (first.empty()) first = out.values();
      CHECK(differences(out.values(), first) == "");
      CHECK(out.intact());
    });
  }
}

TEST_CASE("Two host threads at once get what each gets alone", "[threads]") {
  const auto alone = all_results();
  bool same[2] = {true, true};
  const auto work = [&](int t) {
    omp_set_num_threads(2 + t);
    for (int run = 0; run < 5; ++run) same[t] &= all_results() == alone;
  };
  std::thread other(work, 1);
  work(0);
  other.join();
  CHECK((same[0] && same[1]));
}

// Long enough that threads of one processor interrupt each other in the middle of a block.
TEST_CASE("Threads share no work space", "[threads]") {
  const ctessel::Extents in = {96, 96, 24, 4, 1, 1, 1, 1, 1, 2},
                         out = {96, 96, 24, 1, 1, 1, 1, 1, 1, 2};
  const auto re = every::noise(1769472, 1), im = every::noise(1769472, 2);
  const auto combined = [&](int threads) {
    omp_set_num_threads(threads);
    std::vector<float> a(442368), b(a);
    ctessel::pcsos(ctessel::ConstSamples::parts(re.data(), im.data(), in), ctessel::Dim::coil,
                   ctessel::Samples::parts(a.data(), b.data(), out));
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  const auto alone = combined(1);
  CHECK(differences(combined(7), alone) == "");
}

TEST_CASE("Inside a caller's parallel region the results are the same", "[threads]") {
  const auto alone = all_results();
  for (int levels : {1, 2}) {
    omp_set_max_active_levels(levels);
    int right = 0;
#pragma omp parallel num_threads(3) reduction(+ : right)
    right += all_results() == alone;
    CHECK(right == 3);
  }
  omp_set_max_active_levels(1);
}
