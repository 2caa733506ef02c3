#include "shelfkit/kits/Reachability.h"

#include <algorithm>

namespace shelfkit {

bool isCellularInterface(const std::string& name) {
  return name.starts_with("wwan") || name.starts_with("ppp");
}

Reachability classifyReachability(const std::vector<int>& defaultRouteInterfaces,
                                  const std::vector<LinkInfo>& links) {
  Reachability result;
  for (int index : defaultRouteInterfaces) {
    auto link = std::find_if(links.begin(), links.end(), [&](const LinkInfo& l) { return l.index == index; });
    if (link == links.end() || !link->up) continue;
    result.internet = true;
    if (!isCellularInterface(link->name)) result.wifi = true;
  }
  return result;
}

}  // namespace shelfkit
