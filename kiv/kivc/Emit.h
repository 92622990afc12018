#pragma once
// Emits the generated C++ of a checked unit.

#include <string>

#include "kiv/kivc/Model.h"

namespace kivc {

struct Output {
  std::string header;   // <stem>.h
  std::string source;   // <stem>.cpp
  std::string testing;  // <stem>Testing.h: traits for the shared conformance tests
};

Output emit(Unit const& unit);

}  // namespace kivc
