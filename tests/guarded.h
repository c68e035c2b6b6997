// Guard zones and bit patterns, for test programs of any kind.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

/// Bit patterns, so that NaNs and signed zeros compare as what they are.
inline std::vector<std::uint32_t> bits(const std::vector<float>& v) {
  std::vector<std::uint32_t> out(v.size());
  if (!v.empty()) std::memcpy(out.data(), v.data(), v.size() * sizeof(float));
  return out;
}

/// Array with guard zones on both sides, which must keep their pattern.
template <class T>
class Guarded {
 public:
  explicit Guarded(std::vector<T> content) : size_(content.size()), store_(size_ + 2 * kGuard) {
    std::memset(static_cast<void*>(store_.data()), kPattern, store_.size() * sizeof(T));
    std::copy(content.begin(), content.end(), data());
  }
  Guarded(std::size_t n, T value) : Guarded(std::vector<T>(n, value)) {}
  T* data() { return store_.data() + kGuard; }
  std::vector<T> values() const {
    return {store_.begin() + kGuard, store_.begin() + kGuard + static_cast<std::ptrdiff_t>(size_)};
  }
  bool intact() const {
    const auto* bytes = reinterpret_cast<const unsigned char*>(store_.data());
    const std::size_t zone = kGuard * sizeof(T), end = store_.size() * sizeof(T);
    for (std::size_t i = 0; i < zone; ++i) {
      if (bytes[i] != kPattern || bytes[end - 1 - i] != kPattern) return false;
    }
    return true;
  }

 private:
  static constexpr std::ptrdiff_t kGuard = 64;
  static constexpr unsigned char kPattern = 0xA5;
  std::size_t size_;
  std::vector<T> store_;
};
