#include "arguments.h"

#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>

namespace ctessel_python {

namespace {

constexpr int kAligned = 0x0100;  // NumPy's flag

py::array as_array(py::handle object, const char* name) {
  if (!py::isinstance<py::array>(object)) fail_type(name, "a NumPy array", describe(object));
  return py::reinterpret_borrow<py::array>(object);
}

bool native(const py::dtype& t) { return t.byteorder() != '>'; }
bool is_complex64(const py::dtype& t) { return t.kind() == 'c' && t.itemsize() == 8 && native(t); }
bool is_float32(const py::dtype& t) { return t.kind() == 'f' && t.itemsize() == 4 && native(t); }

std::string array_text(const py::array& a) {
  return "an array of " + py::str(a.dtype()).cast<std::string>();
}

void check_kind(const py::array& a, const char* name, Kind kind) {
  const py::dtype t = a.dtype();
  if (kind != Kind::kReal && is_complex64(t)) return;
  if (kind != Kind::kComplex && is_float32(t)) return;
  const char* expected[] = {"complex64", "float32", "complex64 or float32"};
  fail_type(name, std::string("an array of ") + expected[static_cast<int>(kind)], array_text(a));
}

void check_extents(const py::array& a, const char* name) {
  for (py::ssize_t d = 0; d < a.ndim(); ++d) {
    if (a.shape(d) > INT_MAX) {
      fail_value(name, "extents of at most 2147483647",
                 std::to_string(a.shape(d)) + " along axis " + std::to_string(d));
    }
  }
}

/// First byte and the byte after the last.
struct Bytes {
  const char *begin, *end;
};
Bytes bytes_of(const View& v) {
  Bytes b{v.data, v.data + v.item()};
  for (std::size_t d = 0; d < v.shape.size(); ++d) {
    const std::ptrdiff_t reach = (v.shape[d] - 1) * v.strides[d];
    (reach < 0 ? b.begin : b.end) += reach;
  }
  return v.size() == 0 ? Bytes{v.data, v.data} : b;
}
bool overlap(const View& a, const View& b) {
  const Bytes p = bytes_of(a), q = bytes_of(b);
  return p.begin < q.end && q.begin < p.end;
}

void check_apart(const View& result, const View& read, const char* name) {
  if (overlap(result, read)) {
    fail_value(name, "memory apart from the other arrays", "an array that shares memory with one");
  }
}

py::dtype sample_type(const View& v) {
  return v.complex ? py::dtype::of<std::complex<float>>() : py::dtype::of<float>();
}

void clear(const View& v) {
  const double zero = 0;
  View source = v;
  source.data = reinterpret_cast<char*>(const_cast<double*>(&zero));
  std::fill(source.strides.begin(), source.strides.end(), 0);
  copy(source, v);
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

std::string text_of(const std::vector<std::ptrdiff_t>& shape) {
  std::string text = "(";
  for (std::size_t d = 0; d < shape.size(); ++d) {
    text += (d ? ", " : "") + std::to_string(shape[d]);
  }
  return text + (shape.size() == 1 ? ",)" : ")");
}

std::string describe(py::handle object) {
  if (py::isinstance<py::array>(object)) {
    const auto a = py::reinterpret_borrow<py::array>(object);
    return array_text(a) + ", shape " + text_of(view_of(a).shape);
  }
  const std::string type = py::str(py::type::handle_of(object).attr("__name__"));
  if (object.is_none() || type == "bool") return py::repr(object).cast<std::string>();
  if (type == "int" || type == "float" || type == "str") {
    return type + " " + py::repr(object).cast<std::string>();
  }
  return type;
}

View view_of(const py::array& a) {
  View v;
  v.data = static_cast<char*>(const_cast<void*>(a.data()));
  v.shape.assign(a.shape(), a.shape() + a.ndim());
  v.strides.assign(a.strides(), a.strides() + a.ndim());
  v.complex = a.itemsize() == 8;
  return v;
}

Input input(py::handle object, const char* name, Kind kind, int min_ndim, int max_ndim) {
  py::array a = as_array(object, name);
  check_kind(a, name, kind);
  if (a.ndim() < min_ndim || a.ndim() > max_ndim) {
    fail_value(
        name,
        "from " + std::to_string(min_ndim) + " to " + std::to_string(max_ndim) + " dimensions",
        "shape " + text_of(view_of(a).shape));
  }
  check_extents(a, name);
  if (!(a.flags() & kAligned)) a = a.attr("copy")();
  return {view_of(a), a};
}

View output(py::handle object, const char* name, const std::vector<std::ptrdiff_t>& shape,
            bool complex) {
  const py::array a = as_array(object, name);
  check_kind(a, name, complex ? Kind::kComplex : Kind::kReal);
  const View v = view_of(a);
  if (v.shape != shape) fail_value(name, "shape " + text_of(shape), "shape " + text_of(v.shape));
  if (!a.writeable()) fail_value(name, "a writable array", "a read-only one");
  if (!(a.flags() & kAligned)) fail_value(name, "aligned memory", "an array that is not aligned");
  return v;
}

void check_count(const std::vector<std::ptrdiff_t>& shape, const char* name) {
  double count = 1;
  for (std::ptrdiff_t n : shape) count *= static_cast<double>(n);
  if (count > 1e18) fail_value(name, "at most 10^18 samples", "shape " + text_of(shape));
}

View layout_like(const View& like, const std::vector<std::ptrdiff_t>& shape, bool complex) {
  View v{nullptr, shape, shape, complex};
  std::ptrdiff_t step = v.item();
  for (int axis : like.memory_order()) {
    const auto d = static_cast<std::size_t>(axis);
    v.strides[d] = step;
    step *= std::max<std::ptrdiff_t>(shape[d], 1);
  }
  return v;
}

py::array new_array(const View& layout) {
  return py::array(sample_type(layout), layout.shape, layout.strides);
}

py::array new_zeros(const View& layout) {
  const auto count = static_cast<std::size_t>(std::max<std::ptrdiff_t>(layout.size(), 1));
  const std::size_t bytes = count * static_cast<std::size_t>(layout.item());
  void* memory = std::calloc(count, static_cast<std::size_t>(layout.item()));
  if (!memory) throw std::bad_alloc();
  ask_for_large_pages(memory, bytes);
  const py::capsule owner(memory, [](void* p) { std::free(p); });
  return py::array(sample_type(layout), layout.shape, layout.strides, memory, owner);
}

Destination destination(const Input& data, py::handle object, py::handle out, bool inplace,
                        const View& layout) {
  if (inplace && !out.is_none()) fail_value("out", "None beside inplace=True", describe(out));
  if (inplace || out.is(object)) {
    const View v = output(object, inplace ? "data" : "out", data.view.shape, data.view.complex);
    return {py::reinterpret_borrow<py::object>(object), v, true};
  }
  return destination({data.view}, out, layout, false);
}

Destination destination(const std::vector<View>& read, py::handle out, const View& layout,
                        bool zeros) {
  if (out.is_none()) {
    const py::array a = zeros ? new_zeros(layout) : new_array(layout);
    return {a, view_of(a), false};
  }
  const View v = output(out, "out", layout.shape, layout.complex);
  for (const View& r : read) check_apart(v, r, "out");
  if (zeros) clear(v);
  return {py::reinterpret_borrow<py::object>(out), v, false};
}

void check_apart_or_same(const View& result, const View& read, const char* name) {
  const bool same =
      result.data == read.data && result.shape == read.shape && result.strides == read.strides;
  if (!same) check_apart(result, read, name);
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
  const bool odd = PyComplex_Check(object.ptr()) || py::isinstance<py::str>(object);
  const double value = odd ? 0.0 : PyFloat_AsDouble(object.ptr());
  if (odd || PyErr_Occurred()) {
    PyErr_Clear();
    fail_type(name, "a real number", describe(object));
  }
  if (!std::isfinite(value)) fail_value(name, "a finite number", std::to_string(value));
  return value;
}

std::vector<double> numbers(py::handle object, const char* name, std::size_t least,
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
  std::vector<double> values;
  for (std::size_t i = 0; i < sequence.size(); ++i) {
    const py::object entry = sequence[i];
    values.push_back(number(entry, std::string(name) + "[" + std::to_string(i) + "]"));
  }
  return values;
}

int axis_number(py::handle object, const char* name, int ndim) {
  const int axis = whole_number(object, name, -ndim, ndim - 1);
  return axis < 0 ? axis + ndim : axis;
}

std::vector<int> extents(const View& v, int least) {
  std::vector<int> dims;
  for (std::ptrdiff_t n : v.shape) dims.push_back(static_cast<int>(n));
  while (static_cast<int>(dims.size()) < least) dims.push_back(1);
  return dims;
}

Weights::Weights(const std::vector<std::ptrdiff_t>& shape) {
  view = packed(nullptr, shape, false);
  values.assign(static_cast<std::size_t>(view.size()), 1.0f);
  view.data = reinterpret_cast<char*>(values.data());
}

void Weights::arrange_like(const View& data) {
  View like = data.with_axes(view.ndim());
  like.shape.resize(view.shape.size());
  like.strides.resize(view.shape.size());
  View arranged = layout_like(like, view.shape, false);
  std::vector<float> own(values.size());
  arranged.data = reinterpret_cast<char*>(own.data());
  copy(view, arranged);
  values.swap(own);
  view = arranged;
}

View Weights::along(const View& data) const {
  View all = view.with_axes(data.ndim());
  all.shape = data.shape;
  all.strides.resize(data.shape.size());
  for (int d = 0; d < data.ndim(); ++d) {
    if (view.extent(d) == 1) all.strides[static_cast<std::size_t>(d)] = 0;
  }
  return all;
}

Threads::Threads(py::handle count, std::ptrdiff_t bytes) : before_(omp_get_max_threads()) {
  const int wanted = count.is_none() ? before_ : whole_number(count, "threads", 1, 1024);
  omp_set_num_threads(bytes < kPiece ? 1 : wanted);
}

}  // namespace ctessel_python
