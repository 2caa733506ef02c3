// Runs the playlist loader alone for one URL and prints its wall time.
//   remux_driver URL OUTPUT.mov
#include <chrono>
#include <cstdio>
#include <filesystem>

#include "bench/DriverSupport.h"
#include "module/platform/FileManager.h"
#include "module/transfer/DFDownloadOperationPlayListDataLoader.h"
#include "shelfkit/runtime/MainLoop.h"
#include "shelfkit/runtime/PosixFileManager.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s URL OUTPUT.mov\n", argv[0]);
    return 2;
  }
  auto url = platform::URL::URLWithString(argv[1]);
  if (!url) return 2;
  const std::string output = std::filesystem::absolute(argv[2]).string();
  const std::string folder = std::filesystem::path(output).parent_path().string();
  auto loop = std::make_shared<shelfkit::MainLoop>();
  shelfkit::MainLoop::install(loop);
  platform::FileManager::setDefaultManager(std::make_shared<shelfkit::PosixFileManager>(folder, folder));

  auto record = DFDownloadOperation::initWithURL(*url);
  record->setFilename("master.m3u8");
  auto done = std::make_shared<CompletionRecorder>();
  auto start = std::chrono::steady_clock::now();
  auto loader = DFDownloadOperationPlayListDataLoader::createPlayListDataLoaderWithDownloadOperation(record, output, done);
  if (!loader) {
    std::fprintf(stderr, "no media library\n");
    return 1;
  }
  loop->runUntil([&] { return done->finished; }, std::chrono::hours(1));
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  loader.reset();
  std::printf("seconds %.3f\n", seconds);
  if (done->error) std::fprintf(stderr, "remux failed: %s\n", done->error->c_str());
  shelfkit::MainLoop::install(nullptr);
  return done->error ? 1 : 0;
}
