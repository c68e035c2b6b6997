// Strided views of NumPy arrays, and the copies between them and the separate parts that the
// kernels work on.
//
// A view keeps the axes in the order in which the user indexes them (x, y, z, coil, ...), whatever
// their order in memory. Parts are float arrays in the kernels' order: first axis fastest, no gaps.
#pragma once

#include <complex>
#include <cstddef>
#include <memory>
#include <vector>

namespace ctessel_python {

struct View {
  char* data = nullptr;
  std::vector<std::ptrdiff_t> shape, strides;  // strides in bytes
  bool complex = true;                         // pairs of floats, or single floats

  int ndim() const { return static_cast<int>(shape.size()); }
  std::ptrdiff_t extent(int d) const { return d < ndim() ? shape[static_cast<std::size_t>(d)] : 1; }
  std::ptrdiff_t item() const { return complex ? 8 : 4; }
  std::ptrdiff_t size() const;
  bool first_axis_fastest() const;  // and without gaps

  /// The entries first .. first + count - 1 of one axis.
  View slice(int axis, std::ptrdiff_t first, std::ptrdiff_t count) const;

  /// The same samples with further axes of extent 1 at the end, up to n axes.
  View with_axes(int n) const;

  /// The same samples with an axis of extent 1 put in, or taken out.
  View with_axis(int axis) const;
  View without_axis(int axis) const;

  /// Axes from the fastest to the slowest in memory, and the view with its axes in such an order.
  std::vector<int> memory_order() const;
  View permuted(const std::vector<int>& order) const;

  /// The real parts (0) or imaginary parts (1) of pairs, as floats with gaps.
  View part(int which) const;
};

/// View of memory without gaps, first axis fastest.
View packed(void* data, const std::vector<std::ptrdiff_t>& shape, bool complex);

/// Pairs to parts and back. Either may run on a team of threads; inside one it stays on its thread.
void split(const View& from, float* re, float* im);
void join(const float* re, const float* im, const View& to);

/// Copies samples between views of the same shape and kind.
void copy(const View& from, const View& to);

/// Parts of a view in the kernels' order. Real samples that already are in it are not copied.
class Parts {
 public:
  explicit Parts(const View& from);
  float* re() const { return re_; }
  float* im() const { return im_.get(); }  // null for real samples

 private:
  std::unique_ptr<float[]> own_, im_;
  float* re_;
};

/// Memory without gaps, first axis fastest, that holds the samples of a view: the view's own where
/// it is like that, otherwise a copy, which `put_back` copies back.
class Packed {
 public:
  enum class Fill { kSamples, kZeros };
  explicit Packed(const View& of, Fill fill = Fill::kSamples);
  float* floats() const { return reinterpret_cast<float*>(view_.data); }
  const View& view() const { return view_; }
  void put_back() const;

 private:
  View of_, view_;
  std::unique_ptr<float[]> own_;
};

/// Views that are cut alike, so that each piece of one belongs to the same piece of the others.
using Views = std::vector<View>;

/// Cuts views into pieces whose first view holds at most `limit` bytes, as far as the axes allow.
/// Axes in `whole` are never cut; all others have the same extents in every view. Cuts go through
/// the axis that is slowest in the first view's memory.
std::vector<Views> cut(const Views& views, const std::vector<int>& whole, std::ptrdiff_t limit);

/// Bytes of complex samples in a piece: small enough for its parts to stay in a core's cache.
constexpr std::ptrdiff_t kPiece = std::ptrdiff_t{1} << 18;

}  // namespace ctessel_python
