// Back end for 64-bit hosts that store complex values as (real, imaginary) pairs: GNU Octave 7 and
// MATLAB from R2018a on.
//
// mxGetData hands out the caller's own storage, so writing through it reaches the caller's variable
// and every variable that shares it. Exceptions are values that Octave keeps in another form, such
// as the diagonal matrix that eye makes: it hands out a full copy of those.

#include <mex.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host.h"

namespace host {

namespace {

const mxArray* own(const Array* a) { return reinterpret_cast<const mxArray*>(a); }

int to_int(mwSize n) {
  if (n > static_cast<mwSize>(INT_MAX)) error("Extents beyond 2147483647 are not supported.");
  return static_cast<int>(n);
}

#ifdef CTESSEL_OCTAVE
// Octave 7 allocates complex single arrays half as large as they are. Give them their own
// buffer.
void fix_buffer(mxArray* a) {
  const std::size_t n = mxGetNumberOfElements(a);
  if (n == 0) return;
  mxFree(mxGetData(a));
  mxSetData(a, mxCalloc(n, 2 * sizeof(float)));
}
#else
void fix_buffer(mxArray*) {}
#endif

}  // namespace

bool is_char(const Array* a) { return mxIsChar(own(a)); }
bool is_complex(const Array* a) { return mxIsComplex(own(a)); }
bool is_class(const Array* a, const char* name) {
  // A sparse array has the class of its values, but stores only some of them.
  return !mxIsSparse(own(a)) && std::strcmp(mxGetClassName(own(a)), name) == 0;
}
std::size_t rows(const Array* a) { return mxGetM(own(a)); }
std::size_t columns(const Array* a) { return mxGetN(own(a)); }
bool copy_text(const Array* a, char* buffer, std::size_t size) {
  return mxGetString(own(a), buffer, static_cast<mwSize>(size)) == 0;
}

int dimensions(const Array* a) { return to_int(mxGetNumberOfDimensions(own(a))); }
int extent(const Array* a, int d) {
  return d < dimensions(a) ? to_int(mxGetDimensions(own(a))[d]) : 1;
}

Samples samples(const Array* a) {
  float* values = static_cast<float*>(mxGetData(own(a)));
  if (!is_complex(a)) return {values, nullptr, 1};
  return {values, values + 1, 2};
}
double* doubles(const Array* a) { return static_cast<double*>(mxGetData(own(a))); }

Array* create_complex_single(int ndims, const int* dims) {
  double bytes = 2 * sizeof(float);
  for (int d = 0; d < ndims; ++d) bytes *= dims[d];
  // The host's own byte count would wrap around.
  if (bytes > static_cast<double>(PTRDIFF_MAX)) error("out of memory");
  mxArray* a;
  {
    std::vector<mwSize> wide(static_cast<std::size_t>(ndims));
    std::copy_n(dims, wide.size(), wide.begin());
    a = mxCreateNumericArray(static_cast<mwSize>(ndims), wide.data(), mxSINGLE_CLASS, mxCOMPLEX);
  }
  fix_buffer(a);
  return reinterpret_cast<Array*>(a);
}

void error(const char* text) {
  mexErrMsgTxt(text);
  std::abort();  // not reached: the host does not come back from its error call
}
void warn(const char* text) { mexWarnMsgTxt(text); }

}  // namespace host

#ifdef CTESSEL_OCTAVE
// Tells Octave which complex layout the module expects.
extern "C" {
extern const int __mx_has_interleaved_complex__ __attribute__((visibility("default")));
const int __mx_has_interleaved_complex__ = 1;
}
#endif
