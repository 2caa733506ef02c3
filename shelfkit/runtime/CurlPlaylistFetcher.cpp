#include "shelfkit/runtime/CurlPlaylistFetcher.h"

#include <algorithm>

#include "module/platform/URL.h"
#include "shelfkit/runtime/ReadAhead.h"

namespace shelfkit {
namespace {

// A resource longer than this is no playlist worth reading for its segments.
constexpr int64_t kMaxPlaylistBytes = 4 * 1024 * 1024;

double smoothed(double previous, double sample) { return previous > 0 ? (previous + sample) / 2 : sample; }

// The bytes of one fetch from `begin`, `length` of them when that is known.
class FetchInput : public platform::PlaylistInput {
 public:
  FetchInput(std::shared_ptr<CurlPlaylistFetcher> owner, std::shared_ptr<BufferedFetch> fetch, int64_t begin,
             std::optional<int64_t> length, bool segment, std::string requestedURL)
      : owner_(std::move(owner)),
        fetch_(std::move(fetch)),
        begin_(begin),
        length_(length),
        segment_(segment),
        requestedURL_(std::move(requestedURL)) {}
  ~FetchInput() override { owner_->inputClosed(fetch_); }

  int64_t read(uint8_t* buffer, size_t length) override {
    if (auto size = this->size()) {
      if (position_ >= *size) return atEnd();
      length = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(length), *size - position_));
    }
    const int64_t n = fetch_->readAt(begin_ + position_, buffer, length);
    if (n > 0) {
      position_ += n;
      return n;
    }
    if (n == 0) return atEnd();
    if (segment_ && !owner_->cancelled()) owner_->segmentFailed();
    return -1;
  }
  bool seek(int64_t position) override {
    auto size = this->size();
    if (position < 0 || (size && position > *size)) return false;
    position_ = position;
    return true;
  }
  int64_t position() const override { return position_; }
  std::optional<int64_t> size() const override {
    if (length_) return length_;
    auto whole = fetch_->length();
    if (!whole) return std::nullopt;
    return std::max<int64_t>(0, *whole - begin_);
  }

 private:
  int64_t atEnd() {
    if (!endSeen_) {
      endSeen_ = true;
      if (!segment_) owner_->resourceRead(fetch_, requestedURL_);
    }
    return 0;
  }

  const std::shared_ptr<CurlPlaylistFetcher> owner_;
  const std::shared_ptr<BufferedFetch> fetch_;
  const int64_t begin_;
  const std::optional<int64_t> length_;
  const bool segment_;
  const std::string requestedURL_;
  int64_t position_ = 0;
  bool endSeen_ = false;
};

}  // namespace

CurlPlaylistFetcher::CurlPlaylistFetcher(Options options)
    : options_(std::move(options)), budget_(std::make_shared<MemoryBudget>(options_.memoryLimit)) {}

CurlPlaylistFetcher::~CurlPlaylistFetcher() {
  for (auto& weak : live_)
    if (auto fetch = weak.lock()) fetch->cancel();
}

std::shared_ptr<BufferedFetch> CurlPlaylistFetcher::makeFetchLocked(const platform::URL& url, int64_t offset,
                                                                    std::optional<int64_t> endOffset) {
  auto fetch = std::make_shared<BufferedFetch>(url, offset, endOffset, budget_,
                                               BufferedFetch::Spill{options_.spillDirectory, options_.spillPrefix});
  std::erase_if(live_, [](const auto& weak) { return weak.expired(); });
  live_.push_back(fetch);
  fetch->start();
  return fetch;
}

std::unique_ptr<platform::PlaylistInput> CurlPlaylistFetcher::open(const std::string& text, int64_t offset,
                                                                   std::optional<int64_t> endOffset) {
  auto url = platform::URL::URLWithString(text);
  std::unique_lock lock(mutex_);
  // After a failure nothing more is asked of the server: the remux is lost already.
  if (cancelled_ || failed_) return nullptr;
  if (!url || (url->scheme() != "http" && url->scheme() != "https") || offset < 0) {
    // A playlist that points anywhere but the web is not followed, and not trusted.
    failed_ = true;
    return nullptr;
  }
  const SegmentKey key{url->absoluteString(), offset};
  std::optional<Place> place;
  if (auto found = segments_.find(key); found != segments_.end()) place = found->second;

  std::shared_ptr<BufferedFetch> fetch;
  int64_t begin = 0;
  std::optional<int64_t> length = endOffset ? std::optional(*endOffset - offset) : std::nullopt;
  if (auto found = prefetched_.find(key); found != prefetched_.end()) {
    fetch = found->second.fetch;
    begin = found->second.begin;
    prefetched_.erase(found);
  } else {
    fetch = makeFetchLocked(*url, offset, endOffset);
  }
  if (place && prefetching_) {
    // Segments fetched ahead that the demuxer went past are let go.
    const auto& segments = place->playlist->segments;
    for (size_t i = 0; i < place->index; ++i) {
      auto stale = prefetched_.find({segments[i].url, segments[i].offset});
      if (stale == prefetched_.end()) continue;
      auto staleFetch = stale->second.fetch;
      prefetched_.erase(stale);
      const bool shared = staleFetch == fetch || std::any_of(prefetched_.begin(), prefetched_.end(), [&](auto& p) {
                            return p.second.fetch == staleFetch;
                          });
      if (!shared) staleFetch->cancel();
    }
    prefetchAfterLocked(*place);
  }
  lock.unlock();

  if (!fetch->waitForHead()) {
    if (place && !cancelled()) segmentFailed();
    return nullptr;
  }
  return std::make_unique<FetchInput>(shared_from_this(), std::move(fetch), begin, length, place.has_value(),
                                      url->absoluteString());
}

