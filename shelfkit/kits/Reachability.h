// How the network monitor judges reachability from the routing table:
// internet = a default route through an interface that is up;
// "Wi-Fi"  = such a route through an interface that is not cellular
//            (wired Ethernet counts; cellular is wwan* and ppp*).
#pragma once

#include <string>
#include <vector>

namespace shelfkit {

struct LinkInfo {
  int index = 0;
  std::string name;
  bool up = false;  // administratively up with a carrier
};

struct Reachability {
  bool internet = false;
  bool wifi = false;
  friend bool operator==(const Reachability&, const Reachability&) = default;
};

bool isCellularInterface(const std::string& name);

// `defaultRouteInterfaces` holds the interface index of every default route.
Reachability classifyReachability(const std::vector<int>& defaultRouteInterfaces,
                                  const std::vector<LinkInfo>& links);

}  // namespace shelfkit
