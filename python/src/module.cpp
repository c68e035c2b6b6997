// The extension module: what the functions of the package ctessel call. Arguments come by position;
// the package gives them names, defaults and documentation.

#include "arguments.h"

namespace py = pybind11;

PYBIND11_MODULE(_core, m) {
  py::options options;
  options.disable_function_signatures();
  m.attr("__version__") = CTESSEL_VERSION;
  m.def("max_threads", omp_get_max_threads);
  // A child of fork() has none of its parent's threads, but OpenMP would wait for them: the package has
  // them ended before it forks.
  m.def("release_threads", [] { omp_pause_resource_all(omp_pause_hard); });
  ctessel_python::bind_arrays(m);
  ctessel_python::bind_coils(m);
  ctessel_python::bind_sense(m);
  ctessel_python::bind_geometry(m);
  ctessel_python::bind_gradient_field(m);
  ctessel_python::bind_helpers(m);
  ctessel_python::bind_homodyne(m);
}
