// The host's bridge between browser tabs and the main thread. Each tab has a
// ScreenSession; the server thread hands over connection events, which run on
// the main thread. The bridge also presents the module's dialogs, progress
// messages, alerts and tips in the tabs; with no tab connected, alerts and tips
// count as dismissed at once and are logged, so every completion still runs.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "module/platform/Presenters.h"
#include "module/platform/ui/AlertDialog.h"
#include "shelf/server/WebServer.h"
#include "shelfkit/kits/ui/ScreenSession.h"

namespace shelf {

class WebBridge : public std::enable_shared_from_this<WebBridge> {
 public:
  static std::shared_ptr<WebBridge> create();
  // Installs the bridge's presenters behind ProgressOverlay, TipsPresenter and AlertDialog.
  void installPresenters();

  // Safe from any thread: the work runs on the main thread.
  void opened(std::shared_ptr<WebSocketConnection> connection);
  void message(uint64_t id, std::string text);
  void closed(uint64_t id);

  // REQUIRES: main thread, for the rest.
  // The tab whose message is being handled, or else the one that spoke last; null when none.
  std::shared_ptr<shelfkit::ScreenSession> activeSession() const;
  size_t tabCount() const { return tabs_.size(); }
  void broadcast(const nlohmann::json& message);

  // Presenting.
  void presentMessage(const std::string& text, std::function<void()> cancelBlock);
  void presentAlert(const std::optional<std::string>& text, std::function<void()> completionBlock);
  void presentTip(const std::string& tip, std::function<void()> completionBlock);
  void presentDialog(const platform::AlertDialog::Request& request, std::function<void(bool, const std::string&)> answered);

 private:
  struct Tab {
    std::shared_ptr<WebSocketConnection> connection;
    std::shared_ptr<shelfkit::ScreenSession> screens;
  };
  struct Dialog {
    uint64_t tab;
    std::function<void(bool, const std::string&)> answered;
  };
  WebBridge() = default;
  void handle(uint64_t tabId, Tab& tab, const nlohmann::json& message);
  void sendHello(Tab& tab);
  void openMenuEntry(Tab& tab, int64_t index);
  void finishAlert(uint64_t id);
  void finishTip(uint64_t id);

  std::map<uint64_t, Tab> tabs_;
  uint64_t activeTab_ = 0;
  uint64_t handlingTab_ = 0;
  uint64_t nextId_ = 1;
  // What the tabs show now.
  std::optional<std::string> overlayMessage_;
  std::function<void()> overlayCancel_;
  std::map<uint64_t, std::pair<std::string, std::function<void()>>> alerts_;
  std::map<uint64_t, std::pair<std::string, std::function<void()>>> tips_;
  std::map<uint64_t, Dialog> dialogs_;
};

}  // namespace shelf
