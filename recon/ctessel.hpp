// cTessel for C++20: reconstruction kernels for magnetic-resonance imaging, for any memory layout.
//
// A view describes the memory layout of an array: two arrays of parts or one of (real, imaginary)
// pairs, first or last axis fastest, with or without gaps. Kernels read and write through views, so
// no array is copied for its layout. Axes keep the order in which the caller indexes them: images and
// k-space are (x, y, z, coil, ...), whichever axis is fastest in memory. On a centred axis of N
// samples the zero frequency is at index floor(N / 2).
//
// The caller owns every array. Views that do not fit each other throw std::invalid_argument before
// anything is written; std::bad_alloc reaches the caller. Several threads may call routines at the
// same time with disjoint outputs. Each call uses the OpenMP default number of threads. Results have
// the same bits for every number of threads and every layout. "Memory" is what a call allocates in
// addition to its inputs and outputs.
#pragma once

#include <algorithm>
#include <array>
#include <complex>
#include <cstddef>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

namespace ctessel {

// ---- Views --------------------------------------------------------------------------------------

/// Axes by their place, counted from 0. Dim(n) is axis n, also if it has no name here.
enum class Dim : int { x = 0, y = 1, z = 2, coil = 3, location = 7, repetition = 9 };

/// Which axis of an array without gaps is the fastest in memory: the first or the last.
enum class Order { fortran, c };

using Extents = std::vector<std::ptrdiff_t>;

/// A view of the samples of an array with any number of axes. Sample (i, j, ...) has its real part
/// at re[i strides[0] + j strides[1] + ...] and its imaginary part, if im is not null, at the same
/// place from im on. Strides count floats: pairs without gaps have strides 2, 2 extents[0], ...
/// and im = re + 1. Copies of a view are views of the same samples.
template <class Float>
struct BasicSamples {
  using Pair =
      std::conditional_t<std::is_const_v<Float>, const std::complex<float>, std::complex<float>>;

  Float *re = nullptr, *im = nullptr;
  Extents extents, strides;

  BasicSamples() = default;
  BasicSamples(Float* real, Float* imaginary, Extents n, Extents step)
      : re(real), im(imaginary), extents(std::move(n)), strides(std::move(step)) {}

  /// Parts without gaps; imaginary may be null.
  static BasicSamples parts(Float* real, Float* imaginary, Extents n,
                            Order order = Order::fortran) {
    Extents step = packed(n, order, 1);
    return {real, imaginary, std::move(n), std::move(step)};
  }

  /// Pairs without gaps.
  static BasicSamples pairs(Pair* samples, Extents n, Order order = Order::fortran) {
    auto* floats = reinterpret_cast<Float*>(samples);
    Extents step = packed(n, order, 2);
    return {floats, floats ? floats + 1 : nullptr, std::move(n), std::move(step)};
  }

  /// Read-only views of writable samples.
  operator BasicSamples<const Float>() const requires(!std::is_const_v<Float>) {
    return {re, im, extents, strides};
  }

  explicit operator bool() const { return re != nullptr; }
  int ndim() const { return static_cast<int>(extents.size()); }

  /// 1 and 0 past the last axis.
  std::ptrdiff_t extent(Dim d) const { return has(d) ? extents[place(d)] : 1; }
  std::ptrdiff_t stride(Dim d) const { return has(d) ? strides[place(d)] : 0; }

  /// Number of samples. Without a single one the other extents may be so large that their product
  /// overflows.
  std::ptrdiff_t size() const {
    std::ptrdiff_t n = 1;
    for (std::ptrdiff_t extent : extents) {
      if (extent <= 0) return 0;
    }
    for (std::ptrdiff_t extent : extents) n *= extent;
    return n;
  }

  /// Entries first .. first + count - 1 of an axis that there is.
  BasicSamples slice(Dim d, std::ptrdiff_t first, std::ptrdiff_t count) const {
    BasicSamples out = from(first * stride(d));
    out.extents[place(d)] = count;
    return out;
  }

  /// The same extents, `offset` floats further on.
  BasicSamples from(std::ptrdiff_t offset) const {
    return {re + offset, im ? im + offset : nullptr, extents, strides};
  }

  /// The same samples with axes of extent 1 behind the last one, up to n axes.
  BasicSamples with_axes(int n) const {
    BasicSamples out = *this;
    const auto axes = static_cast<std::size_t>(std::max(n, ndim()));
    out.extents.resize(axes, 1);
    out.strides.resize(axes, 0);
    return out;
  }

