// Messages of ISMRMRD's streaming protocol out of bytes that come in pieces of any size.
//
// A message is an id (uint16), a part whose length follows from the id, and a part whose length
// stands in the first one; all little endian, packed. The last part is received where it stays, so
// that samples are copied once, from there to k-space. Every length is compared with what is allowed
// before memory is taken for it. Layout of the headers: ismrmrd/ismrmrd.h, version 1.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ctessel_stream {

/// Those of messages that are more than a text.
enum Id : std::uint16_t {
  kConfigFile = 1,
  kClose = 4,
  kQuery = 6,
  kResponse = 7,
  kAcquisition = 1008,
  kImage = 1022,
  kWaveform = 1026,
};

/// What the peer did wrong, in one line.
struct Fault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// What messages may hold. Nothing but texts is allowed until the header has said what will come.
struct Limits {
  std::uint64_t text = 0;      // bytes of a text
  std::uint64_t channels = 0;  // of an acquisition
  std::uint64_t pixels = 0;    // bytes of an image
  static constexpr std::uint64_t kWaveform = 16 << 20;
  static constexpr std::uint64_t kDimensions = 16;  // of a trajectory
};

/// Bytes that are held at one time. Messages may outlive the parser, so they share it.
class Budget {
 public:
  void allow(std::uint64_t bytes) { limit_ = bytes; }
  std::uint64_t held() const { return held_; }

  /// Refuses before memory is taken.
  void take(std::uint64_t bytes) {
    if (bytes > limit_ || held_ > limit_ - bytes)
      throw Fault("more samples than the " + std::to_string(limit_ >> 20) +
                  " MiB that its header and the memory here allow");
    held_ += bytes;
  }
  void give(std::uint64_t bytes) { held_ -= bytes; }

 private:
  std::atomic<std::uint64_t> limit_{0}, held_{0};
};

/// Uninitialised memory whose size is counted in a budget, or nowhere.
class Buffer {
 public:
  Buffer() = default;
  Buffer(std::uint64_t size, const std::shared_ptr<Budget>& budget) {
    if (budget) {
      budget->take(size);
      share_ = {nullptr, [budget, size](void*) { budget->give(size); }};
    }
    if (size > SIZE_MAX) throw std::bad_alloc();  // where addresses have 32 bits
    size_ = static_cast<std::size_t>(size);
    bytes_ = std::make_unique_for_overwrite<std::uint8_t[]>(size_);
  }
  std::uint8_t* data() const { return bytes_.get(); }
  std::size_t size() const { return bytes_ ? size_ : 0; }

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::shared_ptr<void> share_;  // of the budget, given back at the end
  std::size_t size_ = 0;
};

struct Message {
  std::uint16_t id = 0;
  std::vector<std::uint8_t> head;
  Buffer body;
};

template <class T>
T field(const std::uint8_t* head, std::size_t offset) {
  T value;
  std::memcpy(&value, head + offset, sizeof value);
  return value;
}

/// Where the fields of a header lie that say how long its message is. Not by the library's structures:
/// this parser is fuzzed, and built where the library is not.
struct AcquisitionLayout {
  static constexpr std::size_t kBytes = 340, kSamples = 34, kChannels = 38, kDimensions = 176;
};
struct ImageLayout {
  static constexpr std::size_t kBytes = 198, kType = 2, kMatrix = 16, kChannels = 34;
};
struct WaveformLayout {
  static constexpr std::size_t kBytes = 40, kSamples = 28, kChannels = 30;
};

/// Bytes of the trajectory of an acquisition, which come before its samples.
inline std::uint64_t trajectory_bytes(const std::uint8_t* head) {
  using L = AcquisitionLayout;
  return std::uint64_t{4} * field<std::uint16_t>(head, L::kSamples) *
         field<std::uint16_t>(head, L::kDimensions);
}

class Parser {
 public:
  Parser(std::vector<std::uint16_t> accepted, Limits limits)
      : limits_(limits), accepted_(std::move(accepted)), budget_(std::make_shared<Budget>()) {
    start_message();
  }

  Limits& limits() { return limits_; }
  Budget& budget() const { return *budget_; }

  /// Where the next bytes belong, and the most that belong there; never none.
  std::uint8_t* place() {
    return (part_ == Part::kBody ? message_.body.data() : message_.head.data()) + done_;
  }
  std::size_t room() const { return size_ - done_; }

  /// Takes note of bytes that were put there. Returns whether a message is complete: `take` it.
  bool advance(std::size_t count) {
    done_ += count;
    while (done_ == size_) {
      if (part_ == Part::kBody) return true;
      next_part();
    }
    return false;
  }

  Message take() {
    Message message = std::move(message_);
    message_ = Message();
    start_message();
    return message;
  }

  /// Whether the bytes so far end between two messages.
  bool between() const { return part_ == Part::kId && done_ == 0; }

