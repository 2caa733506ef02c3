// Internet and Wi-Fi availability, with change callbacks on the main thread.
#pragma once

#include <memory>

#include "module/platform/WeakObjectSet.h"

namespace platform {

class NetworkMonitor;

class NetworkMonitorDelegate {
 public:
  virtual ~NetworkMonitorDelegate() = default;
  virtual void networkManagerInternetConnectionStatusChanged(NetworkMonitor& monitor) = 0;
};

class NetworkMonitor {
 public:
  virtual ~NetworkMonitor() = default;

  // The monitor the host (or a test) installed.
  static std::shared_ptr<NetworkMonitor> sharedInstance();
  static void setSharedInstance(std::shared_ptr<NetworkMonitor> monitor);

  // REQUIRES: main thread, as for every call below.
  void addDelegate(const std::shared_ptr<NetworkMonitorDelegate>& delegate) { delegates_.addObject(delegate); }
  void removeDelegate(const NetworkMonitorDelegate* delegate) { delegates_.removeObject(delegate); }

  virtual bool internetAvailable() const = 0;
  // Internet through a non-cellular interface (Wi-Fi or wired).
  virtual bool internetViaWiFiAvailable() const = 0;

 protected:
  // Tells every delegate that reachability changed. REQUIRES: main thread.
  void notifyStatusChanged() {
    for (auto& d : delegates_.objects()) d->networkManagerInternetConnectionStatusChanged(*this);
  }

 private:
  WeakObjectSet<NetworkMonitorDelegate> delegates_;
};

}  // namespace platform