 private:
  static std::size_t place(Dim d) { return static_cast<std::size_t>(d); }
  bool has(Dim d) const { return place(d) < extents.size(); }

  static Extents packed(const Extents& n, Order order, std::ptrdiff_t step) {
    Extents strides(n.size());
    for (std::size_t k = 0; k < n.size(); ++k) {
      const std::size_t d = order == Order::fortran ? k : n.size() - 1 - k;
      strides[d] = step;
      // Extents of no possible array may wrap round: their samples are never read.
      step =
          static_cast<std::ptrdiff_t>(static_cast<std::size_t>(step) *
                                      static_cast<std::size_t>(std::max<std::ptrdiff_t>(n[d], 1)));
    }
    return strides;
  }
};

using Samples = BasicSamples<float>;
using ConstSamples = BasicSamples<const float>;

// ---- Options ------------------------------------------------------------------------------------

/// Cosine window along x, y and z: how far it falls at its edge, from 0 (flat) to 0.915 (nearly a full
/// Hamming window), and its width in samples.
struct RingingWindow {
  std::array<double, 3> strength;
  std::array<int, 3> width;
};

/// First and last measured line of an axis, counted from the centre; fractions are truncated toward
/// zero.
struct LineRange {
  double first, last;
};

/// Measured lines of kx, ky and kz; none for a fully sampled axis.
using LineRanges = std::array<std::optional<LineRange>, 3>;

/// Positions on an axis, the last one included; none if it lies before the first.
struct Positions {
  std::ptrdiff_t first, last;
  std::ptrdiff_t count() const { return std::max<std::ptrdiff_t>(last - first + 1, 0); }
};

/// What the homodyne filter makes of an axis: whether its range is asymmetric by more than a line, so
/// that the filter is tried; whether it is weighted; and what the centre keeps of it. A range that is
/// tried and cannot be used keeps position 0.
struct HomodyneAxis {
  bool tried, weighted;
  Positions kept;
};

/// What SENSE knows beside folded images and maps. Arrays on the maps' grid are (x', y', z', location), and
/// may go on with the sets of the maps.
struct SenseOptions {
  /// (coil, coil): noise covariance; none: the identity. Any unit without regularisation; with it, the
  /// noise power of the folded images, covariance(c, c) = mean |noise|^2 in their unit.
  ConstSamples covariance;
  /// Expected magnitude, on the maps' grid, which switches the regularisation on: 1 / (expected^2
  /// weight) on the diagonal, 0 where nothing is expected.
  ConstSamples expected;
  double weight = 1;
  /// Image of any extents that gives the weight instead, as in TS_sense_recon: ((rms(folded) / scale)
  /// / rms(reference))^2 / reduction.
  ConstSamples reference;
  double scale = 1;
  /// On the maps' grid, real: not 0 where a voxel is in the object, each for itself, taken at the
  /// nearest sample. None: coil 0's real parts decide, and an alias stays in for the rest of its
  /// column x, as in TS_sense_recon.
  ConstSamples mask;
  /// What the unfolding makes of noise with this covariance: (full x, y, z, location, set), real parts are
  /// written, 0 outside of the object and where no coil sees a voxel; empty: not wanted. With
  /// A = S^H Psi^-1 S of the aliases S of a voxel and U its factors:
  ///   g          (g-factor) sd_i sqrt(A_ii), without regularisation sqrt([A^-1]_ii A_ii) >= 1
  ///   sd         standard deviation of the complex value, sqrt([U Psi U^H]_ii); that of the real and
  ///              of the imaginary part is 1 / sqrt 2 of it. In the unit of the folded images if
  ///              covariance(c, c) = mean |noise|^2.
  ///   condition  of A, largest over smallest eigenvalue, at most 2^52
  ///   response   Re [U S]_ii: the share of the voxel that regularisation leaves, else 1
  /// Between the voxels of a coarser grid sd is that of the factors there, g and response follow from
  /// those of the neighbours, and the condition is the nearest voxel's.
  Samples g = {}, sd = {}, condition = {}, response = {};
  /// Where the voxels lie that alias, for a sampling pattern that is not a product of y and z (CAIPIRINHA):
  /// offsets along y and z in full voxels, the same for every folded voxel and round the edges of the
  /// image, so that alias k of folded (y, z) is voxel ((y + first_y + aliases[k][0]) mod full y,
  /// (z + first_z + aliases[k][1]) mod full z), first = ceil((full - folded) / 2). Every voxel must be
  /// met once, and the maps must have the image's extents along y and z. None: all voxels that are
  /// multiples of the folded extents away along y and along z.
  std::vector<std::array<int, 2>> aliases = {};
};

/// How espirit() estimates sensitivities.
struct EspiritOptions {
  /// Samples of the sliding window along every axis that has as many; at least 1.
  int kernel = 6;
  /// Eigenvalue of the calibration matrix from which on it is signal, of the largest one: in (0, 1).
  double threshold = 0.001;
  /// Eigenvalue, 0 to 1, up to which a voxel is outside the object: its maps of the set are 0.
  double crop = 0.8;
  /// (X, Y, Z, set), real parts are written; empty: not wanted.
  Samples eigenvalue;
};

// Routines are seen outside of the shared library; the views above are compiled where they are used.
#pragma GCC visibility push(default)

/// Copies samples between views of the same extents, whatever their layouts: every sample's bits stay.
/// Where only `to` has imaginary parts they become 0; where only `from` has, they are left out.
/// The two must not overlap. Threads: split over rows or tiles. Memory: none.
void copy(const ConstSamples& from, const Samples& to);

/// Whether any float of the one may be a float of the other, by where their parts begin and end.
bool overlap(const ConstSamples& a, const ConstSamples& b);

// ---- k-space and image arrays -------------------------------------------------------------------

/// Moves the first sample of each named axis to its centre, index floor(N / 2): in place, or into
/// `out`, which must not overlap `data`. Threads: in place split over what is slower in memory than the
/// axis, else over rows. Memory: in place a block of the axis (a sample, row, ...) per thread where its
/// length is odd; samples with gaps go through a copy, of one entry of the slowest axis that is not
/// shifted.
void fftshift(const Samples& data, const std::vector<Dim>& axes);
void fftshift(const ConstSamples& data, const Samples& out, const std::vector<Dim>& axes);

/// The inverse of fftshift, for odd lengths as well.
void ifftshift(const Samples& data, const std::vector<Dim>& axes);
void ifftshift(const ConstSamples& data, const Samples& out, const std::vector<Dim>& axes);

/// Copies samples to the centre of a larger array, from ceil((n - d) / 2) on along an axis of d samples
/// that becomes n. `out` has as many axes; only samples with input are written, so clear it first.
/// Threads: see copy. Memory: none.
void zero_pad(const ConstSamples& data, const Samples& out);

/// Weights centred k-space against truncation ringing: see TS_ringing_filter. `out` has the extents
/// of `data` and may be `data`. Threads: split over volumes, or over planes where there are few.
/// Memory: the three windows; 64 KiB or a row of weights on each thread.
void ringing_filter(const ConstSamples& data, const Samples& out, const RingingWindow& window);

// ---- Coil combination ---------------------------------------------------------------------------
//
// Roemer et al., Magn. Reson. Med. 16:192 (1990).

/// Root sum of squares over the coils, out = sqrt(out + sum over coils of |data|^2), in the order of
/// TS_perform_sos. `out` is real and has extent 1 along `coil`; pass zeros unless sets of coils are
/// taken one after another. Threads: split over voxels. Memory: none; where the samples of `out` have gaps,
/// 256 KiB on each thread.
void sos(const ConstSamples& data, Dim coil, const Samples& out);

/// The same magnitude with the phase of the weighted coil sum: see TS_perform_pcsos. Weights are means
/// along Dim::repetition, which is not the coils' axis. `out` is complex, written, and has extent 1
/// along `coil`. Threads: split over voxels. Memory: 3 KiB per thread and entry of the averaged axis.
void pcsos(const ConstSamples& data, Dim coil, const Samples& out);

// ---- SENSE --------------------------------------------------------------------------------------
//
// Pruessmann et al., Magn. Reson. Med. 42:952 (1999); shifted patterns: Breuer et al., Magn. Reson. Med.
// 55:549 (2006).

/// Unfolds undersampled multi-coil images: the noise-weighted least-squares solution of every voxel's
/// aliases, with the bits of TS_sense_recon.
///
///   folded     in   (x, y, z, coil, p, q, r, location, ...), up to 13 axes; real or complex
///   maps       in   (x', y', z', coil, location, set), sensitivities over the full field of view, on
///                   any grid; as many coils and locations as folded. Several sets, for voxels in which
///                   the object folds onto itself, are unfolded together (soft SENSE): y' and z' are then
///                   those of the image, which are multiples of the folded ones
///   full_size  in   x, y, z of the image; x as folded, y and z at least as folded, any quotient
///   out        out  (full x, y, z, set, p, q, r, location, ...), complex or for real parts only; pixels
///                   outside of the object stay as they are. Empty: only images of noise are wanted,
///                   and of folded only the extents count
///
/// Errors: std::invalid_argument where extents do not fit, or aliases do not meet every voxel once.
/// Threads: split over x. Memory: a bit per voxel of a plane x where aliases are listed or maps have
/// sets; on each thread 1.3 MiB where the maps have the image's lines, no more columns, and all is
/// finite, else at most 13 MiB, for up to 1400 pairs of a coil and an alias of a set.
void sense(const ConstSamples& folded, const ConstSamples& maps,
           const std::array<int, 3>& full_size, const Samples& out,
           const SenseOptions& options = {});

// ---- Sensitivities ------------------------------------------------------------------------------

/// Sensitivity maps from fully measured k-space around its centre (ESPIRiT).
///
///   calibration  in   (x, y, z, coil), k-space, centres at floor(n / 2)
///   maps         out  (X, Y, Z, coil, set), over the same field of view, centres at floor(N / 2); no
///                     more sets than coils
///
/// The coils' squared magnitudes sum to 1 in every voxel of the object and are 0 elsewhere. A second set
/// is there where the object folds onto itself, as in fields of view that are smaller than it: both are
/// orthogonal, and the second set is of the eigenvalue that comes next. The image
/// that the maps unfold to has the phase of the coils' sum weighted with their magnitudes, at the
/// calibration's resolution. Axes that are shorter than the window are spanned by it. Where the matrix
/// has more than 256 columns (window samples x coils) the strongest third of them is signal at most.
/// The time is that of columns^2 x rows; memory about five times that square in double complex.
/// M. Uecker et al., Magn. Reson. Med. 71:990 (2014).
void espirit(const ConstSamples& calibration, const Samples& maps,
             const EspiritOptions& options = {});

// ---- Homodyne reconstruction --------------------------------------------------------------------
//
// Noll, Nishimura, Macovski, IEEE Trans. Med. Imaging 10:154 (1991).

/// Homodyne weighting of one axis of n samples: 0 on the missing side, a ramp 1 -+ t^2 across the
/// symmetric centre, 2 beyond. Gives the positions of the symmetric centre; or nothing, and writes
/// nothing, where the range covers less than 0.55 of the extent that its larger end implies, or all
/// of it: the missing lines must lie on the negative side. weights has n entries or is null.
std::optional<Positions> homodyne_weights(int n, const LineRange& sampled, float* weights);

/// What the filter makes of an axis of n samples. |first + last| <= 1 counts as symmetric.
HomodyneAxis homodyne_axis(int n, const std::optional<LineRange>& sampled);

/// Copies the unweighted symmetric centre of k-space (kx, ky, kz, ...): `centre` has the positions
/// that homodyne_axis keeps of the first three axes. Threads: see copy. Memory: none.
void homodyne_centre(const ConstSamples& kspace, const LineRanges& sampled, const Samples& centre);

/// Multiplies k-space by the F-th root of the product of the weightings of F weighted axes. `out` has
/// the extents of `kspace` and may be `kspace`; if no axis is weighted, it becomes a copy.
/// Threads: split over the merged axes from the fourth on. Memory: a float per line of each axis;
/// 64 KiB or a row of weights on each thread.
void homodyne_filter(const ConstSamples& kspace, const LineRanges& sampled, const Samples& out);

/// Removes the phase of a low-resolution image L, in place: every sample d of `image` becomes the
/// real part of d conj(L) / |L|, its imaginary part 0. If any extent of the two differs, L is
/// resampled trilinearly over the first three axes with the bits of TS_linear_interpolation; volumes
/// that L does not have stay as they are. L = 0 gives NaN. L may overlap the image: it counts as it
/// was before. Threads: split over the merged axes from the fourth on. Memory: a copy of L where it
/// overlaps the image otherwise than sample for sample, or has to be resampled and has gaps; then
/// also 16 bytes per sample of each axis and, on each thread, 72 for each sample of a row.
void remove_phase(const Samples& image, const ConstSamples& low);

/// Samples whose real part is not a number.
std::ptrdiff_t count_nan(const ConstSamples& samples);

#pragma GCC visibility pop

// ---- Gradient non-linearity (gradient_field.cpp) ------------------------------------------------

/// One solid harmonic in the expansion of a gradient's field: (r / radius)^n P_n^m(cos theta) times
/// cos(m phi) or sin(m phi), theta from +z, phi from +x towards +y. P_n^m is not normalised and
/// without the phase (-1)^m: P_1^1 = sin theta.
struct GradientTerm {
  Dim axis;           // of the gradient coil: x, y or z
  bool sine;          // or cosine
  int order, degree;  // n, 1 to GradientField::kMostOrder; m, 0 to n
  double value;
};

/// Points, from the gradients' isocentre: a list, or the voxels of a grid, x fastest, voxel (i, j, k)
/// at affine (i, j, k, 1).
struct FieldPoints {
  std::ptrdiff_t count = 0;
  const double* xyz = nullptr;  // three numbers per point; null for a grid
  std::ptrdiff_t extents[3] = {};
  double affine[3][4] = {};