 private:
  enum class Part { kId, kHead, kBody };

  void start(Part part, std::size_t size) {
    part_ = part;
    size_ = size;
    done_ = 0;
  }

  /// The id is read to where the header follows.
  void start_message() {
    message_.head.resize(sizeof message_.id);
    start(Part::kId, sizeof message_.id);
  }

  /// Of length 0 a part is complete at once; `advance` goes on to the next.
  void next_part() {
    if (part_ == Part::kId) {
      message_.id = field<std::uint16_t>(message_.head.data(), 0);
      message_.head.resize(head_bytes(message_.id));
      start(Part::kHead, message_.head.size());
    } else {
      message_.body = body();
      start(Part::kBody, message_.body.size());
    }
  }

  std::size_t head_bytes(std::uint16_t id) const {
    if (std::find(accepted_.begin(), accepted_.end(), id) == accepted_.end())
      throw Fault("a message with the id " + std::to_string(id) + ", which is not used here");
    constexpr std::pair<Id, std::size_t> kBytes[] = {
        {kConfigFile, 1024},
        {kClose, 0},
        {kQuery, 24},
        {kResponse, 16},
        {kAcquisition, AcquisitionLayout::kBytes},
        {kImage, ImageLayout::kBytes + sizeof(std::uint64_t)},  // and the length of the attributes
        {kWaveform, WaveformLayout::kBytes}};
    for (const auto& [known, bytes] : kBytes)
      if (id == known) return bytes;
    return sizeof(std::uint32_t);
  }

  Buffer body() const {
    const std::uint8_t* head = message_.head.data();
    switch (message_.id) {
      case kConfigFile:
      case kClose:
        return {};
      case kQuery:
      case kResponse:
        return {text(field<std::uint64_t>(head, message_.head.size() - 8)), nullptr};
      case kAcquisition:
        return {acquisition(head), budget_};
      case kImage:
        return {image(head), budget_};
      case kWaveform:
        return {waveform(head), budget_};
      default:
        return {text(field<std::uint32_t>(head, 0)), nullptr};
    }
  }

  std::uint64_t text(std::uint64_t length) const {
    if (length > limits_.text)
      throw Fault("a text of " + std::to_string(length) + " bytes; at most " +
                  std::to_string(limits_.text) + " are read");
    return length;
  }

  std::uint64_t acquisition(const std::uint8_t* head) const {
    using L = AcquisitionLayout;
    const std::uint64_t samples = field<std::uint16_t>(head, L::kSamples);
    const std::uint64_t channels = field<std::uint16_t>(head, L::kChannels);
    if (limits_.channels == 0) throw Fault("an acquisition before the header");
    if (channels > limits_.channels)
      throw Fault("an acquisition of " + std::to_string(channels) + " channels; its header has " +
                  std::to_string(limits_.channels));
    if (field<std::uint16_t>(head, L::kDimensions) > Limits::kDimensions)
      throw Fault("an acquisition with a trajectory of " +
                  std::to_string(field<std::uint16_t>(head, L::kDimensions)) + " dimensions");
    return trajectory_bytes(head) + 8 * samples * channels;
  }

  std::uint64_t waveform(const std::uint8_t* head) const {
    using L = WaveformLayout;
    const std::uint64_t bytes = std::uint64_t{4} * field<std::uint16_t>(head, L::kSamples) *
                                field<std::uint16_t>(head, L::kChannels);
    if (limits_.channels == 0) throw Fault("a waveform before the header");
    if (bytes > Limits::kWaveform)
      throw Fault("a waveform of " + std::to_string(bytes) + " bytes; at most " +
                  std::to_string(Limits::kWaveform) + " are read");
    return bytes;
  }

  std::uint64_t image(const std::uint8_t* head) const {
    using L = ImageLayout;
    constexpr std::uint64_t kItem[] = {0, 2, 2, 4, 4, 4, 8, 8, 16};  // by the type of the pixels
    const auto type = field<std::uint16_t>(head, L::kType);
    if (type == 0 || type >= sizeof kItem / sizeof *kItem)
      throw Fault("an image with pixels of the unknown type " + std::to_string(type));
    std::uint64_t bytes = kItem[type];
    for (const std::size_t offset : {L::kMatrix, L::kMatrix + 2, L::kMatrix + 4, L::kChannels}) {
      bytes *= field<std::uint16_t>(head, offset);
      if (bytes > limits_.pixels)
        throw Fault("an image of more than " + std::to_string(limits_.pixels) + " bytes");
    }
    return bytes + text(field<std::uint64_t>(head, L::kBytes));
  }

  Limits limits_;
  std::vector<std::uint16_t> accepted_;
  std::shared_ptr<Budget> budget_;
  Part part_ = Part::kId;
  std::size_t size_ = 0, done_ = 0;
  Message message_;
};

}  // namespace ctessel_stream
