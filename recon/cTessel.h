// cTessel: reconstruction kernels for magnetic-resonance imaging.
//
// Arrays are column-major (first index fastest). Complex arrays are two float arrays of the same
// layout, real parts and imaginary parts. Extents are int; dimensions past the caller's count are 1
// and those from the fourth on merge into one outer count P, unless a routine says otherwise.
// Element (x, y, z, p) lies at x + Nx (y + Ny (z + Nz p)). On a centred axis of N samples the zero
// frequency lies at index floor(N / 2). Dimension numbers passed as arguments count from 1.
//
// The caller owns every array. Nothing is printed, and only what a routine's errors name is validated:
// the rest is the caller's duty. std::bad_alloc leaves a routine uncaught; in a parallel region, or in
// a module with its own C++ runtime, it ends the process. Routines may be called from several
// threads at once on disjoint outputs; each uses the OpenMP default number of threads, and results are
// the same bits for every thread count. Memory is what a call allocates beyond its inputs and outputs,
// without a few bytes per line of an axis; ./bench.sh measures it.
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
/// the window's width is 1 - strength. A window of w samples has j = -floor(w / 2) .. ceil(w / 2) - 1:
/// an even one ends a sample earlier on the positive side.
///
///   re, im       in/out  k-space, x fastest; im may be null and then counts as 0
///   ndims, dims  in      extents, at least two; the third is 1 below three, dims[3..] merge into P
///   strength     in      three values, clamped to 0 (flat) .. 0.915 (nearly a full Hamming window)
///   width        in      three window widths in samples, read for two-dimensional data too, where
///                        width[2] must be at least 1; 0 clears everything
///
/// A sample of exactly 0 keeps its value even where its weight is not a number.
/// Errors: none reported. Threads: split over P. Memory: the three windows; 64 KiB or a row of weights
/// on each thread.
/// Source: F. J. Harris, Proc. IEEE 66:51 (1978).
void TS_ringing_filter(float* re, float* im, int ndims, int* dims, double* strength, int* width);

// ---- Coil combination (coil_combine.cpp) --------------------------------------------------------

/// Root sum of squares over the coils: out = sqrt(out + sum over coils of re^2 + im^2).
///
/// The sum starts with what `out` holds, so that sets of coils can be added one after another; pass zeros
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

