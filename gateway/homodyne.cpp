// Homodyne reconstruction of partial-Fourier data, called from the numerical host.
//
// mexFunction, ApplyHomodyneFilter, calculate_filter, AddLowResPhase, in that order: checks, texts and
// calls of the kernels. The host's error call may leave without unwinding, so no function owns memory
// where it can be reached; checks come before the first allocation, and output arrays are created
// before views are made.

#include "homodyne.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "ctessel.hpp"

namespace {

/// The samples in the host's own storage, with at least three axes.
ctessel::Samples view_of(const mxArray* a) {
  ctessel::Extents extents;
  for (int d = 0; d < std::max(host::dimensions(a), 3); ++d) extents.push_back(host::extent(a, d));
  const host::Samples s = host::samples(a);
  auto* pairs = reinterpret_cast<std::complex<float>*>(s.re);
  return s.step == 2 ? ctessel::Samples::pairs(pairs, extents)
                     : ctessel::Samples::parts(s.re, s.im, extents);
}

bool is_empty(const mxArray* a) { return host::dimensions(a) == 0 || host::extent(a, 0) == 0; }

struct Operation {
  bool filter, multiply, truncated;
};

/// Compares the operation name and lets its text go before a handler or a message is reached.
Operation read_operation(const mxArray* name) {
  std::vector<char> text(host::rows(name) * host::columns(name) + 1, '\0');
  const bool fits = host::copy_text(name, text.data(), text.size());
  text.back() = '\0';
  return {std::strcmp(text.data(), "filter") == 0, std::strcmp(text.data(), "multiply") == 0,
          !fits};
}

}  // namespace

void mexFunction(int nlhs, mxArray** plhs, int nrhs, const mxArray** prhs) {
  if (nrhs < 1 || !host::is_char(prhs[0])) {
    host::error("The first input must be a string describing the functionality.");
  }
  const Operation operation = read_operation(prhs[0]);
  if (operation.truncated) host::warn("Not enough space. String is truncated.");
  if (operation.filter) ApplyHomodyneFilter(nlhs, plhs, nrhs, prhs);
  if (operation.multiply) AddLowResPhase(nlhs, plhs, nrhs, prhs);
}

// ---- "filter" -----------------------------------------------------------------------------------

namespace {

struct RangeTexts {
  const char *type, *real, *dimensions, *vector, *length;
};

#define RANGE_TEXTS(k)                                                   \
  {                                                                      \
    k "-range must be of type double.", k "-range must be real valued.", \
        "The " k "-range must be 1 dimensional vector.",                 \
        "The " k "-range coordinates must be 1 dimensional vector.",     \
        "The " k "-range must be of length 2."                           \
  }
constexpr RangeTexts kRangeTexts[] = {RANGE_TEXTS("kx"), RANGE_TEXTS("ky"), RANGE_TEXTS("kz")};
#undef RANGE_TEXTS

void check_range_extents(const mxArray* range, const RangeTexts& texts) {
  const int rows = host::extent(range, 0), columns = host::extent(range, 1);
  if (host::dimensions(range) > 2) host::error(texts.dimensions);
  if (rows != 1 && columns != 1) host::error(texts.vector);
  if (rows != 1 && rows != 2 && columns != 2) host::error(texts.length);
  if (rows == 1 && columns != 2) host::error(texts.length);
}

void check_filter_arguments(int nrhs, const mxArray** prhs) {
  if (nrhs < 5) host::error("There must be at least 5 inputs.");
  if (nrhs > 5) host::error("Too many input arguments.");
  if (!host::is_class(prhs[1], "single")) host::error("Data must be of type single.");
  if (is_empty(prhs[1])) host::error("Data cannot be empty.");
  for (int d = 0; d < 3; ++d) {
    if (!host::is_class(prhs[2 + d], "double")) host::error(kRangeTexts[d].type);
  }
  for (int d = 0; d < 3; ++d) {
    if (host::is_complex(prhs[2 + d])) host::error(kRangeTexts[d].real);
  }
  for (int d = 0; d < 3; ++d) {
    if (!is_empty(prhs[2 + d])) check_range_extents(prhs[2 + d], kRangeTexts[d]);
  }
}

ctessel::LineRanges ranges_of(const mxArray* const* ranges) {
  ctessel::LineRanges sampled;
  for (std::size_t d = 0; d < 3; ++d) {
    if (is_empty(ranges[d])) continue;
    const double* r = host::doubles(ranges[d]);
    sampled[d] = {r[0], r[1]};
  }
  return sampled;
}

mxArray* create_centre(const mxArray* data, const ctessel::LineRanges& sampled) {
  const int n = host::dimensions(data);
  int few[16];  // on the stack: the host may leave from its allocation without unwinding
  std::vector<int> many(n > 16 ? static_cast<std::size_t>(n) : 0);
  int* extents = n > 16 ? many.data() : few;
  for (int d = 0; d < n; ++d) {
    extents[d] = host::extent(data, d);
    if (d >= 3) continue;
    const auto axis = ctessel::homodyne_axis(extents[d], sampled[static_cast<std::size_t>(d)]);
    extents[d] = static_cast<int>(axis.kept.count());
  }
  return host::create_complex_single(n, extents);
}

}  // namespace

void ApplyHomodyneFilter(int, mxArray** plhs, int nrhs, const mxArray** prhs) {
  check_filter_arguments(nrhs, prhs);
  const ctessel::LineRanges sampled = ranges_of(prhs + 2);
  plhs[0] = create_centre(prhs[1], sampled);
  const ctessel::Samples data = view_of(prhs[1]);
  if (data.size() == 0) return;
  ctessel::homodyne_centre(data, sampled, view_of(plhs[0]));
  ctessel::homodyne_filter(data, sampled, data);
}

int calculate_filter(int N, double* range, float* weights, int* bounds) {
  const auto kept = ctessel::homodyne_weights(N, {range[0], range[1]}, weights);
  if (!kept) return 0;
  bounds[0] = static_cast<int>(kept->first);
  bounds[1] = static_cast<int>(kept->last);
  return 1;
}

// ---- "multiply" ---------------------------------------------------------------------------------

namespace {

void check_phase_arguments(int nrhs, const mxArray** prhs) {
  if (nrhs < 3) host::error("There must be at least 3 inputs.");
  if (nrhs > 3) host::error("Too many input arguments.");
  const mxArray *data = prhs[1], *low = prhs[2];
  if (is_empty(low)) host::error("The low resolution data cannot be empty.");
  if (!host::is_class(data, "single")) host::error("Data must be of type single.");
  if (is_empty(data)) host::error("Data cannot be empty.");
  if (!host::is_class(low, "single")) host::error("LowRes must be of type single.");
  if (host::dimensions(data) != host::dimensions(low)) {
    host::error("The data must have the same number of dimensions than the low resolution data");
  }
}

}  // namespace

void AddLowResPhase(int, mxArray**, int nrhs, const mxArray** prhs) {
  check_phase_arguments(nrhs, prhs);
  ctessel::remove_phase(view_of(prhs[1]), view_of(prhs[2]));
}
