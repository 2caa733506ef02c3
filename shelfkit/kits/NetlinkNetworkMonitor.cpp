#include "shelfkit/kits/NetlinkNetworkMonitor.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "module/platform/Log.h"

namespace shelfkit {
namespace {

// Sends one dump request and calls `onMessage` for every answer until NLMSG_DONE.
template <class F>
bool dump(int fd, uint16_t type, uint8_t family, F onMessage) {
  struct {
    nlmsghdr header;
    rtgenmsg body;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = 1;
  request.body.rtgen_family = family;
  if (::send(fd, &request, sizeof request, 0) < 0) return false;

  std::vector<char> buffer(32768);
  for (;;) {
    ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (n <= 0) return false;
    int left = static_cast<int>(n);
    for (auto* h = reinterpret_cast<nlmsghdr*>(buffer.data()); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
      if (h->nlmsg_type == NLMSG_DONE) return true;
      if (h->nlmsg_type == NLMSG_ERROR) return false;
      onMessage(h);
    }
  }
}

std::vector<LinkInfo> readLinks(int fd) {
  std::vector<LinkInfo> links;
  dump(fd, RTM_GETLINK, AF_UNSPEC, [&](nlmsghdr* h) {
    if (h->nlmsg_type != RTM_NEWLINK) return;
    auto* info = static_cast<ifinfomsg*>(NLMSG_DATA(h));
    LinkInfo link;
    link.index = info->ifi_index;
    link.up = (info->ifi_flags & IFF_UP) && (info->ifi_flags & IFF_RUNNING);
    int length = static_cast<int>(IFLA_PAYLOAD(h));
    for (auto* a = IFLA_RTA(info); RTA_OK(a, length); a = RTA_NEXT(a, length))
      if (a->rta_type == IFLA_IFNAME) link.name = static_cast<const char*>(RTA_DATA(a));
    links.push_back(link);
  });
  return links;
}

void readDefaultRoutes(int fd, uint8_t family, std::vector<int>& interfaces) {
  dump(fd, RTM_GETROUTE, family, [&](nlmsghdr* h) {
    if (h->nlmsg_type != RTM_NEWROUTE) return;
    auto* route = static_cast<rtmsg*>(NLMSG_DATA(h));
    if (route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST) return;
    int length = static_cast<int>(RTM_PAYLOAD(h));
    uint32_t table = route->rtm_table;
    std::vector<int> through;
    for (auto* a = RTM_RTA(route); RTA_OK(a, length); a = RTA_NEXT(a, length)) {
      if (a->rta_type == RTA_TABLE) table = *static_cast<uint32_t*>(RTA_DATA(a));
      if (a->rta_type == RTA_OIF) through.push_back(*static_cast<int*>(RTA_DATA(a)));
      if (a->rta_type == RTA_MULTIPATH) {
        int left = static_cast<int>(RTA_PAYLOAD(a));
        for (auto* hop = static_cast<rtnexthop*>(RTA_DATA(a)); RTNH_OK(hop, left);
             left -= NLMSG_ALIGN(hop->rtnh_len), hop = RTNH_NEXT(hop))
          through.push_back(hop->rtnh_ifindex);
      }
    }
    if (table == RT_TABLE_MAIN) interfaces.insert(interfaces.end(), through.begin(), through.end());
  });
}

}  // namespace

Reachability NetlinkNetworkMonitor::readReachability() {
  int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd < 0) return {};
  std::vector<LinkInfo> links = readLinks(fd);
  std::vector<int> defaults;
  readDefaultRoutes(fd, AF_INET, defaults);
  readDefaultRoutes(fd, AF_INET6, defaults);
  ::close(fd);
  return classifyReachability(defaults, links);
}

std::shared_ptr<NetlinkNetworkMonitor> NetlinkNetworkMonitor::create(boost::asio::io_context& context) {
  std::shared_ptr<NetlinkNetworkMonitor> monitor(new NetlinkNetworkMonitor(context));
  monitor->watch();
  return monitor;
}

NetlinkNetworkMonitor::NetlinkNetworkMonitor(boost::asio::io_context& context)
    : events_(context), state_(readReachability()) {
  int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    events_.assign(fd);
  } else {
    if (fd >= 0) ::close(fd);
    platform::log("network monitor: cannot watch route changes; reachability is read once");
  }
}

void NetlinkNetworkMonitor::watch() {
  if (!events_.is_open()) return;
  std::weak_ptr<NetlinkNetworkMonitor> weak = shared_from_this();
  events_.async_wait(boost::asio::posix::stream_descriptor::wait_read, [weak](const boost::system::error_code& error) {
    auto self = weak.lock();
    if (!self || error) return;
    char drain[8192];
    while (::recv(self->events_.native_handle(), drain, sizeof drain, MSG_DONTWAIT) > 0) {
    }
    self->refresh();
    self->watch();
  });
}

void NetlinkNetworkMonitor::refresh() {
  Reachability now = readReachability();
  if (now == state_) return;
  state_ = now;
  platform::log(std::string("network: internet ") + (now.internet ? "available" : "unavailable") +
                (now.internet ? (now.wifi ? " (Wi-Fi or wired)" : " (cellular)") : ""));
  notifyStatusChanged();
}

}  // namespace shelfkit
