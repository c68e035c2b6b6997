#pragma once

#include <pybind11/pybind11.h>

/// Adds `Stream`, which receives ISMRMRD's streaming protocol.
void bind_stream(pybind11::module_& m);
