// The host operations that the gateway uses, and no others. One back end is linked into each
// module:
//
//   classic.cpp      32-bit host with separate real and imaginary parts and int extents
//   interleaved.cpp  64-bit hosts that store complex values as pairs (GNU Octave, MATLAB R2018a on)
//   memory.cpp       arrays in memory, for tests
//
// Arrays are used where the host stores them: Samples describes both layouts, so that results
// written in place reach the caller's variable without a copy of the data being made or freed on
// any path.
#pragma once

#include <cstddef>

namespace host {

struct Array;  // the host's mxArray, never looked into

/// Parts of a numeric array. Sample i lies at re[i * step] and im[i * step].
/// Separate parts have step 1; pairs have step 2 and im == re + 1. im is null for real arrays.
struct Samples {
  float* re;
  float* im;
  std::ptrdiff_t step;
};

bool is_char(const Array* a);
bool is_complex(const Array* a);
bool is_class(const Array* a, const char* name);  // "single", "double": the exact class name

/// Rows, and the product of the other extents, of a text.
std::size_t rows(const Array* a);
std::size_t columns(const Array* a);

/// Copies a text with its closing NUL into buffer. False when it did not fit.
bool copy_text(const Array* a, char* buffer, std::size_t size);

int dimensions(const Array* a);

/// Extent of dimension d (0-based); 1 past the array's own dimensions.
int extent(const Array* a, int d);

/// Samples of a single-precision array, in the host's own storage.
Samples samples(const Array* a);

/// Values of a real double-precision array.
double* doubles(const Array* a);

/// New zero-filled complex single-precision array, owned by the host.
Array* create_complex_single(int ndims, const int* dims);

/// Ends the call with a message. May leave without unwinding: own nothing when calling it.
[[noreturn]] void error(const char* text);

/// Shows a warning. Hosts can be told to turn warnings into errors: own nothing here either.
void warn(const char* text);

}  // namespace host
