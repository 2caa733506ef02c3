#include "module/transfer/DFPlayListIO.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
}

#include <charconv>
#include <cstring>

namespace {

constexpr int kBufferSize = 64 * 1024;

struct Opened {
  std::unique_ptr<platform::PlaylistInput> input;
  std::shared_ptr<platform::PlaylistFetcher> fetcher;
};

int readPacket(void* opaque, uint8_t* buffer, int size) {
  auto* opened = static_cast<Opened*>(opaque);
  const int64_t n = opened->input->read(buffer, static_cast<size_t>(size));
  if (n > 0) return static_cast<int>(n);
  if (n == 0) return AVERROR_EOF;
  return opened->fetcher->cancelled() ? AVERROR_EXIT : AVERROR(EIO);
}

int64_t seek(void* opaque, int64_t offset, int whence) {
  auto* opened = static_cast<Opened*>(opaque);
  const auto size = opened->input->size();
  whence &= ~AVSEEK_FORCE;
  if (whence == AVSEEK_SIZE) return size ? *size : AVERROR(ENOSYS);
  int64_t target;
  switch (whence) {
    case SEEK_SET: target = offset; break;
    case SEEK_CUR: target = opened->input->position() + offset; break;
    case SEEK_END:
      if (!size) return AVERROR(ENOSYS);
      target = *size + offset;
      break;
    default: return AVERROR(EINVAL);
  }
  return opened->input->seek(target) ? target : AVERROR(EINVAL);
}

// An integer option of the open call ("offset", "end_offset"), as FFmpeg's own http reads them.
std::optional<int64_t> integerOption(AVDictionary* options, const char* key) {
  const AVDictionaryEntry* entry = av_dict_get(options, key, nullptr, 0);
  if (!entry || !entry->value) return std::nullopt;
  int64_t value = 0;
  const char* end = entry->value + std::strlen(entry->value);
  auto [stop, error] = std::from_chars(entry->value, end, value);
  if (error != std::errc() || stop != end || value < 0) return std::nullopt;
  return value;
}

}  // namespace

void DFPlayListIO::install(AVFormatContext* context) {
  context->opaque = this;
  context->io_open = &DFPlayListIO::ioOpen;
  context->io_close2 = &DFPlayListIO::ioClose;
}

int DFPlayListIO::open(AVIOContext** pb, const std::string& url, int64_t offset, std::optional<int64_t> endOffset) {
  *pb = nullptr;
  auto input = _fetcher->open(url, offset, endOffset);
  if (!input) return _fetcher->cancelled() ? AVERROR_EXIT : AVERROR(EIO);
  auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferSize));
  if (!buffer) return AVERROR(ENOMEM);
  const bool seekable = input->size().has_value();
  auto* opened = new Opened{std::move(input), _fetcher};
  AVIOContext* context = avio_alloc_context(buffer, kBufferSize, 0, opened, &readPacket, nullptr, &seek);
  if (!context) {
    av_free(buffer);
    delete opened;
    return AVERROR(ENOMEM);
  }
  context->seekable = seekable ? AVIO_SEEKABLE_NORMAL : 0;
  *pb = context;
  return 0;
}

void DFPlayListIO::close(AVIOContext* pb) {
  if (!pb) return;
  delete static_cast<Opened*>(pb->opaque);
  av_freep(&pb->buffer);
  avio_context_free(&pb);
}

int DFPlayListIO::ioOpen(AVFormatContext* context, AVIOContext** pb, const char* url, int flags,
                         AVDictionary** options) {
  auto* self = static_cast<DFPlayListIO*>(context->opaque);
  if (!self || !url || (flags & AVIO_FLAG_WRITE)) return AVERROR(EPERM);
  AVDictionary* dictionary = options ? *options : nullptr;
  const int64_t offset = integerOption(dictionary, "offset").value_or(0);
  std::optional<int64_t> endOffset = integerOption(dictionary, "end_offset");
  if (endOffset && *endOffset <= offset) endOffset.reset();  // 0: no end, as for http
  return self->open(pb, url, offset, endOffset);
}

int DFPlayListIO::ioClose(AVFormatContext*, AVIOContext* pb) {
  close(pb);
  return 0;
}
