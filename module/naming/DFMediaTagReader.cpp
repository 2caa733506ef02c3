// Reads the "title" and "artist" tags of a media file with FFmpeg, from the
// tags the demuxer reads at open time (stream information is not probed).
extern "C" {
#include <libavformat/avformat.h>
}

#include <mutex>

#include "module/core/DFMediaLibrary.h"

extern "C" bool DFMediaReadAudioTags(const std::string* url, DFAudioTags* tags) {
  static std::once_flag once;
  std::call_once(once, [] {
    av_log_set_level(AV_LOG_ERROR);
    avformat_network_init();
  });

  AVDictionary* options = nullptr;
  // Only the network: a server's address must not make FFmpeg read local files.
  av_dict_set(&options, "protocol_whitelist", "http,https,tls,tcp", 0);
  av_dict_set(&options, "rw_timeout", "30000000", 0);
  AVFormatContext* context = nullptr;
  int result = avformat_open_input(&context, url->c_str(), nullptr, &options);
  av_dict_free(&options);
  if (result != 0) return false;
  auto read = [context](const char* key) -> std::optional<std::string> {
    AVDictionaryEntry* entry = av_dict_get(context->metadata, key, nullptr, 0);
    if (!entry || !entry->value) return std::nullopt;
    return std::string(entry->value);
  };
  tags->title = read("title");
  tags->artist = read("artist");
  avformat_close_input(&context);
  return true;
}
