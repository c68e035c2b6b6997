// Sensitivity maps as eigenvectors (ESPIRiT).
//
// Windows of kernel^d samples slide over the calibration data; each is a row of the calibration
// matrix. The rows of strong singular values span the windows that the object and its coils can
// make. The projection onto that space, seen as convolutions between coils, becomes in the image a
// matrix of coil by coil for every voxel, whose eigenvector of eigenvalue 1 holds the
// sensitivities. M. Uecker et al., "ESPIRiT - an eigenvalue approach to autocalibrating parallel
// MRI", Magn. Reson. Med. 71:990 (2014).
//
// Sums run in a fixed order within each element, so threads and vectors leave the bits alone.
#include <Eigen/Dense>
#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>
#include <stdexcept>
#include <vector>

#include "ctessel.hpp"
#include "dispatch.h"
#include "loops.h"
#include "samples.h"
#include "simd.h"

namespace ctessel {
namespace {

using Index = std::ptrdiff_t;
using Complex = std::complex<double>;
using Parts = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

/// Orthonormal bases are multiplied by the matrix so many times before the signal space is read off.
constexpr int kRepetitions = 3;
/// Columns of a calibration matrix of which any share may be signal. Of more a third at most: data that
/// fill the rest are noise alone, which costs time and says nothing.
constexpr Index kSmall = 256;
/// Products of a voxel's matrix with its vector, which starts as the coils' low-resolution values; that
/// of further sets, which hold what these do not show, as any.
constexpr int kPowers = 10;
constexpr Dim kSet{4};  // of maps
/// Voxels at a time: their matrices stay in the cache.
constexpr Index kVoxels = 16;

std::size_t at(Index i) { return static_cast<std::size_t>(i); }

/// Complex rows as parts, one row behind the other.
struct Matrix {
  Parts re, im;
  Index rows = 0, cols = 0;

  Matrix() = default;
  Matrix(Parts real, Parts imaginary)
      : re(std::move(real)), im(std::move(imaginary)), rows(re.rows()), cols(re.cols()) {}
  Matrix(Index r, Index c) : Matrix(Parts::Zero(r, c), Parts::Zero(r, c)) {}
  explicit Matrix(const Eigen::MatrixXcd& m) : Matrix(m.real(), m.imag()) {}

