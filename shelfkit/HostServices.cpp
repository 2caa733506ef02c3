#include "shelfkit/HostServices.h"

#include <filesystem>

#include "module/platform/FileManager.h"
#include "module/platform/NetworkMonitor.h"
#include "module/platform/RecordDatabase.h"
#include "module/platform/UserDefaults.h"
#include "shelfkit/kits/HeadlessPresenters.h"
#include "shelfkit/kits/NetlinkNetworkMonitor.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "shelfkit/runtime/JsonUserDefaults.h"
#include "shelfkit/runtime/PosixFileManager.h"

namespace shelfkit {

void installHostServices(const RootLayout& layout, std::shared_ptr<MainLoop> loop) {
  boost::asio::io_context& context = loop->context();
  // Transfer bodies of an earlier process cannot be resumed; the root is ours alone.
  std::error_code ignored;
  std::filesystem::remove_all(layout.library + "/Caches/URLSessionDownloads", ignored);
  MainLoop::install(std::move(loop));
  platform::UserDefaults::setStandardUserDefaults(std::make_shared<JsonUserDefaults>(layout.preferencesFile()));
  platform::FileManager::setDefaultManager(std::make_shared<PosixFileManager>(layout.library, layout.documents));
  platform::RecordDatabase::setFactory(
      SqliteRecordDatabase::factoryInDirectory(layout.databasesDirectory(), /*batchesPerTurn=*/true));
  platform::NetworkMonitor::setSharedInstance(NetlinkNetworkMonitor::create(context));
  platform::ProgressOverlay::setPresenter(std::make_shared<HeadlessProgressOverlay>());
  platform::TipsPresenter::setPresenter(std::make_shared<HeadlessTipsPresenter>());
  platform::AdPresenter::setSharedInstance(std::make_shared<CountingAdPresenter>());
}

void uninstallHostServices() {
  platform::AdPresenter::setSharedInstance(nullptr);
  platform::TipsPresenter::setPresenter(nullptr);
  platform::ProgressOverlay::setPresenter(nullptr);
  platform::NetworkMonitor::setSharedInstance(nullptr);
  platform::RecordDatabase::setFactory(nullptr);
  platform::FileManager::setDefaultManager(nullptr);
  platform::UserDefaults::setStandardUserDefaults(nullptr);
  MainLoop::install(nullptr);
}

}  // namespace shelfkit