void CurlPlaylistFetcher::prefetchAfterLocked(const Place& place) {
  const auto& segments = place.playlist->segments;
  const size_t last = std::min(segments.size() - 1, place.index + depthLocked());
  for (size_t i = place.index + 1; i <= last && i < segments.size();) {
    if (prefetched_.count({segments[i].url, segments[i].offset})) {
      ++i;
      continue;
    }
    // Adjacent byte ranges of one file go in one request.
    size_t j = i;
    while (j + 1 <= last && segments[j + 1].url == segments[i].url && segments[j].length && segments[j + 1].length &&
           segments[j].offset + *segments[j].length == segments[j + 1].offset &&
           !prefetched_.count({segments[j + 1].url, segments[j + 1].offset}))
      ++j;
    auto url = platform::URL::URLWithString(segments[i].url);
    if (!url) break;
    std::optional<int64_t> end;
    if (segments[j].length) end = segments[j].offset + *segments[j].length;
    auto fetch = makeFetchLocked(*url, segments[i].offset, end);
    for (size_t k = i; k <= j; ++k)
      prefetched_[{segments[k].url, segments[k].offset}] = {fetch, segments[k].offset - segments[i].offset};
    i = j + 1;
  }
}

size_t CurlPlaylistFetcher::depthLocked() const {
  if (roundTripSeconds_ <= 0) return std::min<size_t>(2, options_.maxPrefetch);
  // Segments too short to measure a rate on: the round trips are all that counts.
  if (bytesPerSecond_ <= 0 || segmentBytes_ <= 0) return options_.maxPrefetch;
  return readAheadDepth(std::chrono::duration<double>(roundTripSeconds_), bytesPerSecond_,
                        static_cast<uint64_t>(segmentBytes_), options_.maxPrefetch);
}

void CurlPlaylistFetcher::startPrefetching() {
  std::lock_guard lock(mutex_);
  prefetching_ = true;
}

bool CurlPlaylistFetcher::failed() const {
  std::lock_guard lock(mutex_);
  return failed_;
}

bool CurlPlaylistFetcher::cancelled() const {
  std::lock_guard lock(mutex_);
  return cancelled_;
}

void CurlPlaylistFetcher::segmentFailed() {
  std::lock_guard lock(mutex_);
  failed_ = true;
}

void CurlPlaylistFetcher::cancel() {
  std::vector<std::shared_ptr<BufferedFetch>> fetches;
  {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
    prefetched_.clear();
    for (auto& weak : live_)
      if (auto fetch = weak.lock()) fetches.push_back(std::move(fetch));
  }
  for (auto& fetch : fetches) fetch->cancel();
}

void CurlPlaylistFetcher::resourceRead(const std::shared_ptr<BufferedFetch>& fetch, const std::string& requestedURL) {
  const auto length = fetch->length();
  if (!length || *length > kMaxPlaylistBytes) return;
  std::string text(static_cast<size_t>(*length), '\0');
  int64_t got = 0;
  while (got < *length) {
    const int64_t n = fetch->readAt(got, reinterpret_cast<uint8_t*>(text.data()) + got,
                                    static_cast<size_t>(*length - got));
    if (n <= 0) return;
    got += n;
  }
  auto segments = parseMediaPlaylist(text, requestedURL);
  if (segments.empty()) return;
  auto playlist = std::make_shared<Playlist>();
  playlist->segments = std::move(segments);
  std::lock_guard lock(mutex_);
  for (size_t i = 0; i < playlist->segments.size(); ++i)
    segments_[{playlist->segments[i].url, playlist->segments[i].offset}] = {playlist, i};
}

void CurlPlaylistFetcher::inputClosed(const std::shared_ptr<BufferedFetch>& fetch) {
  std::lock_guard lock(mutex_);
  if (fetch->finished() && !fetch->failed()) {
    // Each finished request is a sample of the link, for the depth.
    if (auto roundTrip = fetch->roundTrip()) roundTripSeconds_ = smoothed(roundTripSeconds_, roundTrip->count());
    if (auto rate = fetch->bytesPerSecond()) bytesPerSecond_ = smoothed(bytesPerSecond_, *rate);
    if (auto length = fetch->length(); length && *length > 0)
      segmentBytes_ = smoothed(segmentBytes_, static_cast<double>(*length));
  }
  const bool waiting = std::any_of(prefetched_.begin(), prefetched_.end(),
                                   [&](const auto& p) { return p.second.fetch == fetch; });
  if (!waiting && !fetch->finished()) fetch->cancel();
}

}  // namespace shelfkit

namespace platform {

std::shared_ptr<PlaylistFetcher> PlaylistFetcher::create(Options options) {
  return std::make_shared<shelfkit::CurlPlaylistFetcher>(std::move(options));
}

}  // namespace platform
