// URLConnection over the shared libcurl engine.
#include <atomic>

#include "module/platform/MainQueue.h"
#include "module/platform/URLConnection.h"
#include "shelfkit/runtime/CurlEngine.h"

namespace shelfkit {
namespace {

class CurlURLConnection : public platform::URLConnection, public std::enable_shared_from_this<CurlURLConnection> {
 public:
  explicit CurlURLConnection(std::weak_ptr<platform::URLConnectionDelegate> delegate) : delegate_(std::move(delegate)) {}

  void start(const platform::URLRequest& request) {
    // The engine's callbacks hold the connection until the transfer ends.
    auto self = shared_from_this();
    CurlEngine::Callbacks callbacks;
    callbacks.onResponse = [self](const platform::HTTPURLResponse& response) {
      self->answered_ = true;
      platform::dispatchAsyncMain([self, response] {
        if (self->cancelled_) return;
        self->cancelled_ = true;  // exactly one callback
        if (auto delegate = self->delegate_.lock()) delegate->didReceiveResponse(*self, response);
      });
      return false;  // the head is all we want
    };
    callbacks.onComplete = [self](CURLcode result, bool cancelled) {
      if (cancelled || self->answered_) return;
      if (result == CURLE_OK) result = CURLE_GOT_NOTHING;  // ended without a usable head
      std::string error = localizedDescriptionForCurlError(result);
      platform::dispatchAsyncMain([self, error] {
        if (self->cancelled_) return;
        self->cancelled_ = true;
        if (auto delegate = self->delegate_.lock()) delegate->didFailWithError(*self, error);
      });
    };
    transfer_ = CurlEngine::shared().start(request, std::move(callbacks));
  }

  void cancel() override {
    if (cancelled_.exchange(true)) return;
    CurlEngine::shared().cancel(transfer_);
  }

 private:
  const std::weak_ptr<platform::URLConnectionDelegate> delegate_;
  CurlEngine::TransferId transfer_ = 0;
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> answered_{false};  // engine thread
};

}  // namespace
}  // namespace shelfkit

namespace platform {

std::shared_ptr<URLConnection> URLConnection::connectionWithRequest(const URLRequest& request,
                                                                   std::weak_ptr<URLConnectionDelegate> delegate) {
  DCHECK_ON_MAIN();
  auto connection = std::make_shared<shelfkit::CurlURLConnection>(std::move(delegate));
  connection->start(request);
  return connection;
}

}  // namespace platform
