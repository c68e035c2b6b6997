// Any bytes as a stream of messages, in pieces of any size.
//
// What must come out is worked out here from the whole stream at once: the messages before the first
// fault, whatever the pieces, and a fault exactly where a length or an id is not allowed. Memory that
// is held never passes the budget, and all of it comes back.

#include <algorithm>
#include <deque>
#include <span>

#include "input.h"
#include "stream_parser.h"

namespace {

using namespace ctessel_stream;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t kText = 40, kChannels = 3, kPixels = 4096;

struct Plain {
  std::uint16_t id;
  Bytes head, body;
};

template <class T>
void append(Bytes& to, T value) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&value);
  to.insert(to.end(), bytes, bytes + sizeof value);
}

template <class T>
void write(Bytes& to, std::size_t offset, T value) {
  std::memcpy(to.data() + offset, &value, sizeof value);
}

/// A length that is allowed, and now and then one that is not, or is huge.
template <class T>
T any_length(Input& input, T usual) {
  const int kind = input.within(0, 31);
  if (kind == 0) return input.any<T>();
  return kind == 1 ? std::numeric_limits<T>::max() : input.within<T>(0, usual);
}

void append_text(Bytes& to, Input& input, std::size_t length) {
  for (std::size_t i = 0; i < std::min<std::size_t>(length, 64); ++i)
    to.push_back(input.any<std::uint8_t>());
}

void append_acquisition(Bytes& to, Input& input) {
  Bytes head(340);
  const auto samples = any_length<std::uint16_t>(input, 6),
             channels = any_length<std::uint16_t>(input, kChannels),
             dimensions = any_length<std::uint16_t>(input, 3);
  write(head, 34, samples);
  write(head, 38, channels);
  write(head, 176, dimensions);
  to.insert(to.end(), head.begin(), head.end());
  to.resize(to.size() + std::min(samples * (8.0 * channels + 4.0 * dimensions), 512.0), 7);
}

void append_image(Bytes& to, Input& input) {
  Bytes head(198);
  std::size_t voxels = 1;
  write<std::uint16_t>(head, 2, input.within<std::uint16_t>(0, 9));
  for (const std::size_t offset : {16, 18, 20, 34}) {
    const auto extent = any_length<std::uint16_t>(input, 4);
    write(head, offset, extent);
    voxels *= extent;
  }
  to.insert(to.end(), head.begin(), head.end());
  const auto attributes = any_length<std::uint64_t>(input, 8);
  append(to, attributes);
  to.resize(to.size() + std::min<std::size_t>(voxels * 8 + attributes, 1024), 9);
}

void append_waveform(Bytes& to, Input& input) {
  Bytes head(40);
  const auto samples = any_length<std::uint16_t>(input, 8),
             channels = any_length<std::uint16_t>(input, 2);
  write(head, 28, samples);
  write(head, 30, channels);
  to.insert(to.end(), head.begin(), head.end());
  to.resize(to.size() + std::min(4.0 * samples * channels, 256.0), 5);
}

void append_message(Bytes& to, Input& input) {
  constexpr std::uint16_t kIds[] = {1, 2, 3, 4, 5, 6, 7, 8, 1008, 1022, 1026};
  const std::uint16_t id = input.within(0, 31) == 0 ? input.any<std::uint16_t>() : input.pick(kIds);
  append(to, id);
  if (id == kConfigFile) {
    to.resize(to.size() + 1024, 'c');
  } else if (id == kQuery || id == kResponse) {
    to.resize(to.size() + (id == kQuery ? 16 : 8), 1);
    const auto length = any_length<std::uint64_t>(input, kText);
    append(to, length);
    append_text(to, input, length);
  } else if (id == kAcquisition) {
    append_acquisition(to, input);
  } else if (id == kImage) {
    append_image(to, input);
  } else if (id == kWaveform) {
    append_waveform(to, input);
  } else if (id != kClose) {
    const auto length = any_length<std::uint32_t>(input, kText);
    append(to, length);
    append_text(to, input, length);
  }
}