  Complex get(Index r, Index c) const { return {re(r, c), im(r, c)}; }
  void set(Index r, Index c, Complex v) {
    re(r, c) = v.real();
    im(r, c) = v.imag();
  }
  Eigen::MatrixXcd pairs() const {
    Eigen::MatrixXcd out(rows, cols);
    out.real() = re;
    out.imag() = im;
    return out;
  }
  Matrix adjoint() const { return {re.transpose(), -im.transpose()}; }
};

/// y += a x, n complex numbers in parts.
CTESSEL_INLINE void add_scaled(double ar, double ai, const double* xr, const double* xi, double* yr,
                               double* yi, Index n) {
#pragma omp simd
  for (Index j = 0; j < n; ++j) {
    yr[j] += ar * xr[j] - ai * xi[j];
    yi[j] += ar * xi[j] + ai * xr[j];
  }
}

/// Rows i .. i + n - 1 of a product, for as many columns as V has numbers: sums stay in registers.
/// `panel` holds these columns of b, parts of a row behind each other, and any numbers behind the last.
template <int n, class V>
CTESSEL_INLINE void multiply_block(const Matrix& a, const double* panel, Index i, Index column,
                                   Matrix& out) {
  constexpr Index width = sizeof(V) / sizeof(double);
  V re[n] = {}, im[n] = {};
  for (Index k = 0; k < a.cols; ++k) {
    V xr, xi;  // a vector handed over by a function would depend on the processor's conventions
    std::memcpy(&xr, panel + 2 * k * width, sizeof(V));
    std::memcpy(&xi, panel + (2 * k + 1) * width, sizeof(V));
    for (int r = 0; r < n; ++r) {
      const double ar = a.re(i + r, k), ai = a.im(i + r, k);
      re[r] += ar * xr - ai * xi;
      im[r] += ar * xi + ai * xr;
    }
  }
  const std::size_t bytes = at(std::min(width, out.cols - column)) * sizeof(double);
  for (int r = 0; r < n; ++r) {
    std::memcpy(out.re.data() + (i + r) * out.cols + column, &re[r], bytes);
    std::memcpy(out.im.data() + (i + r) * out.cols + column, &im[r], bytes);
  }
}

template <int width>
CTESSEL_INLINE void multiply(const Matrix& a, const Matrix& b, Range rows, bool upper,
                             Matrix& out) {
  using V = Vector<double, width>;
  std::vector<double> panel(at(2 * b.rows * width));
  for (Index column = 0; column < b.cols; column += width) {
    const Index columns = std::min<Index>(width, b.cols - column);
    for (Index k = 0; k < b.rows; ++k) {
      const Index from = k * b.cols + column;
      std::copy_n(b.re.data() + from, columns, panel.data() + 2 * k * width);
      std::copy_n(b.im.data() + from, columns, panel.data() + (2 * k + 1) * width);
    }
    const auto last = static_cast<Index>(rows.end);
    const Index end = upper ? std::min(last, column + columns) : last;
    auto i = static_cast<Index>(rows.begin);
    for (; i + 4 <= end; i += 4) multiply_block<4, V>(a, panel.data(), i, column, out);
    for (; i < end; ++i) multiply_block<1, V>(a, panel.data(), i, column, out);
  }
}

/// Rows of a product; of those of a Hermitian one only the upper triangle.
CTESSEL_BY_WIDTH(void multiply_rows(const Matrix& a, const Matrix& b, Range rows, bool upper,
                                    Matrix& out),
                 multiply, (a, b, rows, upper, out))

Matrix product(const Matrix& a, const Matrix& b, bool upper = false) {
  Matrix out(a.rows, b.cols);
  for_each_chunk(a.rows, [&](std::int64_t begin, std::int64_t end) {
    multiply_rows(a, b, {begin, end}, upper, out);
  });
  return out;
}

/// adjoint(m) m.
Matrix gram_of(const Matrix& m) {
  Matrix out = product(m.adjoint(), m, true);
  for (Index r = 0; r < out.rows; ++r) {
    for (Index c = 0; c < r; ++c) out.set(r, c, std::conj(out.get(c, r)));
  }
  return out;
}

// ---- The signal space of the calibration data ----------------------------------------------------

/// Extents of the calibration data, of the window that slides over it, and of what is left to slide.
struct Windows {
  Index n[3], kernel[3], steps[3], coils;

