// Arrays of the Python host: memory that the caller keeps, or a new array that the operation made.
#pragma once

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/host.h"
#include "view.h"

namespace host {

struct Array {
  std::vector<int> dims;
  bool single = true;    // samples, otherwise values
  bool complex = false;  // samples are pairs
  float* floats = nullptr;
  std::vector<double> values;
  std::unique_ptr<void, decltype(&std::free)> own{nullptr, &std::free};
};

/// What the operations' messages become.
struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Samples without gaps, first axis fastest.
std::unique_ptr<Array> borrow(const ctessel_python::View& packed);

/// A range of two values, or an empty one.
std::unique_ptr<Array> range(const std::vector<double>& values);

}  // namespace host
