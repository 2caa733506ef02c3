#include "shelfkit/HostServices.h"

#include "module/platform/FileManager.h"
#include "module/platform/NetworkMonitor.h"
#include "module/platform/RecordDatabase.h"
#include "module/platform/UserDefaults.h"
#include "shelfkit/kits/NetlinkNetworkMonitor.h"
#include "shelfkit/kits/SqliteRecordDatabase.h"
#include "shelfkit/runtime/JsonUserDefaults.h"
#include "shelfkit/runtime/PosixFileManager.h"

namespace shelfkit {

void installHostServices(const RootLayout& layout, std::shared_ptr<MainLoop> loop) {
  boost::asio::io_context& context = loop->context();
  MainLoop::install(std::move(loop));
  platform::UserDefaults::setStandardUserDefaults(std::make_shared<JsonUserDefaults>(layout.preferencesFile()));
  platform::FileManager::setDefaultManager(std::make_shared<PosixFileManager>(layout.library, layout.documents));
  platform::RecordDatabase::setFactory(SqliteRecordDatabase::factoryInDirectory(layout.databasesDirectory()));
  platform::NetworkMonitor::setSharedInstance(NetlinkNetworkMonitor::create(context));
}

void uninstallHostServices() {
  platform::NetworkMonitor::setSharedInstance(nullptr);
  platform::RecordDatabase::setFactory(nullptr);
  platform::FileManager::setDefaultManager(nullptr);
  platform::UserDefaults::setStandardUserDefaults(nullptr);
  MainLoop::install(nullptr);
}

}  // namespace shelfkit
