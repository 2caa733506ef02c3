// Presenters that record what the module shows. Alerts are dismissed (their
// completion runs on the next turn of the main loop) unless holdAlerts is set.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "module/platform/MainQueue.h"
#include "module/platform/Presenters.h"

class RecordingOverlay : public platform::ProgressOverlay {
 public:
  void presentMessage(const std::string& message, std::function<void()> cancelBlock) override {
    events.push_back("message: " + message);
    this->cancelBlock = std::move(cancelBlock);
  }
  void presentAlert(const std::optional<std::string>& text, std::function<void()> completionBlock) override {
    events.push_back("alert: " + text.value_or("<none>"));
    if (completionBlock) platform::dispatchAsyncMain(std::move(completionBlock));
  }
  std::vector<std::string> events;
  std::function<void()> cancelBlock;
};

class RecordingTips : public platform::TipsPresenter {
 public:
  void presentTip(const std::string& tip, std::function<void()> completionBlock) override {
    tips.push_back(tip);
    if (completionBlock) platform::dispatchAsyncMain(std::move(completionBlock));
  }
  std::vector<std::string> tips;
};

class RecordingAds : public platform::AdPresenter {
 public:
  void requestInterstitialBanner() override { ++requests; }
  int requests = 0;
};
