#pragma once
// What the state machine bases that kivc generates build on, and the trace macros for the
// machines' own member functions. A generated base gives every machine kivTrace(),
// kivTraceFile and kivTracePrefix, so a trace names its unit, file and class without the
// machine spelling them out.

#include <type_traits>
#include <vector>

#include "kiv/Clock.h"
#include "kiv/HashMap.h"
#include "kiv/Pool.h"
#include "kiv/Ptr.h"
#include "kiv/Reactor.h"
#include "kiv/Trace.h"

// The class prefix, the function's name, then the pieces given; the line is this source line.
#define KIV_SM_TRACE(level, function, stream) KIV_SM_TRACE_AT(level, __LINE__, function, stream)
// The same at a fixed line, for messages whose line is part of their identity.
#define KIV_SM_TRACE_AT(level, line, function, stream) \
  KIV_TRACE(kivTrace(), level, kivTraceFile, line, function, kivTracePrefix << function << stream)
// Only the pieces given, for the few messages that do not begin with the class prefix.
#define KIV_SM_TRACE_TEXT(level, function, stream) KIV_SM_TRACE_TEXT_AT(level, __LINE__, function, stream)
#define KIV_SM_TRACE_TEXT_AT(level, line, function, stream) \
  KIV_TRACE(kivTrace(), level, kivTraceFile, line, function, stream)
// A Duallog message: the signature, ": " and the format with one "%s" per value.
#define KIV_SM_DUALLOG(level, signature, format, ...) \
  KIV_SM_DUALLOG_AT(level, __LINE__, signature, format __VA_OPT__(, ) __VA_ARGS__)
#define KIV_SM_DUALLOG_AT(level, line, signature, format, ...) \
  KIV_DUALLOG(kivTrace(), level, kivTraceFile, line, signature, format __VA_OPT__(, ) __VA_ARGS__)

namespace Kiv {

// Storage from the framework's pool: the snapshots below are taken per event, millions of times
// in a large start-up, and released at once.
template <class T>
struct PoolAllocator {
  using value_type = T;
  PoolAllocator() = default;
  template <class U>
  PoolAllocator(PoolAllocator<U> const&) {}
  T* allocate(std::size_t n) { return static_cast<T*>(poolAllocate(n * sizeof(T))); }
  void deallocate(T* p, std::size_t n) noexcept { poolRelease(p, n * sizeof(T)); }
  friend bool operator==(PoolAllocator, PoolAllocator) { return true; }
};
template <class T>
using Snapshot = std::vector<T, PoolAllocator<T>>;

// The keys (values) of a collection, taken before any member is handled: a handler may add or
// remove members, which an iteration in progress must not see.
template <class Iter, class F>
auto snapshotOf(Iter it, F f) {
  Snapshot<std::decay_t<decltype(f(it))>> out;
  if constexpr (requires { it.map()->size(); })
    if (it.map()) out.reserve(it.map()->size());
  for (; it; ++it) out.push_back(f(it));
  return out;
}
template <class Iter>
auto keysOf(Iter it) {
  return snapshotOf(std::move(it), [](Iter const& i) -> decltype(auto) { return i.key(); });
}
template <class Iter>
auto valuesOf(Iter it) {
  return snapshotOf(std::move(it), [](Iter const& i) -> decltype(auto) { return i.value(); });
}

}  // namespace Kiv