  Windows(const ConstSamples& calibration, int size) : coils(calibration.extent(Dim::coil)) {
    for (int d = 0; d < 3; ++d) {
      n[d] = calibration.extent(Dim(d));
      kernel[d] = std::min<Index>(n[d], size);
      steps[d] = n[d] - kernel[d] + 1;
    }
  }
  Index volume() const { return kernel[0] * kernel[1] * kernel[2]; }
};

/// Visits (x, y, z) of a box, x fastest.
template <class Visit>
void for_each_place(const Index (&n)[3], const Visit& visit) {
  for (Index z = 0; z < n[2]; ++z) {
    for (Index y = 0; y < n[1]; ++y) {
      for (Index x = 0; x < n[0]; ++x) visit(x, y, z);
    }
  }
}

Complex sample(const ConstSamples& s, Index x, Index y, Index z, Index coil) {
  const Index i = x * s.stride(Dim::x) + y * s.stride(Dim::y) + z * s.stride(Dim::z) +
                  coil * s.stride(Dim::coil);
  return {s.re[i], s.im ? s.im[i] : 0.0f};
}

Matrix calibration_matrix(const ConstSamples& calibration, const Windows& w) {
  Matrix out(w.steps[0] * w.steps[1] * w.steps[2], w.volume() * w.coils);
  Index row = 0;
  for_each_place(w.steps, [&](Index x, Index y, Index z) {
    Index column = 0;
    for (Index coil = 0; coil < w.coils; ++coil) {
      for_each_place(w.kernel, [&](Index a, Index b, Index c) {
        out.set(row, column++, sample(calibration, x + a, y + b, z + c, coil));
      });
    }
    ++row;
  });
  return out;
}

/// Columns that are linearly independent, the same in every run: a generator's numbers in -1 .. 1.
Matrix scattered(Index rows, Index cols) {
  Matrix out(rows, cols);
  std::uint64_t state = 1;
  const auto next = [&] {
    state = state * 6364136223846793005u + 1442695040888963407u;
    return static_cast<double>(state >> 11) / 4503599627370496.0 - 1;
  };
  for (Parts* part : {&out.re, &out.im}) std::generate_n(part->data(), part->size(), next);
  return out;
}

/// The same space with orthonormal columns.
Matrix orthonormal(const Matrix& m) {
  const Eigen::MatrixXcd gram = gram_of(m).pairs();
  const Eigen::MatrixXcd lower = gram.llt().matrixL();
  const Eigen::MatrixXcd unit = Eigen::MatrixXcd::Identity(gram.rows(), gram.cols());
  const Eigen::MatrixXcd inverse = lower.triangularView<Eigen::Lower>().solve(unit).adjoint();
  return product(m, Matrix(inverse));
}

/// Eigenvectors of a Hermitian matrix whose eigenvalues exceed `threshold` times the largest, found in
/// a basis of `width` columns; fewer columns than that are kept unless the basis is too narrow.
Matrix strongest(const Matrix& gram, Index width, double threshold) {
  Matrix shifted = gram;  // keeps products with it far from singular
  shifted.re.diagonal().array() += 1e-3 * threshold * gram.re.trace();
  Matrix basis = scattered(gram.rows, width);
  for (int i = 0; i < kRepetitions; ++i) {
    basis = orthonormal(product(shifted, basis));
  }
  basis = orthonormal(basis);
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXcd> within(
      product(basis.adjoint(), product(gram, basis)).pairs());
  const Eigen::VectorXd& values = within.eigenvalues();
  Index kept = 0;
  while (kept < width && values(width - 1 - kept) > threshold * values(width - 1)) ++kept;
  return product(basis, Matrix(within.eigenvectors().rightCols(kept)));
}

Matrix signal_space(const Matrix& rows, Index coils, double threshold) {
  const Matrix gram = gram_of(rows);
  if (!(gram.re.trace() > 0)) return Matrix(gram.rows, 0);
  const Index most = gram.rows > kSmall ? gram.rows / 3 : gram.rows;
  for (Index width = 4 * coils;; width *= 2) {
    width = std::min(width, most);
    Matrix space = strongest(gram, width, threshold);
    if (4 * space.cols <= 3 * width || width == most) return space;
  }
}

/// The projection as convolutions: for every shift between two places of the window and every pair of
/// coils c <= d the sum of its entries, pairs fastest.
Matrix convolutions(const Matrix& space, const Windows& w) {
  const Matrix projection = product(space, space.adjoint());
  const Index span[2] = {2 * w.kernel[0] - 1, 2 * w.kernel[1] - 1};
  Matrix out(span[0] * span[1] * (2 * w.kernel[2] - 1), w.coils * (w.coils + 1) / 2);
  Index first = 0;
  for_each_place(w.kernel, [&](Index a, Index b, Index c) {
    Index second = 0;
    for_each_place(w.kernel, [&](Index e, Index f, Index g) {
      const Index shift = a - e + w.kernel[0] - 1 +
                          span[0] * (b - f + w.kernel[1] - 1 + span[1] * (c - g + w.kernel[2] - 1));
      Index pair = 0;
      for (Index i = 0; i < w.coils; ++i) {
        for (Index j = i; j < w.coils; ++j, ++pair) {
          const Complex entry = projection.get(i * w.volume() + first, j * w.volume() + second);
          out.set(shift, pair, out.get(shift, pair) + std::conj(entry));
        }
      }
      ++second;
    });
    ++first;
  });
  for (Parts* part : {&out.re, &out.im}) *part /= static_cast<double>(w.volume());
  return out;
}

// ---- From k-space to rows of the image -----------------------------------------------------------

/// exp(2 pi i k (x - floor(N / 2)) / N): a row for each of the `terms` integers k from `first` on, a
/// column for each of the N places x.
Matrix waves(Index size, Index first, Index terms) {
  Matrix out(terms, size);
  const Index centre = size / 2;
  for (Index k = 0; k < terms; ++k) {
    for (Index x = 0; x < size; ++x) {
      const double cycles =
          static_cast<double>((first + k) * (x - centre)) / static_cast<double>(size);
      out.set(k, x, std::polar(1.0, 2 * std::numbers::pi * cycles));
    }
  }
  return out;
}

/// Trigonometric polynomials in (x, y, z), one a column; terms as rows, those of x fastest.
class Polynomials {
 public:
  Polynomials(Matrix terms, const Index (&first)[3], const Index (&count)[3],
              const Index (&size)[3])
      : terms_(std::move(terms)) {
    for (int d = 0; d < 3; ++d) waves_[d] = waves(size[d], first[d], count[d]);
  }

