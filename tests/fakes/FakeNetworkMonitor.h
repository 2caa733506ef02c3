// A network monitor whose state the test sets.
#pragma once

#include "module/platform/NetworkMonitor.h"

class FakeNetworkMonitor : public platform::NetworkMonitor {
 public:
  bool internetAvailable() const override { return internet_; }
  bool internetViaWiFiAvailable() const override { return internet_ && wifi_; }

  // Changes the state and notifies the delegates, as a route change would.
  void setState(bool internet, bool wifi) {
    internet_ = internet;
    wifi_ = wifi;
    notifyStatusChanged();
  }

 private:
  bool internet_ = true;
  bool wifi_ = true;
};
