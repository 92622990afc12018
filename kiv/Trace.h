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
// handle's trace. The level is nearly always off, so the ring keeps small values as their bytes
// and formats them only when it is read.

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iosfwd>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
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

// One argument of a ring message: text (format null), or a value's bytes and the function that
// makes the value's text from them.
struct RinglogArg {
  using Format = std::string (*)(void const* bytes);
  void const* data;
  std::size_t size;
  Format format;

  static RinglogArg ofText(std::string_view t) { return RinglogArg{t.data(), t.size(), nullptr}; }
  std::string text() const;
};

// Whether the ring keeps an argument of type T as its bytes, to be formatted only if the ring is
// read: by default small trivially copyable values other than pointers. A type whose text depends
// on more than its bytes (one that refers to other storage) specializes this as false_type; a
// larger trivially copyable one may specialize it as true_type.
template <class T>
struct RinglogKeepsRaw : std::bool_constant<std::is_trivially_copyable_v<T> && sizeof(T) <= 16 &&
                                            !std::is_pointer_v<T> && !std::is_array_v<T> &&
                                            !std::is_member_pointer_v<T>> {};

class Ringlog {
 public:
  static constexpr std::size_t kArgBytes = 240;
  static constexpr std::size_t kRawBytesMax = 48;

  explicit Ringlog(std::size_t capacity = 4096);
  // The per-process ring that Duallog writes to.
  static Ringlog& defaultHandle();

  void write(RinglogDescriptor const& d, std::initializer_list<std::string_view> args);
  void write(RinglogDescriptor const& d, RinglogArg const* args, std::size_t count);
  std::size_t capacity() const { return records_.size(); }
  std::size_t size() const { return count_ < records_.size() ? count_ : records_.size(); }
  // Every record written since construction or clear(), including overwritten ones.
  std::uint64_t written() const { return count_; }
  void clear() { count_ = 0; }
  // The kept messages, oldest first, each as "<time> <file>:<line> <message>". An argument's text
  // is cut so that all of them, each followed by a NUL, fit in kArgBytes; the line then ends in
  // " [truncated]".
  std::vector<std::string> lines() const;
  void dump(std::ostream& os) const;

 private:
  struct Record {
    RinglogDescriptor const* descriptor;
    Seconds time;
    std::uint8_t argCount;
    bool truncated;
    // Each argument as a text (a length byte, then the bytes) or as a value (kRaw, the size, the
    // format function, then the bytes). Values take more room than texts: the extra room keeps a
    // few of them, and a record with more holds their texts instead. 320 bytes a record.
    char args[kArgBytes + 62];
  };
  static bool encode(Record& r, RinglogArg const* args, std::size_t count);
  std::vector<Record> records_;
  std::uint64_t count_ = 0;
};

// Expands "%s" in the descriptor's format with args and prefixes "signature: ".
std::string formatRinglogMessage(RinglogDescriptor const& d, std::vector<std::string_view> const& args);

namespace detail {
void duallog(TraceHandle const& handle, int level, RinglogDescriptor const& d, RinglogArg const* args,
             std::size_t count);
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

template <class T>
std::string rawTextOf(void const* bytes) {
  std::array<unsigned char, sizeof(T)> b;
  std::memcpy(b.data(), bytes, sizeof(T));
  return textOf(std::bit_cast<T>(b));
}

// What an argument needs while its message is written: a RinglogArg, or the text it had to be
// formatted into at once.
template <class T>
auto ringlogHeld(T const& v) {
  if constexpr (std::is_same_v<decltype(textOf(v)), std::string_view>) {
    return RinglogArg::ofText(textOf(v));
  } else if constexpr (std::is_same_v<T, std::string>) {
    return RinglogArg::ofText(v);  // strep() of a std::string is the string
  } else if constexpr (RinglogKeepsRaw<T>::value) {
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= Ringlog::kRawBytesMax);
    return RinglogArg{&v, sizeof(T), &rawTextOf<T>};
  } else {
    return textOf(v);
  }
}
inline RinglogArg ringlogArg(RinglogArg const& a) { return a; }
inline RinglogArg ringlogArg(std::string const& s) { return RinglogArg::ofText(s); }
}  // namespace detail

template <class... A>
void duallog(TraceHandle const& handle, int level, RinglogDescriptor const& d, A const&... args) {
  auto held = std::make_tuple(detail::ringlogHeld(args)...);
  std::apply(
      [&](auto const&... h) {
        std::array<RinglogArg, sizeof...(A)> const list{detail::ringlogArg(h)...};
        detail::duallog(handle, level, d, list.data(), list.size());
      },
      held);
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
