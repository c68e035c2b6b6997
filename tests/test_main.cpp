#define CATCH_CONFIG_RUNNER
#include "support.h"

int main(int argc, char* argv[]) {
  const int result = Catch::Session().run(argc, argv);
  if (result != 0) Catch::cout() << "repeat with CTESSEL_SEED=" << run_seed() << '\n';
  return result;
}
