// A classic host in small: exports the entries that the 32-bit module binds, loads the module file
// and drives it. Errors leave by longjmp, as the real host's may, so nothing unwinds in the module.
//
//   module_host PATH/homodyne.mexglx

#include <dlfcn.h>
#include <malloc.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "error_texts.h"
#include "guarded.h"
#include "naive_homodyne.h"

namespace {

using Bytes = Guarded<char>;

int failures = 0;
void check(bool ok, const std::string& what) {
  if (!ok) {
    std::printf("FAILED: %s\n", what.c_str());
    ++failures;
  }
}

}  // namespace

struct mxArray {
  const char* class_name;
  std::vector<int> dims;
  bool complex;
  Bytes re{0, 0}, im{0, 0};
  std::string text;

  mxArray(const char* name, std::vector<int> extents, bool is_complex, std::size_t width)
      : class_name(name), dims(std::move(extents)), complex(is_complex) {
    std::size_t n = width;
    for (int d : dims) n *= static_cast<std::size_t>(d);
    re = Bytes(n, 0);
    if (complex) im = Bytes(n, 0);
  }
};

namespace {
std::jmp_buf abandoned;
std::string last_error, last_warning;
std::unique_ptr<mxArray> created;
int text_limit = 1 << 20;
}  // namespace

#pragma GCC visibility push(default)
extern "C" {
bool mxIsChar(const mxArray* a) { return std::strcmp(a->class_name, "char") == 0; }
bool mxIsComplex(const mxArray* a) { return a->complex; }
const char* mxGetClassName(const mxArray* a) { return a->class_name; }
std::size_t mxGetM(const mxArray* a) { return static_cast<std::size_t>(a->dims[0]); }
std::size_t mxGetN(const mxArray* a) { return static_cast<std::size_t>(a->dims[1]); }
int mxGetNumberOfDimensions_700(const mxArray* a) { return static_cast<int>(a->dims.size()); }
const int* mxGetDimensions_700(const mxArray* a) { return a->dims.data(); }
double* mxGetPr(const mxArray* a) {
  return reinterpret_cast<double*>(const_cast<mxArray*>(a)->re.data());
}
double* mxGetPi(const mxArray* a) {
  check(a->complex, "the imaginary part is asked for only where there is one");
  return reinterpret_cast<double*>(const_cast<mxArray*>(a)->im.data());
}
int mxGetString_700(const mxArray* a, char* buffer, int size) {
  const int room = size - 1 < text_limit ? size - 1 : text_limit;
  std::snprintf(buffer, static_cast<std::size_t>(room) + 1, "%s", a->text.c_str());
  return static_cast<int>(a->text.size()) > room;
}
mxArray* mxCreateNumericArray_700(int n, const int* dims, int class_code, int complexity) {
  check(class_code == 7 && complexity == 1, "the output is asked for as complex single");
  created = std::make_unique<mxArray>("single", std::vector<int>(dims, dims + n), true, 4);
  return created.get();
}
void mexErrMsgTxt(const char* text) {
  last_error = text;
  std::longjmp(abandoned, 1);
}
void mexWarnMsgTxt(const char* text) { last_warning = text; }
}
#pragma GCC visibility pop

