#include "arguments.h"

#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <numeric>

namespace ctessel_python {

namespace {

constexpr int kAligned = 0x0100;  // NumPy's flag

std::string array_text(const py::array& a) {
  return "an array of " + py::str(a.dtype()).cast<std::string>();
}

const char* type_text(Kind kind) {
  constexpr const char* kTexts[] = {"complex64", "float32", "complex64 or float32"};
  return kTexts[static_cast<int>(kind)];
}

bool fits(const py::array& a, Kind kind) {
  return (kind != Kind::kReal && py::isinstance<py::array_t<std::complex<float>>>(a)) ||
         (kind != Kind::kComplex && py::isinstance<py::array_t<float>>(a));
}

/// Numbers of any type as complex64 or float32. Masked entries would count as samples, and of complex
/// numbers for a real argument the imaginary parts would be lost: both are refused. So is what NumPy
/// would convert although it is not a number, such as texts and dates.
py::array as_samples(py::handle object, const char* name, Kind kind) {
  const std::string expected = std::string("an array of ") + type_text(kind);
  if (py::hasattr(object, "mask") && py::hasattr(object, "filled")) {
    fail_type(name, expected + " (fill the masked entries first)", "a masked array");
  }
  const auto a = py::array::ensure(object);
  if (!a || std::string("cfiub").find(a.dtype().kind()) == std::string::npos) {
    fail_type(name, expected, describe(object));
  }
  if (fits(a, kind)) return a;
  const bool complex = kind == Kind::kComplex || a.dtype().kind() == 'c';
  if (complex && kind == Kind::kReal) fail_type(name, expected, array_text(a));
  return a.attr("astype")(complex ? "complex64" : "float32");
}

/// Kernels count along an axis with int.
void check_extents(const py::array& a, const char* name) {
  for (py::ssize_t d = 0; d < a.ndim(); ++d) {
    if (a.shape(d) > INT_MAX) {
      fail_value(name, "extents of at most 2147483647",
                 std::to_string(a.shape(d)) + " along axis " + std::to_string(d));
    }
  }
}

void check_separate(const ConstSamples& result, const ConstSamples& read, const char* name) {
  if (!ctessel::overlap(result, read)) return;
  fail_value(name, "memory that is not shared with other arrays",
             "an array that shares memory with one");
}

/// A writable array of exactly this shape and kind of sample: the caller's own, or an error.
Samples output(py::handle object, const char* name, const Extents& shape, bool complex) {
  const Kind kind = complex ? Kind::kComplex : Kind::kReal;
  const std::string expected = std::string("an array of ") + type_text(kind);
  if (!py::isinstance<py::array>(object)) fail_type(name, expected, describe(object));
  const auto a = py::reinterpret_borrow<py::array>(object);
  if (!fits(a, kind)) fail_type(name, expected, array_text(a));
  const Extents own(a.shape(), a.shape() + a.ndim());
  if (own != shape) fail_value(name, "shape " + text_of(shape), "shape " + text_of(own));
  if (!a.writeable()) fail_value(name, "a writable array", "a read-only one");
  if (!(a.flags() & kAligned)) fail_value(name, "aligned memory", "an array that is not aligned");
  return view_of(a);
}

py::dtype sample_type(const Layout& l) {
  return l.complex ? py::dtype::of<std::complex<float>>() : py::dtype::of<float>();
}

/// Strides in bytes of memory without gaps. Counts it, before it is asked for.
Extents strides_of(const Layout& l) {
  std::vector<std::size_t> order(l.shape.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  if (!l.like.empty()) {
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      return std::abs(l.like[a]) < std::abs(l.like[b]);
    });
  }
  Extents strides(l.shape.size());
  std::ptrdiff_t step = l.complex ? 8 : 4;
  for (std::size_t d : order) {
    strides[d] = step;
    step *= std::max<std::ptrdiff_t>(l.shape[d], 1);
  }
  bytes_of_call += static_cast<double>(step);
  return strides;
}

/// As NumPy asks for its own large arrays: far fewer page faults.
void ask_for_large_pages(void* memory, std::size_t bytes) {
#ifdef MADV_HUGEPAGE
  constexpr std::uintptr_t kPage = 4096;
  const auto begin = (reinterpret_cast<std::uintptr_t>(memory) + kPage - 1) / kPage * kPage,
             end = reinterpret_cast<std::uintptr_t>(memory) + bytes;
  if (bytes >= std::size_t{1} << 22) {
    madvise(reinterpret_cast<void*>(begin), static_cast<std::size_t>(end - begin), MADV_HUGEPAGE);
  }
#else
  (void)memory, (void)bytes;
#endif
}

std::string plural(std::size_t n) { return std::to_string(n) + (n == 1 ? " value" : " values"); }

}  // namespace

