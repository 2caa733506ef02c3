// Names from servers and tags become file names in the documents folder only
// after this: no path separators or NUL, no "." or "..", and short enough for
// the file system with room for a "(n)" suffix.
#pragma once

#include <string>

std::string DFSafeFilename(const std::string& name);
