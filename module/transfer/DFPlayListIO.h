// The demuxer's I/O for the playlist loader: every resource FFmpeg opens (the
// playlist, the variant playlists, the segments) is an AVIOContext over the
// module's playlist fetcher, so the bytes come through the URL engine and the
// segments of the chosen variant arrive ahead of the demuxer.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "module/platform/PlaylistFetcher.h"

struct AVFormatContext;
struct AVIOContext;
struct AVDictionary;

class DFPlayListIO {
 public:
  explicit DFPlayListIO(std::shared_ptr<platform::PlaylistFetcher> fetcher) : _fetcher(std::move(fetcher)) {}
  DFPlayListIO(const DFPlayListIO&) = delete;
  DFPlayListIO& operator=(const DFPlayListIO&) = delete;

  // Makes `context` (and the contexts nested in it) open and close through
  // this object. REQUIRES: this outlives `context`.
  void install(AVFormatContext* context);
  // Opens `url` for reading, bytes [offset, endOffset). 0, or a negative
  // AVERROR: AVERROR_EXIT once the fetcher is cancelled.
  int open(AVIOContext** pb, const std::string& url, int64_t offset = 0,
           std::optional<int64_t> endOffset = std::nullopt);
  // Frees a context made by open(), with its input.
  static void close(AVIOContext* pb);

  const std::shared_ptr<platform::PlaylistFetcher>& fetcher() const { return _fetcher; }

 private:
  static int ioOpen(AVFormatContext* context, AVIOContext** pb, const char* url, int flags,
                    AVDictionary** options);
  static int ioClose(AVFormatContext* context, AVIOContext* pb);

  const std::shared_ptr<platform::PlaylistFetcher> _fetcher;
};
