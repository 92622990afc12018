#pragma once
// What the host reports of a world: the rows of its status, as tables or as JSON.

#include <iosfwd>
#include <string>
#include <vector>

#include "host/World.h"

namespace Controller {
class MountGroupInitialMountSm;
}

namespace Host {

struct MountRow {
  std::string service, sw, group, path, state, mountedPath;
  std::string reason;  // why it is not mounted; empty when it is
};
struct GroupRow {
  std::string service, group;
  bool complete = false;
  double at = -1;
};
struct PublishedRow {
  std::string sw, path, remotePath, type, service;
};

// What an `expect` statement found when it was due.
struct Verdict {
  int line = 0;
  double time = 0;
  std::string expected, got;
  bool met = false;
};
// Checks one `expect` event against the world as it stands.
Verdict verdictOf(World const& w, Event const& expectation);

// The state of the row of `service` for `path` on switch `sw`, or "absent", read directly.
std::string rowState(World const& w, std::string const& sw, std::string const& service, std::string const& path);
std::vector<GroupRow> groupRows(World const& w);
// The rows of the services' statuses.
std::vector<MountRow> mountRows(World const& w);
// Every declared mount on every declared switch, with or without a status row, and the reason for
// each that is not mounted.
std::vector<MountRow> mountTable(World const& w);
// Why `m` is not mounted on switch `sw` whose row shows `state` ("absent" without a row), from
// the machines, read without changing them: the first of switch down, no version, leader
// generation, the shared registry entry's version and connection filters (naming the group whose
// filter keeps the switch out), the group's own filters, then the mount's own progress.
std::string reasonOf(World const& w, MountDecl const& m, std::string const& sw, std::string const& state);
// The machine deciding the group's initial mounts; null while its service is not current.
Kiv::Ptr<Controller::MountGroupInitialMountSm> groupMachine(World const& w, std::string const& service,
                                                            std::string const& group);
std::vector<PublishedRow> publishedRows(World const& w);
// The services that publish, in the scenario's order.
std::vector<std::string> publishers(World const& w);

// Why a path is or is not mounted on a switch, per service and group, in the order the registry
// decides; from a read-only query of the machines.
struct Explanation {
  std::string service, group, path, state;
  std::vector<std::string> steps;
};
// Every declared mount of `path` (of every path when empty) on switch `sw`.
std::vector<Explanation> explain(World const& w, std::string const& sw, std::string const& path);
void printExplanations(std::string const& sw, std::vector<Explanation> const& e, std::ostream& os);

// Beyond kMountRowsListed rows, unless `allRows`, the mounts that differ only in their switch
// share a line with the switches counted.
inline constexpr std::size_t kMountRowsListed = 200;
void printTables(World const& w, std::vector<Verdict> const& verdicts, std::ostream& os, bool allRows = false);
void printJson(World const& w, std::vector<Verdict> const& verdicts, std::ostream& os,
               std::vector<Explanation> const* explanations = nullptr);

// The JSON report's layout; bumped when a field changes meaning or goes.
inline constexpr int kJsonSchema = 1;
// A JSON string (invalid UTF-8 as U+FFFD) and a JSON number that reads back to the same double.
std::string jsonString(std::string_view s);
std::string jsonNumber(double v);

// `t` with `precision` digits after the point, as the reports print times.
std::string fixed(double t, int precision = 3);

// The state name without its prefix ("mounted" for mountStateMounted).
std::string stateName(Controller::MountState s);

}  // namespace Host
