#include "serviceconfig/DirPath.h"

#include <vector>

#include "serviceconfig/ServiceConfigTrace.h"

namespace Controller {

Kiv::TraceHandle serviceConfigDirSmTrace("ControllerServiceConfigDirSm");

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
    SCD_TRACE(8, "doCreateDirPath", "doCreateDirPath" << " " << component);
    if (!current->entry(component)) current->subdirIs(component);
    Kiv::Ptr<Kiv::Dir> next = Kiv::entityCast<Kiv::Dir>(current->entityRef(component));
    if (!next) {
      SCD_TRACE(1, "doCreateDirPath", "doCreateDirPath" << " " << component << " is not a directory in " << path);
      return;
    }
    current = next;
  }
  if (components.empty()) return;
  Kiv::Name const last(components.back());
  SCD_TRACE(8, "doCreateDirPath", "doCreateDirPath" << " final:" << last);
  if (!current->entry(last)) {
    SCD_TRACE(8, "doCreateDirPath", "doCreateDirPath" << " creating final " << last);
    current->entryIs(last, "Kiv::Dir");
  }
}

}  // namespace Controller
