#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "module/core/DFDownloadManager.h"
#include "module/core/DFSafeFilename.h"
#include "module/ui/DFRecentItemsSource.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "tests/support/Files.h"
#include "tests/support/TestHost.h"

namespace fs = std::filesystem;

namespace {

class CompletionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    manager_ = DFDownloadManager::init();
    manager_->setDownloadsPermitted(false);  // records stay put until a test says otherwise
  }

  // A finished record named `outputName` whose temporary file holds `content`.
  DFDownloadManager::Record finished(const std::string& outputName, const std::string& content) {
    auto r = DFDownloadOperation::initWithURL(*platform::URL::URLWithString("http://h.test/x"));
    r->setOutputFilename(outputName);
    std::ofstream(DFDownloadManager::tmpFilePathForFilename(r->uniqueId()), std::ios::binary) << content;
    return r;
  }
  static std::set<std::string> namesIn(const std::string& directory) {
    std::set<std::string> names;
    for (auto& entry : fs::directory_iterator(directory)) names.insert(entry.path().filename().string());
    return names;
  }

  TestHost host_;
  std::shared_ptr<DFDownloadManager> manager_;
  const std::string documents_ = host_.layout().documents;
  const std::string tmp_ = host_.layout().library + "/DownloaderTmpFiles/";
};

TEST_F(CompletionTest, CollisionsGetTheNextFreeNumber) {
  fs::create_directory(documents_ + "/folder.txt");
  // The output name of each finished record, and where it is placed.
  const std::pair<const char*, const char*> steps[] = {
      {"a.mp3", "a.mp3"}, {"a.mp3", "a(1).mp3"}, {"a.mp3", "a(2).mp3"}, {"notes", "notes"},
      {"notes", "notes(1)"}, {"folder.txt", "folder(1).txt"}, {"archive.tar.gz", "archive.tar.gz"},
      {"archive.tar.gz", "archive.tar(1).gz"},
  };
  for (const auto& [output, placedAs] : steps) {
    SCOPED_TRACE(output);
    const std::string content = std::string("content of ") + placedAs;
    auto r = finished(output, content);
    manager_->completeDownloadOperation(r, std::nullopt);
    EXPECT_EQ(readFile(documents_ + "/" + placedAs), content);
    EXPECT_FALSE(fs::exists(DFDownloadManager::tmpFilePathForFilename(r->uniqueId())));
  }
  auto items = DFRecentItemsSource::sharedInstance()->items();
  ASSERT_FALSE(items.empty());
  EXPECT_EQ(items.front().path, documents_ + "/archive.tar(1).gz") << "the full path, newest first";
  EXPECT_FALSE(items.front().uniqueId.empty());
}

TEST_F(CompletionTest, HostileNamesStayInsideTheDocumentsFolder) {
  const std::string longName = std::string(300, 'n') + ".txt";
  const std::vector<std::string> all = {"../../escape.txt", "a/b.txt", "..", ".", "", "/etc/passwd", longName, longName};
  for (const auto& name : all) {
    SCOPED_TRACE(name.substr(0, 40));
    manager_->completeDownloadOperation(finished(name, "x"), std::nullopt);
  }
  EXPECT_FALSE(fs::exists(fs::path(documents_).parent_path().parent_path() / "escape.txt"));
  size_t files = 0;
  for (auto& entry : fs::recursive_directory_iterator(documents_)) {
    EXPECT_TRUE(entry.is_regular_file()) << entry.path();
    EXPECT_LE(entry.path().filename().string().size(), 255u);
    ++files;
  }
  EXPECT_EQ(files, all.size()) << "every file placed, none replaced";
  EXPECT_TRUE(namesIn(documents_).count(".._.._escape.txt"));
  EXPECT_TRUE(namesIn(documents_).count("a_b.txt"));
}

