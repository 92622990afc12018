#pragma once
// The seeded simulation: a random but valid scenario drawn from a seed, played in virtual time
// with the system's invariants checked after every event and every step of the loop, then a quiet
// tail after which everything admissible must have settled, then a teardown after which nothing
// may be left. A failing scenario is shrunk to the fewest lines that still fail the same way.

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace Host {

// A valid scenario text for the seed; the same seed gives the same text on every machine.
std::string generateScenario(std::uint64_t seed);

struct SimulationResult {
  bool ok = true;
  std::string invariant;  // the first one broken, or "crash" when the run died
  std::string detail;     // what broke it, and the time and event after which it broke
  std::string log;        // every trace line of the run, for the determinism check
};

// Plays the scenario text with every check. Throws ScenarioError when the text does not parse.
SimulationResult simulate(std::string const& text);

// The same in a child process, so that an assertion that ends the process is a result too.
SimulationResult simulateIsolated(std::string const& text);

// The fewest lines of `text` that still fail with the same invariant (lines are dropped while
// that holds). `failing` is the result of the full text.
std::string shrinkScenario(std::string const& text, SimulationResult const& failing);

// The command line, without the program name.
int simulationMain(std::vector<std::string> const& args, std::ostream& out, std::ostream& err);

}  // namespace Host
