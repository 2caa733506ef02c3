// Saves 10,000 records, then measures manager creation (open + load + sort)
// several times and prints the median.
#include <algorithm>
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

namespace {

class SteadyNetwork : public platform::NetworkMonitor {
 public:
  bool internetAvailable() const override { return true; }
  bool internetViaWiFiAvailable() const override { return true; }
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
  platform::RecordDatabase::setFactory(shelfkit::SqliteRecordDatabase::factoryInDirectory(layout.databasesDirectory()));
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
  std::sort(ms.begin(), ms.end());
  std::printf("records_loaded %zu\n", loaded);
  std::printf("queue_load_ms_min %.1f\n", ms.front());
  std::printf("queue_load_ms_%d %.1f\n", count, ms[ms.size() / 2]);
  std::filesystem::remove_all(root);
  return loaded == static_cast<size_t>(count) ? 0 : 1;
}
