#include "module/platform/ui/AlertDialog.h"

#include "module/platform/MainQueue.h"

namespace platform {
namespace {

std::shared_ptr<AlertDialog>& presenter() {
  static std::shared_ptr<AlertDialog> installed;  // main thread only
  return installed;
}

}  // namespace

void AlertDialog::setPresenter(std::shared_ptr<AlertDialog> installed) { presenter() = std::move(installed); }

void AlertDialog::showRequest(const Request& request, std::function<void(bool ok, const std::string& text)> answered) {
  DCHECK_ON_MAIN();
  if (auto installed = presenter()) return installed->present(request, std::move(answered));
  answered(false, {});
}

void AlertDialog::showConfirmDialogWithTitle(const std::optional<std::string>& title,
                                             const std::optional<std::string>& text, const std::string& okButtonTitle,
                                             ConfirmBlock completionBlock) {
  DCHECK_ON_MAIN();
  Request request{Request::Kind::Confirm, title, text, std::nullopt, okButtonTitle, false, std::nullopt, 0};
  auto answered = [completionBlock = std::move(completionBlock)](bool ok, const std::string&) {
    if (completionBlock) completionBlock(ok);
  };
  if (auto installed = presenter()) return installed->present(request, std::move(answered));
  answered(false, {});
}

void AlertDialog::showInputStringDialogWithTitle(const std::optional<std::string>& title,
                                                 const std::optional<std::string>& text,
                                                 const std::optional<std::string>& placeholder,
                                                 const std::string& okButtonTitle, int64_t returnKeyType,
                                                 bool secure, InputBlock completionBlock,
                                                 std::function<void()> cancelBlock) {
  DCHECK_ON_MAIN();
  Request request{Request::Kind::Input, title, text, placeholder, okButtonTitle, secure, std::nullopt, returnKeyType};
  auto answered = [completionBlock = std::move(completionBlock), cancelBlock = std::move(cancelBlock)](
                      bool ok, const std::string& entered) {
    if (ok && completionBlock) completionBlock(entered);
    if (!ok && cancelBlock) cancelBlock();
  };
  if (auto installed = presenter()) return installed->present(request, std::move(answered));
  answered(false, {});
}

}  // namespace platform
