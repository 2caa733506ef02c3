// The table behind preferredFilenameExtensionForMIMEType: MIME type (lower
// case) to its preferred file-name extension.
#pragma once

#include <istream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace shelfkit {

// A mime.types text read as type -> every extension listed for it, in order.
std::unordered_map<std::string, std::vector<std::string>> parseMimeTypes(std::istream& in);

// Types whose conventional extension differs from the first one Debian lists,
// and common types a system file may lack. They win over the system file.
const std::vector<std::pair<std::string, std::string>>& builtInPreferredExtensions();

// Catch-all types that name no kind of file ("application/octet-stream"): they
// have no preferred extension, whatever the system file lists for them.
bool isGenericMIMEType(const std::string& lowerCaseType);

// The built-in entries, then the first extension the system file lists for
// every other type; generic types are left out. `systemFile` may be null.
std::unordered_map<std::string, std::string> makeMimeTypeTable(std::istream* systemFile);

}  // namespace shelfkit
