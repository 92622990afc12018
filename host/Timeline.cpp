#include "host/Timeline.h"

#include <algorithm>
#include <ostream>
#include <sstream>

#include "host/Report.h"

namespace Host {

namespace {

constexpr char const* kSwitchColours[] = {"#d9d9d9", "#4caf50", "#ffc107", "#e53935", "#616161"};
constexpr char const* kSwitchStates[] = {"up, nothing mounted", "mounted", "mounting", "failed", "down"};
constexpr char const* kGroupColours[] = {"#eeeeee", "#b3e5fc", "#90caf9", "#ffb74d", "#ce93d8", "#1565c0"};
constexpr char const* kGroupStates[] = {"not tracked", "connection period", "waiting for initial switches",
                                        "mount window", "flush", "initial mounts complete"};

// A row's state as a lane state, and its slot in a switch's counts; -1 for nothing mounted or in
// progress.
int laneState(std::string const& row) {
  if (row == "absent" || row == "unmounted") return -1;
  return row == "mounted" ? Timeline::mounted : row == "failed" ? Timeline::failed : Timeline::mounting;
}

std::string xml(std::string_view s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '&': out += "&amp;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

}  // namespace

void Timeline::note(Lane& lane, double t, int state) {
  auto& segments = lane.second;
  if (!segments.empty() && segments.back().state == state) return;
  if (!segments.empty() && segments.back().from == t) {
    segments.back().state = state;  // a change within the instant keeps only where it ended
    if (segments.size() > 1 && segments[segments.size() - 2].state == state) segments.pop_back();
    return;
  }
  segments.push_back({t, state});
}

// Read from the machines without touching them: a group's machine holds its clocks, and the
// service's status the flag.
Timeline::Stage Timeline::stageOf(GroupRow const& g) const {
  if (g.complete) return complete;
  auto const group = groupMachine(w_, g.service, g.group);
  if (!group) return untracked;
  if (!w_.initialMount->connectionPeriod()->complete()) return connectionPeriod;
  if (group->localInitialMountsComplete()) return flush;
  if (group->mountClockTimeMin() != Kiv::kInfinity) return mountWindow;
  return processing;
}

void Timeline::step(double t, std::vector<GroupRow> const& groups) {
  for (auto const& c : view_.changes()) {
    auto& n = counts_[std::get<1>(c.key)];
    if (int const s = laneState(c.before); s > 0) --n[s - 1];
    if (int const s = laneState(c.after); s > 0) ++n[s - 1];
  }
  for (auto const& [address, sw] : w_.switches) {
    int state = down;
    if (sw->connected()) {
      state = idle;
      if (auto const it = counts_.find(address); it != counts_.end())
        for (int s : {mounted, mounting, failed})
          if (it->second[s - 1]) state = s;
    }
    auto [it, fresh] = switches_.try_emplace(address, Lane{address, {}});
    note(it->second, t, state);
  }
  for (auto const& g : groups) {
    std::string const name = g.service + "/" + g.group;
    auto [it, fresh] = groups_.try_emplace(name, Lane{name, {}});
    note(it->second, t, stageOf(g));
  }
}

void Timeline::write(std::ostream& os, double until) const {
  // Switches share lanes when there are many: lane i shows switches [i*per, (i+1)*per).
  std::vector<Lane const*> all;
  for (auto const& [address, lane] : switches_) all.push_back(&lane);
  std::size_t const per = (all.size() + kMaxLanes - 1) / std::max<std::size_t>(kMaxLanes, 1);
  std::vector<Lane> lanes;
  for (std::size_t i = 0; i < all.size(); i += std::max<std::size_t>(per, 1)) {
    std::size_t const end = std::min(all.size(), i + std::max<std::size_t>(per, 1));
    Lane lane{end - i == 1 ? all[i]->first : all[i]->first + " … " + all[end - 1]->first + " (" +
                                                 std::to_string(end - i) + ")",
              {}};
    // The worst state of the lane's switches at every instant one of them changed.
    std::vector<double> times;
    for (std::size_t k = i; k < end; ++k)
      for (auto const& s : all[k]->second) times.push_back(s.from);
    std::sort(times.begin(), times.end());
    times.erase(std::unique(times.begin(), times.end()), times.end());
    for (double t : times) {
      int worst = idle;
      for (std::size_t k = i; k < end; ++k) {
        auto const& segs = all[k]->second;
        auto it = std::upper_bound(segs.begin(), segs.end(), t, [](double x, Segment const& s) { return x < s.from; });
        if (it != segs.begin()) worst = std::max(worst, std::prev(it)->state);
      }
      note(lane, t, worst);
    }
    lanes.push_back(std::move(lane));
  }

  constexpr double kLabel = 260, kPlot = 900, kLane = 18, kLabelRow = 13, kCharWidth = 6.5;
  constexpr std::size_t kLabelRows = 6;
  double const span = until > 0 ? until : 1;
  auto x = [&](double t) { return kLabel + kPlot * std::clamp(t / span, 0.0, 1.0); };
  // Event labels take as many rows as they need not to overlap, up to kLabelRows; a label that
  // still finds no room is left to the marker's tooltip.
  std::vector<std::string> labels;
  std::vector<std::size_t> labelRow;
  std::vector<double> rowEnd;
  for (auto const& [t, words] : events_) {
    std::string& label = labels.emplace_back();
    for (auto const& w : words) label += (label.empty() ? "" : " ") + w;
    std::size_t r = 0;
    while (r < rowEnd.size() && rowEnd[r] > x(t)) ++r;
    if (r == rowEnd.size() && r < kLabelRows) rowEnd.push_back(0);
    if (r < rowEnd.size()) rowEnd[r] = x(t) + 2 + kCharWidth * static_cast<double>(label.size()) + 6;
    labelRow.push_back(r);
  }
  double const lanesTop = 27 + kLabelRow * static_cast<double>(std::max<std::size_t>(rowEnd.size(), 1));
  std::size_t const rows = lanes.size() + groups_.size();
  double const height = lanesTop + kLane * static_cast<double>(rows) + 90;
  std::ostringstream svg;
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kLabel + kPlot + 20 << "\" height=\"" << height
      << "\" font-family=\"sans-serif\" font-size=\"11\">\n";
  svg << "<title>" << xml(w_.s.name) << ": 0 to " << fixed(until, 1) << " s</title>\n";
  svg << "<text x=\"10\" y=\"20\" font-size=\"14\">" << xml(w_.s.name) << "</text>\n";
  double y = lanesTop;
  auto lane = [&](Lane const& l, char const* const* colours, char const* const* names, char const* kind) {
    svg << "<g class=\"" << kind << "\"><text x=\"10\" y=\"" << y + 12 << "\">" << xml(l.first) << "</text>\n";
    for (std::size_t i = 0; i < l.second.size(); ++i) {
      double const from = l.second[i].from, to = i + 1 < l.second.size() ? l.second[i + 1].from : until;
      svg << "<rect x=\"" << x(from) << "\" y=\"" << y + 2 << "\" width=\"" << std::max(x(to) - x(from), 0.5)
          << "\" height=\"" << kLane - 4 << "\" fill=\"" << colours[l.second[i].state] << "\"><title>"
          << xml(l.first) << ": " << names[l.second[i].state] << " from " << fixed(from, 1) << " s</title></rect>\n";
    }
    svg << "</g>\n";
    y += kLane;
  };
  for (auto const& l : lanes) lane(l, kSwitchColours, kSwitchStates, "switch");
  for (auto const& [name, l] : groups_) lane(l, kGroupColours, kGroupStates, "group");
  for (std::size_t i = 0; i < events_.size(); ++i) {
    double const t = events_[i].first;
    bool const labelled = labelRow[i] < rowEnd.size();
    double const top = lanesTop - 6 - (labelled ? kLabelRow * static_cast<double>(labelRow[i]) : 0);
    svg << "<g class=\"event\"><title>" << fixed(t, 1) << " s: " << xml(labels[i]) << "</title><line x1=\"" << x(t)
        << "\" y1=\"" << top << "\" x2=\"" << x(t) << "\" y2=\"" << y << "\" stroke=\"#000\" stroke-opacity=\"0.5\" "
        << "stroke-dasharray=\"3,3\"/>";
    if (labelled)
      svg << "<text x=\"" << x(t) + 2 << "\" y=\"" << top - 2 << "\">" << xml(labels[i]) << "</text>";
    svg << "</g>\n";
  }
  // The time axis and the legend.
  svg << "<line x1=\"" << kLabel << "\" y1=\"" << y + 4 << "\" x2=\"" << kLabel + kPlot << "\" y2=\"" << y + 4
      << "\" stroke=\"#000\"/>\n";
  for (int i = 0; i <= 10; ++i)
    svg << "<text x=\"" << x(span * i / 10) << "\" y=\"" << y + 18 << "\" text-anchor=\"middle\">"
        << fixed(span * i / 10, 0) << "</text>\n";
  double lx = 10;
  for (int s = 0; s < 5; ++s, lx += 150)
    svg << "<rect x=\"" << lx << "\" y=\"" << y + 34 << "\" width=\"10\" height=\"10\" fill=\"" << kSwitchColours[s]
        << "\"/><text x=\"" << lx + 14 << "\" y=\"" << y + 43 << "\">" << kSwitchStates[s] << "</text>\n";
  lx = 10;
  for (int s = 0; s < 6; ++s, lx += 190)
    svg << "<rect x=\"" << lx << "\" y=\"" << y + 52 << "\" width=\"10\" height=\"10\" fill=\"" << kGroupColours[s]
        << "\"/><text x=\"" << lx + 14 << "\" y=\"" << y + 61 << "\">" << kGroupStates[s] << "</text>\n";
  svg << "</svg>\n";
  os << svg.str();
}

}  // namespace Host
