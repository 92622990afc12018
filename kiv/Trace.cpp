// Trace handles, sinks, the ring buffer and Duallog.

#include "kiv/Trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>

namespace Kiv {

namespace {

struct Setting {
  std::string pattern;  // a name, or a prefix ending in '*'
  std::uint32_t levels;
};

struct Registry {
  std::vector<TraceHandle*> handles;
  std::vector<Setting> settings;
  bool envRead = false;
};

Registry& registry() {
  static Registry r;
  return r;
}

bool matches(std::string const& pattern, std::string const& name) {
  if (!pattern.empty() && pattern.back() == '*') return name.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
  return pattern == name;
}

std::uint32_t parseLevels(std::string_view text, std::string_view entry) {
  if (text.empty()) return 0x3ffu;
  std::uint32_t mask = 0;
  auto fail = [&] {
    throwRangeException("malformed trace setting \"" + std::string(entry) +
                        "\": levels are numbers 0-31 or ranges like 1-5, joined by ','");
  };
  auto number = [&](std::string_view s) {
    if (s.empty() || s.size() > 2 || !std::all_of(s.begin(), s.end(), ::isdigit)) fail();
    int v = std::stoi(std::string(s));
    if (v > 31) fail();
    return v;
  };
  while (!text.empty()) {
    std::size_t comma = text.find(',');
    std::string_view item = text.substr(0, comma);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    std::size_t dash = item.find('-');
    int lo = number(item.substr(0, dash));
    int hi = dash == std::string_view::npos ? lo : number(item.substr(dash + 1));
    if (hi < lo) fail();
    for (int l = lo; l <= hi; ++l) mask |= 1u << l;
  }
  return mask;
}

std::vector<Setting> parseSetting(std::string_view text) {
  std::vector<Setting> out;
  while (!text.empty()) {
    std::size_t semi = text.find(';');
    std::string_view entry = text.substr(0, semi);
    text = semi == std::string_view::npos ? std::string_view() : text.substr(semi + 1);
    while (!entry.empty() && entry.front() == ' ') entry.remove_prefix(1);
    while (!entry.empty() && entry.back() == ' ') entry.remove_suffix(1);
    if (entry.empty()) continue;
    std::size_t slash = entry.find('/');
    std::string_view name = entry.substr(0, slash);
    if (name.empty()) throwRangeException("malformed trace setting \"" + std::string(entry) + "\": no handle name");
    std::uint32_t levels = parseLevels(slash == std::string_view::npos ? "" : entry.substr(slash + 1), entry);
    out.push_back(Setting{std::string(name), levels});
  }
  return out;
}

void readEnvironment(Registry& r) {
  if (r.envRead) return;
  r.envRead = true;
  if (char const* env = std::getenv("KIV_TRACE")) {
    try {
      r.settings = parseSetting(env);
    } catch (Exception const& e) {
      std::fprintf(stderr, "KIV_TRACE ignored: %s\n", e.what());
    }
  }
}

std::uint32_t levelsFor(Registry const& r, std::string const& name) {
  std::uint32_t levels = 0;
  for (Setting const& s : r.settings)
    if (matches(s.pattern, name)) levels = s.levels;  // later settings win
  return levels;
}

class StderrSink : public TraceSink {
 public:
  void write(TraceRecord const& r) override {
    std::string line = formatTraceRecord(r);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
};

StderrSink stderrSink;
TraceSink* currentSink = &stderrSink;

}  // namespace

TraceHandle::TraceHandle(std::string name) : name_(std::move(name)) {
  Registry& r = registry();
  readEnvironment(r);
  levels_ = levelsFor(r, name_);
  r.handles.push_back(this);
}

TraceHandle::~TraceHandle() { std::erase(registry().handles, this); }

void TraceHandle::levelIs(int level, bool on) {
  if (level < 0 || level > 31) throwRangeException("trace level " + std::to_string(level) + " out of range 0-31");
  levels_ = on ? (levels_ | (1u << level)) : (levels_ & ~(1u << level));
}

TraceHandle* TraceHandle::named(std::string_view name) {
  for (TraceHandle* h : registry().handles)
    if (h->name_ == name) return h;
  return nullptr;
}

std::vector<TraceHandle*> TraceHandle::all() { return registry().handles; }

void TraceHandle::configure(std::string_view setting) {
  Registry& r = registry();
  std::vector<Setting> parsed = parseSetting(setting);
  for (Setting const& s : parsed) {
    r.settings.push_back(s);
    for (TraceHandle* h : r.handles)
      if (matches(s.pattern, h->name_)) h->levels_ = s.levels;
  }
}

void TraceHandle::resetAll() {
  Registry& r = registry();
  r.settings.clear();
  for (TraceHandle* h : r.handles) h->levels_ = 0;
}

std::string formatTraceRecord(TraceRecord const& r) {
  std::ostringstream os;
  os << std::fixed << std::setprecision(3) << r.time << ' ' << r.handle << ' ' << r.level << ' ' << r.file << ':'
     << r.line << ' ' << r.function << ": " << r.message;
  return os.str();
}

TraceSink* traceSinkIs(TraceSink* sink) {
  TraceSink* previous = currentSink;
  currentSink = sink ? sink : &stderrSink;
  return previous == &stderrSink ? nullptr : previous;
}

void TraceCapture::write(TraceRecord const& r) {
  lines_.push_back(Line{std::string(r.handle), r.level, std::string(r.file), r.line, std::string(r.function),
                        std::string(r.message)});
}

std::vector<std::string> TraceCapture::messages() const {
  std::vector<std::string> out;
  for (Line const& l : lines_) out.push_back(l.message);
  return out;
}

std::vector<std::string> TraceCapture::messages(int level) const {
  std::vector<std::string> out;
  for (Line const& l : lines_)
    if (l.level == level) out.push_back(l.message);
  return out;
}

void TraceHelper::trace(char const* file, int line, char const* function) {
  std::string message = os_.str();
  currentSink->write(TraceRecord{System::currentTime(), handle_->name(), level_, file, line, function, message});
}

// --- Ringlog ---

Ringlog::Ringlog(std::size_t capacity) : records_(std::max<std::size_t>(capacity, 1)) {}

Ringlog& Ringlog::defaultHandle() {
  static Ringlog ring;
  return ring;
}

namespace {
constexpr unsigned char kRaw = 0xff;  // text lengths stay below kArgBytes
static_assert(Ringlog::kArgBytes <= kRaw);

std::vector<std::string> textsOf(RinglogArg const* args, std::size_t count) {
  std::vector<std::string> texts;
  texts.reserve(count);
  for (RinglogArg const* a = args; a != args + count; ++a) texts.push_back(a->text());
  return texts;
}

// The arguments as the ring shows them: laid out in buf (kArgBytes), each cut so that all, each
// followed by a NUL, fit, and read back up to their first NUL. Sets truncated if any was cut.
std::vector<std::string_view> laidOut(std::vector<std::string> const& texts, char* buf, bool& truncated) {
  std::size_t used = 0;
  std::size_t count = 0;
  for (std::string const& a : texts) {
    std::size_t room = Ringlog::kArgBytes - used;
    if (room == 0) {
      truncated = true;
      break;
    }
    std::size_t n = std::min(a.size(), room - 1);
    if (n < a.size()) truncated = true;
    std::memcpy(buf + used, a.data(), n);
    buf[used + n] = '\0';
    used += n + 1;
    ++count;
  }
  std::vector<std::string_view> out;
  for (char const* p = buf; out.size() < count; p += out.back().size() + 1) out.emplace_back(p);
  return out;
}
}  // namespace

std::string RinglogArg::text() const {
  return format ? format(data) : std::string(static_cast<char const*>(data), size);
}

void Ringlog::write(RinglogDescriptor const& d, std::initializer_list<std::string_view> args) {
  std::vector<RinglogArg> list;
  for (std::string_view a : args) list.push_back(RinglogArg::ofText(a));
  write(d, list.data(), list.size());
}

// Keeps what lines() needs to lay the arguments out: a text cut only where it would be cut
// whatever the values' texts turn out to be (each at least a NUL), and nothing past the point
// where no room would be left. False when the values do not fit in the record.
bool Ringlog::encode(Record& r, RinglogArg const* args, std::size_t count) {
  r.argCount = 0;
  r.truncated = false;
  std::size_t used = 0;       // of r.args
  std::size_t leastLaid = 0;  // of the kArgBytes the laid-out texts take, at the least
  for (RinglogArg const* a = args; a != args + count; ++a) {
    std::size_t room = kArgBytes - leastLaid;
    if (room == 0) {
      r.truncated = true;
      break;
    }
    char* out = r.args + used;
    if (!a->format) {
      std::size_t n = std::min(a->size, room - 1);
      if (n < a->size) r.truncated = true;
      if (used + 1 + n > sizeof r.args) return false;
      out[0] = static_cast<char>(n);
      std::memcpy(out + 1, a->data, n);
      used += 1 + n;
      leastLaid += n + 1;
    } else {
      std::size_t const n = 2 + sizeof a->format + a->size;
      if (used + n > sizeof r.args) return false;
      out[0] = static_cast<char>(kRaw);
      out[1] = static_cast<char>(a->size);
      std::memcpy(out + 2, &a->format, sizeof a->format);
      std::memcpy(out + 2 + sizeof a->format, a->data, a->size);
      used += n;
      leastLaid += 1;
    }
    ++r.argCount;
  }
  return true;
}

void Ringlog::write(RinglogDescriptor const& d, RinglogArg const* args, std::size_t count) {
  Record& r = records_[count_ % records_.size()];
  ++count_;
  r.descriptor = &d;
  r.time = System::currentTime();
  if (encode(r, args, count)) return;
  // Texts alone always fit: they are cut to kArgBytes.
  std::vector<std::string> texts = textsOf(args, count);
  std::vector<RinglogArg> list;
  for (std::string const& t : texts) list.push_back(RinglogArg::ofText(t));
  encode(r, list.data(), list.size());
}

std::string formatRinglogMessage(RinglogDescriptor const& d, std::vector<std::string_view> const& args) {
  std::string out;
  if (d.signature && *d.signature) {
    out += d.signature;
    out += ": ";
  }
  std::size_t next = 0;
  for (char const* p = d.format; *p; ++p) {
    if (p[0] == '%' && p[1] == 's') {
      if (next < args.size()) out += args[next];
      ++next;
      ++p;
    } else {
      out += *p;
    }
  }
  return out;
}

std::vector<std::string> Ringlog::lines() const {
  std::vector<std::string> out;
  std::size_t n = size();
  for (std::uint64_t i = count_ - n; i < count_; ++i) {
    Record const& r = records_[i % records_.size()];
    std::vector<RinglogArg> kept;
    for (char const* a = r.args; kept.size() < r.argCount;) {
      if (static_cast<unsigned char>(a[0]) == kRaw) {
        RinglogArg::Format format;
        std::memcpy(&format, a + 2, sizeof format);
        kept.push_back(RinglogArg{a + 2 + sizeof format, static_cast<unsigned char>(a[1]), format});
      } else {
        kept.push_back(RinglogArg{a + 1, static_cast<unsigned char>(a[0]), nullptr});
      }
      a = static_cast<char const*>(kept.back().data) + kept.back().size;
    }
    bool truncated = r.truncated;
    char buf[kArgBytes];
    std::vector<std::string_view> args = laidOut(textsOf(kept.data(), kept.size()), buf, truncated);
    std::ostringstream os;
    os << std::fixed << std::setprecision(3) << r.time << ' ' << r.descriptor->file << ':' << r.descriptor->line
       << ' ' << formatRinglogMessage(*r.descriptor, args);
    if (truncated) os << " [truncated]";
    out.push_back(os.str());
  }
  return out;
}

void Ringlog::dump(std::ostream& os) const {
  for (std::string const& l : lines()) os << l << '\n';
}

namespace detail {
void duallog(TraceHandle const& handle, int level, RinglogDescriptor const& d, RinglogArg const* args,
             std::size_t count) {
  Ringlog::defaultHandle().write(d, args, count);
  if (!handle.enabled(level)) return;
  std::vector<std::string> texts = textsOf(args, count);
  std::string message = formatRinglogMessage(d, std::vector<std::string_view>(texts.begin(), texts.end()));
  currentSink->write(TraceRecord{System::currentTime(), handle.name(), level, d.file, d.line, d.signature, message});
}
}  // namespace detail

}  // namespace Kiv
