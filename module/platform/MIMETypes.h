#pragma once

#include <optional>
#include <string>

namespace platform {

// The preferred file-name extension (without dot) for a MIME type, from the
// system's type table; none for a type it does not know.
std::optional<std::string> preferredFilenameExtensionForMIMEType(const std::string& mimeType);

}  // namespace platform