/// SENSE reconstruction of folded multi-coil images: 1 on success, -1 on failure.
///
/// For each location the unfolding matrices are formed once from the coil sensitivities and applied
/// to every folded volume. Reduction factors are full_size / fold_dims per axis; fractions are
/// allowed along y and z, x is not reduced. Extents past a caller's count are 1; those past the 13th
/// are not read.
///
///   fold_re, fold_im  in   (x, y, z, coil, p, q, r, location, ...): folded images; fold_im may be
///                          null (zeros). fold_ndims >= 2
///   sens_re, sens_im  in   (x', y', z', coil, location): maps over the full field of view, on any
///                          grid. A sample of real part 0 in coil 0 is outside the object. With
///                          sens_im null nothing is inside and the output stays untouched
///   psi_re, psi_im    in   (coil, coil): noise covariance, both parts; psi_re null: the identity.
///                          Without regularisation any unit. With it, the noise power of the folded
///                          images, psi(c, c) = mean |noise|^2 in their unit: k psi acts as
///                          lambda / k
///   psi_ndims         in   not read
///   psi_dims          in   rows and columns of the covariance, also when psi_re is null
///   full_size         in   unfolded extents x, y, z; x is that of the folded images
///   ref_re, ref_im    in   reference image for the regularisation weight; ref_im may be null
///   reg_re, reg_im    in   (x', y', z', location): expected magnitude; reg_im may be null
///   scale             in   divisor of the folded root mean square in the regularisation weight
///   out_re, out_im    out  (x, y, z, 1, p, q, r, location, ...), owned and cleared by the caller:
///                          only pixels inside the object are written
///   outdims           in   fold_ndims extents of the output: those of full_size, 1 for the coils,
///                          then the folded images' own. Other extents of x, y and z change the
///                          place of later volumes alone
///
/// Regularised only when both ref_re and reg_re are given. The weight is lambda = ((rms(fold) /
/// scale) / rms(ref))^2 / (reduction over x, y, z), where data of two dimensions still count
/// full_size[2] although they are unfolded with a reduction of 1 along z.
/// Errors: -1 before anything is read if an extent is negative or a product of extents exceeds int
/// (of folded images, maps, full size, covariance, output, factors, and with regularisation of ref
/// and of a location of reg); -1 if the covariance is not (coil, coil) or an output volume starts
/// past the output's end, with earlier volumes written. Coils that only one of the folded images and
/// the maps have take no part. Too few locations in sens or reg are the caller's fault.
/// The results are those of get_combination_factors and unfold, to the bit. Threads: split over x.
/// Memory: on each thread 1.3 MiB where the maps have the image's lines, no more columns, and all is
/// finite, else at most 13 MiB, for up to 1400 pairs of a coil and an alias; it does not grow with the
/// extents nor with the volumes.
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
///   psi               in   (nc, nc) noise covariance; its unit matters only with regularisation,
///                          where k psi acts as lambda / k
///   reduction         in   [1] = Ry, [2] = Rz; [0] is not read
///   lambda            in   regularisation weight, 0 = off
///   reference         in   expected magnitude per sample of the maps; 0 past its end. R is
///                          diagonal, 1 / (reference^2 lambda), and 0 where the reference is 0
///   factors           out  (nx, ceil(ny/Ry), ceil(nz/Rz), nc ceil(Ry) ceil(Rz)), sized by the
///                          caller, and cleared by him for fractional reductions: voxels with
///                          fewer aliases leave slots unwritten that unfold may read. Coil c and alias k of a voxel with n aliases are in slot
///                          c n + k, aliases in the order of TS_get_unfolded_positions, y outer and
///                          z inner; exactly 0 marks an absent alias
///   folded, full      in   extents of the folded and unfolded images; [0] is not read
///   edges_y, edges_z  out  two values each: row or slice before a jump of the aliasing pattern, in
///                          ascending order. Entries without a jump keep the caller's value (-1)
///
/// Alias k of a voxel is absent until the nearest map sample of coil 0 first has a real part other
/// than 0, and stays present from then on for all later voxels (z fastest, then y) of its column x:
/// holes in a map do not tear the object. A singular matrix gives non-finite factors, that of aliases
/// with equal sensitivities among them.
/// Errors: 0, with nothing written, if psi is not (nc, nc), an extent is negative or factors is too
/// small. -1 if sens_dims has a further entry of 0: no position then has a sample, and factors are 0.
/// Threads: split over x.
/// Memory: the inverse of psi; and on each thread, for each of up to 256 columns and 16 more, 8 bytes
/// for each coil and alias, 5 for each alias and 40; 384 bytes for each coil and alias; and 256 bytes
/// for each pair of aliases.
int get_combination_factors(float* sens_re, float* sens_im, const Eigen::VectorXi& sens_dims,
                            const Eigen::MatrixXcd& psi, const Eigen::Vector3f& reduction,
                            double lambda, const Eigen::VectorXf& reference,
                            Eigen::VectorXcd& factors, Eigen::VectorXi& folded,
                            Eigen::VectorXi full, float* edges_y, float* edges_z);

/// 1 if two alias lists of na and nb coordinates differ in length or some pair by more than N / 2
/// (whole division), else 0. Memory: the copies that the call makes of a and b.
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
/// Memory: on each thread 1.5 MiB, for up to 1400 pairs of a coil and an alias.
int unfold(float* fold_re, float* fold_im, Eigen::VectorXi& fold4, Eigen::VectorXcd& factors,
           Eigen::VectorXi& factor_dims, Eigen::VectorXi& sens4, Eigen::VectorXi full_size,
           float* edges_y, float* edges_z, float* out_re, float* out_im);

/// Folded line, 0 ... fold_len - 1, onto which the full line pos falls. The central fold_len lines
/// of the full field of view are the folded image: full line ceil((full_len - fold_len) / 2) falls
/// onto line 0. Needs full_len >= fold_len >= 1. Memory: none.
int TS_folded_pos(int pos, int full_len, int fold_len);

/// Folded lines where the number of aliased lines changes: lines f with compartments[0] < f <=
/// compartments[1] form one compartment, the others the other. The caller presets both to -1, which
/// stays where there is no such boundary. Needs full_len >= fold_len >= 1. Memory: none.
void get_compartments(int full_len, int fold_len, float* compartments);

