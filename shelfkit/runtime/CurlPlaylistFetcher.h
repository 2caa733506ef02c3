// The playlist fetcher over the shared libcurl engine: requests are
// BufferedFetches; media playlists read through it are parsed into their
// segment lists; with prefetching on, opening segment k of a playlist starts
// the fetches of segments k+1 ... k+depth of that playlist, where the depth
// follows the measured round trip and rate (readAheadDepth) up to the maximum.
// Adjacent byte ranges of one file among them share one request.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "module/platform/PlaylistFetcher.h"
#include "shelfkit/runtime/BufferedFetch.h"
#include "shelfkit/runtime/MediaPlaylist.h"

namespace shelfkit {

class CurlPlaylistFetcher : public platform::PlaylistFetcher,
                            public std::enable_shared_from_this<CurlPlaylistFetcher> {
 public:
  explicit CurlPlaylistFetcher(Options options);
  ~CurlPlaylistFetcher() override;

  std::unique_ptr<platform::PlaylistInput> open(const std::string& url, int64_t offset,
                                                std::optional<int64_t> endOffset) override;
  void startPrefetching() override;
  bool failed() const override;
  void cancel() override;
  bool cancelled() const override;

  // From the inputs: a segment's bytes could not be had; a resource was read
  // to its end (a playlist among them is parsed); an input is closed.
  void segmentFailed();
  void resourceRead(const std::shared_ptr<BufferedFetch>& fetch, const std::string& requestedURL);
  void inputClosed(const std::shared_ptr<BufferedFetch>& fetch);

 private:
  using SegmentKey = std::pair<std::string, int64_t>;  // address, first byte
  struct Playlist {
    std::vector<PlaylistSegment> segments;
  };
  struct Prefetched {
    std::shared_ptr<BufferedFetch> fetch;
    int64_t begin = 0;  // where the segment starts within the fetch
  };
  struct Place {
    std::shared_ptr<Playlist> playlist;
    size_t index = 0;
  };

  std::shared_ptr<BufferedFetch> makeFetchLocked(const platform::URL& url, int64_t offset,
                                                 std::optional<int64_t> endOffset);
  // Fetches the segments after `place` up to the depth. REQUIRES: mutex_ held.
  void prefetchAfterLocked(const Place& place);
  size_t depthLocked() const;

  const Options options_;
  const std::shared_ptr<MemoryBudget> budget_;

  mutable std::mutex mutex_;  // guards everything below
  bool prefetching_ = false;
  bool cancelled_ = false;
  bool failed_ = false;
  std::map<SegmentKey, Place> segments_;  // every segment of the playlists read
  std::map<SegmentKey, Prefetched> prefetched_;
  std::vector<std::weak_ptr<BufferedFetch>> live_;
  // Smoothed over the finished fetches.
  double roundTripSeconds_ = 0;
  double bytesPerSecond_ = 0;
  double segmentBytes_ = 0;
};

}  // namespace shelfkit
