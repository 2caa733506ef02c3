#include "module/transfer/DFDownloadOperationPlayListDataLoader.h"

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <mutex>

#include "module/core/DFLocalizedString.h"
#include "module/core/DFMediaLibrary.h"
#include "module/platform/FileManager.h"
#include "module/platform/MainQueue.h"
#include "module/platform/URL.h"
#include "module/transfer/DFPlayListIO.h"

extern "C" std::shared_ptr<DFDownloadOperationDataLoader>* DFMediaCreatePlayListDataLoader(
    const std::shared_ptr<DFDownloadOperation>* downloadOperation, const std::string* tmpFilePath,
    const std::weak_ptr<DFDownloadOperationDataLoaderDelegate>* delegate) {
  return new std::shared_ptr<DFDownloadOperationDataLoader>(
      DFDownloadOperationPlayListDataLoader::initWithDownloadOperation(*downloadOperation, *tmpFilePath, *delegate));
}

std::shared_ptr<DFDownloadOperationPlayListDataLoader> DFDownloadOperationPlayListDataLoader::initWithDownloadOperation(
    std::shared_ptr<DFDownloadOperation> downloadOperation, std::string tmpFilePath,
    std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate) {
  auto loader = std::make_shared<DFDownloadOperationPlayListDataLoader>(Passkey{}, std::move(downloadOperation),
                                                                        std::move(tmpFilePath), std::move(delegate));
  loader->start();
  return loader;
}

DFDownloadOperationPlayListDataLoader::DFDownloadOperationPlayListDataLoader(
    Passkey, std::shared_ptr<DFDownloadOperation> downloadOperation, std::string tmpFilePath,
    std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate)
    : DFDownloadOperationDataLoader(std::move(downloadOperation), std::move(tmpFilePath), std::move(delegate)) {}

DFDownloadOperationPlayListDataLoader::~DFDownloadOperationPlayListDataLoader() { cancel(); }

void DFDownloadOperationPlayListDataLoader::start() {
  DCHECK_ON_MAIN();
  const auto& record = downloadOperation();
  record->setSize(0);
  record->setOutputFilename(platform::deletingPathExtension(record->filename().value_or("")) + ".mov");
  if (auto d = delegate()) d->downloadOperationDataLoaderDownloadOperationUpdated(*this);
  // Bodies that do not fit in memory go beside the temporary file.
  const std::string& path = tmpFilePath();
  const size_t slash = path.rfind('/');
  _fetcher = platform::PlaylistFetcher::create(
      {.spillDirectory = slash == std::string::npos ? "." : path.substr(0, slash),
       .spillPrefix = platform::lastPathComponentOfPath(path) + ".prefetch"});
  _io = std::make_unique<DFPlayListIO>(_fetcher);
  _operationQueue = platform::OperationQueue::create(1);
  queueStep(&DFDownloadOperationPlayListDataLoader::initFFmpeg);
}

// Queues `step` holding the loader weakly: a released loader ends the chain.
void DFDownloadOperationPlayListDataLoader::queueStep(void (DFDownloadOperationPlayListDataLoader::*step)()) {
  std::weak_ptr<DFDownloadOperationPlayListDataLoader> weak = weak_from_this();
  _operationQueue->addOperation([weak, step] {
    if (auto self = weak.lock()) ((*self).*step)();
  });
}

void DFDownloadOperationPlayListDataLoader::initFFmpeg() {
  if (cancelled()) return;
  static std::once_flag once;
  std::call_once(once, [] {
    av_log_set_level(AV_LOG_ERROR);  // FFmpeg's chatter is not the user's business
    avformat_network_init();
  });
  queueStep(&DFDownloadOperationPlayListDataLoader::openInputContext);
}

// A cancel, or a segment that could not be fetched even on its retry, ends
// the demuxer's work at once instead of letting it skip ahead.
int DFDownloadOperationPlayListDataLoader::interruptCallback(void* opaque) {
  auto* self = static_cast<DFDownloadOperationPlayListDataLoader*>(opaque);
  return self->cancelled() || self->_fetcher->failed() ? 1 : 0;
}