/// Number of full lines that alias onto folded line fold_pos, listed in positions: those below the
/// central copy descending, then the central line and those above ascending. The rest of positions
/// is set to -1. positions has room for ceil(full_len / fold_len); lines beyond its room are left
/// out. Needs full_len >= fold_len >= 1. Memory: none.
int TS_get_unfolded_positions(int full_len, int fold_len, int fold_pos, Eigen::VectorXi& positions);

// ---- Geometry correction (geometry_correction.cpp) ----------------------------------------------

/// Positions at which non-linear gradients encode the given points: what a distortion correction
/// resamples at.
///
/// With (r, theta, phi) of a point and P_n^m the Legendre functions of plgndr,
///   xd = r0 / coeff_x[1][1]  sum_{m=1..11} sum_{n=m..13}  coeff_x[n][m] (-1)^m H_nm cos(m phi)
///   yd = r0 / coeff_y[1][1]  sum_{m=1..11} sum_{n=m..13}  coeff_y[n][m] (-1)^m H_nm sin(m phi)
///   zd = r0 / coeff_z[1][0]  sum_{n=1..16}                coeff_z[n][0] H_n0
///   H_nm = (r / r0)^n P_n^m(cos theta)
/// so tables hold the coefficients of unnormalised functions without the Condon-Shortley phase, and
/// a table with its linear term alone returns the point's own coordinate. Tables for functions
/// normalised in another way have to be rescaled first, also against their linear term.
///
///   x, y, z     in   npts points relative to the isocentre, in the unit of r0
///   xd, yd, zd  out  npts positions in the same unit, owned by the caller
///   npts        in   number of points; 0 is allowed
///   coeff_y     in   rows of order n = 0..13, columns of degree m = 0..11: the sine terms of the y
///                    gradient. It comes FIRST. Read where n >= m >= 1
///   coeff_x     in   the same for the cosine terms of the x gradient
///   coeff_z     in   rows of order n = 0..16: the zonal terms of the z gradient. Row 0 is not read
///   r0          in   reference radius of the expansion
///
/// For |cos theta| < 0.9 the Legendre functions are taken at the nearest of 10000 samples at or
/// below cos theta, not interpolated. With the linear terms alone, r0 = 250 mm and points anywhere
/// within r0 this costs up to 0.10 mm in x and y and 0.05 mm in z, RMS 0.012 mm in x and y and
/// 0.021 mm in z. Sums run in single precision, n inside m.
///
/// Errors: none reported; a linear coefficient of 0 gives infinities or NaN, and so does a point
/// that is not finite, for itself alone. Threads: split over the points.
/// Memory: 3.6 MiB for 20000 points or more, else none.
/// Source: Janke et al., Magnetic Resonance in Medicine 52:115-122, 2004.
void TS_geometry_correction(float* x, float* y, float* z, float* xd, float* yd, float* zd, int npts,
                            float (*coeff_y)[12], float (*coeff_x)[12], float (*coeff_z)[1],
                            float r0);

/// Packs coefficient tables in the order in which the terms are summed: degree by degree, orders
/// n = m..nn-1 within a degree, and the zonal terms without n = 0.
///
///   a_out, b_out  out  the entries [n][m] of ca and cb, for m = 1..nm-1: 88 for nm = 12, nn = 14
///   z_out         out  cz[1..nz-1][0]
///   nm, nn, nz    in   numbers of degrees, of orders and of zonal orders, each counted from 0
///   ca, cb, cz    in   tables with a row for every order below nn or nz
///
/// Memory: none.
void realign_corr_coeffs(float* a_out, float* b_out, float* z_out, int nm, int nn, int nz,
                         float (*ca)[12], float (*cb)[12], float (*cz)[1]);

// ---- Spherical harmonics (spherical_harmonics.cpp) ----------------------------------------------

/// Associated Legendre function P_l^m(x), Condon-Shortley phase included, not normalised:
/// P_1^1(x) = -sqrt(1 - x^2).
///
/// x = cos(theta), no unit. The recurrence runs in double; the root is rounded to float. Needs
/// 0 <= m <= l and |x| <= 1: anything else ends the process with exit status 1 and no message.
/// Memory: none.
/// Source: NIST Digital Library of Mathematical Functions, 14.10.3.
double plgndr(int l, int m, float x);

