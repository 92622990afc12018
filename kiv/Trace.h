#pragma once
// Tracing. One TraceHandle per source unit, with levels 0..31 enabled or disabled; a disabled
// level costs one load and a branch and never formats anything (the KIV_TRACE macros test the
// level before they evaluate the message).
//
// Levels come from code (levelIs, configure) and from the environment variable KIV_TRACE, read
// when a handle is created:
//   KIV_TRACE="<handle>/<levels>[;<handle>/<levels>...]"
//   <handle>  a handle name, or a prefix ending in '*' ("Controller*"), or "*" for all
//   <levels>  numbers and ranges joined by ','; "0-9,12". A bare handle means levels 0-9.
// Example: KIV_TRACE="ControllerMountsRegistrySm/1,5,8;ControllerInitialMountSm/0-9"
//
// Ringlog is an in-memory ring of the most recent messages (fixed size, oldest overwritten,
// dumpable); Duallog writes one message both to the ring and, when the level is enabled, to the
// handle's trace.

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "kiv/Clock.h"
#include "kiv/Strep.h"

namespace Kiv {

class TraceHandle {
 public:
  explicit TraceHandle(std::string name);
  ~TraceHandle();
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;

  std::string const& name() const { return name_; }
  bool enabled(int level) const { return (levels_ >> level) & 1u; }
  std::uint32_t levels() const { return levels_; }
  void levelsIs(std::uint32_t mask) { levels_ = mask; }
  void levelIs(int level, bool on);

  static TraceHandle* named(std::string_view name);
  static std::vector<TraceHandle*> all();
  // Applies a KIV_TRACE-style setting to the existing handles and remembers it for later ones.
  // Throws a range exception naming the fault when the text is malformed.
  static void configure(std::string_view setting);
  // Disables every level of every handle and forgets remembered settings.
  static void resetAll();

 private:
  std::string name_;
  std::uint32_t levels_ = 0;
};

struct TraceRecord {
  Seconds time;
  std::string_view handle;
  int level;
  std::string_view file;
  int line;
  std::string_view function;
  std::string_view message;
};

std::string formatTraceRecord(TraceRecord const& r);

// Where emitted trace lines go; the default writes formatted lines to stderr.
class TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void write(TraceRecord const& record) = 0;
};
// Installs a sink (null restores the default); returns the previous one.
TraceSink* traceSinkIs(TraceSink* sink);

// Keeps emitted records, for tests.
class TraceCapture : public TraceSink {
 public:
  struct Line {
    std::string handle;
    int level;
    std::string file;
    int line;
    std::string function;
    std::string message;
  };
  TraceCapture() : previous_(traceSinkIs(this)) {}
  ~TraceCapture() override { traceSinkIs(previous_); }
  void write(TraceRecord const& r) override;
  std::vector<Line> const& lines() const { return lines_; }
  std::vector<std::string> messages() const;
  // Messages at `level` only.
  std::vector<std::string> messages(int level) const;
  void clear() { lines_.clear(); }

 private:
  TraceSink* previous_;
  std::vector<Line> lines_;
};

class TraceHelper {
 public:
  TraceHelper(TraceHandle const& handle, int level) : handle_(&handle), level_(level) {}
  // A helper only when the handle's level is enabled.
  static std::optional<TraceHelper> createIfEnabled(TraceHandle const& handle, int level) {
    if (!handle.enabled(level)) return std::nullopt;
    return TraceHelper(handle, level);
  }
  template <class T>
  TraceHelper& operator<<(T const& v) {
    if constexpr (requires { strep(v); }) {
      os_ << strep(v);
    } else {
      os_ << v;
    }
    return *this;
  }
  void trace(char const* file, int line, char const* function);

 private:
  TraceHandle const* handle_;
  int level_;
  std::ostringstream os_;
};

struct RinglogDescriptor {
  char const* file;
  int line;
  char const* signature;  // may be empty: then the message has no "signature: " prefix
  char const* format;     // "%s" marks each argument
};

class Ringlog {
 public:
  static constexpr std::size_t kArgBytes = 240;

  explicit Ringlog(std::size_t capacity = 4096);
  // The per-process ring that Duallog writes to.
  static Ringlog& defaultHandle();

  void write(RinglogDescriptor const& d, std::initializer_list<std::string_view> args);
  std::size_t capacity() const { return records_.size(); }
  std::size_t size() const { return count_ < records_.size() ? count_ : records_.size(); }
  // Every record written since construction or clear(), including overwritten ones.
  std::uint64_t written() const { return count_; }
  void clear() { count_ = 0; }
  // The kept messages, oldest first, each as "<time> <file>:<line> <message>".
  std::vector<std::string> lines() const;
  void dump(std::ostream& os) const;

 private:
  struct Record {
    RinglogDescriptor const* descriptor;
    Seconds time;
    std::uint8_t argCount;
    bool truncated;
    char args[kArgBytes];  // arguments, each followed by a NUL
  };
  std::vector<Record> records_;
  std::uint64_t count_ = 0;
};

// Expands "%s" in the descriptor's format with args and prefixes "signature: ".
std::string formatRinglogMessage(RinglogDescriptor const& d, std::vector<std::string_view> const& args);

namespace detail {
void duallog(TraceHandle const& handle, int level, RinglogDescriptor const& d,
             std::initializer_list<std::string_view> args);
template <class T>
std::string textOf(T const& v) {
  std::ostringstream os;
  if constexpr (requires { strep(v); }) {
    os << strep(v);
  } else {
    os << v;
  }
  return os.str();
}
inline std::string_view textOf(std::string_view v) { return v; }
inline std::string_view textOf(char const* v) { return v; }
inline std::string_view textOf(String const& v) { return v.view(); }
inline std::string_view textOf(Name const& v) { return v.view(); }
}  // namespace detail

template <class... A>
void duallog(TraceHandle const& handle, int level, RinglogDescriptor const& d, A const&... args) {
  auto texts = std::make_tuple(detail::textOf(args)...);
  std::apply(
      [&](auto const&... t) { detail::duallog(handle, level, d, {std::string_view(t)...}); }, texts);
}

}  // namespace Kiv

// KIV_TRACE(handle, level, file, line, function, a << b << c)
#define KIV_TRACE(handle, level, file, line, function, stream)   \
  do {                                                           \
    if ((handle).enabled(level)) [[unlikely]] {                  \
      ::Kiv::TraceHelper kivTraceHelper_((handle), (level));     \
      kivTraceHelper_ << stream;                                 \
      kivTraceHelper_.trace((file), (line), (function));         \
    }                                                            \
  } while (0)

// KIV_DUALLOG(handle, level, file, line, signature, format, args...): always into the ring;
// into the trace when the level is enabled.
#define KIV_DUALLOG(handle, level, file, line, signature, format, ...)                      \
  do {                                                                                      \
    static constexpr ::Kiv::RinglogDescriptor kivDescriptor_{(file), (line), (signature),   \
                                                            (format)};                      \
    ::Kiv::duallog((handle), (level), kivDescriptor_ __VA_OPT__(, ) __VA_ARGS__);           \
  } while (0)
