#include "serviceconfig/DirPath.h"

#include <vector>

#include "ServiceConfigMachines.h"

namespace Controller {

void doCreateDirPath(Kiv::Ptr<Kiv::Dir> const& dir, Kiv::String path) {
  std::vector<Kiv::String> components;
  for (std::size_t at = 0; at <= path.size();) {
    int slash = path.pos('/', at);
    std::size_t end = slash == Kiv::String::npos ? path.size() : static_cast<std::size_t>(slash);
    if (end > at) components.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  Kiv::Ptr<Kiv::Dir> current = dir;
  for (std::size_t i = 0; i + 1 < components.size(); ++i) {
    Kiv::Name const component(components[i]);
    KIV_TRACE(serviceConfigDirSmTrace, 8, serviceConfigDirSmTraceFile, __LINE__, "doCreateDirPath", "doCreateDirPath" << " " << component);
    if (!current->entry(component)) current->subdirIs(component);
    Kiv::Ptr<Kiv::Dir> next = Kiv::entityCast<Kiv::Dir>(current->entityRef(component));
    if (!next) {
      KIV_TRACE(serviceConfigDirSmTrace, 1, serviceConfigDirSmTraceFile, __LINE__, "doCreateDirPath", "doCreateDirPath" << " " << component << " is not a directory in " << path);
      return;
    }
    current = next;
  }
  if (components.empty()) return;
  Kiv::Name const last(components.back());
  KIV_TRACE(serviceConfigDirSmTrace, 8, serviceConfigDirSmTraceFile, __LINE__, "doCreateDirPath", "doCreateDirPath" << " final:" << last);
  if (!current->entry(last)) {
    KIV_TRACE(serviceConfigDirSmTrace, 8, serviceConfigDirSmTraceFile, __LINE__, "doCreateDirPath", "doCreateDirPath" << " creating final " << last);
    current->entryIs(last, "Kiv::Dir");
  }
}

}  // namespace Controller
