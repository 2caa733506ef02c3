// Remuxes an HLS playlist's smallest variant, packet by packet and without
// re-encoding, into one QuickTime file at the temporary path. Every FFmpeg
// step runs on a serial queue of its own; each written packet hops to the main
// thread to report progress before the next is read. The demuxer reads
// through the module's playlist fetcher (DFPlayListIO), which fetches the
// chosen variant's next segments while it reads the current one. Lives in the
// media library; the factory answers none when that library is absent.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "module/platform/OperationQueue.h"
#include "module/platform/PlaylistFetcher.h"
#include "module/transfer/DFDownloadOperationDataLoader.h"

struct AVFormatContext;
struct AVStream;
struct AVProgram;
struct AVBSFContext;
struct AVIOContext;
class DFPlayListIO;

class DFDownloadOperationPlayListDataLoader
    : public DFDownloadOperationDataLoader,
      public std::enable_shared_from_this<DFDownloadOperationPlayListDataLoader> {
  struct Passkey {};

 public:
  // None when the media library is not present. REQUIRES: main thread.
  static std::shared_ptr<DFDownloadOperationDataLoader> createPlayListDataLoaderWithDownloadOperation(
      std::shared_ptr<DFDownloadOperation> downloadOperation, std::string tmpFilePath,
      std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate);

  // Sets size 0 and the ".mov" output name, reports once, and starts the chain.
  static std::shared_ptr<DFDownloadOperationPlayListDataLoader> initWithDownloadOperation(
      std::shared_ptr<DFDownloadOperation> downloadOperation, std::string tmpFilePath,
      std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate);

  DFDownloadOperationPlayListDataLoader(Passkey, std::shared_ptr<DFDownloadOperation> downloadOperation,
                                        std::string tmpFilePath,
                                        std::weak_ptr<DFDownloadOperationDataLoaderDelegate> delegate);
  ~DFDownloadOperationPlayListDataLoader() override;

  // Sets the flag, ends every request (prefetches too) and the reads waiting
  // on them, waits for the running step, frees FFmpeg state.
  void cancel() override;

 private:
  void start();
  void queueStep(void (DFDownloadOperationPlayListDataLoader::*step)());
  void initFFmpeg();
  void openInputContext();
  void openOutputContext();
  void processPacket();
  void completeWithError(bool failure);
  void resetFormatContexts();
  void updateDownloadOperationPosition();
  AVStream* bestStreamWithMediaType(int mediaType) const;
  AVProgram* programForStream(const AVStream* stream) const;
  static int interruptCallback(void* opaque);

  AVFormatContext* _inputFormatContext = nullptr;
  AVFormatContext* _outputFormatContext = nullptr;
  std::vector<int> _streamIndices;
  std::shared_ptr<platform::OperationQueue> _operationQueue;
  std::vector<AVBSFContext*> _aacFilters;  // one per output stream, made on first use
  // Made at construction, before any step runs; thread-safe.
  std::shared_ptr<platform::PlaylistFetcher> _fetcher;
  std::unique_ptr<DFPlayListIO> _io;
  AVIOContext* _inputIO = nullptr;  // the playlist's own I/O, which the loader closes itself
};
