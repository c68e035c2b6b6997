// Versions of a hot loop for wider vectors, chosen when the library is loaded.
//
// CTESSEL_CLONES before a function makes the compiler build it for AVX-512, AVX2 and the baseline.
// The bits are the same from each: products are not fused (the build passes -ffp-contract=off with
// CTESSEL_DISPATCH) and sums keep their order. Put it on functions without OpenMP parallel regions;
// their outlined bodies would stay at the baseline. CTESSEL_TARGET forces one version, for tests.
// The sanitizers' runtimes are not up yet when the choice is made, so they get the baseline.
#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CTESSEL_SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CTESSEL_SANITIZED
#endif

#if defined(CTESSEL_SANITIZED)
#define CTESSEL_CLONES
#elif defined(CTESSEL_TARGET)
#define CTESSEL_CLONES __attribute__((target(CTESSEL_TARGET)))
#elif defined(CTESSEL_DISPATCH) && defined(__x86_64__) && defined(__GNUC__)
#define CTESSEL_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define CTESSEL_CLONES
#endif