void DFDownloadOperationPlayListDataLoader::openInputContext() {
  if (cancelled()) return;
  _inputFormatContext = avformat_alloc_context();
  if (!_inputFormatContext) return completeWithError(true);
  // A cancel or a failed segment interrupts the demuxer instead of waiting for it.
  _inputFormatContext->interrupt_callback = {&DFDownloadOperationPlayListDataLoader::interruptCallback, this};
  // Every resource the demuxer opens comes through the fetcher, the playlist itself first.
  _io->install(_inputFormatContext);
  const std::string url = downloadOperation()->url().absoluteString();
  if (_io->open(&_inputIO, url) < 0) {
    avformat_free_context(_inputFormatContext);
    _inputFormatContext = nullptr;
    if (cancelled()) return;
    return completeWithError(true);
  }
  _inputFormatContext->pb = _inputIO;
  AVDictionary* options = nullptr;
  // Only the network: a playlist must not make FFmpeg read local files or run other protocols.
  av_dict_set(&options, "protocol_whitelist", "http,https,tls,tcp,crypto", 0);
  // Each segment is a request of its own through the fetcher: FFmpeg's own
  // connection reuse and parallel segment requests work only with its http protocol.
  av_dict_set(&options, "http_persistent", "0", 0);
  av_dict_set(&options, "http_multiple", "0", 0);
  int result = avformat_open_input(&_inputFormatContext, url.c_str(), nullptr, &options);
  av_dict_free(&options);
  if (result != 0 || !_inputFormatContext || avformat_find_stream_info(_inputFormatContext, nullptr) < 0) {
    if (cancelled()) return;
    return completeWithError(true);
  }

  AVStream* video = bestStreamWithMediaType(AVMEDIA_TYPE_VIDEO);
  AVStream* audio = bestStreamWithMediaType(AVMEDIA_TYPE_AUDIO);
  if (!video && !audio) return completeWithError(true);
  AVProgram* program = programForStream(video ? video : audio);

  _streamIndices.clear();
  if (program) {
    _streamIndices.assign(program->stream_index, program->stream_index + program->nb_stream_indexes);
  } else {
    if (video) _streamIndices.push_back(video->index);
    if (audio) _streamIndices.push_back(audio->index);
    for (unsigned i = 0; i < _inputFormatContext->nb_streams; ++i)
      if (_inputFormatContext->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE)
        _streamIndices.push_back(static_cast<int>(i));
  }
  for (unsigned i = 0; i < _inputFormatContext->nb_streams; ++i) {
    if (std::find(_streamIndices.begin(), _streamIndices.end(), static_cast<int>(i)) == _streamIndices.end())
      _inputFormatContext->streams[i]->discard = AVDISCARD_ALL;
  }
  // From here on the demuxer reads only the kept streams' playlists: theirs
  // are the segments worth fetching ahead.
  _fetcher->startPrefetching();
  queueStep(&DFDownloadOperationPlayListDataLoader::openOutputContext);
}

AVStream* DFDownloadOperationPlayListDataLoader::bestStreamWithMediaType(int mediaType) const {
  AVStream* best = nullptr;
  for (unsigned i = 0; i < _inputFormatContext->nb_streams; ++i) {
    AVStream* stream = _inputFormatContext->streams[i];
    if (stream->codecpar->codec_type != mediaType) continue;
    if (mediaType == AVMEDIA_TYPE_VIDEO && (stream->disposition & AV_DISPOSITION_ATTACHED_PIC)) continue;
    if (!best) {
      best = stream;
    } else if (mediaType == AVMEDIA_TYPE_VIDEO && stream->codecpar->width < best->codecpar->width) {
      best = stream;
    } else if (mediaType == AVMEDIA_TYPE_AUDIO && stream->codecpar->bit_rate < best->codecpar->bit_rate) {
      best = stream;
    }
  }
  return best;
}

AVProgram* DFDownloadOperationPlayListDataLoader::programForStream(const AVStream* stream) const {
  for (unsigned p = 0; p < _inputFormatContext->nb_programs; ++p) {
    AVProgram* program = _inputFormatContext->programs[p];
    for (unsigned k = 0; k < program->nb_stream_indexes; ++k)
      if (static_cast<int>(program->stream_index[k]) == stream->index) return program;
  }
  return nullptr;
}

void DFDownloadOperationPlayListDataLoader::openOutputContext() {
  if (cancelled()) return;
  if (avformat_alloc_output_context2(&_outputFormatContext, nullptr, "mov", tmpFilePath().c_str()) < 0 ||
      !_outputFormatContext)
    return completeWithError(true);
  if (!(_outputFormatContext->oformat->flags & AVFMT_NOFILE) &&
      avio_open(&_outputFormatContext->pb, tmpFilePath().c_str(), AVIO_FLAG_WRITE) < 0)
    return completeWithError(true);
  for (int index : _streamIndices) {
    AVStream* in = _inputFormatContext->streams[index];
    AVStream* out = avformat_new_stream(_outputFormatContext, nullptr);
    avcodec_parameters_copy(out->codecpar, in->codecpar);
    out->codecpar->codec_tag = 0;  // let the muxer pick the tag that fits QuickTime
    out->time_base = in->time_base;
  }
  _aacFilters.assign(_streamIndices.size(), nullptr);
  if (avformat_write_header(_outputFormatContext, nullptr) < 0) return completeWithError(true);
  queueStep(&DFDownloadOperationPlayListDataLoader::processPacket);
}

