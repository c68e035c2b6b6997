// What the machine could do at best: the yardsticks that no routine can beat but by moving less.
#pragma once

#include <cstddef>

#include "ratio.h"

namespace bench {

enum class Kind { kNone, kCopy, kUpdate, kRead, kWrite, kSingle, kDouble };

/// The least that a routine has to do. Bytes for kCopy (each read in one array and written in
/// another), kUpdate (read and written in place), kRead and kWrite; multiplications followed by an
/// addition for kSingle and kDouble.
struct Limit {
  Kind kind = Kind::kNone;
  double amount = 0;
};

const char* name(Kind kind);

/// A side that does a share of that work, and how often it would have to, for the whole of it.
/// Large arrays are represented by a part that is larger than the caches.
struct Yardstick {
  Side side;
  double times;
};
Yardstick yardstick(const Limit& limit);

}  // namespace bench
