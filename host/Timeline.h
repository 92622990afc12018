#pragma once
// A picture of a run (--timeline FILE.svg): a lane per switch with its connection and mount state
// over time, a lane per group with its initial mounts waiting or complete, and the scenario's
// events as markers. Beyond kMaxLanes switches, neighbouring switches share a lane, which shows
// the worst state among them.

#include <iosfwd>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/World.h"

namespace Host {

class Timeline {
 public:
  static constexpr std::size_t kMaxLanes = 40;

  explicit Timeline(World const& w) : w_(w) {}
  void event(double t, Event const& e) { events_.push_back({t, e.words}); }
  // Notes the states the world shows at `t`.
  void step(double t);
  void write(std::ostream& os, double until) const;

  // A lane's state, worst last: the order in which shared lanes combine.
  enum State { idle, mounted, mounting, failed, down };

 private:
  struct Segment {
    double from;
    int state;
  };
  using Lane = std::pair<std::string, std::vector<Segment>>;
  static void note(Lane& lane, double t, int state);

  World const& w_;
  std::map<std::string, Lane> switches_;  // by address
  std::map<std::string, Lane> groups_;    // by "service/group"; 0 waiting, 1 complete
  std::vector<std::pair<double, std::vector<std::string>>> events_;
};

}  // namespace Host
