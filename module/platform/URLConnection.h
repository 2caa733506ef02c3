// A connection that delivers the response head and reads no body: the
// transfer stops as soon as the head of the final response (after redirects)
// is complete. Callbacks arrive on the main thread.
#pragma once

#include <memory>
#include <string>

#include "module/platform/URLResponse.h"
#include "module/platform/URLSession.h"

namespace platform {

class URLConnection;

class URLConnectionDelegate {
 public:
  virtual ~URLConnectionDelegate() = default;
  virtual void didReceiveResponse(URLConnection& connection, const HTTPURLResponse& response) = 0;
  // `error` is the localized description of the failure.
  virtual void didFailWithError(URLConnection& connection, const std::string& error) = 0;
};

class URLConnection {
 public:
  virtual ~URLConnection() = default;
  // REQUIRES: main thread. Starts at once; the delegate is held weakly and
  // hears exactly one callback unless the connection is cancelled first.
  static std::shared_ptr<URLConnection> connectionWithRequest(const URLRequest& request,
                                                              std::weak_ptr<URLConnectionDelegate> delegate);
  // Stops the request; no callback follows. Safe to call more than once.
  virtual void cancel() = 0;
};

}  // namespace platform
