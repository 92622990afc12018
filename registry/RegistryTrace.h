#pragma once
// Tracing of the registry machines: one handle for the unit, file name "MountsRegistry.tin".
// Lines are part of a message's identity: where a message has a fixed line it is given
// explicitly, the others take the source line.

#include "kiv/Trace.h"

namespace Controller {

extern Kiv::TraceHandle mountsRegistrySmTrace;  // "ControllerMountsRegistrySm"
inline constexpr char const* kMountsRegistryFile = "MountsRegistry.tin";

}  // namespace Controller

#define MR_TRACE_AT(level, line, function, stream) \
  KIV_TRACE(::Controller::mountsRegistrySmTrace, level, ::Controller::kMountsRegistryFile, line, function, stream)
#define MR_TRACE(level, function, stream) MR_TRACE_AT(level, __LINE__, function, stream)
#define MR_DUALLOG_AT(level, line, signature, format, ...)                                               \
  KIV_DUALLOG(::Controller::mountsRegistrySmTrace, level, ::Controller::kMountsRegistryFile, line, signature, \
              format __VA_OPT__(, ) __VA_ARGS__)
#define MR_DUALLOG(level, signature, format, ...) \
  MR_DUALLOG_AT(level, __LINE__, signature, format __VA_OPT__(, ) __VA_ARGS__)
