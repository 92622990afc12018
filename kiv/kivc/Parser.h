#pragma once
// Parses a definition file into the typed model and checks it.

#include <string>
#include <vector>

#include "kiv/kivc/Model.h"

namespace kivc {

// Returns the unit, or fills `errors` (each with file:line:column) and returns an empty unit.
Unit parse(std::string const& file, std::string const& text, std::vector<Error>& errors);

}  // namespace kivc
