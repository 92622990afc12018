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
