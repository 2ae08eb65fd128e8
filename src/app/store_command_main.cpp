// Entry of tesselune-store, the maintenance command.
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "app/store_command.h"
#include "foundation/process_info.h"

int main(int argc, char** argv) {
  // Changes made by the maintenance command are told apart from the program's in a store's history.
  tesselune::setMainBundleIdentifier("org.tesselune.StoreSupport.tesselune-store");
  const tesselune::CommandOutput output{std::cout, std::cerr, isatty(STDERR_FILENO) != 0 ? stderr : nullptr};
  return tesselune::runStoreCommand(argc, argv, output);
}
