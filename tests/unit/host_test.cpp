// The host's own parts: what the web server may send, and the JSON API.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "module/platform/DownloadService.h"
#include "module/platform/RecentItems.h"
#include "module/platform/ui/Registries.h"
#include "shelf/host/AccessToken.h"
#include "shelf/host/Api.h"
#include "shelf/host/DownloadActivity.h"
#include "shelf/host/FileResolver.h"
#include "shelf/host/HostScreens.h"
#include "shelf/host/ServerInfo.h"
#include "shelf/host/TransferRate.h"
#include "shelf/host/WebBridge.h"
#include "tests/support/TestHost.h"

namespace fs = std::filesystem;

namespace {

void write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

TEST(FileResolver, SendsOnlyFilesInsideTheirFolders) {
  const fs::path root = makeTemporaryDirectory();
  write(root / "web/index.html", "<!doctype html>");
  write(root / "web/app.js", "");
  write(root / "web/PROTOCOL.md", "");
  write(root / "docs/report.pdf", "%PDF");
  write(root / "docs/sub/a b.txt", "x");
  write(root / "Library/AccessToken", "secret");
  fs::create_symlink(root / "Library/AccessToken", root / "docs/link-out");
  fs::create_directory_symlink(root / "Library", root / "docs/dir-out");
  fs::create_hard_link(root / "Library/AccessToken", root / "docs/hard-link");
  fs::create_symlink(root / "docs/sub/a b.txt", root / "docs/link-in");
  shelf::FileResolver resolver((root / "web").string(), (root / "docs").string());

  for (auto [path, file] : std::vector<std::pair<const char*, const char*>>{  // file null: refused
           {"/", "web/index.html"},
           {"/app.js", "web/app.js"},
           {"/PROTOCOL.md", nullptr},
           {"/documents/report.pdf", "docs/report.pdf"},
           {"/documents/sub/a b.txt", "docs/sub/a b.txt"},
           {"/documents/sub/../../Library/AccessToken", nullptr},
           {"/documents//etc/passwd", nullptr},
           {"/documents/link-out", nullptr},
           {"/documents/dir-out/AccessToken", nullptr},
           {"/documents/hard-link", nullptr},
           {"/documents/link-in", "docs/sub/a b.txt"},
           {"/documents/sub", nullptr},
           {"/../Library/AccessToken", nullptr},
           {"/bundles/org.nowhere/images/x.svg", nullptr}}) {
    SCOPED_TRACE(path);
    auto served = resolver.resolve({"GET", path, {}, {}, {}});
    EXPECT_EQ(served ? fs::canonical(served->path) : fs::path(), file ? fs::canonical(root / file) : fs::path());
  }
  auto served = resolver.resolve({"GET", "/documents/report.pdf", {{"download", "1"}}, {}, {}});
  ASSERT_TRUE(served);
  EXPECT_TRUE(served->attachment);
  EXPECT_TRUE(served->sandbox) << "a downloaded page must not run in the host's origin";
  EXPECT_TRUE(served->singleLink) << "the server checks the opened file again";
  EXPECT_EQ(served->contentType, "application/pdf");
  EXPECT_FALSE(resolver.resolve({"GET", "/app.js", {}, {}, {}})->sandbox);

  // The address of a document the API gives is checked by the renaming test.
  EXPECT_EQ(shelf::documentURLForPath((root / "docs").string(), (root / "Library/AccessToken").string()), "");
  fs::remove_all(root);
}

void collectTexts(const nlohmann::json& node, std::set<std::string>& texts) {
  if (node.is_object() && node.contains("text") && node["text"].is_string()) texts.insert(node["text"].get<std::string>());
  if (node.is_structured())
    for (const auto& child : node) collectTexts(child, texts);
}

TEST(TransferRate, SmoothedOverAFewSecondsAndZeroWhenStalled) {
  using namespace std::chrono_literals;
  const auto t0 = shelf::TransferRate::Clock::time_point() + 1h;
  struct Case {
    const char* what;
    std::vector<std::pair<std::chrono::milliseconds, int64_t>> reports;  // when, position
    std::chrono::milliseconds now;
    std::optional<double> rate;  // bytes per second
  } cases[] = {
      {"one report says nothing", {{0ms, 500}}, 100ms, std::nullopt},
      {"reports too close together", {{0ms, 0}, {50ms, 1000}}, 60ms, std::nullopt},
      {"steady", {{0ms, 0}, {1s, 100'000}, {2s, 200'000}, {3s, 300'000}}, 3100ms, 100'000.0},
      {"sparse reports still measure", {{0ms, 0}, {4s, 400'000}, {8s, 800'000}}, 9s, 100'000.0},
      {"a new speed replaces the old within the window",
       {{0s, 0}, {1s, 100'000}, {2s, 200'000}, {3s, 400'000}, {4s, 600'000}, {5s, 800'000}, {6s, 1'000'000},
        {7s, 1'200'000}, {8s, 1'400'000}},
       8s, 200'000.0},
      {"a burst is spread over the window", {{0s, 0}, {1s, 0}, {2s, 500'000}, {5s, 500'000}}, 5s, 100'000.0},
      {"no report for long: stalled", {{0s, 0}, {1s, 100'000}, {2s, 200'000}}, 13s, 0.0},
      {"a restart from the beginning measures anew", {{0s, 0}, {1s, 100'000}, {2s, 200'000}, {3s, 1'000}}, 3s,
       std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    shelf::TransferRate rate;
    for (const auto& [at, position] : c.reports) rate.add(t0 + at, position);
    EXPECT_NEAR(rate.bytesPerSecond(t0 + c.now).value_or(-1), c.rate.value_or(-1), 1.0);  // -1: no rate
  }
}

TEST(DownloadActivity, SaysHowFastWhenItEndsWhyADownloadWaitsAndWhenTheQueueIsHeld) {
  using namespace std::chrono_literals;
  TestHost host;
  struct {
    double seconds;
    const char* left;
    const char* retry;
  } texts[] = {{0.2, "about 1 s left", "next try in 1 s"},     {7.2, "about 8 s left", "next try in 8 s"},
               {42, "about 45 s left", "next try in 42 s"},    {125, "about 2 min left", "next try in 2 min"},
               {89 * 60, "about 89 min left", "next try in 89 min"}, {7200, "about 2 h left", "next try in 120 min"}};
  for (const auto& t : texts) {
    EXPECT_EQ(shelf::timeLeftText(t.seconds), t.left) << t.seconds;
    EXPECT_EQ(shelf::retryText(t.seconds), t.retry) << t.seconds;
  }

  const auto t0 = shelf::DownloadActivity::Clock::time_point() + 1h;
  auto item = [](const char* id, int64_t size, int64_t position, bool running) {
    platform::DownloadItem item;
    item.uniqueId = id;
    item.size = size;
    item.position = position;
    item.inProgress = running;
    return item;
  };
  shelf::DownloadActivity activity;
  // Two running downloads: 1.4 MB at 200 KB/s with 600 KB left, and one of unknown size at 100 KB/s.
  for (int second = 0; second <= 4; ++second) {
    activity.record(item("A", 1'400'000, 200'000 * second, true), t0 + std::chrono::seconds(second));
    activity.record(item("B", 0, 100'000 * second, true), t0 + std::chrono::seconds(second));
  }
  platform::DownloadItem failed = item("C", 5000, 0, false);
  failed.lastError = "The server answered 503";
  failed.retryDate = 1000.0 + 12;
  std::vector<platform::DownloadItem> queue = {failed, item("A", 1'400'000, 800'000, true), item("B", 0, 400'000, true),
                                               item("D", 10, 0, false)};
  auto message = activity.message(queue, {}, true, 3, t0 + 4s, 1000.0);
  EXPECT_EQ(message["summary"], "2 downloading \u00B7 300 KB/s") << "no time left while a size is unknown";
  EXPECT_EQ(message["paused"], nullptr);
  EXPECT_EQ(message["rows"], nlohmann::json::parse(R"([
      {"row": 0, "text": "Last try failed: The server answered 503 \u00B7 next try in 12 s"},
      {"row": 1, "text": "200 KB/s \u00B7 about 3 s left"},
      {"row": 2, "text": "100 KB/s"}])"));

  queue.pop_back();
  queue.pop_back();
  message = activity.message(queue, {}, true, 3, t0 + 4s, 1000.0);
  EXPECT_EQ(message["summary"], "1 downloading \u00B7 200 KB/s \u00B7 about 3 s left");

  // Finished: nothing is said about it any more, and the retry time has passed.
  activity.record(item("A", 1'400'000, 1'400'000, false), t0 + 5s);
  queue[1].inProgress = false;
  message = activity.message(queue, {}, true, 3, t0 + 5s, 1013.0);
  EXPECT_EQ(message["summary"], nullptr);
  EXPECT_EQ(message["rows"], nlohmann::json::parse(R"([{"row": 0, "text": "Last try failed: The server answered 503"}])"));

  platform::DownloadSettings notPermitted;
  notPermitted.downloadsPermitted = false;
  const auto paused = activity.message(queue, notPermitted, true, 3, t0, 0)["paused"];
  EXPECT_EQ(paused["text"], "Downloads are paused");
  EXPECT_EQ(paused["menu"], 3);
  EXPECT_EQ(paused["reason"], "Downloads are not permitted in Settings.");
  EXPECT_EQ(activity.message(queue, {}, false, 3, t0, 0)["paused"]["reason"],
            "No network connection that downloads may use.");
}

TEST(AccessToken, MadeOnceAndReadableByTheOwnerOnly) {
  TestHost host;
  EXPECT_FALSE(shelf::existingAccessToken(host.layout()));
  const std::string token = shelf::accessToken(host.layout());
  EXPECT_EQ(token.size(), 32u);
  EXPECT_EQ(shelf::accessToken(host.layout()), token);
  EXPECT_NE(shelf::accessToken(shelfkit::RootLayout::resolve(makeTemporaryDirectory(), std::nullopt)), token);
  struct stat info {};
  ASSERT_EQ(::stat((host.layout().library + "/AccessToken").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 077, 0u);
}

TEST(ServerInfo, OnlyAWellFormedNoteIsBelieved) {
  TestHost host;
  const std::string path = host.layout().library + "/Server.json";
  EXPECT_FALSE(shelf::readServerInfo(host.layout())) << "no note";
  for (auto [text, base] : std::vector<std::pair<const char*, const char*>>{  // base "": refused
           {R"({"url": "http://127.0.0.2:8787/", "address": "127.0.0.2", "port": 8787})", "http://127.0.0.2:8787"},
           {R"({"url": "http://127.0.0.1:80/", "port": 80})", "http://127.0.0.1:80"},
           {R"({"url": "http://localhost:9/?token=t", "address": "0.0.0.0", "port": 9})", "http://127.0.0.1:9"},
           {R"({"url": "x", "address": "::", "port": 9})", "http://[::1]:9"},
           {R"({"url": "x", "address": "fe80::1", "port": 9})", "http://[fe80::1]:9"},
           {R"({"url": "x", "address": "localhost", "port": 9})", "http://127.0.0.1:9"},
           {R"({"url": "x", "port": "abc"})", ""},
           {R"({"url": "x", "port": 70000})", ""},
           {R"({"url": "x"})", ""},
           {R"({"url": 5, "port": 9})", ""},
           {R"({"url": "x", "address": [], "port": 9})", ""},
           {"not json", ""}}) {
    SCOPED_TRACE(text);
    std::ofstream(path) << text;
    auto info = shelf::readServerInfo(host.layout());
    EXPECT_EQ(info ? shelf::localBaseURL(*info) : "", base);
  }
}

// A download service that keeps a list and records what it is asked.
class ListService : public platform::DownloadService {
 public:
  std::vector<platform::DownloadItem> downloads() override { return items; }
  void addDownload(const platform::URL& url, std::optional<std::vector<std::string>> types, AddCompletion completion) override {
    lastTypes = types;
    if (url.host() == "refused.example") return completion(std::nullopt, std::string("Invalid mime-type"));
    platform::DownloadItem item;
    item.uniqueId = "ID" + std::to_string(items.size());
    item.url = url.absoluteString();
    items.push_back(item);
    completion(item, std::string("File added to download queue"));
  }
  bool setActive(const std::string& id, bool active) override {
    for (auto& item : items)
      if (item.uniqueId == id) return item.active = active, true;
    return false;
  }
  bool removeDownload(const std::string& id) override { return std::erase_if(items, [&](auto& i) { return i.uniqueId == id; }) > 0; }
  platform::DownloadSettings settings() override { return current; }
  void setSettings(const platform::DownloadSettings& settings) override { current = settings; }
  void addObserver(const std::shared_ptr<platform::DownloadServiceObserver>&) override {}

  std::vector<platform::DownloadItem> items;
  std::optional<std::vector<std::string>> lastTypes;
  platform::DownloadSettings current;
};

class ApiTest : public ::testing::Test {
 protected:
  void SetUp() override { platform::DownloadService::setSharedInstance(service_); }
  void TearDown() override { platform::DownloadService::setSharedInstance(nullptr); }
  shelf::HttpResponse call(const std::string& method, const std::string& path, const std::string& body = "") {
    std::optional<shelf::HttpResponse> answer;
    shelf::handleApiRequest({method, path, {}, {}, body}, host_.layout().documents,
                            [&](shelf::HttpResponse response) { answer = std::move(response); });
    EXPECT_TRUE(host_.runUntil([&] { return answer.has_value(); }));
    return answer.value_or(shelf::HttpResponse{});
  }
  TestHost host_;
  std::shared_ptr<ListService> service_ = std::make_shared<ListService>();
};

TEST_F(ApiTest, DownloadsAreAddedListedStartedStoppedAndRemovedAndNeedTheModule) {
  auto added = call("POST", "/api/downloads", R"({"url": "http://files.example/a.zip", "permittedMIMETypes": ["application/zip"]})");
  EXPECT_EQ(added.status, 201);
  auto body = nlohmann::json::parse(added.body);
  EXPECT_EQ(body["download"]["uniqueId"], "ID0");
  EXPECT_EQ(body["message"], "File added to download queue");
  EXPECT_EQ(service_->lastTypes, std::vector<std::string>{"application/zip"});

  auto refused = call("POST", "/api/downloads", R"({"url": "http://refused.example/a"})");
  EXPECT_EQ(refused.status, 422);
  EXPECT_EQ(nlohmann::json::parse(refused.body)["error"], "Invalid mime-type");
  EXPECT_FALSE(service_->lastTypes) << "no list means every type";

  EXPECT_EQ(nlohmann::json::parse(call("GET", "/api/downloads").body).size(), 1u);
  EXPECT_EQ(call("POST", "/api/downloads/ID0/stop").status, 204);
  EXPECT_FALSE(service_->items[0].active);
  EXPECT_EQ(call("POST", "/api/downloads/ID0/start").status, 204);
  EXPECT_TRUE(service_->items[0].active);
  EXPECT_EQ(call("POST", "/api/downloads/nope/start").status, 404);
  EXPECT_EQ(call("DELETE", "/api/downloads/ID0").status, 204);
  EXPECT_EQ(call("DELETE", "/api/downloads/ID0").status, 404);

  platform::DownloadService::setSharedInstance(nullptr);
  EXPECT_EQ(call("GET", "/api/downloads").status, 503) << "without the module the downloads API is unavailable";
  EXPECT_EQ(call("GET", "/api/recent").status, 200);
}

TEST_F(ApiTest, BadRequestsAreRefusedWithAReasonAndSettingsChangeOnlyWhatIsGiven) {
  struct Case {
    const char* method;
    const char* path;
    const char* body;
    int status;
  } cases[] = {
      {"POST", "/api/downloads", "not json", 400},
      {"POST", "/api/downloads", R"({"url": 5})", 400},
      {"POST", "/api/downloads", R"({"url": "file:///etc/passwd"})", 400},
      {"POST", "/api/downloads", R"({"url": "http://x.example/a", "permittedMIMETypes": "text/plain"})", 400},
      {"PUT", "/api/settings", R"({"maxActiveDownloadCount": 0})", 400},
      {"PUT", "/api/settings", R"({"maxActiveDownloadCount": 11})", 400},
      {"PUT", "/api/settings", R"({"downloadsPermitted": "yes"})", 400},
      {"PUT", "/api/settings", R"({"colour": "blue"})", 400},
      {"GET", "/api/nothing", "", 404},
      {"PATCH", "/api/downloads", "", 405},
      {"GET", "/api/downloads/ID0", "", 405},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.path + " " + c.body);
    auto response = call(c.method, c.path, c.body);
    EXPECT_EQ(response.status, c.status);
    EXPECT_TRUE(nlohmann::json::parse(response.body).contains("error"));
  }
  EXPECT_TRUE(service_->items.empty());
  EXPECT_EQ(service_->current.maxActiveDownloadCount, 3);

  auto changed = call("PUT", "/api/settings", R"({"maxActiveDownloadCount": 7, "useCellularData": false})");
  EXPECT_EQ(changed.status, 200);
  EXPECT_EQ(nlohmann::json::parse(changed.body),
            nlohmann::json::parse(R"({"downloadsPermitted": true, "useCellularData": false, "maxActiveDownloadCount": 7})"));
  EXPECT_EQ(nlohmann::json::parse(call("GET", "/api/settings").body)["maxActiveDownloadCount"], 7);
}

// Which paths the folder lists is FileResolver's table; here the screen and the API each keep to it.
TEST_F(ApiTest, DocumentsAreListedDeletedAndRenamedOnlyInsideTheFolderAndRecentFollows) {
  const fs::path docs = host_.layout().documents, library = host_.layout().library;
  write(docs / "a.txt", "a");
  write(docs / "b.txt", "b");
  write(docs / "sub/c.txt", "c");
  write(library / "secret", "s");
  fs::create_symlink(library / "secret", docs / "out-link");
  fs::create_hard_link(library / "secret", docs / "hard-link");
  shelf::registerHostScreens({docs.string(), nullptr, nullptr});
  std::shared_ptr<platform::TableScreenController> screen;
  for (const auto& entry : platform::SideMenuRegistry::sharedInstance()->menuItems())
    if (entry->iconName() == "Documents") screen = entry->controllerClass().create();
  ASSERT_TRUE(screen);
  screen->snapshot();
  screen->setVisibleRows(0, 0, 20);
  std::set<std::string> texts;
  collectTexts(screen->snapshot(), texts);
  EXPECT_EQ(screen->rowCount(0), 2);
  EXPECT_TRUE(texts.count("a.txt") && texts.count("b.txt"));
  auto recent = std::make_shared<TestRecentSource>("DocumentsTest");
  platform::RecentItemsRegistry::sharedInstance()->addRecentItemsSource(recent);
  recent->addItemWithFilename((docs / "b.txt").string(), "B");
  recent->addItemWithFilename((docs / "a.txt").string(), "A");

  struct Case {
    const char* method;
    std::string path;
    std::string body;
    int status;
  };
  std::vector<Case> cases = {
      {"POST", "/api/documents/a.txt/rename", R"({"name": "b.txt"})", 409},
      {"POST", "/api/documents/a.txt/rename", R"({"name": "sub"})", 409},
      {"GET", "/api/documents/a.txt", "", 405},
      {"DELETE", "/api/documents/a.txt/rename", "", 405},
  };
  for (const std::string& bad :
       std::vector<std::string>{R"("../a.txt")", R"("sub/a.txt")", R"("..")", R"(".hidden")", R"("")", R"("x\u0001y")",
                                R"("x\ny")", "\"" + std::string(256, 'x') + "\"", "5"})
    cases.push_back({"POST", "/api/documents/a.txt/rename", R"({"name": )" + bad + "}", 400});
  cases.push_back({"POST", "/api/documents/a.txt/rename", "not json", 400});
  for (const char* name : {"out-link", "hard-link", "sub"})
    cases.push_back({"POST", "/api/documents/" + std::string(name) + "/rename", R"({"name": "mine"})", 404});
  for (const char* name : {"out-link", "hard-link", "sub", "..", "nothing.txt", "../Library/secret", "sub/c.txt"})
    cases.push_back({"DELETE", "/api/documents/" + std::string(name), "", 404});
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.path + " " + c.body.substr(0, 40));
    auto response = call(c.method, c.path, c.body);
    EXPECT_EQ(response.status, c.status) << response.body;
    EXPECT_TRUE(nlohmann::json::parse(response.body).contains("error"));
  }
  std::set<std::string> left;
  for (const auto& entry : fs::recursive_directory_iterator(docs)) left.insert(entry.path().lexically_relative(docs).string());
  EXPECT_EQ(left, (std::set<std::string>{"a.txt", "b.txt", "sub", "sub/c.txt", "out-link", "hard-link"}));
  EXPECT_TRUE(fs::exists(library / "secret"));

  auto renamed = call("POST", "/api/documents/a.txt/rename", R"({"name": "a renamed.txt"})");
  EXPECT_EQ(renamed.status, 200);
  EXPECT_EQ(nlohmann::json::parse(renamed.body)["url"], "/documents/a%20renamed.txt");
  EXPECT_FALSE(fs::exists(docs / "a.txt"));
  std::ifstream in(docs / "a renamed.txt");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "a");
  EXPECT_EQ(call("DELETE", "/api/documents/b.txt").status, 204);
  EXPECT_FALSE(fs::exists(docs / "b.txt"));
  EXPECT_EQ(call("DELETE", "/api/documents/b.txt").status, 404);

  write(docs / "b.txt", "a new file of the same name");
  auto items = recent->items();
  ASSERT_EQ(items.size(), 1u) << "a deleted file's item is forgotten, not revived by a new file of its name";
  EXPECT_EQ(items[0].uniqueId, "A");
  EXPECT_EQ(fs::path(items[0].path), docs / "a renamed.txt");
}

struct FakeConnection : shelf::WebSocketConnection {
  explicit FakeConnection(uint64_t id) : id_(id) {}
  uint64_t id() const override { return id_; }
  void send(std::string text) override { sent.push_back(nlohmann::json::parse(text)); }
  void close(shelf::CloseReason reason) override { closedWith = reason; }
  std::vector<nlohmann::json> of(const std::string& type) const {
    std::vector<nlohmann::json> found;
    std::copy_if(sent.begin(), sent.end(), std::back_inserter(found), [&](const auto& m) { return m["t"] == type; });
    return found;
  }
  const uint64_t id_;
  std::vector<nlohmann::json> sent;
  std::optional<shelf::CloseReason> closedWith;
};

// A screen of the side menu ("Probe") that counts how often it is made and the rows selected.
class ProbeScreen : public platform::TableScreenController {
 public:
  ProbeScreen() : TableScreenController({0}) { ++made; }
  int64_t numberOfRowsInSection(int64_t) override { return 3; }
  std::shared_ptr<platform::TableViewCell> createCellForRow(int64_t, int64_t) override { return nullptr; }
  void cellSelectedAtRow(int64_t row, int64_t) override { selected.push_back(row); }
  static inline int made = 0;
  static inline std::vector<int64_t> selected;

  static int64_t menuIndex() {
    [[maybe_unused]] static const bool registered = [] {
      platform::SideMenuRegistry::sharedInstance()->addMenuItem(std::make_shared<platform::SideMenuEntry>(
          "Probe", "Probe", "org.shelf.test", platform::ControllerClass::of<ProbeScreen>("ProbeScreen"), 0, 0));
      return true;
    }();
    const auto entries = platform::SideMenuRegistry::sharedInstance()->menuItems();
    for (size_t i = 0; i < entries.size(); ++i)
      if (entries[i]->title() == "Probe") return static_cast<int64_t>(i);
    return -1;
  }
};

class BridgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    bridge_->installPresenters();
    ProbeScreen::selected.clear();  // static: a repeated run starts afresh
  }
  void TearDown() override {
    platform::AlertDialog::setPresenter(nullptr);
    platform::ProgressOverlay::setPresenter(nullptr);
    platform::TipsPresenter::setPresenter(nullptr);
  }
  std::shared_ptr<FakeConnection> connect(uint64_t id) {
    auto tab = std::make_shared<FakeConnection>(id);
    bridge_->opened(tab);
    host_.loop().runFor(std::chrono::milliseconds(20));
    return tab;
  }
  void say(uint64_t id, const nlohmann::json& message) { sayRaw(id, message.dump()); }
  // A confirmation dialog whose answers go to `answers`.
  void confirm(const std::string& text) {
    platform::AlertDialog::showConfirmDialogWithTitle(std::nullopt, text, "Delete",
                                                      [this](bool ok) { answers.push_back(ok); });
  }
  void sayRaw(uint64_t id, const std::string& text) {
    bridge_->message(id, text);
    host_.loop().runFor(std::chrono::milliseconds(20));
  }
  TestHost host_;
  std::shared_ptr<shelf::WebBridge> bridge_ = shelf::WebBridge::create();
  std::vector<bool> answers;
};

TEST_F(BridgeTest, BadFramesAreIgnoredAndTheTabGoesOn) {
  auto tab = connect(1);
  const nlohmann::json probe = {{"t", "menu"}, {"index", ProbeScreen::menuIndex()}};
  say(1, probe);
  ASSERT_EQ(tab->of("screen").size(), 1u);
  confirm("Sure?");
  ASSERT_EQ(tab->of("dialog").size(), 1u);
  const std::string dialog = tab->of("dialog")[0]["id"].dump();
  const std::string frames[] = {
      R"({"t":5})", R"({"t":null})", R"({"t":[]})", R"({"t":"select","row":0,"section":0,"selected":"yes"})",
      R"({"t":"select","row":"1","section":0,"selected":true})", R"({"t":"menu","index":"0"})",
      R"({"t":"menu","index":1e300})", R"({"t":"menu","index":-1})", R"({"t":"menu"})",
      R"({"t":"dialog","id":)" + dialog + R"(,"ok":"yes"})", R"({"t":"dialog","id":)" + dialog + R"(})",
      R"({"t":"dialog","id":")" + dialog + R"(","ok":true})", R"({"t":"alertDismiss","id":-5})",
      R"({"t":"tipDismiss","id":[]})", "[]", "\"menu\"", "{", "", "{\"t\":\"\xff\"}",
  };
  for (const auto& frame : frames) {
    SCOPED_TRACE(frame);
    sayRaw(1, frame);
    EXPECT_FALSE(tab->closedWith);
  }
  EXPECT_TRUE(answers.empty());
  EXPECT_TRUE(ProbeScreen::selected.empty());
  EXPECT_EQ(tab->of("screen").size(), 1u);

  say(1, {{"t", "dialog"}, {"id", nlohmann::json::parse(dialog)}, {"ok", true}});
  EXPECT_EQ(answers, std::vector<bool>{true}) << "the dialog waited for a well-formed answer";
  say(1, {{"t", "select"}, {"row", 1.0}, {"section", 0}, {"selected", true}});
  EXPECT_EQ(ProbeScreen::selected, std::vector<int64_t>{1});
  say(1, probe);
  EXPECT_EQ(tab->of("screen").size(), 2u);
}

TEST_F(BridgeTest, AFloodOfScreenRequestsMakesOneScreenAndAnOverfullInboxClosesTheTab) {
  auto tab = connect(1);
  const std::string probe = nlohmann::json{{"t", "menu"}, {"index", ProbeScreen::menuIndex()}}.dump();
  const std::string viewport = R"({"t":"viewport","section":0,"first":0,"last":5})";
  const int made = ProbeScreen::made;
  for (size_t i = 0; i < shelf::WebBridge::kInboxMessages; ++i) bridge_->message(1, i % 2 ? probe : viewport);
  host_.loop().runFor(std::chrono::milliseconds(50));
  EXPECT_EQ(ProbeScreen::made, made + 1);
  EXPECT_EQ(tab->of("screen").size(), 1u);
  EXPECT_FALSE(tab->closedWith);

  for (size_t i = 0; i <= shelf::WebBridge::kInboxMessages; ++i) bridge_->message(1, probe);
  host_.loop().runFor(std::chrono::milliseconds(50));
  EXPECT_EQ(tab->closedWith, shelf::CloseReason::PolicyViolation);
  EXPECT_EQ(ProbeScreen::made, made + 1) << "what was waiting is dropped with the tab";
  auto big = connect(2);
  bridge_->message(2, std::string(shelf::WebBridge::kInboxBytes + 1, ' '));
  EXPECT_EQ(big->closedWith, shelf::CloseReason::PolicyViolation);
}

TEST_F(BridgeTest, DialogsGoToTheActingTabAndWaitForItToComeBack) {
  auto a = connect(1), b = connect(2);
  say(1, {{"t", "noop"}});  // tab 1 acted last
  confirm("Sure?");
  ASSERT_EQ(a->of("dialog").size(), 1u);
  EXPECT_TRUE(b->of("dialog").empty());
  const auto id = a->of("dialog")[0]["id"];
  say(2, {{"t", "dialog"}, {"id", id}, {"ok", true}});
  EXPECT_TRUE(answers.empty()) << "another tab cannot answer it";
  say(1, {{"t", "dialog"}, {"id", id}, {"ok", true}});
  EXPECT_EQ(answers, std::vector<bool>{true});

  // Its tab goes away: the same browser tab, back on a new connection, still answers it.
  confirm("Again?");
  const auto again = a->of("dialog").back()["id"];
  bridge_->closed(1);
  connect(3);
  say(3, {{"t", "dialog"}, {"id", again}, {"ok", true}, {"text", ""}});
  ASSERT_TRUE(host_.runUntil([&] { return answers.size() == 2; }));
  EXPECT_TRUE(answers[1]) << "an answer given while the connection was lost is kept";

  // Nobody answers: declined once the grace is over.
  bridge_->setOrphanedDialogGrace(std::chrono::milliseconds(50));
  say(3, {{"t", "noop"}});
  confirm("Once more?");
  bridge_->closed(3);
  ASSERT_TRUE(host_.runUntil([&] { return answers.size() == 3; }));
  EXPECT_FALSE(answers[2]);

  // An answer to a dialog the host does not know (it restarted, or the dialog ended) is refused visibly.
  say(2, {{"t", "dialog"}, {"id", 987654}, {"ok", true}, {"text", "http://lost.example/"}});
  ASSERT_EQ(b->of("dialogExpired").size(), 1u);
  EXPECT_EQ(b->of("dialogExpired")[0]["id"], 987654);
}

TEST_F(BridgeTest, AlertsTipsAndTheOverlayAreSharedByTheTabsAndCompleteWhenNoTabIsLeft) {
  int completions = 0, tipsDone = 0, cancels = 0;
  platform::ProgressOverlay::showAlert(std::string("nobody looks"), [&] { ++completions; });
  ASSERT_TRUE(host_.runUntil([&] { return completions == 1; })) << "with no tab an alert counts as dismissed";

  auto a = connect(1);
  EXPECT_EQ(a->of("hello").size(), 1u);
  platform::TipsPresenter::showTip("Use the menu.", [&] { ++tipsDone; });
  platform::TipsPresenter::showTip("Use the menu.", [&] { ++tipsDone; });
  ASSERT_TRUE(host_.runUntil([&] { return tipsDone == 1; }));
  ASSERT_EQ(a->of("tip").size(), 1u);
  say(1, {{"t", "tipDismiss"}, {"id", a->of("tip")[0]["id"]}});
  EXPECT_EQ(tipsDone, 2);

  platform::ProgressOverlay::showMessage("Checking URL...", [&] { ++cancels; });
  auto b = connect(2);
  EXPECT_EQ(b->of("overlay").back()["message"], "Checking URL...") << "a new tab sees what is shown";
  say(2, {{"t", "overlayCancel"}});
  EXPECT_EQ(cancels, 1);
  EXPECT_EQ(a->of("overlay").back()["message"], nullptr);

  platform::ProgressOverlay::showMessage("Checking URL...", [] {});
  platform::ProgressOverlay::showAlert(std::string("File added"), [&] { ++completions; });
  host_.loop().runFor(std::chrono::milliseconds(50));
  EXPECT_EQ(completions, 1);
  ASSERT_EQ(b->of("alert").size(), 1u);
  EXPECT_EQ(b->of("overlay").back()["message"], nullptr) << "the alert takes the place of the message";
  say(2, {{"t", "alertDismiss"}, {"id", b->of("alert")[0]["id"]}});
  EXPECT_EQ(completions, 2);
  EXPECT_EQ(a->of("alertClose").size(), 1u) << "the other tab closes it too";

  platform::ProgressOverlay::showAlert(std::string("left open"), [&] { ++completions; });
  bridge_->closed(1);
  bridge_->closed(2);
  ASSERT_TRUE(host_.runUntil([&] { return completions == 3; }));
}

}  // namespace
