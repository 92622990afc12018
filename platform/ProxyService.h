#pragma once
// Proxy services stand in on the controller for a service that runs elsewhere; they mount with
// the version negotiated for the service they stand for, and are never gated by the leader
// generation. Naming convention: a proxy's name is the real service's name followed by
// kProxySuffix ("ribd" -> "ribd-proxy"); a name that is the suffix alone is not a proxy's.

#include <string_view>

#include "kiv/String.h"

namespace Controller {

inline constexpr std::string_view kProxySuffix = "-proxy";

inline bool isProxyServiceName(std::string_view name) {
  return name.size() > kProxySuffix.size() && name.substr(name.size() - kProxySuffix.size()) == kProxySuffix;
}

// The real service's name for a proxy's name; any other name is returned as it is.
inline Kiv::String realServiceNameOfProxy(Kiv::String const& name) {
  if (!isProxyServiceName(name.view())) return name;
  return name.substr(0, name.size() - kProxySuffix.size());
}

}  // namespace Controller
