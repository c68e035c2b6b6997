// The kernels of cTessel for GNU Octave, behind one entry: the first argument names the kernel.
//
// Octave keeps complex values as pairs, which the kernels take as they lie. The m-files are the interface
// for users; they check every argument, so nothing is checked again but the number of arguments. Input
// values are never changed: Octave's arrays copy themselves before they hand out storage to write into.

#include <octave/oct.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "cTessel.h"
#include "ctessel.hpp"

namespace {

using Values = octave_value_list;

using ctessel::ConstSamples;
using ctessel::Dim;
using ctessel::Extents;
using ctessel::Samples;

// ---- Arrays -------------------------------------------------------------------------------------

/// Filled up with ones to `least` entries.
Extents extents(const dim_vector& dims, int least) {
  Extents e(static_cast<std::size_t>(std::max<int>(dims.ndims(), least)), 1);
  for (int d = 0; d < dims.ndims(); ++d) e[static_cast<std::size_t>(d)] = dims(d);
  return e;
}

dim_vector shape(const Extents& e) {
  dim_vector dims = dim_vector::alloc(static_cast<int>(e.size()));
  std::copy(e.begin(), e.end(), &dims(0));
  dims.chop_trailing_singletons();
  return dims;
}

/// Single values of either kind, and views of them.
struct Single {
  FloatComplexNDArray pairs;
  FloatNDArray values;
  bool is_complex;

  explicit Single(const octave_value& v, bool as_complex = false)
      : is_complex(as_complex || v.iscomplex()) {
    if (is_complex) pairs = v.float_complex_array_value();
    if (!is_complex) values = v.float_array_value();
  }
  Single(const dim_vector& dims, bool with_imaginary) : is_complex(with_imaginary) {
    if (is_complex) pairs = FloatComplexNDArray(dims, 0.0f);
    if (!is_complex) values = FloatNDArray(dims, 0.0f);
  }

