// Raw data that come through a socket or a pipe. Samples stay where they were received until they are
// put to their places in k-space.

#include <poll.h>
#include <pybind11/numpy.h>
#include <pybind11/stl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <deque>
#include <mutex>

#include "lines.h"
#include "stream_parser.h"

namespace {

using namespace ctessel_lines;
using namespace ctessel_stream;

/// Nothing came for as long as the caller waits.
struct Silence {};

/// Acquisitions of a connection, and its other messages one after another. One thread receives while
/// another reconstructs what has come: acquisitions are numbered as they came, and stay here, so that
/// Python sees numbers and headers and no object is made for each of some hundred thousand lines.
class Stream {
 public:
  Stream(const std::vector<std::uint16_t>& accepted, std::uint64_t text, bool waveforms)
      : parser_(accepted, {text, 0, 0}), waveforms_(waveforms) {}

  /// What the header promises: more than that is refused before memory is taken for it.
  void allow(std::uint64_t channels, std::uint64_t pixels, std::uint64_t bytes) {
    parser_.limits().channels = channels;
    parser_.limits().pixels = pixels;
    parser_.budget().allow(bytes);
  }

  /// Reads until something is complete, and on while more is there. Acquisitions are kept; returned
  /// are all other messages, as (id, header, rest), up to the first of them, and None at the end.
  py::list receive(int file, double seconds) {
    std::vector<Message> others;
    bool ended = false;
    {
      const py::gil_scoped_release release;
      ended = !fill(file, seconds, others);
    }
    py::list list;
    for (Message& message : others) list.append(unpacked(std::move(message)));
    if (ended) list.append(py::none());
    return list;
  }

  std::size_t size() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return kept_.size();
  }
  /// Bytes in memory, and all that came.
  std::uint64_t held() const { return parser_.budget().held(); }
  std::uint64_t received() const { return received_; }

  Bytes headers(std::size_t first, std::size_t count) const {
    check_range(first, count);
    Bytes headers({count, kHeadBytes});
    for (std::size_t i = 0; i < count; ++i)
      std::memcpy(headers.mutable_data() + i * kHeadBytes, message(first + i).head.data(),
                  kHeadBytes);
    return headers;
  }

  /// Header, samples (sample, coil) and trajectory (dimension, sample) as they came, to be saved: copies,
  /// as the samples here may be given back at any time.
  py::tuple as_sent(std::size_t number) const {
    const Message& m = present(number);
    const auto h = head_of(m.head.data());
    py::array_t<float, py::array::f_style> trajectory(
        {ptrdiff_t{h.trajectory_dimensions}, ptrdiff_t{h.number_of_samples}});
    Samples all({ptrdiff_t{h.number_of_samples}, ptrdiff_t{h.active_channels}});
    std::copy_n(m.body.data(), trajectory.nbytes(),
                reinterpret_cast<std::uint8_t*>(trajectory.mutable_data()));
    std::copy_n(m.body.data() + trajectory.nbytes(), all.nbytes(),
                reinterpret_cast<std::uint8_t*>(all.mutable_data()));
    return py::make_tuple(Bytes(ptrdiff_t{kHeadBytes}, m.head.data()), all, trajectory);
  }

  Line line(std::size_t number) const {
    const Message& m = present(number);
    const std::uint8_t* samples = m.body.data() + trajectory_bytes(m.head.data());
    return line_of(head_of(m.head.data()), reinterpret_cast<const Sample*>(samples), number);
  }

