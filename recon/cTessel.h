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

// ---- Zero padding (zero_pad.cpp) ----------------------------------------------------------------

// ---- Ringing filter (ringing_filter.cpp) --------------------------------------------------------

// ---- Coil combination (coil_combine.cpp) --------------------------------------------------------

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
