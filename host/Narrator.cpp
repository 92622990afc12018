#include "host/Narrator.h"

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <utility>
#include <vector>

namespace Host {

namespace {

// Many at once are counted, a few named.
template <class Items>
std::string list(Items const& items) {
  constexpr std::size_t kNamed = 3;
  std::string out;
  std::size_t i = 0;
  for (auto const& s : items) {
    if (i == kNamed) return out + " and " + std::to_string(items.size() - kNamed) + " more";
    out += (i++ ? ", " : "") + s;
  }
  return out;
}

bool finished(std::string const& state) { return state == "mounted" || state == "failed"; }

}  // namespace

void Narrator::line(double t, std::string const& text) {
  os_ << std::setw(9) << fixed(t) << "  " << text << '\n';
}

void Narrator::event(double t, Event const& e) {
  std::string text = "event: ";
  for (std::size_t i = 0; i < e.words.size(); ++i) text += (i ? " " : "") + e.words[i];
  line(t, text + "  (" + w_.s.name + ":" + std::to_string(e.line) + ")");
}

void Narrator::outcomes(double t, char const* what, std::map<std::string, std::set<std::string>> const& bySubject) {
  // Subjects with the same switches share a line: a switch that comes or goes, or a cold start,
  // is one line however many paths it carries.
  std::vector<std::pair<std::set<std::string> const*, std::vector<std::string>>> lines;
  for (auto const& [subject, switches] : bySubject) {
    auto const same = std::find_if(lines.begin(), lines.end(), [&](auto const& l) { return *l.first == switches; });
    (same == lines.end() ? lines.emplace_back(&switches, std::vector<std::string>{}) : *same).second.push_back(subject);
  }
  for (auto const& [switches, subjects] : lines) line(t, std::string(what) + " " + list(subjects) + " on " + list(*switches));
  if (!events_) return;
  for (auto const& [subject, switches] : bySubject) {
    // The log names every switch, however many.
    *events_ << "{\"time\": " << jsonNumber(t) << ", \"kind\": \"outcome\", \"outcome\": "
             << jsonString(std::string(what).substr(0, std::string(what).find(' '))) << ", \"subject\": " << jsonString(subject)
             << ", \"switches\": [";
    char const* sep = "";
    for (auto const& sw : switches) *events_ << std::exchange(sep, ", ") << jsonString(sw);
    *events_ << "]}\n";
  }
}

void Narrator::step(double t, std::vector<GroupRow> const& groups) {
  std::map<std::string, std::set<std::string>> mounted, failed, withdrawn, placed, unplaced;
  for (auto const& c : view_.changes()) {
    auto const& [service, sw, group, path] = c.key;
    std::string const subject = path + " for " + service + "/" + group;
    if (finished(c.after)) {
      (c.after == "mounted" ? mounted : failed)[subject].insert(sw);
      lastFinished_[{service, group}] = {t, sw, c.after};
    }
    if (c.before == "mounted") withdrawn[subject].insert(sw);
  }
  for (auto const& [p, service] : view_.placed()) placed[p.second + " (" + service + ")"].insert(p.first);
  for (auto const& [sw, path] : view_.withdrawn()) unplaced[path].insert(sw);

  outcomes(t, "mounted", mounted);
  outcomes(t, "FAILED ", failed);
  outcomes(t, "withdrawn", withdrawn);
  outcomes(t, "published", placed);
  outcomes(t, "unpublished", unplaced);

  if (auto const period = w_.initialMount ? w_.initialMount->connectionPeriod() : nullptr;
      period && period->complete() != periodComplete_) {
    periodComplete_ = period->complete();
    if (periodComplete_) {
      std::set<std::string> initial;
      if (auto const set = w_.initialMount->initialSwitchSet())
        for (auto it = set->initialSwitchIter(); it; ++it) initial.insert(it.key().stringValue());
      line(t, "connection period complete: " + std::to_string(initial.size()) + " initial switch" +
                  (initial.size() == 1 ? "" : "es") + (initial.empty() ? "" : " (" + list(initial) + ")"));
    }
  }
  for (auto const& g : groups) {
    std::pair key{g.service, g.group};
    if (!g.complete) noteRemaining(g);
    if (g.complete && !complete_.count(key)) {
      std::string const why = waitedFor(g);
      line(t, "initial mounts of " + g.service + "/" + g.group + " complete: " + why);
      if (events_)
        *events_ << "{\"time\": " << jsonNumber(t) << ", \"kind\": \"complete\", \"service\": " << jsonString(g.service)
                 << ", \"group\": " << jsonString(g.group) << ", \"why\": " << jsonString(why) << "}\n";
      complete_.insert(key);
    } else if (!g.complete && complete_.erase(key)) {
      line(t, "initial mounts of " + g.service + "/" + g.group + " start again");
    }
  }
}

void Narrator::noteRemaining(GroupRow const& g) {
  auto& remaining = remaining_[{g.service, g.group}];
  auto const machine = groupMachine(w_, g.service, g.group);
  // What the window waited for last stays known through the flush that follows it.
  if (machine && machine->localInitialMountsComplete()) return;
  remaining.clear();
  if (!machine || !machine->remainingSwitchSize()) return;
  for (auto const& d : w_.s.switches)
    if (machine->remainingSwitch(Kiv::Name(d.address))) remaining.push_back(d.address);
}

// A group completes when its machine waits for no switch of the connection period any more:
// each finished, or the mount window ran out on those still unfinished among the ones it was
// waiting for at the step before.
std::string Narrator::waitedFor(GroupRow const& g) const {
  std::vector<std::string> unfinished;
  if (auto const it = remaining_.find({g.service, g.group}); it != remaining_.end())
    for (auto const& sw : it->second)
      for (auto const& m : w_.s.mounts) {
        if (m.service != g.service || m.group != g.group) continue;
        auto const row = view_.rows().find({m.service, sw, m.group, m.remotePath});
        std::string const state = row == view_.rows().end() ? "absent" : row->second.state;
        if (!finished(state)) unfinished.push_back(sw + " (" + m.remotePath + ": " + reasonOf(w_, m, sw, state) + ")");
      }
  if (!unfinished.empty()) {
    std::string out = "the mount window ran out waiting for ";
    for (std::size_t i = 0; i < unfinished.size(); ++i) out += (i ? ", " : "") + unfinished[i];
    return out;
  }
  auto const last = lastFinished_.find({g.service, g.group});
  if (last == lastFinished_.end()) return "nothing to wait for";
  auto const& [at, sw, state] = last->second;
  return "the last to finish was " + sw + " (" + state + " at " + fixed(at, 1) + ")";
}

std::string Narrator::summary() const {
  std::size_t up = 0;
  for (auto const& [address, sw] : w_.switches) up += sw->connected();
  std::map<std::string, std::size_t> states;
  for (auto const& [key, row] : view_.rows()) ++states[row.state];
  auto const groups = groupRows(w_);
  auto const complete = std::count_if(groups.begin(), groups.end(), [](GroupRow const& g) { return g.complete; });
  std::string out = "t=" + fixed(w_.loop.now(), 1) + ": " + std::to_string(w_.switches.size()) + " switches (" +
                    std::to_string(up) + " up); " + std::to_string(states["mounted"]) + " mounted, " +
                    std::to_string(states["failed"]) + " failed, " +
                    std::to_string(view_.rows().size() - states["mounted"] - states["failed"]) + " other rows; " +
                    std::to_string(complete) + " of " + std::to_string(groups.size()) +
                    " groups complete; " + std::to_string(view_.published().size()) + " published";
  return out;
}

}  // namespace Host