  /// Values along x at (y, z): a row a polynomial.
  Matrix row(Index y, Index z) const {
    const Matrix terms = summed(summed(terms_, waves_[2], z), waves_[1], y);
    const Matrix transposed(terms.re.transpose(), terms.im.transpose());
    Matrix out(terms.cols, waves_[0].cols);
    multiply_rows(transposed, waves_[0], {0, transposed.rows}, false, out);
    return out;
  }

 private:
  /// The sum along the slowest axis at one place of it.
  static Matrix summed(const Matrix& terms, const Matrix& waves, Index place) {
    Matrix out(terms.rows / waves.rows, terms.cols);
    const Index rest = out.rows * out.cols;
    for (Index k = 0; k < waves.rows; ++k) {
      const Complex wave = waves.get(k, place);
      add_scaled(wave.real(), wave.imag(), terms.re.data() + k * rest, terms.im.data() + k * rest,
                 out.re.data(), out.im.data(), rest);
    }
    return out;
  }

  Matrix terms_, waves_[3];
};

/// Falls from 1 at the centre to almost 0 at both ends; 1 for an axis of one sample.
double hann(Index i, Index n) {
  const Index centre = n / 2;
  const auto k = static_cast<double>(i - centre);
  return n > 1 ? 0.5 + 0.5 * std::cos(2 * std::numbers::pi * k / static_cast<double>(n + 1)) : 1.0;
}

Polynomials low_resolution(const ConstSamples& calibration, const Windows& w,
                           const Index (&size)[3]) {
  Matrix terms(w.n[0] * w.n[1] * w.n[2], w.coils);
  Index row = 0;
  for_each_place(w.n, [&](Index x, Index y, Index z) {
    const double weight = hann(x, w.n[0]) * hann(y, w.n[1]) * hann(z, w.n[2]);
    for (Index c = 0; c < w.coils; ++c) terms.set(row, c, weight * sample(calibration, x, y, z, c));
    ++row;
  });
  const Index first[] = {-(w.n[0] / 2), -(w.n[1] / 2), -(w.n[2] / 2)};
  return {std::move(terms), first, w.n, size};
}

Polynomials coil_matrices(Matrix shifts, const Windows& w, const Index (&size)[3]) {
  Index first[3], count[3];
  for (int d = 0; d < 3; ++d) {
    first[d] = 1 - w.kernel[d];
    count[d] = 2 * w.kernel[d] - 1;
  }
  return {std::move(shifts), first, count, size};
}

// ---- Eigenvectors along a row --------------------------------------------------------------------

/// out += m v, or conj(m) v: element by element.
template <int sign>
CTESSEL_INLINE void add_product(const double* mr, const double* mi, const double* vr,
                                const double* vi, double* re, double* im, Index n) {
#pragma omp simd
  for (Index x = 0; x < n; ++x) {
    re[x] += mr[x] * vr[x] - sign * mi[x] * vi[x];
    im[x] += mr[x] * vi[x] + sign * mi[x] * vr[x];
  }
}

/// Divides the columns from `first` on by their length, which becomes the eigenvalue.
CTESSEL_INLINE void normalise(Matrix& v, Index first, Index n, double* length) {
  for (Index x = 0; x < n; ++x) length[x] = 0;
  for (Index i = first; i < v.rows * v.cols; i += v.cols) {
    const double *re = v.re.data() + i, *im = v.im.data() + i;
#pragma omp simd
    for (Index x = 0; x < n; ++x) length[x] += re[x] * re[x] + im[x] * im[x];
  }
  for (Index x = 0; x < n; ++x) length[x] = std::sqrt(length[x]);
  for (Index i = first; i < v.rows * v.cols; i += v.cols) {
    double *re = v.re.data() + i, *im = v.im.data() + i;
#pragma omp simd
    for (Index x = 0; x < n; ++x) {
      re[x] = length[x] > 0 ? re[x] / length[x] : 0;
      im[x] = length[x] > 0 ? im[x] / length[x] : 0;
    }
  }
}

/// Columns of `v` times the Hermitian matrices of their voxels, whose pairs of coils are rows of `m`.
CTESSEL_INLINE void multiply_voxels(const Matrix& m, const Matrix& v, Index first, Index n,
                                    Matrix& out) {
  Index pair = first;
  const auto row = [&](Index coil) { return coil * v.cols + first; };
  for (Index i = 0; i < v.rows; ++i) {
    for (Index j = i; j < v.rows; ++j, pair += m.cols) {
      const double *mr = m.re.data() + pair, *mi = m.im.data() + pair;
      add_product<1>(mr, mi, v.re.data() + row(j), v.im.data() + row(j), out.re.data() + row(i),
                     out.im.data() + row(i), n);
      if (i == j) continue;
      add_product<-1>(mr, mi, v.re.data() + row(i), v.im.data() + row(i), out.re.data() + row(j),
                      out.im.data() + row(j), n);
    }
  }
}

/// Takes out of the columns of `v` what lies along those of `u`, which are of length 1.
CTESSEL_INLINE void take_out(const Matrix& u, Index first, Index n, Matrix& v) {
  double re[kVoxels] = {}, im[kVoxels] = {};
  for (Index i = first; i < v.rows * v.cols; i += v.cols) {
    add_product<-1>(u.re.data() + i, u.im.data() + i, v.re.data() + i, v.im.data() + i, re, im, n);
  }
  for (Index x = 0; x < n; ++x) {
    re[x] = -re[x];
    im[x] = -im[x];
  }
  for (Index i = first; i < v.rows * v.cols; i += v.cols) {
    add_product<1>(u.re.data() + i, u.im.data() + i, re, im, v.re.data() + i, v.im.data() + i, n);
  }
}

/// Makes the columns of `v` unit eigenvectors of the largest eigenvalue but for those of the
/// `found` ones, by repeated products.
CTESSEL_CLONES
void to_eigenvectors(const Matrix& m, const std::vector<Matrix>& found, Matrix& v,
                     double* eigenvalues) {
  for (Index first = 0; first < v.cols; first += kVoxels) {
    const Index n = std::min(kVoxels, v.cols - first);
    const auto leave = [&](Matrix& columns) {
      for (const Matrix& u : found) take_out(u, first, n, columns);
    };
    leave(v);
    normalise(v, first, n, eigenvalues + first);
    Matrix next(v.rows, v.cols);
    for (int power = 0; power < kPowers; ++power) {
      for (Index i = first; i < v.rows * v.cols; i += v.cols) {
        std::fill_n(next.re.data() + i, n, 0.0);
        std::fill_n(next.im.data() + i, n, 0.0);
      }
      multiply_voxels(m, v, first, n, next);
      leave(next);
      normalise(next, first, n, eigenvalues + first);
      std::swap(v, next);
    }
  }
}

/// Phase that gives the image that these maps unfold to the phase of the coils' weighted sum.
Complex reference_phase(const Matrix& low, const Matrix& v, Index x) {
  Complex projected = 0, weighted = 0;
  for (Index c = 0; c < v.rows; ++c) {
    projected += std::conj(v.get(c, x)) * low.get(c, x);
    weighted += std::abs(low.get(c, x)) * low.get(c, x);
  }
  const Complex phase = projected * std::conj(weighted);
  return std::abs(phase) > 0 ? phase / std::abs(phase) : 1.0;
}

/// Where the rows of one (y, z) begin in a view.
Index place(const ConstSamples& s, Index y, Index z) {
  return y * s.stride(Dim::y) + z * s.stride(Dim::z);
}

/// Maps of one row and set, cropped where the eigenvalue says that there is no object.
void store_maps(const Matrix& low, Matrix v, const std::vector<double>& eigenvalues, double crop,
                Index y, Index z, const Samples& maps) {
  std::vector<float> re(at(v.cols)), im(re);
  for (Index x = 0; x < v.cols; ++x) {
    const Complex phase = eigenvalues[at(x)] > crop ? reference_phase(low, v, x) : 0.0;
    for (Index c = 0; c < v.rows; ++c) v.set(c, x, v.get(c, x) * phase);
  }
  for (Index c = 0; c < v.rows; ++c) {
    for (Index x = 0; x < v.cols; ++x) {
      re[at(x)] = static_cast<float>(v.re(c, x));
      im[at(x)] = static_cast<float>(v.im(c, x));
    }
    store_row(re.data(), im.data(),
              row_of(maps, Dim::x, place(maps, y, z) + c * maps.stride(Dim::coil)));
  }
}

void check(const ConstSamples& calibration, const ConstSamples& maps,
           const EspiritOptions& options) {
  const auto refuse = [](const char* text) { throw std::invalid_argument(text); };
  if (calibration.ndim() != 4 || calibration.size() == 0 || maps.ndim() < 4 || maps.ndim() > 5) {
    refuse("calibration: expected samples in the four axes x, y, z, coil, and maps alike");
  }
  if (maps.extent(Dim::coil) != calibration.extent(Dim::coil) || maps.size() == 0 ||
      maps.extent(kSet) > maps.extent(Dim::coil)) {
    refuse(
        "maps: expected as many coils as the calibration has, no more sets, and extents of at "
        "least 1");
  }
  if (options.kernel < 1) refuse("kernel: expected at least 1 sample");
  if (!(options.threshold > 0 && options.threshold < 1)) {
    refuse("threshold: expected a share of the largest eigenvalue, more than 0 and less than 1");
  }
  if (!(options.crop >= 0 && options.crop <= 1)) refuse("crop: expected an eigenvalue of 0 to 1");
  if (!options.eigenvalue) return;
  for (int d = 0; d < 4; ++d) {
    if (options.eigenvalue.extent(Dim(d)) != maps.extent(d < 3 ? Dim(d) : kSet)) {
      refuse("eigenvalue: expected the extents of the maps");
    }
  }
}

}  // namespace

void espirit(const ConstSamples& calibration, const Samples& maps, const EspiritOptions& options) {
  check(calibration, maps, options);
  const Windows windows(calibration, options.kernel);
  const Matrix rows = calibration_matrix(calibration, windows);
  if (!rows.re.allFinite() || !rows.im.allFinite()) {
    throw std::invalid_argument("calibration: expected finite samples");
  }
  const Index size[] = {maps.extent(Dim::x), maps.extent(Dim::y), maps.extent(Dim::z)};
  const Matrix space = signal_space(rows, windows.coils, options.threshold);
  const Polynomials matrices = coil_matrices(convolutions(space, windows), windows, size);
  const Polynomials images = low_resolution(calibration, windows, size);
  const Matrix column = scattered(windows.coils, 1);
  const Matrix any(column.re.replicate(1, size[0]), column.im.replicate(1, size[0]));
  for_each_chunk(size[1] * size[2], [&](std::int64_t begin, std::int64_t end) {
    std::vector<double> eigenvalues(at(size[0]));
    std::vector<float> values(at(size[0]));
    for (auto i = static_cast<Index>(begin); i < end; ++i) {
      const Index y = i % size[1], z = i / size[1];
      const Matrix low = images.row(y, z), row = matrices.row(y, z);
      std::vector<Matrix> found;
      for (Index set = 0; set < maps.extent(kSet); ++set) {
        Matrix v = set == 0 ? low : any;
        to_eigenvectors(row, found, v, eigenvalues.data());
        store_maps(low, v, eigenvalues, options.crop, y, z, maps.from(set * maps.stride(kSet)));
        found.push_back(std::move(v));
        if (!options.eigenvalue) continue;
        std::copy(eigenvalues.begin(), eigenvalues.end(), values.begin());
        const Samples& to = options.eigenvalue;
        store_row(values.data(), nullptr,
                  row_of(to, Dim::x, place(to, y, z) + set * to.stride(Dim(3))));
      }
    }
  });
}

}  // namespace ctessel
