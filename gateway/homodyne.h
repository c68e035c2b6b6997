// Entry of the homodyne module, its two operations, and the weighting of one axis.
#pragma once

#include "host/host.h"

using mxArray = host::Array;

#pragma GCC visibility push(default)

/// Entry point called by the host. prhs[0] names the operation, "filter" or "multiply" (whole text,
/// case-sensitive); the call goes on to it unchanged. Any other text does nothing.
extern "C" void mexFunction(int nlhs, mxArray** plhs, int nrhs, const mxArray** prhs);

/// Text that tells the classic host which interface the module was built for.
extern "C" const char* mexVersion();

#pragma GCC visibility pop

/// "filter": homodyne weighting of partial-Fourier k-space.
///
///   prhs[1]     in/out  k-space, single, centred on each axis; real or complex. Multiplied IN
///                       PLACE by the F-th root of the product of the weightings of F filtered axes.
///   prhs[2..4]  in      sampled range [kmin kmax] of kx, ky, kz in lines from the centre, double;
///                       empty for an axis without filter. A range with |kmin + kmax| <= 1 counts
///                       as symmetric.
///   plhs[0]     out     new complex single array: the unweighted symmetric centre of k-space
///
/// Wrong arguments end the call with their own message before anything is allocated or changed.
/// A range that calculate_filter rejects leaves its axis unweighted and keeps position 0 of it.
/// Threads: weighting is split over the merged dimensions beyond the third.
/// Memory: a float per line of each axis; 64 KiB or a row of weights on each thread.
/// Source: Noll, Nishimura, Macovski, IEEE Trans. Med. Imaging 10:154 (1991).
void ApplyHomodyneFilter(int nlhs, mxArray** plhs, int nrhs, const mxArray** prhs);

/// Homodyne weighting of one axis of N samples whose lines range[0]..range[1] were sampled.
///
///   range    in   first and last sampled line relative to the centre; truncated toward zero
///   weights  out  N entries: 0 on the missing side, a ramp 1 -+ t^2 across the symmetric centre,
///                 2 beyond. Null to get the bounds alone.
///   bounds   out  first and last position of the symmetric centre
///
/// Returns 1, or 0 with nothing written when the range covers less than 0.55 of the extent that its
/// larger end implies, or all of it (the missing lines must lie on the negative side).
int calculate_filter(int N, double* range, float* weights, int* bounds);

/// "multiply": removal of a low-resolution phase.
///
///   prhs[1]  in/out  image, single, real or complex. Each sample d becomes, IN PLACE, the real
///                    part of d conj(L) / |L|; its imaginary part, if it has one, becomes 0.
///   prhs[2]  in      low-resolution image L, single, with as many dimensions; resampled trilinearly
///                    over the first three where any extent differs. Where it shares storage with
///                    the image, it counts as it was before the call.
///
/// L = 0 gives NaN. Volumes (beyond the third dimension) for which L has no samples stay as they
/// are. Wrong arguments end the call with their own message, the data unchanged. Assigns no output.
/// Threads: split over the merged dimensions beyond the third.
/// Memory: none for images of one size; with resampling 16 bytes per sample of each axis and, on each
/// thread, 72 per sample of a row of the image. Where L overlaps the data otherwise than sample
/// for sample, a copy of L.
void AddLowResPhase(int nlhs, mxArray** plhs, int nrhs, const mxArray** prhs);
