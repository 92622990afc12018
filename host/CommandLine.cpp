#include "host/CommandLine.h"

#include <filesystem>
#include <fstream>
#include <cstdlib>
#include <optional>
#include <sstream>

#include "host/Run.h"
#include "host/Scenario.h"
#include "kiv/Trace.h"

namespace Host {

namespace {

constexpr char const* kUsage =
    "usage: mounthost [options] [scenario-file]\n"
    "Runs a scenario (see README.md) against simulated switches; without a file, the built-in one.\n"
    "  --json            print the final status as JSON (the log goes to stderr)\n"
    "  -v, --verbose     also the machines' level-5 trace\n"
    "  --trace SETTING   extra trace levels, e.g. 'ControllerMountsRegistrySm/0-9' (KIV_TRACE adds too)\n"
    "  --until SECONDS   stop at this time instead of the scenario's 'run'\n"
    "  --ringlog         dump the in-memory ring log at the end\n"
    "  --check           exit 1 if an 'expect' statement is not met\n"
    "  --all-rows        list every mount row, also beyond 200, where alike ones are counted together\n"
    "  --events FILE     write the event log (events, outcomes, expectations, trace) as JSON lines\n"
    "  --timeline FILE   draw the run as SVG: switches' and groups' states over time, events\n"
    "  --explain SWITCH[@PATH]\n"
    "                    at the end, why each declared mount (of PATH) is or is not mounted there\n"
    "  --realtime        timers follow the wall clock; run until --until or Ctrl-C\n"
    "  --help            this text\n"
    "  --version         the version\n";

// Whether `text` holds a statement: something other than blanks and comments.
bool hasStatement(std::string_view text) {
  std::istringstream in{std::string(text)};
  for (std::string line; std::getline(in, line);)
    if (line.substr(0, line.find('#')).find_first_not_of(" \t\r\v\f") != std::string::npos) return true;
  return false;
}

int commandLine(std::vector<std::string> const& args, std::ostream& out, std::ostream& err) {
  Options o;
  std::string file;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string const& a = args[i];
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= args.size()) return std::nullopt;
      return args[++i];
    };
    if (a == "--help" || a == "-h") {
      out << kUsage;
      return 0;
    } else if (a == "--version") {
      out << "mounthost " << kVersion << '\n';
      return 0;
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "-v" || a == "--verbose") {
      o.verbose = true;
    } else if (a == "--check") {
      o.check = true;
    } else if (a == "--ringlog") {
      o.ringlog = true;
    } else if (a == "--all-rows") {
      o.allRows = true;
    } else if (a == "--realtime") {
      o.realtime = true;
    } else if (a == "--explain") {
      // '@' rather than a second argument, which could not be told from the scenario file.
      auto v = value();
      if (!v || v->empty() || v->front() == '@') {
        err << "mounthost: --explain needs a switch address, e.g. 00:00:00:00:00:05 or 00:00:00:00:00:05@/sys/config\n"
            << kUsage;
        return 2;
      }
      auto const at = v->find('@');
      o.explainSwitch = v->substr(0, at);
      if (at != std::string::npos) o.explainPath = v->substr(at + 1);
    } else if (a == "--timeline" || a == "--events") {
      auto v = value();
      if (!v || v->empty()) {
        err << "mounthost: " << a << " needs a file name\n" << kUsage;
        return 2;
      }
      (a == "--timeline" ? o.timeline : o.events) = *v;
    } else if (a == "--trace") {
      auto v = value();
      if (!v) {
        err << "mounthost: --trace needs a setting\n" << kUsage;
        return 2;
      }
      o.trace = *v;
    } else if (a == "--until") {
      auto v = value();
      std::optional<double> const d = v ? parseSeconds(*v) : std::nullopt;
      if (!d || *d == 0) {
        err << "mounthost: --until needs a number of seconds from 1e-6 to 1e9\n" << kUsage;
        return 2;
      }
      o.until = d;
    } else if (a.starts_with("-")) {
      err << "mounthost: unknown option '" << a << "'\n" << kUsage;
      return 2;
    } else if (!file.empty()) {
      err << "mounthost: more than one scenario file\n" << kUsage;
      return 2;
    } else {
      file = a;
    }
  }
  using Setting = std::pair<char const*, char const*>;
  for (auto [setting, name] : {Setting{o.trace.c_str(), "--trace setting"}, Setting{std::getenv("KIV_TRACE"), "KIV_TRACE"}}) {
    if (!setting || !*setting) continue;
    try {
      Kiv::TraceHandle::configure(setting);
      Kiv::TraceHandle::resetAll();
    } catch (std::exception const& e) {
      err << "mounthost: bad " << name << ": " << e.what() << '\n';
      return 2;
    }
  }
  if (file.empty()) return runScenarioText(std::string(defaultScenarioText()), "<default>", o, out, err);
  // A directory opens as a stream that reads nothing; it must not pass for an empty scenario.
  std::error_code ec;
  if (std::filesystem::is_directory(file, ec)) {
    err << "mounthost: '" << file << "' is a directory, not a scenario file\n";
    return 2;
  }
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    err << "mounthost: cannot read '" << file << "'\n";
    return 2;
  }
  std::stringstream text;
  text << in.rdbuf();
  if (!hasStatement(text.str())) {
    err << "mounthost: '" << file << "' has no statements (it is empty or only blanks and comments)\n";
    return 2;
  }
  return runScenarioText(text.str(), file, o, out, err);
}

}  // namespace

int hostMain(std::vector<std::string> const& args, std::ostream& out, std::ostream& err) {
  try {
    return commandLine(args, out, err);
  } catch (std::exception const& e) {
    err << "mounthost: internal error: " << e.what() << '\n';
  } catch (...) {
    err << "mounthost: internal error: an exception of unknown type\n";
  }
  return 3;
}

}  // namespace Host
