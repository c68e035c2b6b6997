// Sine and cosine of many angles at once, the bits of the maths library.
//
// The GNU C library works single-precision sines out in double: a reduction by multiples of pi / 2 and a
// polynomial, rounded once at the end. Lanes do the same here, with the same coefficients: those of
// sinf and cosf in Arm Optimized Routines, copyright (c) 2018 Arm Limited, MIT licence, whose text is in
// NOTICE. The library's builds differ in whether
// products are fused into sums, and so by a few units of a double: where that could tip the last
// rounding, or where the reduction has cancelled most digits, the library itself is asked. A
// library with other polynomials is recognised by its values at a few angles and then does all the work.
#include "block_sincos.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <iterator>

#include "dispatch.h"
#include "legendre.h"

namespace {

using ctessel::kLanes;

struct Pair {
  double sine, cosine;
};

constexpr double kHalfPi = 0x1.921FB54442D18p0;
constexpr double kPerRadian = 0x1.45F306DC9C883p+23;  // times 2^24
constexpr float kLargest = 100;                       // the reduction's error is known up to here
constexpr float kSmallest = 1e-3f;                    // below, cancelled digits could show
constexpr std::uint32_t kMargin = 1u << 16;           // in units of a double's last place

[[gnu::always_inline]] inline Pair polynomials(float angle) {
  const double x = angle;
  const int quarter = (static_cast<int>(x * kPerRadian) + 0x800000) >> 24;  // nearest
  const double y = x - quarter * kHalfPi, y2 = y * y, y3 = y * y2, y4 = y2 * y2;
  const double s = y + y3 * -0x1.555545995a603p-3 +
                   y3 * y2 * (0x1.1107605230bc4p-7 + y2 * -0x1.994eb3774cf24p-13);
  const double c = 1.0 + y2 * -0x1.ffffffd0c621cp-2 + y4 * 0x1.55553e1068f19p-5 +
                   y4 * y2 * (-0x1.6c087e89a359dp-10 + y2 * 0x1.99343027bf8c3p-16);
  const double sine = quarter & 1 ? c : s, cosine = quarter & 1 ? s : c;
  return {quarter & 2 ? -sine : sine, (quarter + 1) & 2 ? -cosine : cosine};
}

/// Whether v, off by at most kMargin, might round to another float. The product of the reduction is
/// off by 2^-47 at most, which is half of kMargin at kSmallest.
[[gnu::always_inline]] inline bool in_doubt(double v) {
  const auto dropped = static_cast<std::uint32_t>(std::bit_cast<std::uint64_t>(v)) << 3;
  const bool near_tie = dropped - (0x80000000u - 8 * kMargin) <= 16 * kMargin;
  return near_tie | (std::abs(v) < kSmallest);
}

/// Returns whether any lane is in doubt.
CTESSEL_CLONES
bool by_polynomials(const float* angle, float* sine, float* cosine, std::int32_t* doubt) {
  std::int32_t any = 0;
  for (int j = 0; j < kLanes; ++j) {
    const bool inside = angle[j] >= 0 && angle[j] < kLargest;
    const Pair p = polynomials(inside ? angle[j] : 0.0f);  // a sine of 0 is in doubt
    sine[j] = static_cast<float>(p.sine);
    cosine[j] = static_cast<float>(p.cosine);
    const bool doubtful_sine = in_doubt(p.sine), doubtful_cosine = in_doubt(p.cosine);
    doubt[j] = doubtful_sine | doubtful_cosine;
    any |= doubt[j];
  }
  return any != 0;
}

/// Whether the library uses the same polynomials, by angles at which they miss the nearest float.
bool library_agrees() {
  const float angles[] = {0x1.8c40b2p+5f, 0x1.ff64acp+4f, 0x1.5b5edp+4f,  0x1.ebb5b2p+1f,
                          0x1.361fb8p+5f, 0x1.69d24cp+0f, 0x1.6eecf4p+5f, 0x1.516ab8p+5f,
                          0x1.718da4p+4f, 0x1.75362cp+4f, 0x1.e3cbaap+4f, 0x1.c90ffap+4f};
  return std::all_of(std::begin(angles), std::end(angles), [](float angle) {
    volatile float asked = angle;  // or the compiler would answer in the library's place
    const Pair p = polynomials(angle);
    return static_cast<float>(p.sine) == std::sin(asked) &&
           static_cast<float>(p.cosine) == std::cos(asked);
  });
}

}  // namespace

namespace ctessel {

void block_sincos(const float* angle, float* sine, float* cosine) {
  static const bool agrees = library_agrees();
  std::int32_t doubt[kLanes];
  if (agrees && !by_polynomials(angle, sine, cosine, doubt)) return;
  for (int j = 0; j < kLanes; ++j) {
    if (agrees && !doubt[j]) continue;
    sine[j] = std::sin(angle[j]);
    cosine[j] = std::cos(angle[j]);
  }
}

}  // namespace ctessel
