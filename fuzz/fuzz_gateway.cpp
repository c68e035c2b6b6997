// Any call of the gateway, on the memory host in either layout of complex values.
//
// What must come out is worked out here from the rules alone: for wrong arguments the exact text
// and nothing changed or created; for well-formed ones the samples of the naive reference; and in
// every case no access outside an array (guard zones and the sanitizers) and nothing leaked.

#include <algorithm>
#include <string>

#include "homodyne.h"
#include "host/memory.h"
#include "input.h"
#include "naive_homodyne.h"

namespace {

using host::Array;
using host::Layout;

double any_line(Input& input) {
  constexpr double kSpecial[] = {INFINITY,     -INFINITY,    NAN,           1e300,         -1e300,
                                 2147483647.0, 2147483648.0, -2147483648.0, -2147483649.0, 1e9};
  if (input.within(0, 7) == 0) return input.pick(kSpecial);
  return static_cast<double>(input.any<std::int8_t>()) / 8;
}

std::vector<int> any_dims(Input& input, int most) {
  std::vector<int> dims(input.within<std::size_t>(0, 6));
  for (int& d : dims) d = input.within(input.flag() ? 1 : 0, most);
  // A host that gives a negative extent, or huge ones beside an extent of 0, has no samples there.
  if (dims.size() > 1 && input.within(0, 15) == 0) {
    dims[0] = std::max(dims[0], 1);
    dims[1] = input.flag() ? 0 : -3;
    for (std::size_t d = 2; d < dims.size(); ++d) dims[d] = 2147483647;
  }
  return dims;
}

Array any_array(Input& input, const char* usual_class, Layout layout) {
  constexpr const char* kClasses[] = {"single", "double", "int8", "char", ""};
  const bool usual = input.within(0, 15) != 0;
  const std::string name = usual ? usual_class : input.pick(kClasses);
  const bool complex = input.within(0, 7) == 0 || (usual && name == "single" && input.flag());
  Array a;
  if (name == "double") {
    a = host::doubles(any_dims(input, 3), {});
    if (input.within(0, 3) != 0) a.dims = {1, 2};
    a.values.resize(a.count());
    for (double& v : a.values) v = any_line(input);
  } else {
    Array shape;
    shape.dims = any_dims(input, 7);
    if (input.within(0, 15) == 0)  // long enough for roundings of weights and grids to show
      shape.dims = {input.within(1, 70), input.within(1, 50), input.within(1, 8)};
    const Floats re = any_floats(input, shape.count()),
                 im = complex ? any_floats(input, shape.count()) : Floats();
    a = host::single(shape.dims, re, im, layout);
    a.class_name = name;
  }
  a.complex = complex;
  return a;
}

struct Call {
  std::string name;
  std::vector<Array> arrays;  // without the name
};

bool empty(const Array& a) { return a.dims.empty() || a.dims[0] == 0; }
int extent(const Array& a, std::size_t d) { return d < a.dims.size() ? a.dims[d] : 1; }

std::string range_fault(const Array& r, const std::string& k) {
  const int rows = extent(r, 0), columns = extent(r, 1);
  if (r.dims.size() > 2) return "The " + k + "-range must be 1 dimensional vector.";
  if (rows != 1) {
    if (columns != 1) return "The " + k + "-range coordinates must be 1 dimensional vector.";
    if (rows != 2) return "The " + k + "-range must be of length 2.";
  } else if (columns != 2) {
    return "The " + k + "-range must be of length 2.";
  }
  return "";
}

std::string filter_fault(const std::vector<Array>& in) {
  const std::string names[] = {"kx", "ky", "kz"};
  if (in.size() < 4) return "There must be at least 5 inputs.";
  if (in.size() > 4) return "Too many input arguments.";
  if (in[0].class_name != "single") return "Data must be of type single.";
  if (empty(in[0])) return "Data cannot be empty.";
  for (std::size_t d = 0; d < 3; ++d)
    if (in[d + 1].class_name != "double") return names[d] + "-range must be of type double.";
  for (std::size_t d = 0; d < 3; ++d)
    if (in[d + 1].complex) return names[d] + "-range must be real valued.";
  for (std::size_t d = 0; d < 3; ++d) {
    const std::string fault = empty(in[d + 1]) ? "" : range_fault(in[d + 1], names[d]);
    if (!fault.empty()) return fault;
  }
  return "";
}

std::string multiply_fault(const std::vector<Array>& in) {
  if (in.size() < 2) return "There must be at least 3 inputs.";
  if (in.size() > 2) return "Too many input arguments.";
  if (empty(in[1])) return "The low resolution data cannot be empty.";
  if (in[0].class_name != "single") return "Data must be of type single.";
  if (empty(in[0])) return "Data cannot be empty.";
  if (in[1].class_name != "single") return "LowRes must be of type single.";
  if (in[0].dims.size() != in[1].dims.size())
    return "The data must have the same number of dimensions than the low resolution data";
  return "";
}

bool positive(const std::vector<int>& dims) {
  return std::all_of(dims.begin(), dims.end(), [](int d) { return d > 0; });
}

naive::Volume to_volume(const Array& a) {
  naive::Volume v{a.dims, a.real(), a.imaginary()};
  return v;
}

void compare(const std::vector<float>& got, const std::vector<float>& want, const char* what) {
  require(same(got, want), what);
}

/// The reference converts lines to int as C++ does, so only lines that fit are compared.
void check_filter(const std::vector<Array>& before, const Array& data, const Array* out) {
  require(out && out->complex && out->class_name == "single" && out->intact(), "output made");
  if (!positive(data.dims)) return;
  std::vector<double> ranges[3];
  for (std::size_t d = 0; d < 3; ++d) {
    if (empty(before[d + 1])) continue;
    ranges[d] = before[d + 1].values;
    for (double v : ranges[d])
      if (!(std::abs(v) < 1e8)) return;
  }
  naive::Volume want = to_volume(before[0]);
  const naive::Volume centre = naive::filter(want, ranges);
  compare(data.real(), want.re, "weighted real parts");
  compare(data.imaginary(), want.im, "weighted imaginary parts");
  require(out->dims == centre.dims, "extents of the centre");
  compare(out->real(), centre.re, "centre, real parts");
  compare(out->imaginary(), centre.im, "centre, imaginary parts");
}

void check_multiply(const std::vector<Array>& before, const Array& data) {
  const naive::Volume given = to_volume(before[0]);
  naive::Volume want = given, low = to_volume(before[1]);
  if (positive(want.dims) && positive(low.dims)) {
    if (low.outer() < want.outer()) {  // the volumes after the last phase stay as they are
      want.dims = {want.extent(0), want.extent(1), want.extent(2), static_cast<int>(low.outer())};
      want.dims.resize(low.dims.size() + 1, 1);
    }
    naive::multiply(want, low);
  }
  compare(data.imaginary(), want.im, "imaginary parts cleared");
  compare(data.real(), want.re, "phase removed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Input input(bytes, size);
  const Layout layout = input.flag() ? Layout::kPairs : Layout::kParts;
  host::state().layout = layout;
  host::state().created.clear();
  host::state().warnings.clear();
  host::state().text_limit = input.flag() ? std::string::npos : 6;

  Call call;
  constexpr const char* kNames[] = {"filter", "multiply", "filterx", "Filter", ""};
  const bool filter = input.flag(), odd = input.within(0, 15) == 0;
  call.name = odd ? input.pick(kNames) : filter ? "filter" : "multiply";
  const std::size_t usual = filter ? 4 : 2;
  const std::size_t count = input.within(0, 15) == 0 ? input.within<std::size_t>(0, 6) : usual;
  for (std::size_t i = 0; i < count; ++i)
    call.arrays.push_back(any_array(input, filter && i > 0 ? "double" : "single", layout));
  if (!filter && count == 2 && input.flag()) {  // as many dimensions, often the same extents
    call.arrays[1].dims.resize(call.arrays[0].dims.size(), 1);
    if (input.flag()) call.arrays[1] = call.arrays[0];
    if (call.arrays[1].count() * (call.arrays[1].complex ? 2 : 1) > 1u << 20) return 0;
    const std::size_t n = call.arrays[1].count();
    Floats re = any_floats(input, n), im = call.arrays[1].complex ? any_floats(input, n) : Floats();
    for (Floats* part : {&re, &im})
      for (float& v : *part) v = 1.5f + std::sin(v) / 2;
    for (std::size_t i = 0; i < n; ++i)
      if (!std::isfinite(re[i])) re[i] = i > 0 ? 1.0f : NAN;
    call.arrays[1] = host::single(call.arrays[1].dims, re, im, layout);
  }

  // Whatever text the host leaves in the buffer counts: a cut name may be an operation's.
  const Array name = host::text(call.name);
  const std::string seen = call.name.substr(0, host::state().text_limit);
  const std::vector<Array> before = call.arrays;
  const std::string fault = seen == "filter"     ? filter_fault(before)
                            : seen == "multiply" ? multiply_fault(before)
                                                 : "";

  std::vector<const Array*> inputs = {&name};
  for (const Array& a : call.arrays) inputs.push_back(&a);
  Array* out[1] = {nullptr};
  std::string error;
  try {
    mexFunction(1, out, static_cast<int>(inputs.size()), inputs.data());
  } catch (const host::Error& e) {
    error = e.text;
  }

  // A rejected range keeps one position of an axis that has none: beside huge extents that is more
  // than the host has.
  const bool too_large = fault.empty() && error == "Out of memory." && before[0].count() == 0;
  require(error == fault || too_large, "the error is the first fault's own text");
  for (const Array& a : call.arrays) require(a.intact(), "guard zones");
  require(host::state().warnings.size() == (seen == call.name ? 0 : 1), "warned of a cut name");
  const bool ran = error.empty();
  if (!ran || (seen != "filter" && seen != "multiply")) {
    require(host::state().created.empty() && !out[0], "nothing created");
    for (std::size_t i = 0; i < before.size(); ++i) {
      if (before[i].class_name == "double") continue;
      compare(call.arrays[i].real(), before[i].real(), "unchanged");
      compare(call.arrays[i].imaginary(), before[i].imaginary(), "unchanged");
    }
  } else if (seen == "filter") {
    check_filter(before, call.arrays[0], out[0]);
  } else {
    require(!out[0], "multiply has no output");
    check_multiply(before, call.arrays[0]);
  }
  host::state().created.clear();
  return 0;
}
