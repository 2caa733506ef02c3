#include <gtest/gtest.h>

#include "shelfkit/kits/NetlinkNetworkMonitor.h"
#include "shelfkit/kits/Reachability.h"
#include "tests/support/TestHost.h"

namespace {

using shelfkit::LinkInfo;
using shelfkit::Reachability;

TEST(Reachability, ClassifiesDefaultRoutesByTheirInterface) {
  const std::vector<LinkInfo> links = {
      {2, "eth0", true}, {4, "wwan0", true}, {5, "ppp0", true}, {6, "eth1", false}, {9, "vppp0", true},
  };
  // What the case shows, the interfaces of the default routes, the reachability.
  // Every interface that is up and not cellular counts as Wi-Fi, whatever its name.
  const std::tuple<const char*, std::vector<int>, Reachability> cases[] = {
      {"no default route", {}, {false, false}},
      {"wired Ethernet counts as Wi-Fi", {2}, {true, true}},
      {"cellular modem only", {4}, {true, false}},
      {"point-to-point only", {5}, {true, false}},
      {"route through a down interface", {6}, {false, false}},
      {"cellular and Wi-Fi", {4, 2}, {true, true}},
      {"down Wi-Fi and up cellular", {6, 4}, {true, false}},
      {"route through an unknown interface", {42}, {false, false}},
      // Cellular names are prefixes: wwan and ppp at the start only.
      {"a name with ppp inside", {9}, {true, true}},
  };
  for (const auto& [name, defaults, expected] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(shelfkit::classifyReachability(defaults, links), expected);
  }
}

TEST(NetlinkNetworkMonitor, AgreesWithAFreshReadOfTheRoutingTable) {
  TestHost host;
  auto monitor = shelfkit::NetlinkNetworkMonitor::create(host.loop().context());
  Reachability read = shelfkit::NetlinkNetworkMonitor::readReachability();
  EXPECT_EQ(monitor->internetAvailable(), read.internet);
  EXPECT_EQ(monitor->internetViaWiFiAvailable(), read.wifi);
  EXPECT_TRUE(!read.wifi || read.internet) << "Wi-Fi implies internet";
}

}  // namespace
