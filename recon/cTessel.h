// cTessel: reconstruction kernels for magnetic-resonance imaging.
//
// Arrays are column-major (first index fastest). Complex arrays are two float arrays of the same
// layout, real parts and imaginary parts. Extents are int; dimensions past the caller's count are 1
// and those from the fourth on merge into one outer count P, unless a routine says otherwise.
// Element (x, y, z, p) lies at x + Nx (y + Ny (z + Nz p)). On a centred axis of N samples the zero
// frequency lies at index floor(N / 2). Dimension numbers passed as arguments count from 1.
//
// The caller owns every array. Nothing is validated or printed; what stays the caller's duty is
// said with each routine. std::bad_alloc leaves a routine uncaught. Routines may be called from
// several threads at once on disjoint outputs; each uses the OpenMP default number of threads, and
// results are the same bits for every thread count.
#pragma once

#include <Eigen/Core>

#pragma GCC visibility push(default)

// ---- Circular shifts (array_shift.cpp) ----------------------------------------------------------

/// Moves the first element of one axis to its centre, in place: element i goes to (i + m) mod N
/// with m = floor(N / 2), so 0 1 2 3 4 becomes 3 4 0 1 2.
///
///   re, im       in/out  k-space or image array, x fastest; im may be null
///   dims, ndims  in      extents, at least two; the third is 1 below three, dims[3..] merge into P
///   dim          in      axis to shift, 1 to 3; any other leaves the array as it is
///
/// Errors: none reported. dim <= ndims is the caller's duty, and in the routines for one axis that
/// dim is the axis of their name: they read the axis length as dims[dim - 1].
/// Threads: split over P, so data of up to three dimensions use one thread.
/// Memory: on an axis of odd length one of its blocks (sample, row or plane), per thread.
void TS_fftshift(float* re, float* im, int* dims, int ndims, int dim);
void TS_fftshift_dim1(float* re, float* im, int* dims, int ndims, int dim);
void TS_fftshift_dim2(float* re, float* im, int* dims, int ndims, int dim);
void TS_fftshift_dim3(float* re, float* im, int* dims, int ndims, int dim);

/// Undoes TS_fftshift for odd and even N: the centre goes to the first element, i to
/// (i + N - m) mod N, so 0 1 2 3 4 becomes 2 3 4 0 1. All else as there.
void TS_ifftshift(float* re, float* im, int* dims, int ndims, int dim);
void TS_ifftshift_dim1(float* re, float* im, int* dims, int ndims, int dim);
void TS_ifftshift_dim2(float* re, float* im, int* dims, int ndims, int dim);
void TS_ifftshift_dim3(float* re, float* im, int* dims, int ndims, int dim);

// ---- Zero padding (zero_pad.cpp) ----------------------------------------------------------------

/// Places a k-space or image array in the centre of a larger, zero-filled one.
///
/// Sample (x, y, z, p) goes to (x + x0, y + y0, z + z0, p) with x0 = ceil((nx - d0) / 2), y0 and z0
/// alike: an odd spare zero goes in front, so (a b) padded to 5 is (0 0 a b 0). Values are copied,
/// never scaled.
///
///   re, im          in   (d0, d1, d2, P), x fastest; im is read only if out_im is given
///   ndims, dims     in   extents, at least two; d2 = 1 below three, dims[3..] merge into P
///   nx, ny, nz      in   target extents in samples: whole, nx >= d0, ny >= d1, nz >= d2
///   out_re, out_im  out  (nx, ny, nz, P), owned and zero-filled by the caller: only samples with
///                        input are written; out_im may be null
///
/// Errors: none reported; a target smaller than the input, or not whole, writes nothing.
/// Threads: split over P, so data of up to three dimensions use one thread. Memory: none.
void TS_zero_pad(float* re, float* im, int ndims, int* dims, double nx, double ny, double nz,
                 float* out_re, float* out_im);

// ---- Ringing filter (ringing_filter.cpp) --------------------------------------------------------

/// Weights centred k-space in place with a separable cosine window against truncation ringing.
///
/// Along each of the first three axes, at j samples from the centre floor(N / 2), the weight is
/// 0.54 + 0.46 cos(2 pi j / L) within the window and 0 outside; L is such that the weight at half
/// the window's width is 1 - strength.
///
///   re, im       in/out  k-space, x fastest; im may be null and then counts as 0
///   ndims, dims  in      extents, at least two; the third is 1 below three, dims[3..] merge into P
///   strength     in      three values, clamped to 0 (flat) .. 0.915 (nearly a full Hamming window)
///   width        in      three window widths in samples, read for two-dimensional data too, where
///                        width[2] must be at least 1; 0 clears everything
///
/// A sample of exactly 0 keeps its value even where its weight is not a number.
/// Errors: none reported. Threads: split over P. Memory: one float per sample of a plane, and the
/// three windows.
/// Source: F. J. Harris, Proc. IEEE 66:51 (1978).
void TS_ringing_filter(float* re, float* im, int ndims, int* dims, double* strength, int* width);

// ---- Coil combination (coil_combine.cpp) --------------------------------------------------------

/// Root sum of squares over the coils: out = sqrt(out + sum over coils of re^2 + im^2).
///
/// The sum starts with what `out` holds, so that sets of coils can be taken in turn; pass zeros
/// otherwise. It runs coil by coil, real part before imaginary part, rounded to float at each step.
///
///   re, im       in      coil images, x fastest; im may be null
///   ndims, dims  in      their extents
///   coildim      in      coil dimension, counted from 1, at most ndims
///   out          in/out  magnitudes, the input's shape with one coil
///   outdims      in      extents of out, ndims entries; their product is the number of voxels
///
/// Errors: none reported; that outdims fits dims is the caller's duty.
/// Threads: split over the output voxels. Memory: none.
/// Source: Roemer et al., Magn. Reson. Med. 16:192 (1990).
void TS_perform_sos(float* re, float* im, int ndims, int* dims, int coildim, float* out,
                    int* outdims);

