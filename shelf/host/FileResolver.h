// Which file the web server sends for a path: the front end, a bundle's images
// or a file of the documents folder. Resolves paths only, so it is safe on the
// server's thread. Nothing outside those folders is ever sent, whatever the
// path says ("..", symbolic links, encoded slashes), nor a document with a
// second hard link.
#pragma once

#include <optional>
#include <string>

#include "shelf/server/WebServer.h"

namespace shelf {

class FileResolver {
 public:
  FileResolver(std::string webRoot, std::string documentsDirectory);
  std::optional<ServedFile> resolve(const HttpRequest& request) const;

  // The file `relative` inside `base`, when it is a regular file there.
  static std::optional<std::string> fileInside(const std::string& base, const std::string& relative);
  // A file of the documents folder that may be listed and sent: as fileInside,
  // and the file's only name. Another hard link could be a file from anywhere
  // (the Library, say); there is no telling which name came first.
  static std::optional<std::string> documentInside(const std::string& documents, const std::string& relative);
  static std::string contentTypeForPath(const std::string& path);

 private:
  const std::string webRoot_, documents_;
};

}  // namespace shelf