void fail_type(const std::string& name, const std::string& expected, const std::string& got) {
  throw py::type_error(name + ": expected " + expected + ", got " + got);
}

void fail_value(const std::string& name, const std::string& expected, const std::string& got) {
  throw py::value_error(name + ": expected " + expected + ", got " + got);
}

std::string text_of(const Extents& shape) {
  std::string text = "(";
  for (std::size_t d = 0; d < shape.size(); ++d) {
    text += (d ? ", " : "") + std::to_string(shape[d]);
  }
  return text + (shape.size() == 1 ? ",)" : ")");
}

std::string describe(py::handle object) {
  if (py::isinstance<py::array>(object)) {
    const auto a = py::reinterpret_borrow<py::array>(object);
    return array_text(a) + ", shape " + text_of({a.shape(), a.shape() + a.ndim()});
  }
  const std::string type = py::str(py::type::handle_of(object).attr("__name__"));
  if (object.is_none() || type == "bool") return py::repr(object).cast<std::string>();
  if (type == "int" || type == "float" || type == "str") {
    return type + " " + py::repr(object).cast<std::string>();
  }
  return type;
}

Samples view_of(const py::array& a) {
  const bool complex = a.itemsize() == 8;
  // mutable_data() would refuse read-only arrays, which may well be read.
  auto* floats = static_cast<float*>(const_cast<void*>(a.data()));
  Extents strides(a.strides(), a.strides() + a.ndim());
  for (std::ptrdiff_t& step : strides) step /= static_cast<std::ptrdiff_t>(sizeof(float));
  return {floats, complex ? floats + 1 : nullptr, {a.shape(), a.shape() + a.ndim()}, strides};
}

Samples with_axis(Samples view, int axis) {
  view.extents.insert(view.extents.begin() + axis, 1);
  view.strides.insert(view.strides.begin() + axis, 0);
  return view;
}

Input input(py::handle object, const char* name, Kind kind, int min_ndim, int max_ndim) {
  py::array a = as_samples(object, name, kind);
  if (a.ndim() < min_ndim || a.ndim() > max_ndim) {
    fail_value(
        name,
        "from " + std::to_string(min_ndim) + " to " + std::to_string(max_ndim) + " dimensions",
        "shape " + text_of({a.shape(), a.shape() + a.ndim()}));
  }
  check_extents(a, name);
  if (!(a.flags() & kAligned)) a = a.attr("copy")();
  bytes_of_call += static_cast<double>(a.nbytes());
  return {view_of(a), a};
}

Input optional(py::handle object, const char* name, Kind kind, int max_ndim) {
  if (object.is_none()) return {};
  Input in = input(object, name, kind, 1, max_ndim);
  check_not_empty(in.view, name);
  return in;
}

void check_not_empty(const ConstSamples& v, const char* name) {
  if (v.size() == 0) fail_value(name, "at least one sample", "shape " + text_of(v.extents));
}

void check_extent(const ConstSamples& v, const char* name, int axis, std::ptrdiff_t expected) {
  if (v.extent(Dim(axis)) != expected) {
    fail_value(name, "extent " + std::to_string(expected) + " along axis " + std::to_string(axis),
               "shape " + text_of(v.extents));
  }
}

void check_count(const Extents& shape, const char* name) {
  double count = 1;  // in whole numbers the product could wrap round to a small one
  for (std::ptrdiff_t n : shape) count *= static_cast<double>(n);
  if (count > 1e18) fail_value(name, "at most 10^18 samples", "shape " + text_of(shape));
}

py::array new_array(const Layout& layout) {
  return py::array(sample_type(layout), layout.shape, strides_of(layout));
}

py::array new_zeros(const Layout& layout) {
  const std::size_t item = layout.complex ? 8 : 4;
  std::size_t count = 1;
  for (std::ptrdiff_t n : layout.shape) count *= static_cast<std::size_t>(n);
  const Extents strides = strides_of(layout);
  // Fresh pages are zeros already: calloc writes none, so that each is first touched by the thread
  // that works on it.
  void* memory = std::calloc(std::max<std::size_t>(count, 1), item);
  if (!memory) throw std::bad_alloc();
  ask_for_large_pages(memory, count * item);
  const py::capsule owner(memory, [](void* p) { std::free(p); });
  return py::array(sample_type(layout), layout.shape, strides, memory, owner);
}

Result result(const Input& data, py::handle object, py::handle out, bool inplace) {
  const bool complex = data.view.im;
  if (inplace && !out.is_none()) fail_value("out", "None beside inplace=True", describe(out));
  if (inplace || out.is(object)) {  // the caller's own object: what `input` converted is a copy
    const Samples v = output(object, inplace ? "data" : "out", data.view.extents, complex);
    return {py::reinterpret_borrow<py::object>(object), v, true};
  }
  return result({data.view}, out, {data.view.extents, complex, data.view.strides}, false);
}