  dim_vector dims() const { return is_complex ? pairs.dims() : values.dims(); }
  /// As many axes at least: ten, so that every axis which a kernel names is there.
  ConstSamples view(int axes = 10) const {
    if (is_complex) return ConstSamples::pairs(pairs.data(), extents(dims(), axes));
    return ConstSamples::parts(values.data(), nullptr, extents(dims(), axes));
  }
  /// To write into. Storage shared with a variable of the user's is copied first.
  Samples target(int axes = 10) {
    if (is_complex) return Samples::pairs(pairs.fortran_vec(), extents(dims(), axes));
    return Samples::parts(values.fortran_vec(), nullptr, extents(dims(), axes));
  }
  octave_value value() const { return is_complex ? octave_value(pairs) : octave_value(values); }
};

using Shift = void(const Samples&, const std::vector<Dim>&);

/// x, axes: shifted on the copy that writing makes
template <Shift* shift>
Values shift_axes(const Values& args) {
  const Array<int> axes = args(2).int_vector_value();
  std::vector<Dim> list;
  for (octave_idx_type i = 0; i < axes.numel(); ++i) list.push_back(Dim(axes(i) - 1));
  Single x(args(1));
  shift(x.target(), list);
  return ovl(x.value());
}

/// x, [nx ny nz]
Values zero_pad(const Values& args) {
  const Single x(args(1));
  Extents target = extents(x.dims(), 3);
  const Array<int> n = args(2).int_vector_value();
  std::copy_n(n.data(), 3, target.begin());
  Single out(shape(target), x.is_complex);
  ctessel::zero_pad(x.view(), out.target());
  return ovl(out.value());
}

/// x, three strengths, three widths
Values ringing_filter(const Values& args) {
  Single x(args(1));
  const NDArray strength = args(2).array_value();
  const Array<int> width = args(3).int_vector_value();
  const Samples samples = x.target();
  ctessel::ringing_filter(
      samples, samples, {{strength(0), strength(1), strength(2)}, {width(0), width(1), width(2)}});
  return ovl(x.value());
}

// ---- Coils --------------------------------------------------------------------------------------

using Combine = void(const ConstSamples&, Dim, const Samples&);

/// x, coil dimension
template <Combine* kernel, bool Complex>
Values combine(const Values& args) {
  const Single coils(args(1));
  const int dim = args(2).int_value();
  Extents combined = extents(coils.dims(), std::max(10, dim));
  combined[static_cast<std::size_t>(dim - 1)] = 1;
  Single out(shape(combined), Complex);
  const auto axes = static_cast<int>(combined.size());
  kernel(coils.view(axes), Dim(dim - 1), out.target(axes));
  return ovl(out.value());
}

// ---- SENSE --------------------------------------------------------------------------------------

/// A view of values that may have been left out ([]).
ConstSamples given(const Single& s) { return s.dims().any_zero() ? ConstSamples() : s.view(); }

/// folded, sensitivities, [X Y Z], covariance or [], regularisation image or [], reference or [],
/// scale, offsets of aliases (n x 2) or []
Values sense(const Values& args) {
  const Single folded(args(1)), maps(args(2), true), covariance(args(4)), expected(args(5)),
      reference(args(6));
  const Array<int> full = args(3).int_vector_value();
  Extents unfolded = extents(folded.dims(), 4);
  std::copy_n(full.data(), 3, unfolded.begin());
  unfolded[3] = extents(maps.dims(), 6)[5];
  Single out(shape(unfolded), true);
  ctessel::SenseOptions options;
  options.covariance = given(covariance);
  options.expected = given(expected);
  options.reference = given(reference);
  options.scale = args(7).double_value();
  const int32NDArray offsets = args(8).int32_array_value();
  for (octave_idx_type k = 0; k < offsets.numel() / 2; ++k)
    options.aliases.push_back({offsets(k), offsets(k + offsets.numel() / 2)});
  ctessel::sense(folded.view(), maps.view(), {full(0), full(1), full(2)}, out.target(), options);
  return ovl(out.value());
}

/// sensitivities, [X Y Z], [x y z] of the folded images, covariance or [], expected magnitude or [],
/// weight, mask
Values noise(const Values& args) {
  const Single maps(args(1), true), covariance(args(4)), expected(args(5)), mask(args(7));
  const Array<int> full = args(2).int_vector_value(), fold = args(3).int_vector_value();
  const Extents grid = extents(maps.dims(), 5);
  const Extents image = {full(0), full(1), full(2), grid[4]};
  Single g(shape(image), false), sd(shape(image), false), condition(shape(image), false);
  ctessel::SenseOptions options;
  options.covariance = given(covariance);
  options.expected = given(expected);
  options.weight = args(6).double_value();
  options.mask = mask.view();
  options.g = g.target();
  options.sd = sd.target();
  options.condition = condition.target();
  const ConstSamples folded(nullptr, nullptr,
                            {fold(0), fold(1), fold(2), grid[3], 1, 1, 1, grid[4]}, Extents(8, 0));
  ctessel::sense(folded, maps.view(), {full(0), full(1), full(2)}, {}, options);
  return ovl(g.value(), sd.value(), condition.value());
}

/// calibration, [X Y Z], kernel, threshold, crop, sets
Values espirit(const Values& args) {
  const Single calibration(args(1));
  const Array<int> size = args(2).int_vector_value();
  const int sets = args(6).int_value();
  Single maps(shape({size(0), size(1), size(2), extents(calibration.dims(), 4)[3], sets}), true);
  Single eigenvalue(shape({size(0), size(1), size(2), sets}), false);
  ctessel::EspiritOptions options;
  options.kernel = args(3).int_value();
  options.threshold = args(4).double_value();
  options.crop = args(5).double_value();
  options.eigenvalue = eigenvalue.target();
  ctessel::espirit(calibration.view(4), maps.target(5), options);
  return ovl(maps.value(), eigenvalue.value());
}

// ---- Geometry -----------------------------------------------------------------------------------

/// Coefficients by order (rows) and degree (columns), zero where the caller's table ends.
template <std::size_t Orders, std::size_t Degrees>
struct Table {
  float at[Orders][Degrees] = {};
  explicit Table(const octave_value& v) {
    const FloatMatrix m = v.float_matrix_value();
    for (octave_idx_type n = 0; n < m.rows(); ++n) {
      for (octave_idx_type d = 0; d < m.columns(); ++d) at[n][d] = m(n, d);
    }
  }
};

/// x, y, z, coefficients of x, y, z, reference radius
Values geometry(const Values& args) {
  const FloatNDArray x = args(1).float_array_value(), y = args(2).float_array_value(),
                     z = args(3).float_array_value();
  FloatNDArray xd(x.dims()), yd(x.dims()), zd(x.dims());
  Table<14, 12> cx(args(4)), cy(args(5));
  Table<17, 1> cz(args(6));
  const auto read = [](const FloatNDArray& a) { return const_cast<float*>(a.data()); };
  TS_geometry_correction(read(x), read(y), read(z), xd.fortran_vec(), yd.fortran_vec(),
                         zd.fortran_vec(), static_cast<int>(x.numel()), cy.at, cx.at, cz.at,
                         args(7).float_value());
  return ovl(xd, yd, zd);
}

/// order, degree, x
Values legendre(const Values& args) {
  const int l = args(1).int_value(), m = args(2).int_value();
  const FloatNDArray x = args(3).float_array_value();
  NDArray values(x.dims());
  for (octave_idx_type i = 0; i < x.numel(); ++i) values(i) = plgndr(l, m, x(i));
  return ovl(values);
}

std::vector<ctessel::GradientTerm> terms_of(const NDArray& rows) {
  std::vector<ctessel::GradientTerm> terms;
  for (const double* t = rows.data(); t < rows.data() + rows.numel(); t += 5) {
    terms.push_back({ctessel::Dim(static_cast<int>(t[0]) - 1), t[1] != 0, static_cast<int>(t[2]),
                     static_cast<int>(t[3]), t[4]});
  }
  return terms;
}

/// what (1 position, 2 displacement, 3 jacobian, 4 determinant, 5 inverse), points, terms, radius
Values gradient_field(const Values& args) {
  const int what = args(1).int_value();
  const NDArray points = args(2).array_value();
  const ctessel::GradientField field(terms_of(args(3).array_value()), args(4).double_value());
  const octave_idx_type n = points.numel() / 3;
  NDArray values(dim_vector(what == 3 ? 9 : what == 4 ? 1 : 3, n));
  const auto list = ctessel::FieldPoints::list(points.data(), n);
  if (what == 5) {
    const auto lost = field.inverse(list, values.fortran_vec());
    return ovl(values, static_cast<double>(lost));
  }
  double* out[5] = {};
  out[what] = values.fortran_vec();
  field.evaluate(list, {out[1], out[2], out[3], out[4]});
  return ovl(values, 0.0);
}

struct Kernel {
  const char* name;
  int arguments;
  Values (*run)(const Values& args);
};

constexpr Kernel kKernels[] = {
    {"fftshift", 2, shift_axes<ctessel::fftshift>},
    {"ifftshift", 2, shift_axes<ctessel::ifftshift>},
    {"zero_pad", 2, zero_pad},
    {"ringing_filter", 3, ringing_filter},
    {"sos", 2, combine<ctessel::sos, false>},
    {"pcsos", 2, combine<ctessel::pcsos, true>},
    {"sense", 8, sense},
    {"noise", 7, noise},
    {"espirit", 6, espirit},
    {"geometry", 7, geometry},
    {"gradient_field", 4, gradient_field},
    {"legendre", 3, legendre},
};

}  // namespace

DEFUN_DLD(__ctessel__, args, ,
          "Kernels of cTessel, for the ctessel_* functions. Arguments are not checked here.") {
  const std::string name = args.length() > 0 ? args(0).xstring_value("__ctessel__: no kernel") : "";
  for (const Kernel& kernel : kKernels) {
    if (name != kernel.name) continue;
    if (args.length() != 1 + kernel.arguments) {
      error("__ctessel__: %s takes %d arguments; got %d", kernel.name, kernel.arguments,
            static_cast<int>(args.length()) - 1);
    }
    try {
      return kernel.run(args);
    } catch (const std::invalid_argument& fault) {
      error("ctessel_%s: %s", kernel.name, fault.what());
    }
  }
  error("__ctessel__: no kernel \"%s\"", name.c_str());
}
