#pragma once

#include "kiv/Dir.h"

namespace Controller {

// Creates every missing directory along `path` ("a/b/c", empty components skipped) below `dir`;
// what exists is left as it is. A component that exists but is not a directory ends the walk
// there, with a level-1 trace: nothing can be created below it.
void doCreateDirPath(Kiv::Ptr<Kiv::Dir> const& dir, Kiv::String path);

}  // namespace Controller