  /// Gives back the memory of samples; headers stay, as later images are planned with all of them.
  void forget(const Indices& numbers) {
    const auto which = numbers.unchecked<1>();
    for (ptrdiff_t i = 0; i < which.size(); ++i) {
      Message& m = const_cast<Message&>(message(static_cast<std::size_t>(which(i))));
      const std::lock_guard<std::mutex> guard(lock_);
      m.body = Buffer();
    }
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t kBatch = 8 << 20;  // bytes that are read before the caller looks

  /// False at the end of the stream. Patience counts from the last message, not from the last byte: a
  /// peer that sends a byte now and then would keep the caller for ever.
  bool fill(int file, double seconds, std::vector<Message>& others) {
    const auto patience = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::min(seconds, 1e6)));
    auto deadline = Clock::now() + patience;
    for (std::size_t fresh = 0; fresh < kBatch;) {
      if (!readable(file, fresh > 0 ? Clock::now() : deadline)) {
        if (fresh > 0) return true;
        throw Silence();
      }
      const ssize_t count = ::read(file, parser_.place(), parser_.room());
      if (count == 0) return end(fresh);
      // Others may have read what poll saw, and a signal may have come: neither is a fault.
      if (count < 0 && errno != EINTR && errno != EAGAIN)
        throw Fault(std::string("a broken connection (") + std::strerror(errno) + ")");
      if (count <= 0 || !parser_.advance(static_cast<std::size_t>(count))) continue;
      deadline = Clock::now() + patience;
      Message message = parser_.take();
      if (message.id == kAcquisition) {
        fresh += kHeadBytes + message.body.size();
        const std::lock_guard<std::mutex> guard(lock_);
        received_ += message.body.size();
        kept_.push_back(std::move(message));
      } else if (message.id != kWaveform || waveforms_) {
        others.push_back(std::move(message));
        return true;
      }
    }
    return true;
  }

  /// What was read before the end is delivered first.
  bool end(std::size_t fresh) const {
    if (fresh == 0 && !parser_.between())
      throw Fault("a stream that was cut in the middle of a message");
    return fresh > 0;
  }

  static bool readable(int file, Clock::time_point deadline) {
    for (;;) {
      const std::chrono::duration<double, std::milli> left = deadline - Clock::now();
      pollfd wait{file, POLLIN, 0};
      const int ready =
          ::poll(&wait, 1, static_cast<int>(std::ceil(std::clamp(left.count(), 0.0, 1e9))));
      if (ready > 0) return true;
      if (ready == 0) return false;
      if (errno != EINTR)
        throw Fault(std::string("a broken connection (") + std::strerror(errno) + ")");
    }
  }

  /// The body becomes an array without a copy: Python then owns the buffer, and its share of the budget.
  static py::tuple unpacked(Message message) {
    const py::bytes head(reinterpret_cast<const char*>(message.head.data()), message.head.size());
    auto body = std::make_unique<Buffer>(std::move(message.body));
    const auto size = static_cast<ptrdiff_t>(body->size());
    const std::uint8_t* bytes = body->data();
    const py::capsule owner(body.release(), [](void* b) { delete static_cast<Buffer*>(b); });
    return py::make_tuple(message.id, head, Bytes(size, bytes, owner));
  }

  void check_range(std::size_t first, std::size_t count) const {
    const std::size_t n = size();
    if (first > n || count > n - first) throw py::index_error("acquisitions that have not come");
  }

  const Message& message(std::size_t number) const {
    const std::lock_guard<std::mutex> guard(lock_);
    if (number >= kept_.size()) throw py::index_error("acquisitions that have not come");
    return kept_[number];  // stays where it is while others are added
  }

  const Message& present(std::size_t number) const {
    const Message& m = message(number);
    if (!m.body.data()) throw std::runtime_error("samples that have been given back");
    return m;
  }

  Parser parser_;
  const bool waveforms_;
  mutable std::mutex lock_;  // one thread receives while another works
  std::deque<Message> kept_;
  std::atomic<std::uint64_t> received_{0};
};

}  // namespace

void bind_stream(py::module_& m) {
  py::register_exception_translator([](std::exception_ptr error) {
    try {
      if (error) std::rethrow_exception(error);
    } catch (const Silence&) {
      PyErr_SetString(PyExc_TimeoutError, "silence");
    }
  });
  bind_lines(py::class_<Stream>(m, "Stream"))
      .def(py::init<const std::vector<std::uint16_t>&, std::uint64_t, bool>(), py::arg("accepted"),
           py::arg("text"), py::arg("waveforms"))
      .def("allow", &Stream::allow, py::arg("channels"), py::arg("pixels"), py::arg("bytes"))
      .def("receive", &Stream::receive, py::arg("file"), py::arg("seconds"))
      .def("__len__", &Stream::size)
      .def_property_readonly("held", &Stream::held)
      .def_property_readonly("received", &Stream::received)
      .def("headers", &Stream::headers, py::arg("first"), py::arg("count"))
      .def("as_sent", &Stream::as_sent, py::arg("number"))
      .def("forget", &Stream::forget, py::arg("numbers"));
}
