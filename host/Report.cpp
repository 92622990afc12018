#include "host/Report.h"

#include <algorithm>
#include <charconv>
#include <cctype>
#include <cstdio>
#include <iomanip>
#include <map>
#include <optional>
#include <ostream>
#include <sstream>
#include <set>
#include <tuple>

#include "platform/ProxyService.h"
#include "initialmount/MountGroupInitialMountSm.h"
#include "initialmount/ServiceInitialMountSm.h"
#include "registry/MountsRegistryEntrySm.h"

#include "host/Utf8.h"

namespace Host {

// JSON text is UTF-8: a byte that is not part of a character becomes U+FFFD.
std::string jsonString(std::string_view s) {
  std::string out = "\"";
  while (!s.empty()) {
    CodePoint const c = decodeUtf8(s);
    if (c.length == 0) {
      out += "\\ufffd";
      s.remove_prefix(1);
      continue;
    }
    if (c.value == '"' || c.value == '\\') {
      out += '\\';
      out += static_cast<char>(c.value);
    } else if (c.value < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(c.value));
      out += buf;
    } else {
      out.append(s.substr(0, c.length));
    }
    s.remove_prefix(c.length);
  }
  return out + "\"";
}

// The shortest text that reads back exactly; times are finite, so nothing needs JSON's missing
// infinities.
std::string jsonNumber(double v) {
  char buf[32];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  return ec == std::errc() ? std::string(buf, end) : "null";
}

namespace {

std::string jsonOrNull(std::string const& s) { return s.empty() ? "null" : jsonString(s); }

}  // namespace

std::string fixed(double t, int precision) {
  std::ostringstream os;
  os << std::fixed << std::setprecision(precision) << t;
  return os.str();
}

std::string stateName(Controller::MountState s) {
  std::string n = Controller::valueToStrep(s);
  if (n.starts_with("mountState") && n.size() > 10) {
    n = n.substr(10);
    n[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(n[0])));
  }
  return n;
}

std::string rowState(World const& w, std::string const& sw, std::string const& service, std::string const& path) {
  ServiceDecl const* d = w.s.service(service);
  auto const status = d ? w.mountStatusOf(*d) : nullptr;
  auto const sys = status ? status->systemStatus(Kiv::Name(sw)) : nullptr;
  if (sys)
    for (auto g = sys->serviceMountGroupStatusIter(); g; ++g)
      if (auto const m = g.value()->mountStatus(Kiv::Name(path))) return stateName(m->mountState());
  return "absent";
}

Verdict verdictOf(World const& w, Event const& e) {
  auto const& x = e.words;  // expect, what, then its arguments; the last is the expected value
  Verdict v;
  v.line = e.line;
  v.time = e.time;
  for (std::size_t i = 1; i < x.size(); ++i) v.expected += (i > 1 ? " " : "") + x[i];
  if (x[1] == "mount") {
    v.got = rowState(w, x[2], x[3], x[4]);
  } else if (x[1] == "group") {
    v.got = "incomplete";
    for (auto const& r : groupRows(w))
      if (r.service == x[2] && r.group == x[3] && r.complete) v.got = "complete";
  } else if (x[1] == "published") {
    bool present = false;
    if (auto const sys = w.dbPublish->system(Controller::SystemId(x[2])))
      for (auto m = sys->publishedMountIter(); m && !present; ++m) {
        std::string_view const path = m.value().path().view();
        // A directory is published as a subdirectory per switch.
        present = path == x[3] || (path.starts_with(x[3]) && path.substr(x[3].size()).starts_with('/'));
      }
    v.got = present ? "present" : "absent";
  } else if (x[1] == "ready") {
    v.got = w.dbPublish->servicePublishReady(x[2]) ? "on" : "off";
  }
  v.met = v.got == x.back();
  return v;
}

