// Whether the host has its media library (FFmpeg). When it does not (not
// installed, or the host runs with media off), the module's playlist loader
// and tag-based naming are absent and playlists are fetched as plain files.
#pragma once

namespace platform {

class MediaLibraryProbe {
 public:
  // True iff FFmpeg's libraries are installed where the dynamic linker looks
  // (they are not loaded to find out) and media is not switched off
  // (setEnabled(false), or SHELF_NO_MEDIA=1 in the environment).
  static bool isPresent();
  // The host's --no-media, and tests.
  static void setEnabled(bool enabled);
};

}  // namespace platform
