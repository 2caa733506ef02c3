#include "shelfkit/kits/ui/ScreenSession.h"

#include "module/platform/MainQueue.h"
#include "shelfkit/kits/ui/Button.h"
#include "shelfkit/kits/ui/MessageFields.h"

namespace shelfkit {
namespace {

uint64_t nextScreenId() {
  static uint64_t next = 1;  // main thread only
  return next++;
}

}  // namespace

ScreenSession::ScreenSession(Send send) : send_(std::move(send)) {}

ScreenSession::~ScreenSession() = default;

std::shared_ptr<platform::TableScreenController> ScreenSession::current() const {
  return stack_.empty() ? nullptr : stack_.back();
}

void ScreenSession::push(std::shared_ptr<platform::TableScreenController> controller) {
  DCHECK_ON_MAIN();
  if (!controller) return;
  if (auto previous = current()) previous->setChangeHandler(nullptr);
  stack_.push_back(std::move(controller));
  show();
}

void ScreenSession::setRoot(std::shared_ptr<platform::TableScreenController> controller) {
  DCHECK_ON_MAIN();
  for (auto& screen : stack_) screen->setChangeHandler(nullptr);
  stack_.clear();
  push(std::move(controller));
}

void ScreenSession::back() {
  DCHECK_ON_MAIN();
  if (stack_.size() < 2) return;
  stack_.back()->setChangeHandler(nullptr);
  stack_.pop_back();
  show();
}

void ScreenSession::show() {
  auto controller = current();
  screenId_ = nextScreenId();
  std::weak_ptr<ScreenSession> weak = weak_from_this();
  controller->setChangeHandler([weak] {
    if (auto session = weak.lock()) session->scheduleFlush();
  });
  nlohmann::json screen = controller->snapshot();
  screen["id"] = screenId_;
  screen["back"] = stack_.size() > 1;
  send({{"t", "screen"}, {"screen", std::move(screen)}});
}

void ScreenSession::scheduleFlush() {
  if (flushScheduled_) return;
  flushScheduled_ = true;
  const auto due = lastFlush_ + kFlushInterval;
  const auto now = std::chrono::steady_clock::now();
  const auto delay = due > now ? std::chrono::ceil<std::chrono::milliseconds>(due - now) : std::chrono::milliseconds(0);
  std::weak_ptr<ScreenSession> weak = weak_from_this();
  platform::dispatchAfterMain(delay, [weak] {
    if (auto session = weak.lock()) session->flush();
  });
}

void ScreenSession::flush() {
  DCHECK_ON_MAIN();
  flushScheduled_ = false;
  auto controller = current();
  if (!controller || !controller->hasPendingChanges()) return;
  nlohmann::json ops = controller->takePatchOps();
  if (ops.empty()) return;
  lastFlush_ = std::chrono::steady_clock::now();
  ++patchesSent_;
  send({{"t", "patch"}, {"screen", screenId_}, {"ops", std::move(ops)}});
}

void ScreenSession::sendMessage(const nlohmann::json& message) {
  flush();
  send(message);
}

void ScreenSession::send(const nlohmann::json& message) {
  if (send_) send_(message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

bool ScreenSession::handle(const nlohmann::json& message) {
  DCHECK_ON_MAIN();
  const auto type = stringField(message, "t");
  if (!type) return false;
  auto controller = current();
  if (*type == "back") {
    back();
    return true;
  }
  const bool known = *type == "select" || *type == "viewport" || *type == "tap" || *type == "switch" ||
                     *type == "stepper" || *type == "restoreSelection";
  if (!known || !controller) return known;
  // A message whose fields are missing or of the wrong type is ignored.
  if (*type == "restoreSelection") {
    // What a tab remembered of its selection before the host restarted; only
    // names of a sane size, and not more than a screen's worth of selection.
    constexpr size_t kMaxKeys = 1000, kMaxKeyLength = 256;
    const auto* keys = messageField(message, "keys");
    if (!keys || !keys->is_array() || keys->size() > kMaxKeys) return true;
    std::vector<std::string> identifiers;
    for (const auto& key : *keys)
      if (key.is_string() && key.get_ref<const std::string&>().size() <= kMaxKeyLength)
        identifiers.push_back(key.get<std::string>());
    controller->restoreSelection(identifiers);
  } else if (*type == "select") {
    const auto row = integerField(message, "row"), section = integerField(message, "section");
    const auto selected = boolField(message, "selected");
    if (row && section && selected) controller->userSelectRow(*row, *section, *selected);
  } else if (*type == "viewport") {
    const auto section = integerField(message, "section"), first = integerField(message, "first"),
               last = integerField(message, "last");
    if (section && first && last) controller->setVisibleRows(*section, *first, *last);
  } else if (const auto id = idField(message, "id"); !id) {
    return true;
  } else if (*type == "tap") {
    auto* view = controller->findView(*id);
    if (auto* item = dynamic_cast<platform::BarButtonItem*>(view)) item->tap();
    else if (auto* button = dynamic_cast<Button*>(view)) button->tap();
  } else if (*type == "switch") {
    const auto on = boolField(message, "on");
    auto* view = dynamic_cast<platform::Switch*>(controller->findView(*id));
    if (view && on) view->userSetOn(*on);
  } else {
    const auto value = numberField(message, "value");
    auto* view = dynamic_cast<platform::Stepper*>(controller->findView(*id));
    if (view && value) view->userSetValue(*value);
  }
  return true;
}

}  // namespace shelfkit
