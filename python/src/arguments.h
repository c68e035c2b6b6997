// From Python objects to views and numbers, with errors that name the argument, what was expected
// and what was got. Everything here needs the interpreter's lock.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "loops.h"
#include "view.h"

namespace ctessel_python {

namespace py = pybind11;

[[noreturn]] void fail_type(const std::string& name, const std::string& expected,
                            const std::string& got);
[[noreturn]] void fail_value(const std::string& name, const std::string& expected,
                             const std::string& got);

/// "(4, 5)", as Python shows it.
std::string text_of(const std::vector<std::ptrdiff_t>& shape);

/// What an argument is, for the "got" of a message.
std::string describe(py::handle object);

enum class Kind { kComplex, kReal, kEither };

/// A NumPy array of complex64 or float32 with its memory. `holder` keeps a copy that had to be made
/// because the samples were not aligned.
struct Input {
  View view;
  py::object holder;
};

Input input(py::handle object, const char* name, Kind kind, int min_ndim = 1, int max_ndim = 32);

/// A writable array of exactly this shape and kind of sample.
View output(py::handle object, const char* name, const std::vector<std::ptrdiff_t>& shape,
            bool complex);

/// Refuses extents whose product does not fit an address.
void check_count(const std::vector<std::ptrdiff_t>& shape, const char* name);

/// Memory without gaps whose axes lie in the same order as those of `like`; and new arrays.
View layout_like(const View& like, const std::vector<std::ptrdiff_t>& shape, bool complex);
py::array new_array(const View& layout);
py::array new_zeros(const View& layout);

View view_of(const py::array& a);

/// Where a function that can work in place leaves its result, and how it is to get there.
struct Destination {
  py::object array;
  View view;
  bool same;  // the result replaces the data themselves
};

Destination destination(const Input& data, py::handle object, py::handle out, bool inplace,
                        const View& layout);

/// `out` when given, of this shape and kind and apart from what is read; otherwise a new array.
Destination destination(const std::vector<View>& read, py::handle out, const View& layout,
                        bool zeros);

/// A result may replace samples that are read at the same place only.
void check_apart_or_same(const View& result, const View& read, const char* name);

int whole_number(py::handle object, const std::string& name, long least, long most);
double number(py::handle object, const std::string& name);
std::vector<double> numbers(py::handle object, const char* name, std::size_t least,
                            std::size_t most);

/// Axis number as Python counts, negative ones from the end.
int axis_number(py::handle object, const char* name, int ndim);

/// The kernels' extents, padded with ones to at least `least` entries.
std::vector<int> extents(const View& v, int least = 1);

/// The number of threads of the kernels that the calling thread runs, put back at the end. One
/// where all there is to do is to move or weigh a few bytes: waking a team takes longer, and the
/// bits are the same.
class Threads {
 public:
  explicit Threads(py::handle count) : Threads(count, kPiece) {}
  Threads(py::handle count, std::ptrdiff_t bytes);
  ~Threads() { omp_set_num_threads(before_); }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

 private:
  int before_;
};

/// Runs body(piece) for every piece, split over threads; an exception of one leaves at the end.
template <class Body>
void for_each_piece(const std::vector<Views>& pieces, const Body& body) {
  std::exception_ptr failure;
  std::mutex lock;
  ctessel::for_each_chunk(static_cast<std::int64_t>(pieces.size()),
                          [&](std::int64_t begin, std::int64_t end) {
                            try {
                              for (auto i = begin; i < end; ++i)
                                body(pieces[static_cast<std::size_t>(i)]);
                            } catch (...) {
                              const std::lock_guard<std::mutex> guard(lock);
                              failure = std::current_exception();
                            }
                          });
  if (failure) std::rethrow_exception(failure);
}

/// Weights of the samples of a volume, along the axes on which they depend; ones to begin with.
struct Weights {
  std::vector<float> values;
  View view;
  explicit Weights(const std::vector<std::ptrdiff_t>& shape);

  /// Puts their axes in memory into the order of an array's, in which `weigh` reads them.
  void arrange_like(const View& data);

  /// The same weights for all samples of an array.
  View along(const View& data) const;
};

/// to = from * weights, where `to` may be `from`.
void weigh(const View& from, Weights weights, const View& to);

void bind_arrays(py::module_& m);
void bind_coils(py::module_& m);
void bind_sense(py::module_& m);
void bind_geometry(py::module_& m);
void bind_gradient_field(py::module_& m);
void bind_helpers(py::module_& m);
void bind_homodyne(py::module_& m);

}  // namespace ctessel_python