Result result(const std::vector<ConstSamples>& read, py::handle out, const Layout& layout,
              bool zeros) {
  if (out.is_none()) {
    const py::array a = zeros ? new_zeros(layout) : new_array(layout);
    return {a, view_of(a), false};
  }
  const Samples v = output(out, "out", layout.shape, layout.complex);
  for (const ConstSamples& r : read) check_separate(v, r, "out");
  constexpr float kZero[2] = {0, 0};
  if (zeros) {
    const Extents still(v.extents.size(), 0);  // one sample for all
    ctessel::copy({kZero, v.im ? kZero + 1 : nullptr, v.extents, still}, v);
  }
  return {py::reinterpret_borrow<py::object>(out), v, false};
}

void check_separate_or_same(const ConstSamples& result, const ConstSamples& read,
                            const char* name) {
  const bool same =
      result.re == read.re && result.extents == read.extents && result.strides == read.strides;
  if (!same) check_separate(result, read, name);
}

thread_local double bytes_of_call = 0;

void fail_memory(const char* routine) {
  char text[200];  // no string: there is no memory
  std::snprintf(text, sizeof text, "%s: not enough memory; its arrays take %.0f MB", routine,
                bytes_of_call / 1e6);
  PyErr_SetString(PyExc_MemoryError, text);
  throw py::error_already_set();
}

int whole_number(py::handle object, const std::string& name, long least, long most) {
  const std::string expected =
      "a whole number from " + std::to_string(least) + " to " + std::to_string(most);
  if (PyBool_Check(object.ptr()) || !PyIndex_Check(object.ptr())) {
    fail_type(name, expected, describe(object));
  }
  int overflow = 0;
  const auto index = py::reinterpret_steal<py::object>(PyNumber_Index(object.ptr()));
  if (!index) throw py::error_already_set();
  const long value = PyLong_AsLongAndOverflow(index.ptr(), &overflow);
  if (overflow || value < least || value > most) {
    fail_value(name, expected, py::str(index).cast<std::string>());
  }
  return static_cast<int>(value);
}

double number(py::handle object, const std::string& name) {
  // Complex numbers of NumPy would convert, with a warning that their imaginary parts are lost.
  const bool odd = PyComplex_Check(object.ptr()) || py::isinstance<py::str>(object);
  const double value = odd ? 0.0 : PyFloat_AsDouble(object.ptr());
  if (odd || PyErr_Occurred()) {
    PyErr_Clear();
    fail_type(name, "a real number", describe(object));
  }
  if (!std::isfinite(value)) fail_value(name, "a finite number", std::to_string(value));
  return value;
}

std::string entry_name(const char* name, std::size_t i) {
  return std::string(name) + "[" + std::to_string(i) + "]";
}

// A text is a sequence too, of its letters.
std::vector<py::object> entries(py::handle object, const char* name, std::size_t least,
                                std::size_t most) {
  const std::string expected =
      least == most ? plural(least) : std::to_string(least) + " to " + plural(most);
  if (!py::isinstance<py::sequence>(object) || py::isinstance<py::str>(object)) {
    fail_type(name, "a sequence of " + expected, describe(object));
  }
  const auto sequence = py::reinterpret_borrow<py::sequence>(object);
  if (sequence.size() < least || sequence.size() > most) {
    fail_value(name, expected, plural(sequence.size()));
  }
  return {sequence.begin(), sequence.end()};
}

std::vector<double> numbers(py::handle object, const char* name, std::size_t least,
                            std::size_t most) {
  std::vector<double> values;
  for (const py::object& entry : entries(object, name, least, most)) {
    values.push_back(number(entry, entry_name(name, values.size())));
  }
  return values;
}

std::vector<int> whole_numbers(py::handle object, const char* name, std::size_t least,
                               std::size_t most, int from) {
  std::vector<int> values;
  for (const py::object& entry : entries(object, name, least, most)) {
    values.push_back(whole_number(entry, entry_name(name, values.size()), from, INT_MAX));
  }
  return values;
}

int axis_number(py::handle object, const char* name, int ndim) {
  const int axis = whole_number(object, name, -ndim, ndim - 1);
  return axis < 0 ? axis + ndim : axis;
}

Threads::Threads(py::handle count, std::ptrdiff_t samples) : before_(omp_get_max_threads()) {
  const int wanted = count.is_none() ? before_ : whole_number(count, "threads", 1, 1024);
  omp_set_num_threads(samples < kFew ? 1 : wanted);
}

}  // namespace ctessel_python
