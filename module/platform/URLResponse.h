// The head of an HTTP response, as the URL loading services report it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "module/platform/URL.h"

namespace platform {

class HTTPURLResponse {
 public:
  HTTPURLResponse(URL url, int statusCode, std::vector<std::pair<std::string, std::string>> headerFields);

  // The final URL, after redirects.
  const URL& url() const { return url_; }
  int statusCode() const { return statusCode_; }
  // Every header field in arrival order, names as sent.
  const std::vector<std::pair<std::string, std::string>>& allHeaderFields() const { return headerFields_; }
  // The field's value, names matched without regard to case; repeated fields
  // are joined with ", ".
  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const;
  // The media type of Content-Type without parameters, as sent; empty when absent.
  const std::string& MIMEType() const { return mimeType_; }
  // Content-Length, or -1 when unknown.
  int64_t expectedContentLength() const { return expectedContentLength_; }
  // A name for saving the body, never empty: the Content-Disposition file
  // name, else the URL's last path component, else its host, else "Unknown".
  std::string suggestedFilename() const;

 private:
  URL url_;
  int statusCode_;
  std::vector<std::pair<std::string, std::string>> headerFields_;
  std::string mimeType_;
  int64_t expectedContentLength_ = -1;
};

}  // namespace platform
