// A host that has no OpenMP of its own and unloads a library while the library's threads wait.
//
//   unloading FILE    for 1, 2 and 4 threads: OMP_NUM_THREADS
#include <dlfcn.h>

#include <cstdio>
#include <vector>

int main(int argc, char** argv) {
  using Shift = void (*)(float*, float*, int*, int, int);
  std::vector<float> re(16 * 16 * 2 * 8), im(re);
  int dims[] = {16, 16, 2, 8};
  for (int run = 0; run < 50; ++run) {
    // Entries of a host that the module binds are not called here.
    void* library = argc > 1 ? dlopen(argv[1], RTLD_LAZY | RTLD_LOCAL) : nullptr;
    void* shift = library ? dlsym(library, "_Z11TS_fftshiftPfS_Piii") : nullptr;
    if (!shift) {
      std::printf("%s\n", argc > 1 ? dlerror() : "usage: unloading FILE");
      return 1;
    }
    reinterpret_cast<Shift>(shift)(re.data(), im.data(), dims, 4, 1);
    dlclose(library);
  }
  return 0;
}
