#pragma once

#include <cstdint>

namespace platform {

// Copies everything from `in` (at its offset) to `out` (at its offset, or its
// end with O_APPEND): in the kernel where it can, else through a small buffer.
// Returns false on a read or write error.
bool copyFileContents(int in, int out);

// Starts writing a range of `fd` to its disk without waiting for it, so that
// a later flush of the whole file finds little left to write.
void startWriteback(int fd, int64_t offset, int64_t length);

}  // namespace platform