void DFDownloadOperationPlayListDataLoader::processPacket() {
  if (cancelled()) return;
  AVPacket* packet = av_packet_alloc();
  int result;
  do {
    result = av_read_frame(_inputFormatContext, packet);
  } while (result > 0);
  if (result == AVERROR_EOF || result == AVERROR(EIO)) {
    av_packet_free(&packet);
    if (cancelled()) return;  // an interrupted read is not the end of the playlist
    if (_fetcher->failed()) return completeWithError(true);  // nor is a segment that could not be had
    av_write_trailer(_outputFormatContext);
    return completeWithError(false);
  }
  if (result < 0) {
    av_packet_free(&packet);
    if (cancelled()) return;
    return completeWithError(true);
  }

  auto found = std::find(_streamIndices.begin(), _streamIndices.end(), packet->stream_index);
  if (found == _streamIndices.end()) {
    av_packet_free(&packet);
    queueStep(&DFDownloadOperationPlayListDataLoader::processPacket);
    return;
  }
  const size_t position = static_cast<size_t>(found - _streamIndices.begin());
  AVStream* in = _inputFormatContext->streams[packet->stream_index];
  AVStream* out = _outputFormatContext->streams[position];

  // ADTS-framed AAC is rewritten for QuickTime; without the filter the packet goes as read.
  if (out->codecpar->codec_type == AVMEDIA_TYPE_AUDIO && out->codecpar->codec_id == AV_CODEC_ID_AAC) {
    AVBSFContext*& filter = _aacFilters[position];
    if (!filter) {
      const AVBitStreamFilter* aac = av_bsf_get_by_name("aac_adtstoasc");
      if (aac && av_bsf_alloc(aac, &filter) == 0) {
        avcodec_parameters_copy(filter->par_in, in->codecpar);
        filter->time_base_in = in->time_base;
        if (av_bsf_init(filter) < 0) av_bsf_free(&filter);
      }
    }
    if (filter && av_bsf_send_packet(filter, packet) == 0) av_bsf_receive_packet(filter, packet);
  }

  packet->pos = -1;
  packet->stream_index = out->index;
  packet->duration = av_rescale_q(packet->duration, in->time_base, out->time_base);
  const auto rounding = static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX);
  packet->pts = av_rescale_q_rnd(packet->pts, in->time_base, out->time_base, rounding);
  packet->dts = av_rescale_q_rnd(packet->dts, in->time_base, out->time_base, rounding);
  result = av_interleaved_write_frame(_outputFormatContext, packet);
  av_packet_free(&packet);
  if (result != 0) return completeWithError(true);

  std::weak_ptr<DFDownloadOperationPlayListDataLoader> weak = weak_from_this();
  platform::dispatchAsyncMain([weak] {
    auto self = weak.lock();
    if (!self || self->cancelled()) return;
    self->updateDownloadOperationPosition();
    if (auto d = self->delegate()) d->downloadOperationDataLoaderDownloadOperationUpdated(*self);
    self->queueStep(&DFDownloadOperationPlayListDataLoader::processPacket);
  });
}

void DFDownloadOperationPlayListDataLoader::completeWithError(bool failure) {
  resetFormatContexts();
  std::weak_ptr<DFDownloadOperationPlayListDataLoader> weak = weak_from_this();
  platform::dispatchAsyncMain([weak, failure] {
    auto self = weak.lock();
    if (!self) return;
    auto d = self->delegate();
    if (failure) {
      if (d) d->downloadOperationDataLoader(*self, DFLocalizedString("Failed"));
      return;
    }
    self->updateDownloadOperationPosition();
    const auto& record = self->downloadOperation();
    record->setPosition(record->actualPosition());
    record->setSize(record->actualPosition());
    if (d) d->downloadOperationDataLoader(*self, std::nullopt);
  });
}

void DFDownloadOperationPlayListDataLoader::resetFormatContexts() {
  if (_inputFormatContext) avformat_close_input(&_inputFormatContext);
  DFPlayListIO::close(_inputIO);  // a context with its own I/O leaves that to its owner
  _inputIO = nullptr;
  if (_outputFormatContext) {
    if (!(_outputFormatContext->oformat->flags & AVFMT_NOFILE)) avio_closep(&_outputFormatContext->pb);
    avformat_free_context(_outputFormatContext);
    _outputFormatContext = nullptr;
  }
  for (AVBSFContext*& filter : _aacFilters) av_bsf_free(&filter);
}

void DFDownloadOperationPlayListDataLoader::updateDownloadOperationPosition() {
  downloadOperation()->setActualPosition(
      platform::FileManager::defaultManager()->fileSizeAtPath(tmpFilePath()).value_or(0));
}

void DFDownloadOperationPlayListDataLoader::cancel() {
  DFDownloadOperationDataLoader::cancel();
  if (_fetcher) _fetcher->cancel();
  if (_operationQueue && !_operationQueue->isCurrent()) _operationQueue->waitUntilAllOperationsAreFinished();
  resetFormatContexts();
}
