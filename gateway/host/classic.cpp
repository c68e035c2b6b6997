// Back end for the classic 32-bit host: int extents (entries named _700), separate parts.
//
// The entries are declared here, so that no host SDK is needed. The module leaves them undefined
// and the host binds them when it loads the file.

#include <cstdlib>
#include <cstring>

#include "host.h"

namespace host {
extern "C" {
bool mxIsChar(const Array*);
bool mxIsComplex(const Array*);
const char* mxGetClassName(const Array*);
std::size_t mxGetM(const Array*);
std::size_t mxGetN(const Array*);
int mxGetNumberOfDimensions_700(const Array*);
const int* mxGetDimensions_700(const Array*);
double* mxGetPr(const Array*);
double* mxGetPi(const Array*);
int mxGetString_700(const Array*, char* buffer, int size);
Array* mxCreateNumericArray_700(int ndims, const int* dims, int class_code, int complexity);
void mexErrMsgTxt(const char*);
void mexWarnMsgTxt(const char*);
}

bool is_char(const Array* a) { return mxIsChar(a); }
bool is_complex(const Array* a) { return mxIsComplex(a); }
bool is_class(const Array* a, const char* name) {
  return std::strcmp(mxGetClassName(a), name) == 0;
}
std::size_t rows(const Array* a) { return mxGetM(a); }
std::size_t columns(const Array* a) { return mxGetN(a); }
bool copy_text(const Array* a, char* buffer, std::size_t size) {
  return mxGetString_700(a, buffer, static_cast<int>(size)) == 0;
}

int dimensions(const Array* a) { return mxGetNumberOfDimensions_700(a); }
int extent(const Array* a, int d) { return d < dimensions(a) ? mxGetDimensions_700(a)[d] : 1; }

Samples samples(const Array* a) {
  // The host types every data pointer as double; the class of the array says what is there.
  return {reinterpret_cast<float*>(mxGetPr(a)),
          mxIsComplex(a) ? reinterpret_cast<float*>(mxGetPi(a)) : nullptr, 1};
}
double* doubles(const Array* a) { return mxGetPr(a); }

Array* create_complex_single(int ndims, const int* dims) {
  constexpr int kSingleClass = 7, kComplex = 1;
  return mxCreateNumericArray_700(ndims, dims, kSingleClass, kComplex);
}

void error(const char* text) {
  mexErrMsgTxt(text);
  std::abort();  // not reached: the host does not come back from its error call
}
void warn(const char* text) { mexWarnMsgTxt(text); }

}  // namespace host
