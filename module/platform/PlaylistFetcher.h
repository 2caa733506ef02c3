// The bytes of a streaming playlist, for a demuxer that reads them with
// blocking calls on a thread of its own. Every request goes through the
// engine of the URL sessions (http and https only, the same redirects, TLS
// settings and timeouts). The fetcher reads the media playlists that pass
// through it, and once prefetching is switched on, opening segment k of a
// playlist starts the requests for the segments after it (adjacent byte
// ranges of one file in one request), so that they have arrived by the time
// the demuxer asks. A failed request is sent once more before a read fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace platform {

// One opened resource, or the byte range of it that was asked for.
// Positions count from the start of that range. Not thread-safe: one reader.
class PlaylistInput {
 public:
  virtual ~PlaylistInput() = default;
  // Copies up to `length` bytes, waiting for them to arrive. Returns the
  // count, 0 at the end, -1 when the request failed (after its retry) or the
  // fetcher was cancelled.
  virtual int64_t read(uint8_t* buffer, size_t length) = 0;
  // Moves to `position`; false when it lies beyond the end.
  virtual bool seek(int64_t position) = 0;
  virtual int64_t position() const = 0;
  // The length of the range, when the server said it.
  virtual std::optional<int64_t> size() const = 0;
};

class PlaylistFetcher {
 public:
  struct Options {
    // Where bodies that do not fit in memory go (files unlinked at once),
    // and the start of their names.
    std::string spillDirectory;
    std::string spillPrefix = "prefetch";
    // Segments fetched ahead of the one being read, at most; the depth in use
    // follows the measured link.
    size_t maxPrefetch = 6;
    // Body bytes held in memory, at most, across every request of the fetcher.
    size_t memoryLimit = 64 * 1024 * 1024;
  };

  static std::shared_ptr<PlaylistFetcher> create(Options options);
  virtual ~PlaylistFetcher() = default;

  // Opens `url` from byte `offset` up to `endOffset` (exclusive; none: to the
  // end), waiting for the response head. None when the URL is not http or
  // https, when the request failed twice, or after cancel(). Thread-safe.
  virtual std::unique_ptr<PlaylistInput> open(const std::string& url, int64_t offset,
                                              std::optional<int64_t> endOffset) = 0;
  // From now on opening a segment prefetches the ones after it. Call once the
  // demuxer has dropped the variants that are not wanted: only the playlists
  // it still reads from are fetched ahead.
  virtual void startPrefetching() = 0;
  // True once a segment could not be fetched even on its retry, or a playlist
  // named something other than an http or https address.
  virtual bool failed() const = 0;
  // Ends every request; reads and opens under way return failure at once.
  // Thread-safe.
  virtual void cancel() = 0;
  virtual bool cancelled() const = 0;
};

}  // namespace platform
