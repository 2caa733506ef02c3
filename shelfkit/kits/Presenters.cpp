#include <mutex>

#include "module/platform/MainQueue.h"
#include "module/platform/Log.h"
#include "module/platform/UserDefaults.h"
#include "shelfkit/kits/HeadlessPresenters.h"

namespace platform {
namespace {

std::mutex gMutex;  // guards the three below
std::shared_ptr<ProgressOverlay> gOverlay;
std::shared_ptr<TipsPresenter> gTips;
std::shared_ptr<AdPresenter> gAds;

template <class T>
std::shared_ptr<T> installed(const std::shared_ptr<T>& slot) {
  std::lock_guard lock(gMutex);
  return slot;
}

}  // namespace

void ProgressOverlay::setPresenter(std::shared_ptr<ProgressOverlay> presenter) {
  std::lock_guard lock(gMutex);
  gOverlay = std::move(presenter);
}

void ProgressOverlay::showMessage(const std::string& message, std::function<void()> cancelBlock) {
  if (auto overlay = installed(gOverlay)) overlay->presentMessage(message, std::move(cancelBlock));
}

void ProgressOverlay::showAlert(const std::optional<std::string>& text, std::function<void()> completionBlock) {
  if (auto overlay = installed(gOverlay)) {
    overlay->presentAlert(text, std::move(completionBlock));
  } else if (completionBlock) {
    dispatchAsyncMain(std::move(completionBlock));  // nobody to show it to: dismissed at once
  }
}

void TipsPresenter::setPresenter(std::shared_ptr<TipsPresenter> presenter) {
  std::lock_guard lock(gMutex);
  gTips = std::move(presenter);
}

void TipsPresenter::showTip(const std::string& tip, std::function<void()> completionBlock) {
  if (auto tips = installed(gTips)) {
    tips->presentTip(tip, std::move(completionBlock));
  } else if (completionBlock) {
    dispatchAsyncMain(std::move(completionBlock));
  }
}

std::shared_ptr<AdPresenter> AdPresenter::sharedInstance() { return installed(gAds); }

void AdPresenter::setSharedInstance(std::shared_ptr<AdPresenter> presenter) {
  std::lock_guard lock(gMutex);
  gAds = std::move(presenter);
}

}  // namespace platform

namespace shelfkit {

void HeadlessProgressOverlay::presentMessage(const std::string& message, std::function<void()>) {
  platform::log(message);
}

void HeadlessProgressOverlay::presentAlert(const std::optional<std::string>& text,
                                           std::function<void()> completionBlock) {
  if (text && !text->empty()) platform::log(*text);
  if (completionBlock) platform::dispatchAsyncMain(std::move(completionBlock));
}

bool HeadlessTipsPresenter::markTipOffered(const std::string& tip) {
  auto defaults = platform::UserDefaults::standardUserDefaults();
  nlohmann::json offered = defaults ? defaults->objectForKey(kOfferedTipsKey).value_or(nlohmann::json::array())
                                    : nlohmann::json::array();
  if (!offered.is_array()) offered = nlohmann::json::array();
  if (std::find(offered.begin(), offered.end(), tip) != offered.end()) return false;
  offered.push_back(tip);
  if (defaults) {
    defaults->setObject(offered, kOfferedTipsKey);
    defaults->synchronize();
  }
  return true;
}

void HeadlessTipsPresenter::presentTip(const std::string& tip, std::function<void()> completionBlock) {
  if (markTipOffered(tip)) platform::log(tip);
  if (completionBlock) platform::dispatchAsyncMain(std::move(completionBlock));
}

void CountingAdPresenter::requestInterstitialBanner() {
  int count = ++requests_;
  platform::log("advertisement requested (" + std::to_string(count) + "); this host shows none");
}

}  // namespace shelfkit
