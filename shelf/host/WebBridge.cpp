#include "shelf/host/WebBridge.h"

#include <algorithm>

#include "module/platform/Localization.h"
#include "module/platform/Log.h"
#include "module/platform/MainQueue.h"
#include "module/platform/UUID.h"
#include "module/platform/ui/Bundle.h"
#include "module/platform/ui/Registries.h"
#include "shelfkit/kits/HeadlessPresenters.h"
#include "shelf/host/HostScreens.h"
#include "shelfkit/kits/ui/MessageFields.h"

namespace shelf {
namespace {

std::string hostText(const char* english) { return platform::localizedString("shelf", english); }

// The browser's enterkeyhint for a return key type (the kit's numbering).
const char* enterKeyHint(int64_t returnKeyType) {
  switch (returnKeyType) {
    case 1: return "go";
    case 2: case 6: case 8: return "search";
    case 4: return "next";
    case 7: return "send";
    case platform::AlertDialog::kReturnKeyDone: return "done";
    default: return "enter";
  }
}

nlohmann::json textOrNull(const std::optional<std::string>& text) {
  return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

// The presenters the module calls, forwarding to the bridge while it lives.
class WebPresenters : public platform::ProgressOverlay, public platform::TipsPresenter, public platform::AlertDialog {
 public:
  explicit WebPresenters(std::weak_ptr<WebBridge> bridge) : bridge_(std::move(bridge)) {}

  void presentMessage(const std::string& message, std::function<void()> cancelBlock) override {
    if (auto bridge = bridge_.lock()) bridge->presentMessage(message, std::move(cancelBlock));
  }
  void presentAlert(const std::optional<std::string>& text, std::function<void()> completionBlock) override {
    if (auto bridge = bridge_.lock()) return bridge->presentAlert(text, std::move(completionBlock));
    shelfkit::HeadlessProgressOverlay().presentAlert(text, std::move(completionBlock));
  }
  void presentTip(const std::string& tip, std::function<void()> completionBlock) override {
    if (auto bridge = bridge_.lock()) return bridge->presentTip(tip, std::move(completionBlock));
    shelfkit::HeadlessTipsPresenter().presentTip(tip, std::move(completionBlock));
  }
  void present(const Request& request, std::function<void(bool, const std::string&)> answered) override {
    if (auto bridge = bridge_.lock()) return bridge->presentDialog(request, std::move(answered));
    answered(false, {});
  }

 private:
  std::weak_ptr<WebBridge> bridge_;
};

}  // namespace

WebBridge::WebBridge() : instance_(platform::newUUIDString()) {}

std::shared_ptr<WebBridge> WebBridge::create() { return std::shared_ptr<WebBridge>(new WebBridge()); }

void WebBridge::installPresenters() {
  auto presenters = std::make_shared<WebPresenters>(weak_from_this());
  platform::ProgressOverlay::setPresenter(presenters);
  platform::TipsPresenter::setPresenter(presenters);
  platform::AlertDialog::setPresenter(presenters);
}

// --- Connections -------------------------------------------------------------

void WebBridge::opened(std::shared_ptr<WebSocketConnection> connection) {
  {
    std::lock_guard lock(inboxMutex_);
    inboxes_[connection->id()].connection = connection;
  }
  std::weak_ptr<WebBridge> weak = weak_from_this();
  platform::dispatchAsyncMain([weak, connection] {
    auto self = weak.lock();
    if (!self) return;
    std::weak_ptr<WebSocketConnection> weakConnection = connection;
    Tab tab;
    tab.connection = connection;
    tab.screens = std::make_shared<shelfkit::ScreenSession>([weakConnection](std::string text) {
      if (auto c = weakConnection.lock()) c->send(std::move(text));
    });
    auto& added = self->tabs_[connection->id()] = std::move(tab);
    self->activeTab_ = connection->id();
    self->sendHello(added);
  });
}

void WebBridge::message(uint64_t id, std::string text) {
  std::shared_ptr<WebSocketConnection> overflowed;
  bool first = false;
  {
    std::lock_guard lock(inboxMutex_);
    auto found = inboxes_.find(id);
    if (found == inboxes_.end() || found->second.overflowed) return;
    Inbox& inbox = found->second;
    if (inbox.messages.size() >= kInboxMessages || inbox.bytes + text.size() > kInboxBytes) {
      inbox.overflowed = true;
      inbox.messages.clear();
      overflowed = inbox.connection;
    } else {
      inbox.bytes += text.size();
      inbox.messages.push_back(std::move(text));
      first = inbox.messages.size() == 1;
    }
  }
  if (overflowed) return overflowed->close(CloseReason::PolicyViolation);
  if (!first) return;  // the drain already asked for takes this one too
  std::weak_ptr<WebBridge> weak = weak_from_this();
  platform::dispatchAsyncMain([weak, id] {
    if (auto self = weak.lock()) self->drain(id);
  });
}

void WebBridge::closed(uint64_t id) {
  {
    std::lock_guard lock(inboxMutex_);
    inboxes_.erase(id);
  }
  std::weak_ptr<WebBridge> weak = weak_from_this();
  platform::dispatchAsyncMain([weak, id] {
    auto self = weak.lock();
    if (!self || !self->tabs_.erase(id)) return;
    // The tab's dialogs wait a while for the tab to come back; with no tab left, what waits is dismissed.
    for (const auto& [dialogId, dialog] : self->dialogs_) {
      if (dialog.tab != id) continue;
      platform::dispatchAfterMain(self->orphanedDialogGrace_, [weak, dialogId = dialogId] {
        if (auto bridge = weak.lock()) bridge->declineOrphanedDialog(dialogId);
      });
    }
    if (!self->tabs_.empty()) return;
    while (!self->alerts_.empty()) self->finishAlert(self->alerts_.begin()->first);
    while (!self->tips_.empty()) self->finishTip(self->tips_.begin()->first);
  });
}

void WebBridge::drain(uint64_t id) {
  DCHECK_ON_MAIN();
  std::vector<std::string> texts;
  {
    std::lock_guard lock(inboxMutex_);
    auto found = inboxes_.find(id);
    if (found == inboxes_.end()) return;
    texts.swap(found->second.messages);
    found->second.bytes = 0;
  }
  std::vector<nlohmann::json> batch;
  for (const auto& text : texts) {
    auto message = nlohmann::json::parse(text, nullptr, false);
    if (message.is_object()) batch.push_back(std::move(message));
  }
  auto typeOf = [&](size_t i) { return shelfkit::stringField(batch[i], "t").value_or(""); };
  size_t lastMenu = batch.size();
  for (size_t i = 0; i < batch.size(); ++i)
    if (typeOf(i) == "menu" && shelfkit::integerField(batch[i], "index")) lastMenu = i;
  for (size_t i = 0; i < batch.size(); ++i) {
    const std::string type = typeOf(i);
    if (type == "menu" && i != lastMenu) continue;
    if (type == "viewport" && i + 1 < batch.size() && typeOf(i + 1) == "viewport" &&
        shelfkit::integerField(batch[i], "section") == shelfkit::integerField(batch[i + 1], "section"))
      continue;
    auto tab = tabs_.find(id);
    if (tab == tabs_.end()) return;
    activeTab_ = handlingTab_ = id;
    try {
      handle(id, tab->second, batch[i]);
    } catch (const std::exception& error) {
      // A fault of the host's own, not of the message: the tab goes on.
      platform::log(std::string("A message from a tab failed: ") + error.what());
    }
    handlingTab_ = 0;
  }
}

std::shared_ptr<shelfkit::ScreenSession> WebBridge::activeSession() const {
  auto found = tabs_.find(handlingTab_ ? handlingTab_ : activeTab_);
  if (found == tabs_.end()) return tabs_.empty() ? nullptr : tabs_.rbegin()->second.screens;
  return found->second.screens;
}

void WebBridge::broadcast(const nlohmann::json& message) {
  for (auto& [id, tab] : tabs_) tab.screens->sendMessage(message);
}

void WebBridge::sendHello(Tab& tab) {
  nlohmann::json menu = nlohmann::json::array();
  int64_t index = 0;
  for (const auto& entry : platform::SideMenuRegistry::sharedInstance()->menuItems()) {
    auto bundle = platform::Bundle::bundleWithIdentifier(entry->iconBundle());
    menu.push_back({{"index", index++},
                    {"title", entry->title()},
                    {"icon", bundle ? textOrNull(bundle->urlForImage(entry->iconName())) : nlohmann::json(nullptr)},
                    {"accessibilityLabel", entry->accessibilityLabel()}});
  }
  nlohmann::json strings = nlohmann::json::object();
  for (const char* text : {"OK", "Cancel", "Back", "Menu", "Decrease", "Increase", "Finished", "Open", "Save"})
    strings[text] = hostText(text);
  strings["Notify"] = hostText("Notify me when a download finishes");
  for (const char* text : {"Add URLs", "Add", "Close", "Added"}) strings[text] = hostText(text);
  strings["AddURLs"] = hostText("Add URLs");
  strings["AddURLsHelp"] = hostText("One address per line. Links pasted or dropped on the page land here too.");
  strings["Reconnecting"] = hostText("Reconnecting…");
  strings["Undelivered"] = hostText("Your answer could not be delivered: the connection to the host was lost.");
  std::string language = platform::translationLanguage("shelf");
  std::replace(language.begin(), language.end(), '_', '-');
  tab.screens->sendMessage({{"t", "hello"},
                            {"title", "Shelf"},
                            {"lang", language},
                            {"instance", instance_},
                            {"menu", menu},
                            {"strings", strings}});
  // What the other tabs show, this one shows too.
  if (overlayMessage_)
    tab.screens->sendMessage({{"t", "overlay"}, {"message", *overlayMessage_}, {"cancel", hostText("Cancel")}});
  for (const auto& [id, alert] : alerts_) tab.screens->sendMessage({{"t", "alert"}, {"id", id}, {"text", alert.first}});
  for (const auto& [id, tip] : tips_) tab.screens->sendMessage({{"t", "tip"}, {"id", id}, {"text", tip.first}});
}

void WebBridge::openMenuEntry(Tab& tab, int64_t index) {
  auto entries = platform::SideMenuRegistry::sharedInstance()->menuItems();
  if (index < 0 || index >= static_cast<int64_t>(entries.size())) return;
  const auto& entry = entries[static_cast<size_t>(index)];
  if (!entry->controllerClass().create) return;
  auto controller = entry->controllerClass().create();
  // The host's own entries list files and settings; a module's entry shows its queue.
  tab.queueScreen.reset();
  if (entry->iconBundle() != kHostBundleIdentifier) tab.queueScreen = controller;
  tab.screens->setRoot(std::move(controller));
  publishActivity();
}

void WebBridge::startActivityUpdates(std::function<nlohmann::json()> source) {
  DCHECK_ON_MAIN();
  activitySource_ = std::move(source);
  std::weak_ptr<WebBridge> weak = weak_from_this();
  activityTimer_ = platform::scheduledTimer(kActivityInterval, [weak] {
    if (auto self = weak.lock()) self->publishActivity();
  });
}

void WebBridge::publishActivity() {
  DCHECK_ON_MAIN();
  if (!activitySource_) return;
  std::optional<nlohmann::json> activity;  // made once, when a tab wants it
  for (auto& [id, tab] : tabs_) {
    auto queue = tab.queueScreen.lock();
    if (!queue || tab.screens->current() != queue) continue;
    if (!activity) activity = activitySource_();
    if (tab.activityScreen == tab.screens->screenId() && tab.lastActivity == *activity) continue;
    tab.activityScreen = tab.screens->screenId();
    tab.lastActivity = *activity;
    tab.screens->sendMessage(*activity);
  }
}

void WebBridge::handle(uint64_t tabId, Tab& tab, const nlohmann::json& message) {
  const auto type = shelfkit::stringField(message, "t");
  if (!type) return;
  const uint64_t id = shelfkit::idField(message, "id").value_or(0);
  if (*type == "menu") {
    if (auto index = shelfkit::integerField(message, "index")) openMenuEntry(tab, *index);
  } else if (*type == "dialog") {
    auto found = dialogs_.find(id);
    const auto ok = shelfkit::boolField(message, "ok");
    if (!ok) return;
    if (found == dialogs_.end()) return tab.screens->sendMessage({{"t", "dialogExpired"}, {"id", id}});
    // Only its own tab answers a dialog, or any tab once its own is gone.
    if (found->second.tab != tabId && tabs_.count(found->second.tab)) return;
    auto answered = std::move(found->second.answered);
    dialogs_.erase(found);
    answered(*ok, shelfkit::stringField(message, "text").value_or(""));
  } else if (*type == "overlayCancel") {
    if (!overlayMessage_) return;
    overlayMessage_.reset();
    broadcast({{"t", "overlay"}, {"message", nullptr}});
    if (auto cancel = std::move(overlayCancel_)) cancel();
  } else if (*type == "alertDismiss") {
    finishAlert(id);
  } else if (*type == "tipDismiss") {
    finishTip(id);
  } else {
    tab.screens->handle(message);
  }
}

// --- Presenting ------------------------------------------------------------

void WebBridge::presentMessage(const std::string& text, std::function<void()> cancelBlock) {
  DCHECK_ON_MAIN();
  if (tabs_.empty()) return platform::log(text);
  overlayMessage_ = text;
  overlayCancel_ = std::move(cancelBlock);
  broadcast({{"t", "overlay"}, {"message", text}, {"cancel", hostText("Cancel")}});
}

void WebBridge::presentAlert(const std::optional<std::string>& text, std::function<void()> completionBlock) {
  DCHECK_ON_MAIN();
  // An alert takes the place of the progress message.
  if (overlayMessage_) {
    overlayMessage_.reset();
    overlayCancel_ = nullptr;
    broadcast({{"t", "overlay"}, {"message", nullptr}});
  }
  if (tabs_.empty() || !text || text->empty())
    return shelfkit::HeadlessProgressOverlay().presentAlert(text, std::move(completionBlock));
  const uint64_t id = nextId_++;
  alerts_[id] = {*text, std::move(completionBlock)};
  broadcast({{"t", "alert"}, {"id", id}, {"text", *text}});
}

void WebBridge::finishAlert(uint64_t id) {
  auto found = alerts_.find(id);
  if (found == alerts_.end()) return;
  auto completion = std::move(found->second.second);
  alerts_.erase(found);
  broadcast({{"t", "alertClose"}, {"id", id}});
  if (completion) completion();
}

void WebBridge::presentTip(const std::string& tip, std::function<void()> completionBlock) {
  DCHECK_ON_MAIN();
  if (tabs_.empty()) return shelfkit::HeadlessTipsPresenter().presentTip(tip, std::move(completionBlock));
  if (!shelfkit::HeadlessTipsPresenter::markTipOffered(tip)) {
    if (completionBlock) platform::dispatchAsyncMain(std::move(completionBlock));
    return;
  }
  const uint64_t id = nextId_++;
  tips_[id] = {tip, std::move(completionBlock)};
  broadcast({{"t", "tip"}, {"id", id}, {"text", tip}});
}

void WebBridge::finishTip(uint64_t id) {
  auto found = tips_.find(id);
  if (found == tips_.end()) return;
  auto completion = std::move(found->second.second);
  tips_.erase(found);
  broadcast({{"t", "tipClose"}, {"id", id}});
  if (completion) completion();
}

void WebBridge::declineOrphanedDialog(uint64_t id) {
  auto found = dialogs_.find(id);
  if (found == dialogs_.end() || tabs_.count(found->second.tab)) return;
  auto answered = std::move(found->second.answered);
  dialogs_.erase(found);
  answered(false, {});
}

void WebBridge::presentDialog(const platform::AlertDialog::Request& request,
                              std::function<void(bool, const std::string&)> answered) {
  DCHECK_ON_MAIN();
  const uint64_t tabId = handlingTab_ ? handlingTab_ : activeTab_;
  auto tab = tabs_.find(tabId);
  if (tab == tabs_.end()) return answered(false, {});
  const uint64_t id = nextId_++;
  dialogs_[id] = {tabId, std::move(answered)};
  const bool input = request.kind == platform::AlertDialog::Request::Kind::Input;
  tab->second.screens->sendMessage({{"t", "dialog"},
                                    {"id", id},
                                    {"kind", input ? "input" : "confirm"},
                                    {"title", textOrNull(request.title)},
                                    {"text", textOrNull(request.text)},
                                    {"placeholder", textOrNull(request.placeholder)},
                                    {"ok", request.okButtonTitle},
                                    {"cancel", hostText("Cancel")},
                                    {"secure", request.secure},
                                    {"value", textOrNull(request.value)},
                                    {"enterKeyHint", enterKeyHint(request.returnKeyType)}});
}

}  // namespace shelf
