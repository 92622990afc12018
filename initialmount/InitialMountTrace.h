#pragma once
// Tracing of the initial mount machines: one handle for the unit, level 8 for every handler,
// level 5 (Duallog) for the events worth keeping.

#include "kiv/Trace.h"

namespace Controller {

extern Kiv::TraceHandle initialMountSmTrace;  // "ControllerInitialMountSm"
inline constexpr char const* kInitialMountSmFile = "InitialMountSm.tin";

}  // namespace Controller

#define IM_TRACE(level, function, stream)                                                                    \
  KIV_TRACE(::Controller::initialMountSmTrace, level, ::Controller::kInitialMountSmFile, __LINE__, function, \
            stream)
#define IM_DUALLOG_AT_LEVEL(level, signature, format, ...)                                                 \
  KIV_DUALLOG(::Controller::initialMountSmTrace, level, ::Controller::kInitialMountSmFile, __LINE__, signature, \
              format __VA_OPT__(, ) __VA_ARGS__)
#define IM_DUALLOG(signature, format, ...) IM_DUALLOG_AT_LEVEL(5, signature, format __VA_OPT__(, ) __VA_ARGS__)