/// Sum-of-squares magnitude with the phase of the coil images summed with weights.
///
/// A coil's weight at a voxel is its mean magnitude along the tenth dimension, so all images along
/// that dimension are combined alike. Sums run coil by coil in single precision. No signal gives
/// 0 + 0i; a tenth extent of 0 gives NaN.
///
///   re, im          in   coil images, x fastest; im may be null
///   ndims           in   number of extents
///   dims            in   extents: AT LEAST TEN ENTRIES are read whatever ndims is, 1 where unused
///   coildim         in   coil dimension, counted from 1, not the tenth
///   out_re, out_im  out  the input's shape with one coil, both required; written, not added to
///   outdims         in   extents of the output, ndims entries
///
/// Errors: none reported; that outdims fits dims is the caller's duty.
/// Threads: split over blocks of output voxels.
/// Memory: 3 KiB per thread and entry of the tenth dimension.
/// Source: Roemer et al., Magn. Reson. Med. 16:192 (1990).
void TS_perform_pcsos(float* re, float* im, int ndims, int* dims, int coildim, float* out_re,
                      float* out_im, int* outdims);

// ---- SENSE (sense_recon.cpp, fold_geometry.cpp, combination_factors.cpp, unfold.cpp) ------------

// ---- Geometry correction (geometry_correction.cpp) ----------------------------------------------

// ---- Spherical harmonics (spherical_harmonics.cpp) ----------------------------------------------

// ---- Interpolation and grids (interpolation.cpp) ------------------------------------------------

/// Evenly spaced grid of n values from start on, in a new array that the caller releases with
/// delete[].
///
/// The step (stop - start) / (n - 1) is added up in double and each value rounded to float, so the
/// last value approximates stop without being forced to it. n = 1 gives start; n < 1 an empty
/// array.
float* TS_linspace(float start, float stop, int n);

/// Trilinear interpolation of a volume at (b, a, c): the coordinate along the SECOND dimension
/// comes first, the one along the first dimension second.
///
///   volume   in  (dims[0], dims[1], dims[2]), x fastest
///   a, b, c  in  zero-based sample positions along dimensions 2, 1 and 3; truncated toward zero
///                they must give a sample of the volume or one past its end
///   dims     in  three extents
///
/// Corners are judged by their linear offset alone: one at or past the end of the volume counts as
/// 0, and one that steps past the end of a row reads the first sample of the next row. Weights are
/// formed and summed in double.
/// Errors: none reported; positions before the first sample are the caller's fault.
float TS_linear_interpolation(float* volume, float a, float b, float c, int* dims);
float TS_linear_interpolation(float* volume, float a, float b, float c,
                              const Eigen::VectorXi& dims);
float TS_linear_interpolation(const Eigen::VectorXf& volume, float a, float b, float c,
                              const Eigen::VectorXi& dims);

/// The same on complex values, with the truncation already done by the caller.
///
///   volume      in  complex values; may hold more than one volume
///   dims        in  dims[0] is the row length, the rest is not read
///   base        in  linear offset of the first corner
///   fa, fb, fc  in  fractions towards the next row, the next sample and the next plane
///   P           in  samples per plane
///   T           in  linear end of the volume: later corners count as 0
///
/// The corners are counted from the last one down to the first that lies before T; where the second
/// extent is 1 that count can include a corner past T, which is then read if the vector has it.
std::complex<double> TS_linear_interpolation(const Eigen::VectorXcd& volume,
                                             const Eigen::VectorXi& dims, int base, double fa,
                                             double fb, double fc, int P, int T);

/// Coordinate at which to interpolate for sample idx, whose plain coordinate is pos.
///
/// A[k] is the last sample before a jump in a folding pattern and B[k] its coordinate on the other
/// grid, for k = 0 and 1; -1 in either marks the pair as absent. Samples next to a jump are snapped
/// to the pair's coordinate or one past it, and a coordinate that has crossed the jump is pulled
/// back, so that no interpolation mixes both sides. Without a matching pair the result is pos.
double pos2interpolate(double pos, int idx, const float* A, const float* B);

// ---- Rounding, indices, search (index_helpers.cpp) ----------------------------------------------

/// Nearest integer with halves up for x >= 0; negative values round toward zero (-2.7 gives -2).
/// NaN and values outside int give INT_MIN.
int TS_round(double x);
int TS_round(float x);

/// Column-major linear index of the zero-based subscript `sub` in an array of extents `dims`, in
/// int arithmetic. Entries beyond their extent carry into the next dimension; the last extent is
/// not read. sub must have as many entries as dims; empty dims give 0.
int TS_sub2ind(const Eigen::VectorXi& dims, const Eigen::VectorXi& sub);

/// Index of the first of the n entries of a that equals v, or -1.
int TS_find(unsigned short* a, unsigned short v, int n);
int TS_find(short* a, short v, int n);
int TS_find(int* a, int v, int n);
int TS_find(unsigned int* a, unsigned int v, int n);

/// Root-mean-square magnitude of n complex values, summed in the widest floating-point type (80
/// bits on x86). im may be null and then counts as 0. n = 0 gives NaN, n < 0 gives -0.0.
double TS_SA(float* re, float* im, int n);

#pragma GCC visibility pop
