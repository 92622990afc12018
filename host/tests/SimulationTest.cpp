#include <gtest/gtest.h>

#include <sstream>

#include "host/Simulation.h"

namespace Host {
namespace {

TEST(Simulation, ASeedIsTheSameScenarioEverywhere) {
  // Only the engine's raw numbers are used, so this text is the same with any standard library.
  std::string const seven = generateScenario(7);
  EXPECT_EQ(seven.substr(0, 48), "# seed 7\nheartbeat 2\ntimeout 3\nretries 0\nswitch ");
  EXPECT_EQ(generateScenario(7), seven);
  EXPECT_NE(generateScenario(8), seven);
}

TEST(Simulation, PlaysAScenarioWithEveryCheckAndTheSameLogTwice) {
  // The same text gives the same log; a leader change that leaves the service stale passes too
  // (its mounts are withdrawn, nothing is left to settle) and logs otherwise.
  std::string const text =
      "switch 00:00:00:00:00:01 latency 1 version svc=1 entity /d/a\n"
      "service svc\n"
      "mount svc g /d/a type Sim::Record flags r\n"
      "run 400\n";
  SimulationResult const ok = simulate(text);
  EXPECT_TRUE(ok.ok) << ok.invariant << ": " << ok.detail;
  EXPECT_EQ(simulate(text).log, ok.log);
  SimulationResult const stale = simulate(text + "at 30 leader gen2\n");
  EXPECT_TRUE(stale.ok) << stale.invariant << ": " << stale.detail;
  EXPECT_NE(stale.log, ok.log);
}

TEST(Simulation, CommandLine) {
  std::ostringstream out, err;
  EXPECT_EQ(simulationMain({"--seeds", "5-3"}, out, err), 2);
  EXPECT_EQ(simulationMain({"--time-box", "nan"}, out, err), 2);
  EXPECT_EQ(simulationMain({"--bogus"}, out, err), 2);
  EXPECT_EQ(simulationMain({"--seeds", "1-3", "--twice", "1"}, out, err), 0);
  EXPECT_NE(out.str().find("3 seeds (1-3) passed"), std::string::npos) << out.str();
}

}  // namespace
}  // namespace Host
