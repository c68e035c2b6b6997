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

/// SENSE reconstruction of folded multi-coil images: 1 on success, -1 on failure.
///
/// For each location the unfolding matrices are formed once from the coil sensitivities and applied
/// to every folded volume. Reduction factors are full_size / fold_dims per axis; fractions are
/// allowed along y and z, x is not reduced. Extents past a caller's count are 1.
///
///   fold_re, fold_im  in   (x, y, z, coil, p, q, r, location, ...): folded images; fold_im may be
///                          null (zeros). fold_ndims >= 2
///   sens_re, sens_im  in   (x', y', z', coil, location): maps over the full field of view, on any
///                          grid. A sample of real part 0 in coil 0 is outside the object. With
///                          sens_im null nothing is inside and the output stays untouched
///   psi_re, psi_im    in   (coil, coil): noise covariance, any unit; psi_re null: the identity
///   psi_ndims         in   not read
///   psi_dims          in   rows and columns of the covariance, also when psi_re is null
///   full_size         in   unfolded extents x, y, z
///   ref_re, ref_im    in   reference image for the regularisation weight; ref_im may be null
///   reg_re, reg_im    in   (x', y', z', location): expected magnitude; reg_im may be null
///   scale             in   divisor of the folded level in the regularisation weight
///   out_re, out_im    out  (x, y, z, 1, p, q, r, location, ...), owned and cleared by the caller:
///                          only pixels inside the object are written
///   outdims           in   fold_ndims extents of the output
///
/// Regularised only when both ref_re and reg_re are given. The weight is lambda = ((rms(fold) /
/// scale) / rms(ref))^2 / (reduction over x, y, z), where data of two dimensions still count
/// full_size[2] although they are unfolded with a reduction of 1 along z.
/// Errors: -1 before anything is read if an extent is negative or a product of extents exceeds int;
/// -1 if the covariance is not (coil, coil) or an output volume starts past the output's end, with
/// earlier volumes written. Too few locations in sens or reg are the caller's fault.
/// Threads: split over x within each step.
/// Source: Pruessmann et al., SENSE: sensitivity encoding for fast MRI, MRM 1999;42:952.
int TS_sense_recon(float* fold_re, float* fold_im, int fold_ndims, int* fold_dims, float* sens_re,
                   float* sens_im, int sens_ndims, int* sens_dims, float* psi_re, float* psi_im,
                   int psi_ndims, int* psi_dims, int* full_size, float* ref_re, float* ref_im,
                   int ref_ndims, int* ref_dims, float* reg_re, float* reg_im, int reg_ndims,
                   int* reg_dims, double scale, float* out_re, float* out_im, int* outdims);

/// Unfolding matrices U = (S^H Psi^-1 S + R)^-1 S^H Psi^-1 of every folded voxel, on the grid of
/// the maps: 1, or -1 if an aliased position lies outside the maps, or 0 if refused.
///
///   sens_re, sens_im  in   (nx, ny, nz, nc); with sens_im null all factors are 0
///   sens_dims         in   nx, ny, nz, nc
///   psi               in   (nc, nc) noise covariance
///   reduction         in   [1] = Ry, [2] = Rz; [0] is not read
///   lambda            in   regularisation weight, 0 = off
///   reference         in   expected magnitude per sample of the maps; 0 past its end. R is
///                          diagonal, 1 / (reference^2 lambda), and 0 where the reference is 0
///   factors           out  (nx, ceil(ny/Ry), ceil(nz/Rz), nc ceil(Ry) ceil(Rz)), sized by the
///                          caller. Coil c and alias k of a voxel with n aliases are in slot
///                          c n + k, aliases in the order of TS_get_unfolded_positions, y outer and
///                          z inner; exactly 0 marks an absent alias
///   folded, full      in   extents of the folded and unfolded images; [0] is not read
///   edges_y, edges_z  out  two values each: row or slice before a jump of the aliasing pattern, in
///                          ascending order. Entries without a jump keep the caller's value (-1)
///
/// Alias k of a voxel is absent until the nearest map sample of coil 0 first has a real part other
/// than 0, and stays present from then on for all later voxels (z fastest, then y) of its column x:
/// holes in a map do not tear the object. A singular matrix gives non-finite factors.
/// Errors: 0, with nothing written, if psi is not (nc, nc) or factors is too small.
/// Threads: split over x.
int get_combination_factors(float* sens_re, float* sens_im, const Eigen::VectorXi& sens_dims,
                            const Eigen::MatrixXcd& psi, const Eigen::Vector3f& reduction,
                            double lambda, const Eigen::VectorXf& reference,
                            Eigen::VectorXcd& factors, Eigen::VectorXi& folded,
                            Eigen::VectorXi full, float* edges_y, float* edges_z);

/// 1 if two alias lists of na and nb coordinates differ in length or some pair by more than N / 2
/// (whole division), else 0.
int find_edges(Eigen::VectorXf a, Eigen::VectorXf b, int na, int nb, int N);

/// Unfolds one multi-coil volume with factors of get_combination_factors: 1, or -1 if a position
/// fell outside its volume, the others being processed all the same.
///
///   fold_re, fold_im      in   (nx, ny, nz, nc); fold_im may be null (zeros)
///   fold4                 in   nx, ny, nz, nc
///   factors, factor_dims  in   as left by get_combination_factors; extents x, y, z, slots
///   sens4                 in   not read
///   full_size             in   X = nx, Y, Z
///   edges_y, edges_z      in   as left by get_combination_factors
///   out_re, out_im        out  (X, Y, Z); pixels of absent aliases are left as they are
///
/// An alias is present if its factor at the nearest grid point is not 0; the factors themselves are
/// interpolated. They are interpolated in double and applied in single precision.
/// Threads: split over x.
int unfold(float* fold_re, float* fold_im, Eigen::VectorXi& fold4, Eigen::VectorXcd& factors,
           Eigen::VectorXi& factor_dims, Eigen::VectorXi& sens4, Eigen::VectorXi full_size,
           float* edges_y, float* edges_z, float* out_re, float* out_im);

/// Folded line, 0 ... fold_len - 1, onto which the full line pos falls. The central fold_len lines
/// of the full field of view are the folded image: full line ceil((full_len - fold_len) / 2) falls
/// onto line 0. Needs full_len >= fold_len >= 1.
int TS_folded_pos(int pos, int full_len, int fold_len);

/// Folded lines where the number of aliased lines changes: lines f with compartments[0] < f <=
/// compartments[1] form one compartment, the others the other. The caller presets both to -1, which
/// stays where there is no such boundary. Needs full_len >= fold_len >= 1.
void get_compartments(int full_len, int fold_len, float* compartments);

/// Number of full lines that alias onto folded line fold_pos, listed in positions: those below the
/// central copy descending, then the central line and those above ascending. The rest of positions
/// is set to -1. positions has room for ceil(full_len / fold_len); lines beyond its room are left
/// out. Needs full_len >= fold_len >= 1.
int TS_get_unfolded_positions(int full_len, int fold_len, int fold_pos, Eigen::VectorXi& positions);

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
