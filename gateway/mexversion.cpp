// Version entry of the module, asked by the classic host before it calls.

#include "homodyne.h"

const char* mexVersion() { return "MATLAB R14 native"; }
