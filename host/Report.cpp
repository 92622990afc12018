#include "host/Report.h"

#include <algorithm>
#include <charconv>
#include <cctype>
#include <cstdio>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <tuple>

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

Verdict verdictOf(World const& w, Event const& e) {
  auto const& x = e.words;  // expect, what, then its arguments; the last is the expected value
  Verdict v;
  v.line = e.line;
  v.time = e.time;
  for (std::size_t i = 1; i < x.size(); ++i) v.expected += (i > 1 ? " " : "") + x[i];
  if (x[1] == "mount") {
    v.got = "absent";
    for (auto const& r : mountRows(w))
      if (r.sw == x[2] && r.service == x[3] && r.path == x[4]) v.got = r.state;
  } else if (x[1] == "group") {
    v.got = "incomplete";
    for (auto const& r : groupRows(w))
      if (r.service == x[2] && r.group == x[3] && r.complete) v.got = "complete";
  } else if (x[1] == "published") {
    auto const rows = publishedRows(w);
    bool const present = std::any_of(rows.begin(), rows.end(),
                                     [&](PublishedRow const& r) {
                                       // A directory is published as a subdirectory per switch.
                                       return r.sw == x[2] && (r.path == x[3] || r.path.starts_with(x[3] + "/"));
                                     });
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
                          m.value()->mountedPath().stdString()});
  }
  std::sort(rows.begin(), rows.end(), [](MountRow const& a, MountRow const& b) {
    return std::tie(a.sw, a.service, a.group, a.path) < std::tie(b.sw, b.service, b.group, b.path);
  });
  return rows;
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

void printTables(World const& w, std::vector<Verdict> const& verdicts, std::ostream& os) {
  os << "\nInitial mounts (t=" << fixed(w.loop.now(), 1) << ")\n";
  os << "  " << std::left << std::setw(22) << "service" << std::setw(14) << "group" << std::setw(10) << "complete"
     << "at\n";
  for (auto const& r : groupRows(w))
    os << "  " << std::setw(22) << r.service << std::setw(14) << r.group << std::setw(10)
       << (r.complete ? "yes" : "no") << (r.at >= 0 ? fixed(r.at, 1) : "-") << '\n';
  os << "\nMounts\n";
  os << "  " << std::setw(19) << "switch" << std::setw(22) << "service" << std::setw(14) << "group"
     << std::setw(18) << "path" << std::setw(12) << "state" << "mounted at\n";
  for (auto const& r : mountRows(w))
    os << "  " << std::setw(19) << r.sw << std::setw(22) << r.service << std::setw(14) << r.group << std::setw(18)
       << r.path << std::setw(12) << r.state << (r.mountedPath.empty() ? "-" : r.mountedPath) << '\n';
  os << "\nPublished\n";
  os << "  " << std::setw(19) << "switch" << std::setw(18) << "path" << std::setw(18) << "remote"
     << std::setw(14) << "type" << "service\n";
  for (auto const& r : publishedRows(w))
    os << "  " << std::setw(19) << r.sw << std::setw(18) << r.path << std::setw(18) << r.remotePath
       << std::setw(14) << r.type << r.service << '\n';
  os << "\nPublish readiness\n";
  for (auto const& svc : publishers(w))
    os << "  " << std::setw(22) << svc << (w.dbPublish->servicePublishReady(svc) ? "ready" : "not ready") << '\n';
  if (!verdicts.empty()) {
    auto const unmet = std::count_if(verdicts.begin(), verdicts.end(), [](Verdict const& v) { return !v.met; });
    os << "\nExpectations: " << verdicts.size() - unmet << " met, " << unmet << " unmet\n";
  }
  os << std::right;
}

void printJson(World const& w, std::vector<Verdict> const& verdicts, std::ostream& os) {
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
  os << "\n  ]\n}\n";
}

}  // namespace Host