  static FieldPoints list(const double* xyz, std::ptrdiff_t count) { return {count, xyz}; }
  static FieldPoints grid(const std::ptrdiff_t (&n)[3], const double (&affine)[3][4]) {
    FieldPoints points{n[0] * n[1] * n[2]};
    std::copy(n, n + 3, points.extents);
    std::copy(&affine[0][0], &affine[0][0] + 12, &points.affine[0][0]);
    return points;
  }
};

/// What is to be known of every point, one after the other; what is null is left out.
struct FieldValues {
  double* position = nullptr;      // 3 per point: where the gradients encode it
  double* displacement = nullptr;  // 3 per point: encoded position minus the point
  double* jacobian = nullptr;      // 9 per point: d encoded_a / d point_b at 3 a + b
  double* determinant = nullptr;   // 1 per point, of the Jacobian, with its sign
};

#pragma GCC visibility push(default)

/// Where gradients that are not linear encode points, from the expansion of their fields.
///
/// Each gradient is divided by its linear term (cosine (1, 1) of x, sine (1, 1) of y, (1, 0) of z), so
/// linear gradients move nothing. All is analytic and in double; the origin, the axes and the poles
/// are points like others. Outside of the radius the sums go on, what they mean there is the
/// caller's to judge. Points and radius are in one unit, usually mm.
///
/// Source: Janke et al., Magnetic Resonance in Medicine 52:115-122, 2004.
/// Threads: share the points. Memory: none per point.
class GradientField {
 public:
  static constexpr int kMostOrder = 25;

