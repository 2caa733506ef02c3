// NetworkMonitor on rtnetlink: watches link and route changes on the main loop
// and re-reads the routing table on each, notifying delegates on a change.
#pragma once

#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include "module/platform/NetworkMonitor.h"
#include "shelfkit/kits/Reachability.h"

namespace shelfkit {

class NetlinkNetworkMonitor : public platform::NetworkMonitor,
                              public std::enable_shared_from_this<NetlinkNetworkMonitor> {
 public:
  // REQUIRES: main thread; `context` is the main loop's.
  static std::shared_ptr<NetlinkNetworkMonitor> create(boost::asio::io_context& context);

  bool internetAvailable() const override { return state_.internet; }
  bool internetViaWiFiAvailable() const override { return state_.wifi; }

  // Reads the routing table now. Returns none when netlink cannot be asked.
  static Reachability readReachability();

 private:
  explicit NetlinkNetworkMonitor(boost::asio::io_context& context);
  void watch();
  void refresh();

  boost::asio::posix::stream_descriptor events_;
  Reachability state_;
};

}  // namespace shelfkit
