#pragma once

namespace platform {

// Copies everything from `in` (at its offset) to `out` (at its offset, or its
// end with O_APPEND): in the kernel where it can, else through a small buffer.
// Returns false on a read or write error.
bool copyFileContents(int in, int out);

}  // namespace platform