std::vector<GroupRow> groupRows(World const& w) {
  std::vector<GroupRow> rows;
  for (auto const& m : w.s.mounts) {
    if (w.s.service(m.service)->proxy) continue;  // initial mounts are tracked for ordinary services only
    if (std::any_of(rows.begin(), rows.end(),
                    [&](GroupRow const& r) { return r.service == m.service && r.group == m.group; }))
      continue;
    GroupRow r{m.service, m.group};
    auto st = w.mountStatusOf(*w.s.service(m.service));
    r.complete = st && st->initialMountsComplete(m.group);
    if (auto it = w.completedAt.find({m.service, m.group}); it != w.completedAt.end()) r.at = it->second;
    rows.push_back(r);
  }
  return rows;
}
std::vector<MountRow> mountRows(World const& w) {
  std::vector<MountRow> rows;
  for (auto const& d : w.s.services) {
    auto st = w.mountStatusOf(d);
    if (!st) continue;
    for (auto sys = st->systemStatusIter(); sys; ++sys)
      for (auto g = sys.value()->serviceMountGroupStatusIter(); g; ++g)
        for (auto m = g.value()->mountStatusIter(); m; ++m)
          rows.push_back({d.name, std::string(sys.key().view()), std::string(g.key().view()),
                          std::string(m.key().view()), stateName(m.value()->mountState()),
                          m.value()->mountedPath().stdString(), ""});
  }
  std::sort(rows.begin(), rows.end(), [](MountRow const& a, MountRow const& b) {
    return std::tie(a.sw, a.service, a.group, a.path) < std::tie(b.sw, b.service, b.group, b.path);
  });
  return rows;
}
std::string reasonOf(World const& w, MountDecl const& m, std::string const& sw, std::string const& state) {
  if (state == "mounted") return {};
  Controller::SystemId const id(sw);
  auto const peers = w.oob->peerTable();
  if (!peers || !peers->peer(id)) return "switch down";
  if (!w.registrySm->negotiatedVersion(Kiv::String(m.service), id))
    return "no version of " + Controller::realServiceNameOfProxy(Kiv::String(m.service)).stdString() + " negotiated";
  ServiceDecl const& svc = *w.s.service(m.service);
  if (!svc.proxy) {
    auto const config = Kiv::entityCast<Controller::ServiceMountConfig>(w.mountConfig->entityPtr(m.service));
    std::string const gen = config ? config->leaderGenId().stdString() : std::string();
    if (gen != w.db->leaderGenId().stdString())
      return "leader generation is " + w.db->leaderGenId().stdString() + ", the service follows " + gen;
  }
  auto const entry = w.registrySm->mountsRegistryEntrySm(Kiv::Name(m.remotePath));
  if (!entry) return "no current mount of the path";
  auto const v = entry->switchView(id);
  auto const found = std::find_if(v.mounters.begin(), v.mounters.end(), [&](auto const& mv) {
    return mv.service.view() == m.service && mv.group.view() == m.group;
  });
  auto const* mine = found == v.mounters.end() ? nullptr : &*found;
  // The entry's filters merge those of every group mounting the path: the group that keeps the
  // switch out is named, this one first.
  using Mounter = Controller::MountsRegistryEntrySm::SwitchView::MounterView;
  auto const keptOutBy = [&](bool (*out)(Mounter const&)) -> Mounter const* {
    Mounter const* other = nullptr;
    for (auto const& mv : v.mounters)
      if (out(mv) && (&mv == mine || !other)) other = &mv;
    return other;
  };
  auto const whose = [&](Mounter const* by) {
    return by == mine ? std::string("the group's")
                      : by->service.stdString() + "/" + by->group.stdString() + "'s";
  };
  auto const shared = [&](Mounter const* by) { return by == mine ? "" : "shared entry: "; };
  if (!v.wildcard && !v.versionFilterPassed)
    if (auto const by = keptOutBy([](Mounter const& mv) { return !mv.inVersions; }))
      return shared(by) + ("version " + std::to_string(by->version)) + " is not in " + whose(by) + " versions";
  if (!v.wildcard && v.connectionFilterSize && !v.connectionFilterCount)
    if (auto const by = keptOutBy([](Mounter const& mv) { return !mv.inSystems; }))
      return shared(by) + ("not in " + whose(by)) + " systems";
  // The entry mounts from the switch, but a group has rows only where its own filters let it.
  if (mine && !mine->inVersions)
    return "version " + std::to_string(mine->version) + " is not in the group's versions";
  if (mine && !mine->inSystems) return "not in the group's systems";
  if (state == "failed") return w.switches.at(sw)->failing() ? "mount failed: the switch does not answer" : "mount failed";
  if (state == "mounting") return "mounting";
  if (state == "unmounting") return "unmounting";
  return "not mounted";
}

