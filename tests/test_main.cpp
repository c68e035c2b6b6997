#define CATCH_CONFIG_RUNNER
#include "support.h"

#if __has_include(<catch2/catch_session.hpp>)
#include <catch2/catch_session.hpp>
#endif
#include <iostream>

int main(int argc, char* argv[]) {
  const int result = Catch::Session().run(argc, argv);
  if (result != 0) std::cout << "repeat with CTESSEL_SEED=" << run_seed() << '\n';
  return result;
}
