// Probes a new download with a one-byte range request and reads only the
// response head: refuses unpermitted MIME types and media files, derives the
// file name and, when the server serves ranges, the size. Reports once to its
// delegate on the main thread. REQUIRES: created and used on the main thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>

#include "module/core/DFDownloadOperation.h"
#include "module/platform/URLConnection.h"

class DFDownloadOperationInfoLoader;

class DFDownloadOperationInfoLoaderDelegate {
 public:
  virtual ~DFDownloadOperationInfoLoaderDelegate() = default;
  // None is success; otherwise the text to show to the user.
  virtual void downloadOperationInfoLoader(DFDownloadOperationInfoLoader& loader,
                                           const std::optional<std::string>& completeWithError) = 0;
};

class DFDownloadOperationInfoLoader : public platform::URLConnectionDelegate,
                                      public std::enable_shared_from_this<DFDownloadOperationInfoLoader> {
  struct Passkey {};

 public:
  using MIMETypes = std::set<std::string>;

  // Starts the probe at once. None or an empty set permits every MIME type.
  static std::shared_ptr<DFDownloadOperationInfoLoader> initWithDownloadOperation(
      std::shared_ptr<DFDownloadOperation> downloadOperation, std::optional<MIMETypes> permittedMIMETypes,
      std::weak_ptr<DFDownloadOperationInfoLoaderDelegate> delegate);

  DFDownloadOperationInfoLoader(Passkey, std::shared_ptr<DFDownloadOperation> downloadOperation,
                                std::optional<MIMETypes> permittedMIMETypes,
                                std::weak_ptr<DFDownloadOperationInfoLoaderDelegate> delegate);
  ~DFDownloadOperationInfoLoader() override;

  // Cancels the connection; no delegate call follows unless the head was already handled.
  void cancel();
  const std::shared_ptr<DFDownloadOperation>& downloadOperation() const { return _downloadOperation; }

  void didReceiveResponse(platform::URLConnection& connection, const platform::HTTPURLResponse& response) override;
  void didFailWithError(platform::URLConnection& connection, const std::string& error) override;

  // The name rules, in the order the probe tries them, and the size rule.
  static std::optional<std::string> filenameFromHeaders(const platform::HTTPURLResponse& response);
  static std::optional<std::string> filenameFromPath(const platform::HTTPURLResponse& response);
  static std::optional<std::string> filenameFromMIMEType(const platform::HTTPURLResponse& response);
  static int64_t fileSize(const platform::HTTPURLResponse& response);

  // Lower-case extensions of audio, video and disc-image files, never downloaded.
  static const std::unordered_set<std::string>& mediaExtensions();
  // Lower-case extensions that mark a URL path as a server-side script.
  static const std::unordered_set<std::string>& scriptExtensions();

 private:
  void start();
  void completeWithFilename(const std::string& filename, const platform::HTTPURLResponse& response);
  void reportError(const std::optional<std::string>& error);

  std::shared_ptr<platform::URLConnection> _connection;
  const std::optional<MIMETypes> _permittedMIMETypes;
  const std::weak_ptr<DFDownloadOperationInfoLoaderDelegate> _delegate;
  const std::shared_ptr<DFDownloadOperation> _downloadOperation;
};