TEST_F(CompletionTest, StartUpFinishesInterruptedPlacementsAndKeepsOnlyTheFilesItCanAccountFor) {
  // What a process killed right after the move leaves: the record still stored
  // and full, its temporary file moved to the documents folder, the marker.
  auto placed = finished("report.pdf", "done");
  auto notMoved = finished("notes.txt", "half");
  for (const auto& r : {placed, notMoved}) {
    r->setSize(4);
    r->setPosition(4);
    r->setActive(true);
  }
  // A stored row that this version cannot decode, with its partial data.
  struct Unreadable : platform::Archivable {
    void encodeWithCoder(platform::KeyedArchiver&) const override {}
  };
  const std::string unreadable = "0E0E0E0E-0000-4000-8000-000000000000";
  {
    auto db = shelfkit::SqliteRecordDatabase::open(host_.layout().databasesDirectory() + "/DFDownloadManager.sqlite", 0);
    db->insertItemWithUniqueId(placed->uniqueId(), *placed);
    db->insertItemWithUniqueId(notMoved->uniqueId(), *notMoved);
    db->insertItemWithUniqueId(unreadable, Unreadable{});
  }
  std::ofstream(tmp_ + unreadable) << "partial data";
  fs::rename(DFDownloadManager::tmpFilePathForFilename(placed->uniqueId()), documents_ + "/report.pdf");
  std::ofstream(tmp_ + placed->uniqueId() + ".placing") << documents_ + "/report.pdf";
  std::ofstream(tmp_ + notMoved->uniqueId() + ".placing") << documents_ + "/notes.txt";
  // Left by a process killed mid-write, and by a record removed before the exit.
  std::ofstream(tmp_ + notMoved->uniqueId() + ".placing.tmp.Ab12Cd") << "half";
  std::ofstream(tmp_ + "0F0F0F0F-0000-4000-8000-000000000000") << "orphan";

  // Without a database nothing says which files are wanted: none is touched.
  const auto left = namesIn(tmp_);
  platform::RecordDatabase::setFactory([](const std::string&, int64_t) { return nullptr; });
  EXPECT_TRUE(DFDownloadManager::init()->downloadOperations().empty());
  EXPECT_EQ(namesIn(tmp_), left);
  platform::RecordDatabase::setFactory(
      shelfkit::SqliteRecordDatabase::factoryInDirectory(host_.layout().databasesDirectory()));

  auto restarted = DFDownloadManager::init();
  ASSERT_EQ(restarted->downloadOperations().size(), 1u) << "the placed file is not fetched again";
  EXPECT_EQ(restarted->downloadOperations()[0]->uniqueId(), notMoved->uniqueId());
  EXPECT_EQ(namesIn(documents_), std::set<std::string>{"report.pdf"});
  auto items = DFRecentItemsSource::sharedInstance()->items();
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].path, documents_ + "/report.pdf");
  EXPECT_EQ(namesIn(tmp_), (std::set<std::string>{notMoved->uniqueId(), unreadable}))
      << "only the files of queued records and of every stored id stay";

  // The record left in the queue completes as usual, and leaves nothing behind.
  restarted.reset();
  auto again = DFDownloadManager::init();
  EXPECT_EQ(again->downloadOperations().size(), 1u) << "the removal was stored";
  again->completeDownloadOperation(again->downloadOperations()[0], std::nullopt);
  host_.loop().runFor(std::chrono::milliseconds(50));
  EXPECT_EQ(namesIn(documents_), (std::set<std::string>{"notes.txt", "report.pdf"}));
  EXPECT_EQ(namesIn(tmp_), std::set<std::string>{unreadable}) << "no marker is left";
}

TEST(SafeFilename, KeepsExtensionsAndRoomForANumber) {
  EXPECT_EQ(DFSafeFilename("report.pdf"), "report.pdf");
  EXPECT_EQ(DFSafeFilename("a\0b"), "a");  // a C string ends at NUL
  EXPECT_EQ(DFSafeFilename(std::string("a\0b", 3)), "a_b");
  std::string shortened = DFSafeFilename(std::string(400, 'x') + ".tar.gz");
  EXPECT_LE(shortened.size() + 12, 255u);
  EXPECT_TRUE(shortened.ends_with("x.gz"));
  std::string multibyte;
  for (int i = 0; i < 200; ++i) multibyte += "\xC3\xA9";  // é
  std::string cut = DFSafeFilename(multibyte + ".txt");
  EXPECT_TRUE(cut.ends_with(".txt"));
  EXPECT_EQ((cut.size() - 4) % 2, 0u) << "not cut inside a character";
}

}  // namespace
