#include <exception>
#include <iostream>

#include "host/Simulation.h"

int main(int argc, char** argv) {
  try {
    return Host::simulationMain(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
  } catch (std::exception const& e) {
    std::cerr << "mountsim: internal error: " << e.what() << '\n';
    return 3;
  }
}
