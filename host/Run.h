#pragma once
// One run of a scenario: its world in virtual or wall-clock time, the events applied when due,
// the log and progress as it goes and the report it ends with.

#include <iosfwd>
#include <optional>
#include <string>

#include "host/Scenario.h"

namespace Host {

struct Options {
  bool json = false;
  std::optional<double> until;
  std::string trace;
  bool ringlog = false;
  bool realtime = false;
  bool check = false;  // an unmet expectation makes the exit status 1
  std::string explainSwitch, explainPath;  // --explain: why (not) mounted, at the end
  std::string events;    // a file for the event log as JSON lines; empty for none
  std::string timeline;  // an SVG picture of the run; empty for none
  bool allRows = false;  // every mount row in the table, however many
  bool verbose = false;  // the level-5 trace too
  bool progress = true;  // progress lines on stderr while a run takes long in wall time
};

// Runs a parsed scenario: the event log and the tables (or the JSON tree) go to `out`, progress
// to `err`. Returns the exit status.
int runScenario(Scenario const& scenario, Options const& options, std::ostream& out, std::ostream& err);

// Parses then runs; a bad text prints "file:line: reason" to `err`, runs nothing and returns 2.
int runScenarioText(std::string const& text, std::string const& fileName, Options const& options,
                    std::ostream& out, std::ostream& err);

}  // namespace Host
