#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>

#include "shelfkit/runtime/JsonUserDefaults.h"
#include "tests/support/Files.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestHost.h"

namespace fs = std::filesystem;

namespace {

class UserDefaultsTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directory(dir_); }
  TestHost host_;
  const std::string dir_ = host_.layout().root + "/defaults";
  const std::string path_ = dir_ + "/defaults.json";
  LogCapture log_;
};

TEST_F(UserDefaultsTest, TypedReadsFollowTheStoredObjectBeforeAndAfterAReload) {
  shelfkit::JsonUserDefaults defaults(path_);
  // The stored object, and what it reads as an integer and as a boolean.
  const std::tuple<nlohmann::json, std::optional<int64_t>, std::optional<bool>> cases[] = {
      {5, 5, true},         {0, 0, false},         {-1, -1, true},         {true, 1, true},
      {false, 0, false},    {"7", 7, true},        {"YES", 0, true},       {"no", 0, false},
      {2.9, 2, true},       {nullptr, std::nullopt, std::nullopt},         {nlohmann::json::array(), std::nullopt, std::nullopt},
      // Beyond 64 bits (a hand-edited file): clamped.
      {1e300, INT64_MAX, true}, {-1e300, INT64_MIN, true}, {18446744073709551615ULL, INT64_MAX, true},
  };
  for (const auto& [stored, integer, boolean] : cases) {
    SCOPED_TRACE(stored.dump());
    defaults.setObject(stored, "k");
    ASSERT_TRUE(defaults.synchronize());
    shelfkit::JsonUserDefaults reloaded(path_);
    for (auto* read : {&defaults, &reloaded}) {
      EXPECT_EQ(read->integerForKey("k"), integer);
      EXPECT_EQ(read->boolForKey("k"), boolean);
      EXPECT_EQ(read->integerForKey("absent"), std::nullopt);
    }
  }
}

TEST_F(UserDefaultsTest, InvalidFileIsKeptAsideAndDefaultsApply) {
  for (const char* bad : {"{not json", "[1,2]", "\"text\"", ""}) {
    SCOPED_TRACE(bad);
    fs::remove(path_ + ".corrupt");
    std::ofstream(path_) << bad;
    log_.lines.clear();
    shelfkit::JsonUserDefaults defaults(path_);
    EXPECT_FALSE(defaults.objectForKey("DFMaxActiveDownloadCountPreference"));
    EXPECT_EQ(readFile(path_ + ".corrupt"), bad);
    EXPECT_FALSE(fs::exists(path_));
    ASSERT_EQ(log_.lines.size(), 1u);
    EXPECT_NE(log_.lines[0].find("kept aside"), std::string::npos);
  }
}

TEST_F(UserDefaultsTest, FailedWriteLeavesThePreviousFileWholeAndNoTemporaryFile) {
  shelfkit::JsonUserDefaults defaults(path_);
  defaults.setInteger(3, "count");
  ASSERT_TRUE(defaults.synchronize());
  const std::string before = readFile(path_);

  defaults.setObject(std::string(1 << 16, 'x'), "big");
  // A file-size limit makes the write fail part-way, as a full disk would.
  struct sigaction ignore {}, previous {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGXFSZ, &ignore, &previous);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  rlimit small = old;
  small.rlim_cur = 4096;
  setrlimit(RLIMIT_FSIZE, &small);
  bool written = defaults.synchronize();
  setrlimit(RLIMIT_FSIZE, &old);
  sigaction(SIGXFSZ, &previous, nullptr);

  EXPECT_FALSE(written);
  EXPECT_EQ(readFile(path_), before);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1) << "no temporary file is left behind";
}

}  // namespace
