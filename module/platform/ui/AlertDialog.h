// Modal dialogs: a confirmation and a text input. The host installs the
// presenter (the browser tab the user acts in); with none, a confirmation is
// declined and an input cancelled at once.
// REQUIRES: main thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace platform {

class AlertDialog {
 public:
  using ConfirmBlock = std::function<void(bool confirmed)>;
  using InputBlock = std::function<void(const std::string& text)>;
  static constexpr int64_t kReturnKeyDone = 9;

  virtual ~AlertDialog() = default;
  static void setPresenter(std::shared_ptr<AlertDialog> presenter);

  static void showConfirmDialogWithTitle(const std::optional<std::string>& title, const std::optional<std::string>& text,
                                         const std::string& okButtonTitle, ConfirmBlock completionBlock);
  static void showInputStringDialogWithTitle(const std::optional<std::string>& title,
                                             const std::optional<std::string>& text,
                                             const std::optional<std::string>& placeholder,
                                             const std::string& okButtonTitle, int64_t returnKeyType, bool secure,
                                             InputBlock completionBlock, std::function<void()> cancelBlock);

  struct Request {
    enum class Kind { Confirm, Input } kind = Kind::Confirm;
    std::optional<std::string> title, text, placeholder;
    std::string okButtonTitle;
    bool secure = false;
    std::optional<std::string> value;  // an input's text as it opens
    int64_t returnKeyType = 0;         // what the return key of an input says (kReturnKeyDone, ...)
  };
  // Any request, answered as `present` answers (declined with no presenter).
  static void showRequest(const Request& request, std::function<void(bool ok, const std::string& text)> answered);
  // Exactly one of the two runs, once: `answered(ok, text)`.
  virtual void present(const Request& request, std::function<void(bool ok, const std::string& text)> answered) = 0;
};

}  // namespace platform
