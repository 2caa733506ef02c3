// What the module shows the user through the host: a progress message with a
// cancel control, alerts, one-time tips, and advertisement requests. The host
// installs the presenters; each class operation forwards to the installed one.
// REQUIRES: main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace platform {

class ProgressOverlay {
 public:
  virtual ~ProgressOverlay() = default;
  static void setPresenter(std::shared_ptr<ProgressOverlay> presenter);

  // Shows `message` with a cancel control; `cancelBlock` runs if the user cancels.
  static void showMessage(const std::string& message, std::function<void()> cancelBlock);
  // Shows an alert in place of any message; `completionBlock` runs once it is dismissed.
  static void showAlert(const std::optional<std::string>& text, std::function<void()> completionBlock);
  static void showAlert(const std::optional<std::string>& text) { showAlert(text, nullptr); }

  virtual void presentMessage(const std::string& message, std::function<void()> cancelBlock) = 0;
  virtual void presentAlert(const std::optional<std::string>& text, std::function<void()> completionBlock) = 0;
};

class TipsPresenter {
 public:
  virtual ~TipsPresenter() = default;
  static void setPresenter(std::shared_ptr<TipsPresenter> presenter);
  // Shows `tip` if it was never offered before; `completionBlock` always runs.
  static void showTip(const std::string& tip, std::function<void()> completionBlock);
  virtual void presentTip(const std::string& tip, std::function<void()> completionBlock) = 0;
};

class AdPresenter {
 public:
  virtual ~AdPresenter() = default;
  static std::shared_ptr<AdPresenter> sharedInstance();
  static void setSharedInstance(std::shared_ptr<AdPresenter> presenter);
  virtual void requestInterstitialBanner() = 0;
};

}  // namespace platform
