// Unfolding matrices of eight neighbouring voxels, formed and inverted side by side.
//
// One voxel per vector lane; each lane does what a voxel on its own would do, so results do not
// depend on its neighbours nor on how many lanes the processor takes at once.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

#include "lanes.h"

namespace ctessel {

/// Eight voxels with the same number of aliases. Arrays hold all voxels' values of one entry side
/// by side.
struct VoxelBatch {
  struct alignas(64) Entry {
    double voxel[kVoxels];
  };
  struct alignas(64) Flags {
    std::int64_t voxel[kVoxels];
  };

  /// Room for `most` aliases and for `coils` coils; without a noise covariance it is the identity.
  VoxelBatch(std::int64_t coils, std::int64_t most, const std::complex<double>* psi_inverse,
             bool with_noise = false);

  /// Place of the first of two entries, the real and the imaginary part.
  std::size_t entry(std::int64_t alias, std::int64_t coil) const {
    return static_cast<std::size_t>(2 * (alias * coils + coil));
  }

  std::int64_t coils, aliases = 0;
  const std::complex<double>* psi_inverse;
  std::vector<Flags> present;      // in: all bits set where an alias takes part
  std::vector<Entry> regularised;  // in: what the diagonal gains
  bool plain = false;              // in: nothing is regularised
  std::vector<Entry> sensitivity, weighted, matrix;
  /// Of every alias, if wanted: the standard deviation sqrt([U Psi U^H]_ii); 1 / sqrt(A_ii), which it
  /// would be without the other aliases, A = S^H Psi^-1 S; the condition of A; the response
  /// Re [U S]_ii. 0 where no coil sees the alias.
  /// Behind these follow A and what finding its condition takes.
  std::vector<Entry> noise;
};

/// U = (S^H Psi^-1 S + R)^-1 S^H Psi^-1 of every voxel, exactly 0 for absent aliases. The samples
/// of S come by factor slot and part (real, imaginary), one every `pitch` floats; slot j of U goes to
/// u[j u_pitch] and the seven places behind it. No test for singularity: it gives NaN throughout.
void solve(VoxelBatch& batch, const float* samples, std::int64_t pitch, std::complex<double>* u,
           std::int64_t u_pitch);

}  // namespace ctessel
