#pragma once
// The host program's command line: options, usage and exit statuses (0 done, 2 bad usage or
// scenario, 3 internal error).

#include <iosfwd>
#include <string>
#include <vector>

namespace Host {

// The command line, without the program name.
int hostMain(std::vector<std::string> const& args, std::ostream& out, std::ostream& err);

inline constexpr char const* kVersion = "0.1.0";

}  // namespace Host
