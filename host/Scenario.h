#pragma once
// A scenario: the switches, services and timed events the host runs, read from a small
// line-oriented text (the format is in README.md). Parsing is complete before anything runs, so a bad file
// runs nothing.

#include <array>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Host {

// "file:line: reason".
class ScenarioError : public std::runtime_error {
 public:
  ScenarioError(std::string const& file, int line, std::string const& reason)
      : std::runtime_error(file + ":" + std::to_string(line) + ": " + reason) {}
};

struct SwitchDecl {
  std::string address;
  double latency = 1;
  double handshake = 0;
  bool failing = false;
  bool down = false;  // not connected at the start
  std::map<std::string, unsigned> versions;
  std::vector<std::string> entities;
};

struct ServiceDecl {
  std::string name;
  std::string gen;  // empty: the scenario's leader generation
  bool proxy = false;
  bool ready = false;
};

struct MountDecl {
  std::string service, group, remotePath, type, flags, target;
  std::vector<std::string> systems;  // switch addresses
  std::vector<unsigned> versions;
  bool preserve = false;
};

struct PublishDecl {
  std::string service, group, localPath, remotePath, type;
  bool dir = false;
  bool ready = false;  // a directory's own readiness at the start
  std::vector<std::string> systems;
  std::vector<unsigned> versions;
};

struct Event {
  double time = 0;
  int line = 0;
  std::vector<std::string> words;  // the action and its arguments, checked by the parser
  // An `expect` statement: checked when due, in file order with the events of its time.
  bool expectation() const { return !words.empty() && words[0] == "expect"; }
};

struct Scenario {
  std::string name;
  double heartbeat = 2;
  std::string leader = "gen1";
  unsigned retries = 3;
  double timeout = 10;
  double until = 60;
  std::vector<SwitchDecl> switches;
  std::vector<ServiceDecl> services;
  std::vector<MountDecl> mounts;
  std::vector<PublishDecl> publishes;
  std::vector<std::string> locals;
  std::vector<Event> events;  // in time order; equal times keep their file order

  ServiceDecl const* service(std::string_view name) const;
};

// Throws ScenarioError at the first fault. `until`, when given, replaces the scenario's end time
// (its `run`), and no event may come after it.
Scenario parseScenario(std::string_view text, std::string const& fileName, std::optional<double> until = std::nullopt);

// The directories the host's world builds under its root: a scenario's local paths stay out.
inline constexpr std::array<std::string_view, 7> kHostDirs{
    "/mountConfig", "/mountStatus", "/publishConfig", "/publishStatus", "/proxyMountConfig", "/proxyMountStatus",
    "/mounts"};

// The lower-case form of a non-zero Ethernet address; empty when `a` is not one.
std::string canonicalAddress(std::string_view a);

// A number of seconds as the scenario reads them (see Scenario.cpp); nullopt for anything else.
std::optional<double> parseSeconds(std::string_view text);

// The scenario run when no file is given.
std::string_view defaultScenarioText();

}  // namespace Host
