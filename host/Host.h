#pragma once
// The host program as a library: builds the controller's directories and the three top-level
// machines over simulated switches, plays a scenario and reports the status it ends with.

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "host/Scenario.h"

namespace Host {

struct Options {
  bool json = false;
  std::optional<double> until;
  std::string trace;
  bool ringlog = false;
  bool realtime = false;
  double progressEvery = 10;  // simulated seconds between progress lines; 0 for none
};

// Runs a parsed scenario: the event log and the tables (or the JSON tree) go to `out`, progress
// to `err`. Returns the exit status.
int runScenario(Scenario const& scenario, Options const& options, std::ostream& out, std::ostream& err);

// Parses then runs; a bad text prints "file:line: reason" to `err`, runs nothing and returns 2.
int runScenarioText(std::string const& text, std::string const& fileName, Options const& options,
                    std::ostream& out, std::ostream& err);

// The command line, without the program name.
int hostMain(std::vector<std::string> const& args, std::ostream& out, std::ostream& err);

inline constexpr char const* kVersion = "0.1.0";

}  // namespace Host
