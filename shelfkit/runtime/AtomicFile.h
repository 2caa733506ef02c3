#pragma once

#include <string>
#include <string_view>

namespace shelfkit {

// Replaces the file at `path` with `contents` atomically: a temporary file in
// the same directory is written, flushed to disk and renamed over `path`.
// Returns false on any failure, leaving the old file (if any) as it was and no
// temporary file behind.
bool writeFileAtomically(const std::string& path, std::string_view contents);

// Flushes the directory entry changes of `directory` to disk.
void syncDirectory(const std::string& directory);

// Renames `path` to `path` + ".corrupt" (replacing an older one). Returns the new path.
std::string moveAside(const std::string& path);

}  // namespace shelfkit
