#pragma once
// What an operator follows while a scenario runs: its events as they are applied, and the
// outcomes that matter (a path mounted, failed or withdrawn on switches, a publication placed or
// withdrawn, a group's initial mounts complete and what they waited for), from the changes the
// status view saw in each step.

#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "host/Report.h"
#include "host/StatusView.h"

namespace Host {

class Narrator {
 public:
  // Outcomes go to `os`, and as JSON lines to `events` when given.
  Narrator(World const& w, StatusView const& view, std::ostream& os, std::ostream* events)
      : w_(w), view_(view), os_(os), events_(events) {}

  void event(double t, Event const& e);
  // Tells what the view's last update changed, and what became of the groups.
  void step(double t, std::vector<GroupRow> const& groups);
  // "N switches (M up), ...": the run in one line.
  std::string summary() const;

 private:
  void line(double t, std::string const& text);
  void outcomes(double t, char const* what, std::map<std::string, std::set<std::string>> const& bySubject);
  std::string waitedFor(GroupRow const& g) const;
  // Notes the switches the group's machine still waits for in its mount window.
  void noteRemaining(GroupRow const& g);

  World const& w_;
  StatusView const& view_;
  std::ostream& os_;
  std::ostream* events_;
  std::set<std::pair<std::string, std::string>> complete_;   // service, group
  bool periodComplete_ = false;
  // service, group -> the switches its mount window waited for at the last step
  std::map<std::pair<std::string, std::string>, std::vector<std::string>> remaining_;
  // service, group -> the last row of the group to finish: time, switch, state
  std::map<std::pair<std::string, std::string>, std::tuple<double, std::string, std::string>> lastFinished_;
};

}  // namespace Host