Kiv::Ptr<Controller::MountGroupInitialMountSm> groupMachine(World const& w, std::string const& service,
                                                            std::string const& group) {
  auto const s = w.initialMount ? w.initialMount->serviceInitialMountSm(Kiv::Name(service)) : nullptr;
  return s ? s->mountGroupInitialMountSm(Kiv::Name(group)) : nullptr;
}

std::vector<MountRow> mountTable(World const& w) {
  std::vector<MountRow> rows = mountRows(w);
  std::set<std::tuple<std::string, std::string, std::string>> seen;  // switch, service, path
  for (auto const& r : rows) seen.emplace(r.sw, r.service, r.path);
  for (auto const& m : w.s.mounts)
    for (auto const& d : w.s.switches)
      if (!seen.count({d.address, m.service, m.remotePath}))
        rows.push_back({m.service, d.address, m.group, m.remotePath, "absent", "", ""});
  for (auto& r : rows)
    for (auto const& m : w.s.mounts)
      if (m.service == r.service && m.remotePath == r.path && w.switches.count(r.sw))
        r.reason = reasonOf(w, m, r.sw, r.state);
  std::sort(rows.begin(), rows.end(), [](MountRow const& a, MountRow const& b) {
    return std::tie(a.sw, a.service, a.group, a.path) < std::tie(b.sw, b.service, b.group, b.path);
  });
  return rows;
}

std::vector<Explanation> explain(World const& w, std::string const& sw, std::string const& path) {
  std::vector<Explanation> out;
  auto const yes = [](bool b) { return b ? "yes" : "no"; };
  for (auto const& m : w.s.mounts) {
    if (!path.empty() && m.remotePath != path) continue;
    Explanation e{m.service, m.group, m.remotePath, rowState(w, sw, m.service, m.remotePath), {}};
    auto& steps = e.steps;
    auto const entry = w.registrySm->mountsRegistryEntrySm(Kiv::Name(m.remotePath));
    if (!entry) {
      steps.push_back("registry entry: none (no service's mount of this path is current)");
    } else {
      auto const v = entry->switchView(Controller::SystemId(sw));
      auto const mine = std::find_if(v.mounters.begin(), v.mounters.end(),
                                     [&](auto const& mv) { return mv.service.view() == m.service; });
      steps.push_back(std::string("switch connected: ") + yes(v.registered));
      std::string versions;
      for (auto const& mv : v.mounters)
        versions += (versions.empty() ? "" : ", ") + mv.service.stdString() + " " +
                    (mv.version ? std::to_string(mv.version) : std::string("none"));
      steps.push_back("version negotiated: " + (versions.empty() ? std::string("no service mounts the path") : versions) +
                      " (the entry mounts if any of them has one)");
      auto const config = Kiv::entityCast<Controller::ServiceMountConfig>(
          (w.s.service(m.service)->proxy ? w.proxyMountConfig : w.mountConfig)->entityPtr(m.service));
      std::string const gen = config ? config->leaderGenId().stdString() : "";
      steps.push_back("leader generation: " + w.db->leaderGenId().stdString() + "; " + m.service +
                      (w.s.service(m.service)->proxy ? " is a proxy and is not gated"
                       : mine != v.mounters.end()    ? " follows " + gen + ": current"
                                                     : " follows " + gen + ": withdrawn from the entry"));
      steps.push_back(std::string("wildcard: ") + yes(v.wildcard) + (v.wildcard ? " (some group of the path has no filter)" : ""));
      if (v.wildcard) {
        steps.push_back("version filter: not consulted (wildcard)");
        steps.push_back("connection filter: not consulted (wildcard)");
      } else {
        steps.push_back("version filter: " + std::string(v.versionFilterEmpty ? "none" : v.versionFilterPassed ? "passed" : "not passed"));
        std::string shaped;
        for (auto const& mv : v.mounters)
          shaped += (shaped.empty() ? "" : ", ") + mv.service.stdString() + "/" + mv.group.stdString() + " " +
                    (mv.inSystems ? "includes it" : "does not include it");
        steps.push_back("connection filter: " +
                        (v.connectionFilterSize ? std::to_string(v.connectionFilterSize) + " switches, this one named by " +
                                                      std::to_string(v.connectionFilterCount) + " group(s)"
                                                : std::string("none")) +
                        (shaped.empty() ? "" : "; " + shaped));
      }
      if (mine != v.mounters.end())
        steps.push_back("this group: systems " + std::string(mine->inSystems ? "include" : "exclude") +
                        " the switch, versions " + (mine->inVersions ? "accept" : "refuse") + " its version " +
                        std::to_string(mine->version));
      steps.push_back(std::string("the entry mounts from this switch: ") + yes(v.wanted));
      steps.push_back("mount attempt: " + (v.hasMount ? stateName(v.mountState) + (v.pendingRequest ? ", a request pending" : "")
                                                      : std::string("none")));
      if (mine != v.mounters.end())
        steps.push_back(std::string("preserve on disconnect: ") + yes(mine->preserve));
    }
    if (w.switches.count(sw)) steps.push_back("so: " + (e.state == "mounted" ? std::string("mounted") : reasonOf(w, m, sw, e.state)));
    out.push_back(std::move(e));
  }
  return out;
}

