// Lines of k-space: which samples of an acquisition count, and how they get to their places.
#pragma once

#include <ismrmrd/ismrmrd.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <bit>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace ctessel_lines {

namespace py = pybind11;
using std::ptrdiff_t;
using Sample = std::complex<float>;
using Samples = py::array_t<Sample, py::array::f_style>;
using Indices = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>;
using Flags = py::array_t<bool, py::array::c_style | py::array::forcecast>;
using Bytes = py::array_t<std::uint8_t, py::array::c_style>;

constexpr std::size_t kHeadBytes = sizeof(ISMRMRD::ISMRMRD_AcquisitionHeader);
static_assert(kHeadBytes == 340, "HEADER, of the Python package, describes this layout");

/// The samples of a line that count, in the order of k-space: coil after coil, one every `pitch` samples.
struct Line {
  const Sample* first;
  ptrdiff_t samples, coils, pitch;
  bool reversed;
};

/// Of a sample's parts. Squares of larger ones, summed over lines and coils, leave single precision, and
/// where that happens inside of maps or weights the image need not show it.
constexpr float kLargest = 1e15f;

inline bool in_range(const Sample* samples, ptrdiff_t n) {
  const float* parts = reinterpret_cast<const float*>(samples);
  constexpr std::uint32_t largest = std::bit_cast<std::uint32_t>(kLargest);
  std::uint32_t beyond = 0;  // magnitudes have the order of their bits, NaN and infinity above all
  for (ptrdiff_t i = 0; i < 2 * n; ++i)
    beyond |= (std::bit_cast<std::uint32_t>(parts[i]) & 0x7FFFFFFF) > largest;
  return beyond == 0;
}

/// An array whose first axis is that of the readout, as lines that start anywhere in it.
class Target {
 public:
  Target(py::array& array, unsigned coil_axis, unsigned shift)
      : first_(static_cast<Sample*>(array.mutable_data())),
        extent_(array.shape(0)),
        coils_(array.shape(coil_axis)),
        coil_step_(array.strides(coil_axis) / kItem) {
    if (array.size() == 0 || coil_axis == 0 || (array.strides(0) != kItem && extent_ > 1))
      throw py::value_error("expected samples of a readout side by side");
    shift_ = shift % extent_;
    for (unsigned d = 1; d < array.ndim(); ++d)
      if (d != coil_axis) last_ += (array.shape(d) - 1) * (array.strides(d) / kItem);
  }

  /// The line that starts `offset` samples after the array's first. Its first sample goes `x` samples
  /// on, all are then shifted cyclically.
  void put(const Line& line, ptrdiff_t offset, ptrdiff_t x, bool add) const {
    const bool inside = x >= 0 && x <= extent_ - line.samples && offset >= 0 && offset <= last_;
    if (line.coils != coils_ || !inside)
      throw std::runtime_error("a line does not fit the place that was found for it");
    const ptrdiff_t start = (x + shift_) % extent_, head = std::min(line.samples, extent_ - start);
    for (ptrdiff_t c = 0; c < coils_; ++c) {
      Sample* to = first_ + offset + c * coil_step_;
      put_part(line, c, 0, head, to + start, add);
      put_part(line, c, head, line.samples - head, to, add);
    }
  }

 private:
  static constexpr ptrdiff_t kItem = sizeof(Sample);

  static void put_part(const Line& line, ptrdiff_t coil, ptrdiff_t first, ptrdiff_t n, Sample* to,
                       bool add) {
    const Sample* from = line.first + coil * line.pitch;
    const ptrdiff_t last = line.samples - 1 - first;
    if (line.reversed) {
      for (ptrdiff_t k = 0; k < n; ++k) to[k] = add ? to[k] + from[last - k] : from[last - k];
    } else if (add) {
      for (ptrdiff_t k = 0; k < n; ++k) to[k] += from[first + k];
    } else {  // the sums above would read fresh memory first, which costs as much again
      std::copy_n(from + first, n, to);
    }
  }

  Sample* first_;
  ptrdiff_t extent_, coils_, coil_step_, shift_, last_ = 0;  // last: of the lines' starts
};

inline ISMRMRD::ISMRMRD_AcquisitionHeader head_of(const std::uint8_t* bytes) {
  ISMRMRD::ISMRMRD_AcquisitionHeader head;
  std::memcpy(&head, bytes, kHeadBytes);
  return head;
}

/// What counts of acquisition `number`, whose samples are `all`; refused where a sample is out of range.
inline Line line_of(const ISMRMRD::ISMRMRD_AcquisitionHeader& h, const Sample* all,
                    std::size_t number) {
  const ptrdiff_t coils = h.active_channels, samples = coils > 0 ? h.number_of_samples : 0;
  const ptrdiff_t before = std::min<ptrdiff_t>(h.discard_pre, samples);
  const ptrdiff_t kept = std::max<ptrdiff_t>(samples - before - h.discard_post, 0);
  for (ptrdiff_t c = 0; c < coils; ++c)
    if (!in_range(all + c * samples + before, kept))
      throw std::runtime_error("acquisition " + std::to_string(number) +
                               " holds values that are not finite or above 1e15");
  return {all + before, kept, coils, samples,
          ISMRMRD::ismrmrd_is_flag_set(h.flags, ISMRMRD::ISMRMRD_ACQ_IS_REVERSE)};
}

/// The samples that count of an acquisition, (sample, coil), in the order of k-space.
template <class Acquisitions>
Samples samples_of(const Acquisitions& from, std::size_t number) {
  const Line line = from.line(number);
  Samples array({line.samples, line.coils});
  if (array.size() > 0) Target(array, 1, 0).put(line, 0, 0, false);
  return array;
}

/// Acquisitions `numbers` from sample `x` of the lines on that start at `offsets`.
template <class Acquisitions>
void put_lines(const Acquisitions& from, const Indices& numbers, const Indices& x,
               py::array_t<Sample> array, const Indices& offsets, unsigned coil_axis,
               unsigned shift, const Flags& add) {
  const Target target(array, coil_axis, shift);
  const auto which = numbers.unchecked<1>(), first = x.unchecked<1>(), at = offsets.unchecked<1>();
  const auto adds = add.unchecked<1>();
  if (first.size() != which.size() || at.size() != which.size() || adds.size() != which.size())
    throw py::value_error("expected a place, an offset and a flag for each acquisition");
  const py::gil_scoped_release release;
  for (ptrdiff_t i = 0; i < which.size(); ++i)
    target.put(from.line(static_cast<std::size_t>(which(i))), at(i), first(i), adds(i));
}

/// What Python does with acquisitions of a file and of a connection alike.
template <class Acquisitions>
py::class_<Acquisitions> bind_lines(py::class_<Acquisitions> type) {
  type.def("samples", samples_of<Acquisitions>, py::arg("number"))
      .def("put", put_lines<Acquisitions>, py::arg("numbers"), py::arg("x"),
           py::arg("array").noconvert(), py::arg("offsets"), py::arg("coil_axis"), py::arg("shift"),
           py::arg("add"));
  return type;
}

}  // namespace ctessel_lines

/// Adds `Stream`, which receives ISMRMRD's streaming protocol.
void bind_stream(pybind11::module_& m);
