// operator new is this file's, and malloc goes through the linker's wrapper.
#include "memory.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> held{0}, highest{0};

void* count(void* p) {
  const std::size_t all = held += malloc_usable_size(p);
  std::size_t before = highest;
  while (all > before && !highest.compare_exchange_weak(before, all)) {
  }
  return p;
}

void* taken(void* p) {
  if (!p) throw std::bad_alloc();
  return p;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void __real_free(void*);
void* __wrap_malloc(std::size_t n) { return count(__real_malloc(n)); }
void* __wrap_calloc(std::size_t n, std::size_t size) { return count(__real_calloc(n, size)); }
void __wrap_free(void* p) {
  held -= malloc_usable_size(p);
  __real_free(p);
}
}

void* operator new(std::size_t n) { return taken(__wrap_malloc(n > 0 ? n : 1)); }
void* operator new(std::size_t n, std::align_val_t to) {
  const auto line = static_cast<std::size_t>(to);
  return taken(count(std::aligned_alloc(line, (n + line - 1) / line * line)));
}
void operator delete(void* p) noexcept { __wrap_free(p); }
void operator delete(void* p, std::size_t) noexcept { __wrap_free(p); }
void operator delete(void* p, std::align_val_t) noexcept { __wrap_free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { __wrap_free(p); }

std::size_t bench::peak_memory(const std::function<void()>& call) {
  const std::size_t before = held;
  highest = before;
  call();
  return highest - before;
}
