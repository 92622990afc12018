#pragma once
// What an operator follows while a scenario runs: its events as they are applied, and the
// outcomes that matter (a path mounted, failed or withdrawn on switches, a publication placed or
// withdrawn, a group's initial mounts complete and what they waited for), found by comparing
// the world's status after each step with the one before.

#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <tuple>

#include "host/Report.h"

namespace Host {

class Narrator {
 public:
  // Outcomes go to `os`, and as JSON lines to `events` when given.
  Narrator(World const& w, std::ostream& os, std::ostream* events) : w_(w), os_(os), events_(events) {}

  void event(double t, Event const& e);
  // Compares the world with the last step and tells what changed.
  void step(double t);
  // "N switches (M up), ...": the run in one line.
  std::string summary() const;

 private:
  void line(double t, std::string const& text);
  void outcomes(double t, char const* what, std::map<std::string, std::set<std::string>> const& bySubject);
  std::string waitedFor(GroupRow const& g) const;

  World const& w_;
  std::ostream& os_;
  std::ostream* events_;
  // switch, service, group, path -> state
  std::map<std::tuple<std::string, std::string, std::string, std::string>, std::string> rows_;
  std::set<std::pair<std::string, std::string>> published_;  // switch, path
  std::set<std::pair<std::string, std::string>> complete_;   // service, group
  bool periodComplete_ = false;
  // service, group -> the last row of the group to finish: time, switch, state
  std::map<std::pair<std::string, std::string>, std::tuple<double, std::string, std::string>> lastFinished_;
};

}  // namespace Host
