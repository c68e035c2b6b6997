// Arrays of the test host, in either layout of complex values, with guard zones around every part.
#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "host.h"

namespace host {

enum class Layout { kParts, kPairs };

/// Floats between two guard zones.
class Guarded {
 public:
  Guarded() = default;
  explicit Guarded(std::size_t n);  // zeros
  float* data() { return store_.empty() ? nullptr : store_.data() + kZone; }
  const float* data() const { return const_cast<Guarded*>(this)->data(); }
  bool intact() const;

 private:
  static constexpr std::size_t kZone = 16;
  std::vector<float> store_;
};

struct Array {
  std::string class_name;
  std::vector<int> dims;
  std::string text = {};            // class "char"
  std::vector<double> values = {};  // class "double"
  bool complex = false;
  Layout layout = Layout::kParts;
  Guarded re = {}, im = {};   // class "single"; pairs are all in re
  float* borrowed = nullptr;  // pairs, or real values, in other storage than re

  std::size_t count() const;
  std::vector<float> real() const;
  std::vector<float> imaginary() const;
  bool intact() const { return re.intact() && im.intact(); }
};

/// What error() throws.
struct Error {
  std::string text;
};

/// Everything that the host keeps between calls.
struct State {
  Layout layout = Layout::kParts;  // of the arrays that it creates
  std::vector<std::unique_ptr<Array>> created;
  std::vector<std::string> warnings;
  std::size_t text_limit = std::string::npos;  // copies no more characters than this
};
State& state();

/// Builders. An empty `im` makes a real array.
Array single(std::vector<int> dims, const std::vector<float>& re, const std::vector<float>& im,
             Layout layout);
Array doubles(std::vector<int> dims, std::vector<double> values);
Array text(std::string characters);

}  // namespace host
