// Fills a root's download queue with N inactive records, for the UI benchmark:
//   seed_queue ROOT N
#include <cstdio>
#include <cstdlib>
#include <string>

#include "module/core/DFDownloadOperation.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "shelfkit/runtime/RootLayout.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: seed_queue ROOT COUNT\n");
    return 2;
  }
  const int count = std::atoi(argv[2]);
  auto layout = shelfkit::RootLayout::resolve(std::string(argv[1]), std::nullopt);
  std::string error;
  if (!layout.create(&error)) {
    std::fprintf(stderr, "seed_queue: %s\n", error.c_str());
    return 1;
  }
  auto db = shelfkit::SqliteRecordDatabase::open(layout.databasesDirectory() + "/DFDownloadManager.sqlite", 0);
  db->beginBatch();
  for (int i = 0; i < count; ++i) {
    const std::string name = "file-" + std::to_string(i) + ".zip";
    auto record = DFDownloadOperation::initWithURL(*platform::URL::URLWithString("http://files.example.com/dir/" + name));
    record->setPriority(i + 1);
    record->setFilename(name);
    record->setOutputFilename(name);
    record->setSize(1048576LL * (i % 100 + 1));
    record->setPosition(1048576LL * (i % 7));
    db->insertItemWithUniqueId(record->uniqueId(), *record);
  }
  db->commitBatch();
  std::printf("seed_queue: %d records in %s\n", count, layout.root.c_str());
  return 0;
}