  /// Terms of the same axis, kind, order and degree add up. Throws std::invalid_argument with one line
  /// for terms that do not exist, numbers that are not finite, and gradients without a linear term.
  GradientField(const std::vector<GradientTerm>& terms, double radius);

  double radius() const;

  void evaluate(const FieldPoints& points, const FieldValues& out) const;
  void position(const FieldPoints& points, double* out) const { evaluate(points, {out}); }
  void displacement(const FieldPoints& points, double* out) const {
    evaluate(points, {nullptr, out});
  }
  void jacobian(const FieldPoints& points, double* out) const {
    evaluate(points, {nullptr, nullptr, out});
  }
  void determinant(const FieldPoints& points, double* out) const {
    evaluate(points, {nullptr, nullptr, nullptr, out});
  }

  /// Points that are encoded at given places: by the iteration p <- place - displacement(p), until a
  /// step is at most 1e-9 radius. It converges where the displacement changes by less than the point
  /// does; elsewhere the point is three times NaN. Returns how many are. `out` may be encoded.xyz.
  std::ptrdiff_t inverse(const FieldPoints& encoded, double* out) const;

  struct [[gnu::visibility("hidden")]] Expansion;

 private:
  std::shared_ptr<const Expansion> expansion_;
};

// ---- Helpers ------------------------------------------------------------------------------------

/// Trilinear interpolation of a volume (x, y, z) at n positions in samples, given axis by axis: each
/// with the bits and the rules at the ends of TS_linear_interpolation. A complex volume gives pairs.
/// Threads: one. Memory: none.
void interpolate(const ConstSamples& volume, const std::array<const float*, 3>& at,
                 std::ptrdiff_t n, float* out);

/// Root-mean-square magnitude, as TS_SA sums it; without samples not a number. Memory: none.
double root_mean_square(const ConstSamples& samples);

#pragma GCC visibility pop

}  // namespace ctessel