template <class T>
T number(std::span<const std::uint8_t> bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

constexpr std::uint64_t kRefused = UINT64_MAX;

/// Bytes after the header of a message, or that it is refused.
std::uint64_t naive_body(std::uint16_t id, const Bytes& h) {
  const auto within = [](std::uint64_t n, std::uint64_t most) { return n <= most ? n : kRefused; };
  switch (id) {
    case 1:
    case 4:
      return 0;
    case 6:
      return within(number<std::uint64_t>(h, 16), kText);
    case 7:
      return within(number<std::uint64_t>(h, 8), kText);
    case 1008: {
      const std::uint64_t samples = number<std::uint16_t>(h, 34),
                          channels = number<std::uint16_t>(h, 38),
                          dimensions = number<std::uint16_t>(h, 176);
      return channels > kChannels || dimensions > 16 ? kRefused
                                                     : samples * (8 * channels + 4 * dimensions);
    }
    case 1022: {
      const int type = number<std::uint16_t>(h, 2);
      double voxels = 1, widest = 0;  // no product of four 16-bit numbers is too large for a double
      const double item = type == 1 || type == 2 ? 2 : type <= 5 ? 4 : type <= 7 ? 8 : 16;
      for (const std::size_t offset : {16, 18, 20, 34}) {
        voxels *= number<std::uint16_t>(h, offset);
        widest = std::max(widest, voxels);
      }
      const auto attributes = number<std::uint64_t>(h, 198);
      if (type < 1 || type > 8 || widest * item > kPixels || attributes > kText) return kRefused;
      return static_cast<std::uint64_t>(voxels * item) + attributes;
    }
    case 1026:
      return within(4ull * number<std::uint16_t>(h, 28) * number<std::uint16_t>(h, 30), 16 << 20);
    default:
      return within(number<std::uint32_t>(h, 0), kText);
  }
}

int naive_head(std::uint16_t id) {
  switch (id) {
    case 1:
      return 1024;
    case 2:
    case 3:
    case 5:
    case 8:
      return 4;
    case 4:
      return 0;
    case 6:
      return 24;
    case 7:
      return 16;
    case 1008:
      return 340;
    case 1022:
      return 206;
    case 1026:
      return 40;
    default:
      return -1;
  }
}

struct Expected {
  std::vector<Plain> messages;
  bool fault = false;
};

Expected naive_parse(const Bytes& stream) {
  Expected expected;
  for (std::size_t at = 0; stream.size() - at >= 2;) {
    const auto id = number<std::uint16_t>(stream, at);
    const int head = naive_head(id);
    if (head < 0) {
      expected.fault = true;
      break;
    }
    at += 2;
    if (stream.size() - at < static_cast<std::size_t>(head)) break;
    Plain plain{id, Bytes(stream.begin() + at, stream.begin() + at + head), {}};
    at += head;
    const std::uint64_t body = naive_body(id, plain.head);
    if (body == kRefused) {
      expected.fault = true;
      break;
    }
    if (stream.size() - at < body) break;
    plain.body.assign(stream.begin() + at, stream.begin() + at + body);
    at += body;
    expected.messages.push_back(std::move(plain));
  }
  return expected;
}

void compare(const Message& got, const Plain& want) {
  require(got.id == want.id && got.head == want.head, "id and header of a message");
  require(got.body.size() == want.body.size() &&
              std::equal(want.body.begin(), want.body.end(), got.body.data()),
          "body of a message");
}

/// Bytes of an acquisition, image or waveform, which are counted.
std::uint64_t counted(const Message& message) {
  return message.id < 1000 ? 0 : message.body.size();
}

class Run {
 public:
  Run(Input& input, Bytes stream, std::uint64_t budget)
      : input_(input),
        stream_(std::move(stream)),
        expected_(naive_parse(stream_)),
        budget_(budget),
        parser_({1, 2, 3, 4, 5, 6, 7, 8, 1008, 1022, 1026}, {kText, kChannels, kPixels}) {
    parser_.budget().allow(budget);
  }

  void feed() {
    std::size_t at = 0;
    try {
      while (at < stream_.size()) {
        require(parser_.room() > 0, "room for the next bytes");
        const std::size_t most = std::min(parser_.room(), stream_.size() - at);
        const std::size_t count = input_.flag() ? most : input_.within<std::size_t>(1, most);
        std::memcpy(parser_.place(), stream_.data() + at, count);
        at += count;
        if (parser_.advance(count)) keep(parser_.take());
        require(parser_.budget().held() <= budget_, "no more is held than the budget");
      }
    } catch (const Fault&) {
      check_fault();
      return;
    }
    require(!expected_.fault && number_ == expected_.messages.size(), "all messages came out");
  }

 private:
  void keep(Message message) {
    require(number_ < expected_.messages.size(), "no message but those of the stream");
    compare(message, expected_.messages[number_++]);
    held_ += counted(message);
    kept_.push_back(std::move(message));
    if (!input_.flag()) return;
    held_ -= counted(kept_.front());
    kept_.pop_front();
    require(parser_.budget().held() == held_, "what is forgotten is given back");
  }

  /// The stream's own, or the budget's: then the next message does not fit.
  void check_fault() const {
    if (expected_.fault && number_ == expected_.messages.size()) return;
    require(budget_ < 1u << 20, "a fault without reason");
    require(number_ == expected_.messages.size() ||
                held_ + expected_.messages[number_].body.size() > budget_,
            "a message that fits was refused");
  }

  Input& input_;
  const Bytes stream_;
  const Expected expected_;
  std::uint64_t budget_, held_ = 0;
  std::size_t number_ = 0;
  Parser parser_;
  std::deque<Message> kept_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Input input(bytes, size);
  Bytes stream;
  if (input.flag()) {
    stream.assign(bytes, bytes + size);
  } else {
    for (int left = input.within(0, 7); left > 0; --left) append_message(stream, input);
    if (input.within(0, 3) == 0) stream.resize(input.within<std::size_t>(0, stream.size()));
  }
  Run(input, std::move(stream), input.flag() ? 1u << 26 : 256).feed();  // a message, or a few
  return 0;
}
