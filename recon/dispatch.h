// Versions of a hot loop for wider vectors, chosen when the library is loaded.
//
// CTESSEL_CLONES before a function makes the compiler build it for AVX-512, AVX2 and the baseline.
// The bits are the same from each: products are not fused (the build passes -ffp-contract=off with
// CTESSEL_DISPATCH) and sums keep their order. Put it on functions without OpenMP parallel regions;
// their outlined bodies would stay at the baseline.
// CTESSEL_BY_WIDTH defines a function whose body is a template over the doubles in a vector, for
// code that is written in vectors: one wider than the processor's would be split into single
// numbers.
// The sanitizers' runtimes are not up yet when the choice is made, so they get the baseline.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CTESSEL_SANITIZED
#elif defined(__has_feature)  // also where it always says no: Eigen defines it for gcc
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CTESSEL_SANITIZED
#endif
#endif

// NOLINTBEGIN(bugprone-macro-parentheses): declarations and lists of arguments cannot have more.
#if defined(CTESSEL_DISPATCH) && defined(__x86_64__) && defined(__GNUC__) && \
    !defined(CTESSEL_SANITIZED)
#define CTESSEL_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#define CTESSEL_BY_WIDTH(declaration, body, arguments)                                 \
  _Pragma("GCC diagnostic push")                                                       \
      _Pragma("GCC diagnostic ignored \"-Wunused-function\"") /* clang: of versions */ \
      [[gnu::target("avx512f")]] declaration {                                         \
    return body<8> arguments;                                                          \
  }                                                                                    \
  [[gnu::target("avx2")]] declaration { return body<4> arguments; }                    \
  [[gnu::target("default")]] declaration { return body<2> arguments; }                 \
  _Pragma("GCC diagnostic pop")
#else
#define CTESSEL_CLONES
#define CTESSEL_BY_WIDTH(declaration, body, arguments) \
  declaration { return body<2> arguments; }
#endif
// NOLINTEND(bugprone-macro-parentheses)
