// Presenters for when no browser is connected (and for `shelf get`): alerts and
// tips count as dismissed at once and are written to the log, so every
// completion still runs; tips are remembered across restarts in the defaults.
#pragma once

#include <atomic>

#include "module/platform/Presenters.h"

namespace shelfkit {

class HeadlessProgressOverlay : public platform::ProgressOverlay {
 public:
  void presentMessage(const std::string& message, std::function<void()> cancelBlock) override;
  void presentAlert(const std::optional<std::string>& text, std::function<void()> completionBlock) override;
};

class HeadlessTipsPresenter : public platform::TipsPresenter {
 public:
  static constexpr const char* kOfferedTipsKey = "ShelfOfferedTipsPreference";
  void presentTip(const std::string& tip, std::function<void()> completionBlock) override;
  // Remembers `tip` in the defaults; true iff it was never offered before.
  static bool markTipOffered(const std::string& tip);
};

// This host shows no advertisements: it counts the requests and logs them.
class CountingAdPresenter : public platform::AdPresenter {
 public:
  void requestInterstitialBanner() override;
  int requests() const { return requests_; }

 private:
  std::atomic<int> requests_{0};
};

}  // namespace shelfkit
