// An absolute URL, parsed and normalised by libcurl's URL API. Immutable.
#pragma once

#include <optional>
#include <string>

namespace platform {

class URL {
 public:
  // Returns none when `text` is not an absolute URL with a scheme and host
  // (or a file: URL). The text form of a URL parses again to itself; it holds
  // no control bytes or spaces and is valid UTF-8.
  static std::optional<URL> URLWithString(const std::string& text);

  const std::string& absoluteString() const { return absolute_; }
  const std::string& scheme() const { return scheme_; }
  const std::string& host() const { return host_; }  // as written, no port
  const std::string& path() const { return path_; }  // percent-decoded, "/" when empty
  // The last non-empty path component; "/" for a bare root path.
  std::string lastPathComponent() const;

  friend bool operator==(const URL& a, const URL& b) { return a.absolute_ == b.absolute_; }

 private:
  URL() = default;
  static std::optional<URL> parse(const std::string& text);
  std::string absolute_;
  std::string scheme_;
  std::string host_;
  std::string path_;
};

// The extension of the last component of `path` without its dot, or "".
std::string pathExtension(const std::string& path);
// `path` without its extension and the dot.
std::string deletingPathExtension(const std::string& path);
// The last component of a file-system style path.
std::string lastPathComponentOfPath(const std::string& path);

}  // namespace platform
