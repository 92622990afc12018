#include <iostream>

#include "host/CommandLine.h"

int main(int argc, char** argv) {
  return Host::hostMain(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}
