// The scenario reader under arbitrary text: it returns a scenario or throws ScenarioError,
// nothing else, and what it returns keeps the promises the host relies on.
//
// Built two ways: with libFuzzer (clang, -DKIV_FUZZ=ON) as scenario_fuzz, and as scenario_replay,
// which replays a corpus as a test.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "host/Scenario.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  try {
    Host::Scenario const s = Host::parseScenario(text, "fuzz.scn");
    // The run steps through the events in order up to the end time.
    double previous = 0;
    for (auto const& e : s.events) {
      if (!(e.time >= previous && e.time <= s.until)) __builtin_trap();
      previous = e.time;
    }
  } catch (Host::ScenarioError const&) {
  }
  return 0;
}