/// Table of P_l^m over [-1, 1], rounded to float.
///
///   nl, nm  in   orders l = 0..nl-1 and degrees m = 0..nm-1
///   npts    in   samples x_i = i step - 1 with step = 2 / (npts - 1), each rounded to float
///   table   out  (nl, nm, npts), l fastest, owned by the caller
///
/// Entries with m > l are 0, and so is a sample that rounding puts outside [-1, 1] or that is not
/// number (npts = 1). npts < 1 writes nothing. Threads: one. Memory: 128 bytes for each order.
void create_plgndr_lookup(int nl, int nm, int npts, float* table);

/// Spherical coordinates of a point: out[0] = r in the unit of x, y and z, out[1] = theta from the
/// +z axis (0..pi), out[2] = phi from +x towards +y (0..2 pi), in radians.
///
/// r is formed in double, theta in float; phi takes its arctangent in float in the first and third
/// quadrant and in double in the second and fourth. On the z axis phi is 0, at the origin theta is
/// pi / 2. A coordinate that is not a number shows in r; the angles treat it as on no side of 0.
/// Memory: none.
void getRadiusThetaPhi(float x, float y, float z, float* out);

/// (r / r0)^n in single precision, by squaring and multiplying; a negative n gives the reciprocal
/// of the positive power. n = 0 gives 1 for every r and r0. Memory: none.
float radialFactor(float r, float r0, int n);

/// One sine term of the expansion, sin(m phi) ((r / r0)^n p), in single precision throughout. p is
/// the Legendre function of the term; phi is in radians. Memory: none.
float funcYS(int n, int m, float r, float phi, float r0, float p);

/// The cosine term, cos(m phi) ((r / r0)^n p). Memory: none.
float funcYC(int n, int m, float r, float phi, float r0, float p);

// ---- Interpolation and grids (interpolation.cpp) ------------------------------------------------

/// Evenly spaced grid of n values from start on, in a new array that the caller releases with
/// delete[].
///
/// The step (stop - start) / (n - 1) is added up in double and each value rounded to float, so the
/// last value approximates stop without being forced to it. n = 1 gives start; n < 1 an empty
/// array. Memory: the new array alone.
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
/// Errors: none reported; positions before the first sample are the caller's fault. Memory: none.
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
/// Memory: none.
std::complex<double> TS_linear_interpolation(const Eigen::VectorXcd& volume,
                                             const Eigen::VectorXi& dims, int base, double fa,
                                             double fb, double fc, int P, int T);

/// Coordinate at which to interpolate for sample idx, whose plain coordinate is pos.
///
/// A[k] is the last sample before a jump in a folding pattern and B[k] its coordinate on the other
/// grid, for k = 0 and 1; -1 in either marks the pair as absent. Samples next to a jump are snapped
/// to the pair's coordinate or one past it, and a coordinate that has crossed the jump is pulled
/// back, so that no interpolation mixes both sides. Without a matching pair the result is pos.
/// Memory: none.
double pos2interpolate(double pos, int idx, const float* A, const float* B);

// ---- Rounding, indices, search (index_helpers.cpp) ----------------------------------------------

/// Nearest integer with halves up for x >= 0; negative values round toward zero (-2.7 gives -2).
/// NaN and values outside int give INT_MIN. Memory: none.
int TS_round(double x);
int TS_round(float x);

/// Column-major linear index of the zero-based subscript `sub` in an array of extents `dims`, in
/// int arithmetic. Entries beyond their extent carry into the next dimension; the last extent is
/// not read. sub must have as many entries as dims; empty dims give 0. Memory: none.
int TS_sub2ind(const Eigen::VectorXi& dims, const Eigen::VectorXi& sub);

/// Index of the first of the n entries of a that equals v, or -1. Memory: none.
int TS_find(unsigned short* a, unsigned short v, int n);
int TS_find(short* a, short v, int n);
int TS_find(int* a, int v, int n);
int TS_find(unsigned int* a, unsigned int v, int n);

/// Root-mean-square magnitude of n complex values, summed in the widest floating-point type (80
/// bits on x86). im may be null and then counts as 0. n = 0 gives NaN, n < 0 gives -0.0.
/// Memory: none.
double TS_SA(float* re, float* im, int n);

#pragma GCC visibility pop
