// The host's bridge between browser tabs and the main thread. Each tab has a
// ScreenSession; the server thread hands over connection events, which run on
// the main thread. The bridge also presents the module's dialogs, progress
// messages, alerts and tips in the tabs; with no tab connected, alerts and tips
// count as dismissed at once and are logged, so every completion still runs.
//
// A tab's messages wait in its inbox until the main thread takes them all at
// once: of the "menu" messages taken together only the last opens its screen,
// and of consecutive "viewport" messages for one section only the last counts,
// so a flood of screen requests costs one screen. A tab whose inbox would pass
// kInboxMessages or kInboxBytes is closed (1008). A message that is not a JSON
// object, or whose fields have other types than expected, is ignored.
//
// A dialog goes to the tab the user acts in and only that tab answers it. When
// that tab goes away, the dialog waits kOrphanedDialogGrace for an answer from
// any tab (the same browser tab reconnecting), then is declined. An answer to a
// dialog the bridge does not know is refused visibly: the tab gets
// {"t":"dialogExpired","id":D}.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "module/platform/MainQueue.h"
#include "module/platform/Presenters.h"
#include "module/platform/ui/AlertDialog.h"
#include "shelf/server/WebServer.h"
#include "shelfkit/kits/ui/ScreenSession.h"

namespace shelf {

class WebBridge : public std::enable_shared_from_this<WebBridge> {
 public:
  static constexpr size_t kInboxMessages = 1024;
  static constexpr size_t kInboxBytes = 1 << 20;

  // A dialog whose tab goes away waits this long for its answer from a tab that
  // comes back (a connection lost for a moment), then counts as declined.
  static constexpr std::chrono::milliseconds kOrphanedDialogGrace{60'000};

  static std::shared_ptr<WebBridge> create();
  // This process's bridge: sent in hello, so a tab can tell a restarted host from a reconnection.
  const std::string& instance() const { return instance_; }
  void setOrphanedDialogGrace(std::chrono::milliseconds grace) { orphanedDialogGrace_ = grace; }
  // Installs the bridge's presenters behind ProgressOverlay, TipsPresenter and AlertDialog.
  void installPresenters();

  // Safe from any thread: the work runs on the main thread. Each connection's
  // events come in order: opened, messages, closed.
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

  // Every kActivityInterval, a tab showing the queue (the screen of a module's
  // side-menu entry) gets `source()`'s "activity" message when it differs from
  // the last it got on that screen.
  static constexpr std::chrono::milliseconds kActivityInterval{1000};
  void startActivityUpdates(std::function<nlohmann::json()> source);
  void publishActivity();

 private:
  struct Tab {
    std::shared_ptr<WebSocketConnection> connection;
    std::shared_ptr<shelfkit::ScreenSession> screens;
    std::weak_ptr<platform::TableScreenController> queueScreen;  // the module's screen it opened last
    uint64_t activityScreen = 0;                                 // the screen the last activity went to
    nlohmann::json lastActivity;
  };
  struct Dialog {
    uint64_t tab;
    std::function<void(bool, const std::string&)> answered;
  };
  // What the server thread handed over for one tab and the main thread has not taken yet.
  struct Inbox {
    std::shared_ptr<WebSocketConnection> connection;
    std::vector<std::string> messages;
    size_t bytes = 0;
    bool overflowed = false;
  };
  WebBridge();
  void declineOrphanedDialog(uint64_t id);
  void drain(uint64_t id);
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
  const std::string instance_;
  std::chrono::milliseconds orphanedDialogGrace_ = kOrphanedDialogGrace;
  std::function<nlohmann::json()> activitySource_;
  std::unique_ptr<platform::RepeatingTimer> activityTimer_;

  std::mutex inboxMutex_;
  std::map<uint64_t, Inbox> inboxes_;  // guarded by inboxMutex_
};

}  // namespace shelf