namespace {

using Entry = void (*)(int, mxArray**, int, const mxArray**);
Entry entry;
mxArray* plhs[1];

/// One call of the module. Holds nothing that a longjmp would lose.
bool call(const mxArray** inputs, int n) {
  last_error.clear();
  plhs[0] = nullptr;
  if (setjmp(abandoned)) return false;
  entry(1, plhs, n, inputs);
  return true;
}

mxArray text(const char* characters) {
  mxArray a("char", {1, static_cast<int>(std::strlen(characters))}, false, 2);
  a.text = characters;
  return a;
}

mxArray single(const naive::Volume& v) {
  mxArray a("single", v.dims, !v.im.empty(), 4);
  std::memcpy(a.re.data(), v.re.data(), 4 * v.re.size());
  if (a.complex) std::memcpy(a.im.data(), v.im.data(), 4 * v.im.size());
  return a;
}

mxArray range(const std::vector<double>& r) {
  mxArray a("double", {r.empty() ? 0 : 1, static_cast<int>(r.size())}, false, 8);
  std::memcpy(a.re.data(), r.data(), 8 * r.size());
  return a;
}

bool holds(mxArray& a, const naive::Volume& v) {
  return a.dims == v.dims && std::memcmp(a.re.data(), v.re.data(), 4 * v.re.size()) == 0 &&
         (v.im.empty() || std::memcmp(a.im.data(), v.im.data(), 4 * v.im.size()) == 0) &&
         a.re.intact() && a.im.intact();
}

naive::Volume ramp(std::vector<int> dims, bool complex) {
  naive::Volume v{std::move(dims), {}, {}};
  std::size_t n = 1;
  for (int d : v.dims) n *= static_cast<std::size_t>(d);
  for (std::size_t i = 0; i < n; ++i) {
    v.re.push_back(static_cast<float>((i * 7919) % 1013) - 500.0f);
    if (complex) v.im.push_back(static_cast<float>((i * 104729) % 997) - 300.0f);
  }
  return v;
}

void run_operations() {
  const mxArray filter = text("filter"), multiply = text("multiply");
  for (bool complex : {true, false}) {
    const std::vector<double> ranges[3] = {{}, {-3, 7}, {-2, 3}};
    naive::Volume data = ramp({6, 16, 8, 3}, complex);
    mxArray mine = single(data);
    const mxArray kx = range(ranges[0]), ky = range(ranges[1]), kz = range(ranges[2]);
    const mxArray* inputs[] = {&filter, &mine, &kx, &ky, &kz};
    check(call(inputs, 5) && plhs[0] == created.get(), "filter returns and stores its output");
    const naive::Volume centre = naive::filter(data, ranges);
    check(holds(mine, data), "filter weights the caller's array in place");
    check(holds(*created, centre), "filter returns the unweighted centre");

    naive::Volume image = ramp({6, 5, 2, 2}, complex), low = ramp({6, 5, 2, 2}, true);
    mxArray own = single(image), phase = single(low);
    const mxArray* images[] = {&multiply, &own, &phase};
    created.reset();
    check(call(images, 3) && !created, "multiply returns without an output");
    naive::multiply(image, low);
    check(holds(own, image), "multiply leaves its result in the caller's array");
    check(holds(phase, low), "multiply leaves the low-resolution image alone");
  }
}

/// Every error text of the module leaves by longjmp, many times over: nothing may stay allocated.
void run_errors() {
  const mxArray filter = text("filter"), multiply = text("multiply");
  const mxArray data = single(ramp({2, 3}, true)), volume = single(ramp({2, 3, 2}, false));
  const mxArray empty("single", {0, 3}, false, 4), doubles("double", {2, 3}, true, 8);
  const mxArray two = range({-1, 5}), complex_range("double", {1, 2}, true, 8);
  const mxArray tall("double", {1, 2, 2}, false, 8), square("double", {2, 2}, false, 8),
      longer("double", {1, 3}, false, 8);
  const std::map<char, const mxArray*> arrays = {
      {'d', &data}, {'v', &volume}, {'e', &empty},  {'D', &doubles},      {'r', &two},
      {'t', &tall}, {'s', &square}, {'l', &longer}, {'c', &complex_range}};
  for (const ErrorCase& c : kErrorCases) {
    std::vector<const mxArray*> inputs;
    if (!c.operation.empty()) inputs.push_back(c.operation == "filter" ? &filter : &multiply);
    for (char letter : c.inputs) inputs.push_back(arrays.at(letter));
    const int n = static_cast<int>(inputs.size());
    check(!call(inputs.data(), n) && last_error == c.text, "error: " + c.text);
    for (int i = 0; i < 10; ++i) call(inputs.data(), n);  // fills the allocator's own caches
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 2000; ++i) call(inputs.data(), n);
    const std::size_t after = mallinfo2().uordblks;  // before the text below may be allocated
    check(after == before, "nothing owned at: " + c.text);
  }
}

void run_names() {
  text_limit = 6;  // a host that runs out of space
  const mxArray cut = text("filterx");
  const mxArray* inputs[] = {&cut};
  check(!call(inputs, 1) && last_error == "There must be at least 5 inputs.",
        "a name cut to an operation's runs it");
  check(last_warning == "Not enough space. String is truncated.", "truncation warns");
  text_limit = 1 << 20;
  last_warning.clear();
  check(call(inputs, 1) && last_warning.empty(), "an unknown name does nothing");
}

}  // namespace

int main(int argc, char** argv) {
  void* module = argc > 1 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : nullptr;
  if (!module) {
    std::printf("cannot load the module: %s\n", argc > 1 ? dlerror() : "no path given");
    return 1;
  }
  entry = reinterpret_cast<Entry>(dlsym(module, "mexFunction"));
  const auto version = reinterpret_cast<const char* (*)()>(dlsym(module, "mexVersion"));
  check(version && std::strcmp(version(), "MATLAB R14 native") == 0, "mexVersion");
  if (entry) {
    run_operations();
    run_errors();
    run_names();
  }
  check(entry != nullptr, "mexFunction is exported");
  std::printf("%s\n", failures ? "module_host: failed" : "module_host: all checks passed");
  return failures != 0;
}
