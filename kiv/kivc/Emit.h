#pragma once
// Emits the generated C++ of a checked unit.

#include <string>

#include "kiv/kivc/Model.h"

namespace kivc {

struct Output {
  std::string header;   // <stem>.h
  std::string source;   // <stem>.cpp
  std::string testing;  // <stem>Testing.h: traits for the shared conformance tests
  std::string machinesHeader;  // <stem>Machines.h: the state machine bases
  std::string machinesSource;  // <stem>Machines.cpp
};

// The state machine bases of the unit (empty files when it declares none).
void emitMachines(Unit const& unit, std::string const& banner, std::string& header, std::string& source);

Output emit(Unit const& unit);

}  // namespace kivc
