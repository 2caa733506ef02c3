// The segment list of an HLS media playlist, as the demuxer will request it:
// each segment's absolute address and, for byte-range segments, its range.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace shelfkit {

struct PlaylistSegment {
  std::string url;                 // absolute, normalised like platform::URL
  int64_t offset = 0;              // first byte
  std::optional<int64_t> length;   // none: to the end of the resource
  bool operator==(const PlaylistSegment&) const = default;
};

// True iff `text` begins like a playlist ("#EXTM3U").
bool looksLikePlaylist(std::string_view text);

// The segments of the media playlist `text`, read from `playlistURL`, in
// order; empty for a master playlist or anything that is not a playlist.
// Relative addresses are resolved against `playlistURL`. A byte range without
// an offset continues where the previous segment of the list ended, as
// "#EXT-X-BYTERANGE" says. Segments whose address does not resolve are left out.
std::vector<PlaylistSegment> parseMediaPlaylist(std::string_view text, const std::string& playlistURL);

// `reference` resolved against `base` and normalised; none when it does not resolve.
std::optional<std::string> resolveURL(const std::string& base, const std::string& reference);

}  // namespace shelfkit
