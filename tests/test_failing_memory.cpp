// What happens when memory runs out at the first, second, ... request of a routine.
//
// operator new is this file's and malloc, which Eigen asks, goes through the linker's wrapper; both
// count. Each attempt runs in a child process, because a request that fails on a team's thread ends
// the process.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <map>
#include <new>

#include "error_texts.h"
#include "every_kernel.h"
#include "support.h"

namespace {

std::atomic<long> live{0}, until_failure{0};  // 0: none is to fail
bool* failed_on_a_team = nullptr;             // shared with the parent process
std::atomic<unsigned> asked{0};               // threads of a team that asked for memory, a bit each

bool to_fail() {
  if (omp_get_level() > 0) asked |= 1u << omp_get_thread_num();
  if (until_failure == 0 || --until_failure != 0) return false;
  *failed_on_a_team = omp_get_level() > 0;
  return true;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void __real_free(void*);
void* __wrap_malloc(std::size_t n) {
  if (to_fail()) return nullptr;
  ++live;
  return __real_malloc(n);
}
// The compiler turns a malloc whose memory is then cleared into this.
void* __wrap_calloc(std::size_t n, std::size_t size) {
  if (to_fail()) return nullptr;
  ++live;
  return __real_calloc(n, size);
}
void __wrap_free(void* p) {
  if (p) --live;
  __real_free(p);
}
}

void* operator new(std::size_t n) {
  if (void* p = __wrap_malloc(n > 0 ? n : 1)) return p;
  throw std::bad_alloc();
}
// Temporary buffers of the standard library ask for it; the sanitizer's own would count as freed alone.
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
  return __wrap_malloc(n > 0 ? n : 1);
}
void* operator new(std::size_t n, std::align_val_t to) {
  const auto line = static_cast<std::size_t>(to);
  if (to_fail()) throw std::bad_alloc();
  ++live;
  if (void* p = std::aligned_alloc(line, (n + line - 1) / line * line)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { __wrap_free(p); }
void operator delete(void* p, std::size_t) noexcept { __wrap_free(p); }
void operator delete(void* p, std::align_val_t) noexcept { __wrap_free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { __wrap_free(p); }

namespace {

enum Outcome { kReturned, kThrew, kWrote, kLeaked, kAborted, kElse };

/// Every output holds its value from before the call or that of an undisturbed one.
bool allowed(const every::Kernel& k, const every::Outputs& out, const every::Floats& want) {
  const auto before = bits(every::Outputs(k).values()), after = bits(want),
             got = bits(out.values());
  for (std::size_t i = 0; i < got.size(); ++i) {
    if (got[i] != before[i] && got[i] != after[i]) return false;
  }
  return out.intact();
}

Outcome attempt_here(const every::Kernel& k, const every::Floats& want, long request) {
  every::Outputs out(k);
  const long before = live;
  until_failure = request;
  try {
    k.call(out.pointers);
    until_failure = 0;
    return kReturned;
  } catch (const std::bad_alloc&) {
    until_failure = 0;
  }
  if (live != before) return kLeaked;
  return allowed(k, out, want) ? kThrew : kWrote;
}

Outcome attempt(const every::Kernel& k, const every::Floats& want, long request, int threads) {
  const pid_t child = fork();
  if (child == 0) {
    std::freopen("/dev/null", "w", stderr);  // the runtime names the exception that ended it
    std::signal(SIGABRT, SIG_DFL);
    omp_set_num_threads(threads);
    _exit(attempt_here(k, want, request));
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) return WTERMSIG(status) == SIGABRT ? kAborted : kElse;
  return static_cast<Outcome>(WEXITSTATUS(status));
}

}  // namespace

TEST_CASE("std::bad_alloc reaches the caller, without a leak; on a team it ends the process",
          "[memory]") {
  failed_on_a_team = static_cast<bool*>(
      mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  int thrown = 0, aborted = 0;
  std::vector<every::Kernel> kernels = every::kernels();
  for (const every::Kernel& k : every::gateway_kernels()) kernels.push_back(k);
  omp_set_num_threads(1);  // no team here: it would not survive the forks
  for (const every::Kernel& k : kernels) {
    const every::Floats want = every::result(k);
    for (int threads : {1, 2}) {
      CAPTURE(k.name, threads);
      for (long request = 1;; ++request) {
        CAPTURE(request);
        const Outcome outcome = attempt(k, want, request, threads);
        if (outcome == kReturned) break;
        REQUIRE(outcome == (*failed_on_a_team ? kAborted : kThrew));
        ++(outcome == kThrew ? thrown : aborted);
      }
    }
  }
  CHECK((thrown > 50 && aborted > 10));  // requests of both kinds were met
}

TEST_CASE("Every error text leaves by exception thousands of times and leaves nothing behind",
          "[memory]") {
  const host::Array filter = host::text("filter"), multiply = host::text("multiply");
  for (host::Layout layout : {host::Layout::kParts, host::Layout::kPairs}) {
    host::state().layout = layout;
    const every::Floats six = every::noise(6, 1);
    const std::vector<double> eight(8, 1.0);
    std::map<char, host::Array> arrays = {{'d', host::single({2, 3}, six, six, layout)},
                                          {'v', host::single({3, 2, 1}, six, six, layout)},
                                          {'e', host::single({0, 2}, {}, {}, layout)},
                                          {'D', host::doubles({2, 3}, eight)},
                                          {'r', host::doubles({1, 2}, eight)},
                                          {'t', host::doubles({1, 2, 2}, eight)},
                                          {'s', host::doubles({2, 2}, eight)},
                                          {'l', host::doubles({1, 3}, eight)},
                                          {'c', host::doubles({1, 2}, eight)}};
    arrays.at('c').complex = true;
    for (const ErrorCase& c : kErrorCases) {
      CAPTURE(c.operation, c.inputs);
      std::vector<const host::Array*> in;
      if (!c.operation.empty()) in.push_back(c.operation == "filter" ? &filter : &multiply);
      for (char letter : c.inputs) in.push_back(&arrays.at(letter));
      host::Array* out[1] = {nullptr};
      const long before = live;
      int right = 0;
      for (int run = 0; run < 2000; ++run) {
        try {
          mexFunction(1, out, static_cast<int>(in.size()), in.data());
        } catch (const host::Error& e) {
          right += e.text == c.text;
        }
      }
      CHECK(right == 2000);
      CHECK((live == before && host::state().created.empty()));
    }
  }
}

TEST_CASE("The combination with phase puts every thread to work, however few the images",
          "[threads]") {
  // Threads that have voxels, and no others, allocate their sums.
  const int before = omp_get_max_threads();
  for (const std::vector<int>& dims :
       {std::vector{40, 30, 1, 3, 1, 1, 1, 1, 1, 5}, {7, 1, 1, 2, 1, 1, 1, 1, 1, 1}}) {
    std::vector<int> out_dims = dims;
    out_dims[3] = 1;
    std::vector<float> re(18000, 1.0f), im(18000, 2.0f), out_re(6000), out_im(6000);
    omp_set_num_threads(4);
    asked = 0;
    TS_perform_pcsos(re.data(), im.data(), 10, const_cast<int*>(dims.data()), 4, out_re.data(),
                     out_im.data(), out_dims.data());
    CHECK(asked == 0b1111);
  }
  omp_set_num_threads(before);
}
