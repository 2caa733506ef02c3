// Saves 10,000 records, then measures manager creation (open + load + sort)
// several times and prints the median.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "module/core/DFDownloadManager.h"
#include "module/platform/FileManager.h"
#include "module/platform/UserDefaults.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "shelfkit/runtime/JsonUserDefaults.h"
#include "shelfkit/runtime/MainLoop.h"
#include "shelfkit/runtime/PosixFileManager.h"
#include "shelfkit/runtime/RootLayout.h"
#include "shelfkit/kits/HeadlessPresenters.h"

namespace {

class SteadyNetwork : public platform::NetworkMonitor {
 public:
  bool internetAvailable() const override { return true; }
  bool internetViaWiFiAvailable() const override { return true; }
};

// Answers every request on 127.0.0.1 with a one-byte range of a 1000-byte file,
// so that intake runs its real probe.
class ProbeResponder {
 public:
  ProbeResponder() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(fd_, 16);
    socklen_t length = sizeof address;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] {
      const char answer[] =
          "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 1-1/1000\r\nContent-Length: 1\r\n"
          "Content-Type: application/octet-stream\r\nConnection: close\r\n\r\nx";
      for (;;) {
        int client = ::accept(fd_, nullptr, nullptr);
        if (client < 0) return;
        char request[4096];
        (void)::recv(client, request, sizeof request, 0);
        (void)::send(client, answer, sizeof answer - 1, MSG_NOSIGNAL);
        ::close(client);
      }
    });
  }
  ~ProbeResponder() {
    ::shutdown(fd_, SHUT_RDWR);
    ::close(fd_);
    thread_.join();
  }
  int port() const { return port_; }

 private:
  int fd_;
  int port_ = 0;
  std::thread thread_;
};

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
  const int runs = argc > 2 ? std::atoi(argv[2]) : 11;
  std::string root = (std::filesystem::temp_directory_path() / "shelf-queue-bench-XXXXXX").string();
  if (!mkdtemp(root.data())) return 1;
  auto layout = shelfkit::RootLayout::resolve(root, std::nullopt);
  layout.create(nullptr);

  auto loop = std::make_shared<shelfkit::MainLoop>();
  shelfkit::MainLoop::install(loop);
  platform::UserDefaults::setStandardUserDefaults(std::make_shared<shelfkit::JsonUserDefaults>(layout.preferencesFile()));
  platform::FileManager::setDefaultManager(std::make_shared<shelfkit::PosixFileManager>(layout.library, layout.documents));
  platform::RecordDatabase::setFactory(
      shelfkit::SqliteRecordDatabase::factoryInDirectory(layout.databasesDirectory(), /*batchesPerTurn=*/true));
  platform::ProgressOverlay::setPresenter(std::make_shared<shelfkit::HeadlessProgressOverlay>());
  platform::TipsPresenter::setPresenter(std::make_shared<shelfkit::HeadlessTipsPresenter>());
  platform::setLogSinkForTesting([](const std::string&) {});
  platform::NetworkMonitor::setSharedInstance(std::make_shared<SteadyNetwork>());
  // Inactive records: creation restores them without starting any transfer.
  {
    auto db = shelfkit::SqliteRecordDatabase::open(layout.databasesDirectory() + "/DFDownloadManager.sqlite", 0);
    db->beginBatch();
    for (int i = 0; i < count; ++i) {
      auto url = platform::URL::URLWithString("http://files.example.com/dir/file-" + std::to_string(i) + ".bin");
      auto record = DFDownloadOperation::initWithURL(*url);
      record->setPriority(count - i);
      record->setFilename("file-" + std::to_string(i) + ".bin");
      record->setOutputFilename("file-" + std::to_string(i) + ".bin");
      record->setSize(1048576LL * (i % 100 + 1));
      record->setPosition(1048576LL * (i % 7));
      db->insertItemWithUniqueId(record->uniqueId(), *record);
    }
    db->commitBatch();
  }

  std::vector<double> ms;
  size_t loaded = 0;
  for (int r = 0; r < runs; ++r) {
    auto start = std::chrono::steady_clock::now();
    auto manager = DFDownloadManager::init();
    auto end = std::chrono::steady_clock::now();
    loaded = manager->downloadOperations().size();
    ms.push_back(std::chrono::duration<double, std::milli>(end - start).count());
  }
  // Adding one download to the full queue: from the hand-over to the
  // completion block (probe, insert, renumber and save all, notify).
  std::vector<double> addMs;
  {
    ProbeResponder responder;
    auto url = platform::URL::URLWithString("http://127.0.0.1:" + std::to_string(responder.port()) + "/new.dat");
    auto manager = DFDownloadManager::init();
    manager->setDownloadsPermitted(false);
    for (int r = 0; r < runs; ++r) {
      bool done = false;
      auto start = std::chrono::steady_clock::now();
      manager->downloadFileWithURL(*url, [&](const DFDownloadManager::Record& record, const std::optional<std::string>&) {
        done = record != nullptr;
      });
      loop->runUntil([&] { return done; }, std::chrono::seconds(30));
      addMs.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
      manager->removeDownloadOperation(manager->downloadOperations().back());
      loop->runFor(std::chrono::milliseconds(5));
    }
  }
  std::sort(addMs.begin(), addMs.end());
  std::sort(ms.begin(), ms.end());
  std::printf("records_loaded %zu\n", loaded);
  std::printf("queue_add_ms_%d %.1f\n", count, addMs[addMs.size() / 2]);
  std::printf("queue_load_ms_min %.1f\n", ms.front());
  std::printf("queue_load_ms_%d %.1f\n", count, ms[ms.size() / 2]);
  std::filesystem::remove_all(root);
  return loaded == static_cast<size_t>(count) ? 0 : 1;
}
