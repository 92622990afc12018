#pragma once
// Tracing of the service configuration machines: one handle for the unit, level 8 for every
// handler, level 5 (Duallog) for the events worth keeping, level 1 for what an operator should see.

#include "kiv/Trace.h"

namespace Controller {

extern Kiv::TraceHandle serviceConfigDirSmTrace;  // "ControllerServiceConfigDirSm"
inline constexpr char const* kServiceConfigDirSmFile = "ServiceConfigDirSm.tin";

}  // namespace Controller

#define SCD_TRACE(level, function, stream)                                                                    \
  KIV_TRACE(::Controller::serviceConfigDirSmTrace, level, ::Controller::kServiceConfigDirSmFile, __LINE__, \
            function, stream)
#define SCD_DUALLOG(signature, format, ...)                                                                    \
  KIV_DUALLOG(::Controller::serviceConfigDirSmTrace, 5, ::Controller::kServiceConfigDirSmFile, __LINE__,       \
              signature, format __VA_OPT__(, ) __VA_ARGS__)
