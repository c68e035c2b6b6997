// From Python objects to views and numbers, with errors that name the argument, what was expected
// and what was got. Everything here needs the interpreter's lock, but the kernel that `run` calls.
//
// What NumPy gives is taken: samples of complex64 and float32 where they lie, whatever their strides
// and order, so that no call copies what a kernel can read; numbers of other types by one conversion.
// Results are not converted. They are written through views, and a converted `out` would be a copy
// that its owner never sees.
#pragma once

#include <omp.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <string>
#include <vector>

#include "ctessel.hpp"

namespace ctessel_python {

namespace py = pybind11;

using ctessel::ConstSamples;
using ctessel::Dim;
using ctessel::Extents;
using ctessel::Samples;

[[noreturn]] void fail_type(const std::string& name, const std::string& expected,
                            const std::string& got);
[[noreturn]] void fail_value(const std::string& name, const std::string& expected,
                             const std::string& got);

/// "(4, 5)", as Python shows it.
std::string text_of(const Extents& shape);

/// What an argument is, for the "got" of a message.
std::string describe(py::handle object);

/// Samples that a routine takes: complex ones, real ones, or either.
enum class Kind { kComplex, kReal, kEither };

/// A view of an array and the array, which keeps the samples alive: views own nothing. complex64 and
/// float32 are used where they lie; other numbers are converted to them, and samples that are not
/// aligned are copied, as their strides need not be whole floats.
struct Input {
  Samples view;
  py::object holder;
};

Input input(py::handle object, const char* name, Kind kind, int min_ndim = 1, int max_ndim = 32);

/// An argument that may be None: then an empty view.
Input optional(py::handle object, const char* name, Kind kind, int max_ndim);

void check_not_empty(const ConstSamples& v, const char* name);
void check_extent(const ConstSamples& v, const char* name, int axis, std::ptrdiff_t expected);

/// Refuses extents whose product does not fit an address.
void check_count(const Extents& shape, const char* name);

/// Extents of an array to come, whether its samples are complex, and its order of axes in memory, by
/// the strides of another: a result is laid out as its data are, so that a kernel walks through both
/// in one order. Without strides the first axis is the fastest.
struct Layout {
  Extents shape;
  bool complex;
  Extents like;
};
py::array new_array(const Layout& layout);
py::array new_zeros(const Layout& layout);

/// Of an array of complex64 or float32. Kernels that only read take it as const.
Samples view_of(const py::array& a);

/// With one more axis, of extent 1: kernels that combine coils want theirs to stay.
Samples with_axis(Samples view, int axis);

/// A result and its view.
struct Result {
  py::object array;
  Samples view;
  bool same;  // the result replaces the data themselves
};

/// Where a function that can work in place leaves its result.
Result result(const Input& data, py::handle object, py::handle out, bool inplace);

/// `out` when given, of this shape and kind, in memory that is not read; otherwise a new array.
/// `zeros` for kernels that add to their output or write parts of it.
Result result(const std::vector<ConstSamples>& read, py::handle out, const Layout& layout,
              bool zeros);

/// A result may replace samples that are read at the same place only.
void check_separate_or_same(const ConstSamples& result, const ConstSamples& read, const char* name);

/// Of anything that Python takes as an index, NumPy's integers too; not of bool, which is one as well,
/// nor of floats, whose fraction would be lost in silence.
int whole_number(py::handle object, const std::string& name, long least, long most);
double number(py::handle object, const std::string& name);

/// The entries of a sequence of `least` to `most` of them.
std::vector<py::object> entries(py::handle object, const char* name, std::size_t least,
                                std::size_t most);
std::string entry_name(const char* name, std::size_t i);
std::vector<double> numbers(py::handle object, const char* name, std::size_t least,
                            std::size_t most);

/// Whole numbers from `from` on.
std::vector<int> whole_numbers(py::handle object, const char* name, std::size_t least,
                               std::size_t most, int from);

/// Axis number as Python counts, negative ones from the end.
int axis_number(py::handle object, const char* name, int ndim);

/// The number of threads of the kernels that the calling thread runs, put back at the end. One
/// where all there is to do is to move or scale a few bytes: waking a team takes longer, and the
/// bits are the same.
class Threads {
 public:
  explicit Threads(py::handle count) : Threads(count, kFew) {}
  Threads(py::handle count, std::ptrdiff_t samples);
  ~Threads() { omp_set_num_threads(before_); }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

 private:
  static constexpr std::ptrdiff_t kFew = 1 << 15;
  int before_;
};

/// Runs a kernel on the wanted number of threads, without the interpreter's lock. Nothing in it may
/// touch a Python object, nor count references to one, as copies of handles do; the arguments of the
/// call hold the arrays until it is done.
template <class Kernel>
void run(const Threads& /*team*/, const Kernel& kernel) {
  const py::gil_scoped_release unlocked;
  kernel();
}

/// Bytes of the arrays of the call that the thread is in: what a message about memory names.
extern thread_local double bytes_of_call;

[[noreturn]] void fail_memory(const char* routine);

/// Defines a function; where its memory runs out the message names it, and the size of its arrays.
/// Memory runs out here or in NumPy, which raises its own error.
template <class R, class... Args>
void define(py::module_& m, const char* name, R (*function)(Args...)) {
  m.def(name, [=](Args... args) -> R {
    bytes_of_call = 0;
    try {
      return function(args...);
    } catch (const std::bad_alloc&) {
      fail_memory(name);
    } catch (const py::error_already_set& e) {
      if (!e.matches(PyExc_MemoryError)) throw;
      fail_memory(name);
    }
  });
}

void bind_arrays(py::module_& m);
void bind_coils(py::module_& m);
void bind_sense(py::module_& m);
void bind_geometry(py::module_& m);
void bind_gradient_field(py::module_& m);
void bind_helpers(py::module_& m);
void bind_homodyne(py::module_& m);

}  // namespace ctessel_python
