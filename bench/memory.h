// How much a call allocates at its highest point.
#pragma once

#include <cstddef>
#include <functional>

namespace bench {

/// Most bytes held at once during one call, over what was held before it. Counts operator new and
/// malloc of this program, Eigen's included, on every thread; the stack and the runtime libraries'
/// own bookkeeping are not counted.
std::size_t peak_memory(const std::function<void()>& call);

}  // namespace bench
