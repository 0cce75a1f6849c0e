// Makes a database file with a number of properties: sampledatabase FILE COUNT

#include <cstdlib>
#include <exception>
#include <iostream>

#include "support/SampleDevice.h"

int main(int argc, char* argv[]) {
  if (argc != 3) {
    std::cerr << "Usage: sampledatabase FILE COUNT\n";
    return EXIT_FAILURE;
  }
  try {
    propertyservice::bench::createDatabase(argv[1], std::stoul(argv[2]));
  } catch (const std::exception& error) {
    std::cerr << "sampledatabase: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
