// Uses the installed library: needs its header, Eigen's headers, its objects and OpenMP's runtime.
#include <cTessel.h>

// However wide the vectors that this program is compiled for: the library resizes its Eigen
// vectors.
static_assert(EIGEN_MAX_ALIGN_BYTES == 16);

int main() {
  float line[] = {0, 1, 2, 3, 4}, out[7] = {};
  int dims[] = {5, 1};
  TS_fftshift(line, nullptr, dims, 2, 1);
  TS_zero_pad(line, nullptr, 2, dims, 7, 1, 1, out, nullptr);
  const bool moved = out[1] == 3 && out[3] == 0 && out[5] == 2 && out[6] == 0;

  float coils[] = {3, 4}, magnitude[1] = {};
  int coil_dims[] = {1, 2}, one[] = {1, 1};
  TS_perform_sos(coils, nullptr, 2, coil_dims, 2, magnitude, one);

  const Eigen::VectorXi extents = Eigen::Vector3i(4, 5, 6), at = Eigen::Vector3i(1, 2, 3);
  return moved && magnitude[0] == 5 && TS_sub2ind(extents, at) == 69 ? 0 : 1;
}
