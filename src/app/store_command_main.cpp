// Entry of tesselune-store, the maintenance command.
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "app/store_command.h"

int main(int argc, char** argv) {
  const tesselune::CommandOutput output{std::cout, std::cerr, isatty(STDERR_FILENO) != 0 ? stderr : nullptr};
  return tesselune::runStoreCommand(argc, argv, output);
}
