// Runs the chunked loader alone for one URL into a scratch root and prints
// its wall time and peak resident memory.
//   transfer_driver URL SIZE WORKDIR    (SIZE 0: the server does not serve ranges)
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "bench/DriverSupport.h"
#include "module/platform/FileManager.h"
#include "module/transfer/DFDownloadOperationBasicDataLoader.h"
#include "shelfkit/runtime/MainLoop.h"
#include "shelfkit/runtime/PosixFileManager.h"
#include "shelfkit/runtime/RootLayout.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s URL SIZE WORKDIR\n", argv[0]);
    return 2;
  }
  auto url = platform::URL::URLWithString(argv[1]);
  const int64_t size = std::atoll(argv[2]);
  auto layout = shelfkit::RootLayout::resolve(std::string(argv[3]), std::nullopt);
  layout.create(nullptr);
  auto loop = std::make_shared<shelfkit::MainLoop>();
  shelfkit::MainLoop::install(loop);
  platform::FileManager::setDefaultManager(std::make_shared<shelfkit::PosixFileManager>(layout.library, layout.documents));
  if (!url) return 2;

  auto record = DFDownloadOperation::initWithURL(*url);
  record->setPartialDownloading(size > 0);
  record->setSize(size);
  std::string tmp = layout.library + "/DownloaderTmpFiles";
  std::filesystem::create_directories(tmp);
  tmp += "/" + record->uniqueId();

  auto done = std::make_shared<CompletionRecorder>();
  auto start = std::chrono::steady_clock::now();
  auto loader = DFDownloadOperationBasicDataLoader::initWithDownloadOperation(record, tmp, done);
  loop->runUntil([&] { return done->finished; }, std::chrono::hours(1));
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  loader.reset();

  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("seconds %.3f\n", seconds);
  std::printf("peak_rss_mib %.1f\n", usage.ru_maxrss / 1024.0);
  std::error_code error;
  auto bytes = std::filesystem::file_size(tmp, error);
  std::printf("bytes %lld\n", error ? -1LL : static_cast<long long>(bytes));
  if (done->error) std::fprintf(stderr, "transfer failed: %s\n", done->error->c_str());
  std::filesystem::remove(tmp, error);
  shelfkit::MainLoop::install(nullptr);
  return done->error ? 1 : 0;
}