void printExplanations(std::string const& sw, std::vector<Explanation> const& es, std::ostream& os) {
  os << "\nWhy, on " << sw << '\n';
  if (es.empty()) os << "  no declared mount of that path\n";
  for (auto const& e : es) {
    os << "  " << e.path << " for " << e.service << '/' << e.group << ": " << e.state << '\n';
    for (std::size_t i = 0; i < e.steps.size(); ++i) os << "    " << i + 1 << ". " << e.steps[i] << '\n';
  }
}

std::vector<PublishedRow> publishedRows(World const& w) {
  std::vector<PublishedRow> rows;
  for (auto sys = w.dbPublish->systemIter(); sys; ++sys)
    for (auto m = sys.value()->publishedMountIter(); m; ++m) {
      auto const& desc = m.value();
      rows.push_back({Controller::valueToStrep(sys.key()), desc.path().stdString(), desc.remotePath().stdString(),
                      desc.kivType().stdString(), desc.serviceName().stdString()});
    }
  std::sort(rows.begin(), rows.end(), [](PublishedRow const& a, PublishedRow const& b) {
    return std::tie(a.sw, a.path) < std::tie(b.sw, b.path);
  });
  return rows;
}
std::vector<std::string> publishers(World const& w) {
  std::vector<std::string> out;
  for (auto const& p : w.s.publishes)
    if (std::find(out.begin(), out.end(), p.service) == out.end()) out.push_back(p.service);
  return out;
}

