#pragma once
// A picture of a run (--timeline FILE.svg): a lane per switch with its connection and mount state
// over time, a lane per group with the stage of its initial mounts (connection period, waiting
// for the initial switches, mount window, flush, complete), and the scenario's events as markers. Beyond kMaxLanes switches, neighbouring switches share a lane, which shows
// the worst state among them.

#include <array>
#include <iosfwd>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/Report.h"
#include "host/StatusView.h"
#include "host/World.h"

namespace Host {

class Timeline {
 public:
  static constexpr std::size_t kMaxLanes = 40;

  Timeline(World const& w, StatusView const& view) : w_(w), view_(view) {}
  void event(double t, Event const& e) { events_.push_back({t, e.words}); }
  // Notes the states the world shows at `t`, after the view's update.
  void step(double t, std::vector<GroupRow> const& groups);
  void write(std::ostream& os, double until) const;

  // A lane's state, worst last: the order in which shared lanes combine.
  enum State { idle, mounted, mounting, failed, down };
  // A group's stage, in the order they come.
  enum Stage { untracked, connectionPeriod, processing, mountWindow, flush, complete };
  Stage stageOf(GroupRow const& g) const;

 private:
  struct Segment {
    double from;
    int state;
  };
  using Lane = std::pair<std::string, std::vector<Segment>>;
  static void note(Lane& lane, double t, int state);

  World const& w_;
  StatusView const& view_;
  // Per switch, how many of its rows are mounted, mounting and failed.
  std::map<std::string, std::array<std::size_t, 3>> counts_;
  std::map<std::string, Lane> switches_;  // by address
  std::map<std::string, Lane> groups_;    // by "service/group", in stages
  std::vector<std::pair<double, std::vector<std::string>>> events_;
};

}  // namespace Host