namespace {

// Columns as wide as their widest cell, two blanks apart; the last column is not padded.
void printTable(std::ostream& os, std::vector<std::vector<std::string>> const& rows) {
  std::vector<std::size_t> width;
  for (auto const& r : rows)
    for (std::size_t i = 0; i < r.size(); ++i) {
      if (width.size() <= i) width.push_back(0);
      width[i] = std::max(width[i], r[i].size());
    }
  for (auto const& r : rows) {
    std::string line = " ";
    for (std::size_t i = 0; i < r.size(); ++i) {
      line += ' ' + r[i];
      if (i + 1 < r.size()) line += std::string(width[i] - r[i].size() + 1, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    os << line << '\n';
  }
}

}  // namespace

void printTables(World const& w, std::vector<Verdict> const& verdicts, std::ostream& os, bool allRows) {
  os << "\nInitial mounts (t=" << fixed(w.loop.now(), 1) << ")\n";
  std::vector<std::vector<std::string>> t{{"service", "group", "complete", "at"}};
  for (auto const& r : groupRows(w))
    t.push_back({r.service, r.group, r.complete ? "yes" : "no", r.at >= 0 ? fixed(r.at, 1) : "-"});
  printTable(os, t);
  auto const rows = mountTable(w);
  if (allRows || rows.size() <= kMountRowsListed) {
    os << "\nMounts\n";
    t = {{"switch", "service", "group", "path", "state", "mounted at / reason"}};
    for (auto const& r : rows)
      t.push_back({r.sw, r.service, r.group, r.path, r.state, r.state == "mounted" ? r.mountedPath : r.reason});
  } else {
    // Rows alike but for their switch share a line: a data centre's table is read, not scrolled.
    os << "\nMounts (" << rows.size() << " rows, alike ones together; --all-rows lists each)\n";
    std::map<std::tuple<std::string, std::string, std::string, std::string, std::string>, std::vector<std::string>> alike;
    for (auto const& r : rows) alike[{r.service, r.group, r.path, r.state, r.reason}].push_back(r.sw);
    t = {{"service", "group", "path", "state", "switches", "reason"}};
    for (auto const& [k, switches] : alike) {
      auto const& [service, group, path, state, reason] = k;
      std::string which = std::to_string(switches.size()) + ":";
      for (std::size_t i = 0; i < switches.size() && i < 2; ++i) which += (i ? ", " : " ") + switches[i];
      if (switches.size() > 2) which += " ...";
      t.push_back({service, group, path, state, which, reason});
    }
  }
  printTable(os, t);
  os << "\nPublished\n";
  t = {{"switch", "path", "remote", "type", "service"}};
  for (auto const& r : publishedRows(w)) t.push_back({r.sw, r.path, r.remotePath, r.type, r.service});
  printTable(os, t);
  os << "\nPublish readiness\n";
  t.clear();
  for (auto const& svc : publishers(w)) t.push_back({svc, w.dbPublish->servicePublishReady(svc) ? "ready" : "not ready"});
  printTable(os, t);
  if (!verdicts.empty()) {
    auto const unmet = std::count_if(verdicts.begin(), verdicts.end(), [](Verdict const& v) { return !v.met; });
    os << "\nExpectations: " << verdicts.size() - unmet << " met, " << unmet << " unmet\n";
  }
}

void printJson(World const& w, std::vector<Verdict> const& verdicts, std::ostream& os,
               std::vector<Explanation> const* explanations) {
  os << "{\n  \"schema\": " << kJsonSchema << ",\n  \"time\": " << jsonNumber(w.loop.now())
     << ",\n  \"initialMounts\": [";
  char const* sep = "";
  for (auto const& r : groupRows(w)) {
    os << sep << "\n    {\"service\": " << jsonString(r.service) << ", \"group\": " << jsonString(r.group)
       << ", \"complete\": " << (r.complete ? "true" : "false") << ", \"at\": ";
    os << (r.at >= 0 ? jsonNumber(r.at) : "null");
    os << '}';
    sep = ",";
  }
  os << "\n  ],\n  \"mounts\": [";
  sep = "";
  for (auto const& r : mountRows(w)) {
    os << sep << "\n    {\"switch\": " << jsonString(r.sw) << ", \"service\": " << jsonString(r.service)
       << ", \"group\": " << jsonString(r.group) << ", \"path\": " << jsonString(r.path)
       << ", \"state\": " << jsonString(r.state) << ", \"mountedPath\": " << jsonOrNull(r.mountedPath) << '}';
    sep = ",";
  }
  os << "\n  ],\n  \"published\": [";
  sep = "";
  for (auto const& r : publishedRows(w)) {
    os << sep << "\n    {\"switch\": " << jsonString(r.sw) << ", \"path\": " << jsonString(r.path)
       << ", \"remotePath\": " << jsonString(r.remotePath) << ", \"type\": " << jsonString(r.type)
       << ", \"service\": " << jsonString(r.service) << '}';
    sep = ",";
  }
  os << "\n  ],\n  \"publishReady\": {";
  sep = "";
  for (auto const& svc : publishers(w)) {
    os << sep << "\n    " << jsonString(svc) << ": " << (w.dbPublish->servicePublishReady(svc) ? "true" : "false");
    sep = ",";
  }
  os << "\n  },\n  \"expectations\": [";
  sep = "";
  for (auto const& v : verdicts) {
    os << sep << "\n    {\"line\": " << v.line << ", \"time\": " << jsonNumber(v.time)
       << ", \"expected\": " << jsonString(v.expected)
       << ", \"got\": " << jsonString(v.got) << ", \"met\": " << (v.met ? "true" : "false") << '}';
    sep = ",";
  }
  os << "\n  ]";
  if (explanations) {
    os << ",\n  \"explain\": [";
    sep = "";
    for (auto const& e : *explanations) {
      os << sep << "\n    {\"service\": " << jsonString(e.service) << ", \"group\": " << jsonString(e.group)
         << ", \"path\": " << jsonString(e.path) << ", \"state\": " << jsonString(e.state) << ", \"steps\": [";
      for (std::size_t i = 0; i < e.steps.size(); ++i) os << (i ? ", " : "") << jsonString(e.steps[i]);
      os << "]}";
      sep = ",";
    }
    os << "\n  ]";
  }
  os << "\n}\n";
}

}  // namespace Host
