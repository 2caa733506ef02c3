// The instances the host installs behind the platform interfaces.
#include <mutex>

#include "module/platform/DownloadService.h"
#include "module/platform/FileManager.h"
#include "module/platform/NetworkMonitor.h"
#include "module/platform/RecordDatabase.h"
#include "module/platform/UserDefaults.h"

namespace platform {
namespace {

std::mutex gMutex;  // guards everything below
std::shared_ptr<UserDefaults> gDefaults;
std::shared_ptr<FileManager> gFileManager;
std::shared_ptr<NetworkMonitor> gNetworkMonitor;
RecordDatabase::Factory gDatabaseFactory;
std::shared_ptr<DownloadService> gDownloadService;

}  // namespace

std::shared_ptr<UserDefaults> UserDefaults::standardUserDefaults() {
  std::lock_guard lock(gMutex);
  return gDefaults;
}
void UserDefaults::setStandardUserDefaults(std::shared_ptr<UserDefaults> defaults) {
  std::lock_guard lock(gMutex);
  gDefaults = std::move(defaults);
}

std::shared_ptr<FileManager> FileManager::defaultManager() {
  std::lock_guard lock(gMutex);
  return gFileManager;
}
void FileManager::setDefaultManager(std::shared_ptr<FileManager> manager) {
  std::lock_guard lock(gMutex);
  gFileManager = std::move(manager);
}

std::shared_ptr<NetworkMonitor> NetworkMonitor::sharedInstance() {
  std::lock_guard lock(gMutex);
  return gNetworkMonitor;
}
void NetworkMonitor::setSharedInstance(std::shared_ptr<NetworkMonitor> monitor) {
  std::lock_guard lock(gMutex);
  gNetworkMonitor = std::move(monitor);
}

std::shared_ptr<RecordDatabase> RecordDatabase::initWithName(const std::string& name, int64_t limit) {
  Factory factory;
  {
    std::lock_guard lock(gMutex);
    factory = gDatabaseFactory;
  }
  return factory ? factory(name, limit) : nullptr;
}
void RecordDatabase::setFactory(Factory factory) {
  std::lock_guard lock(gMutex);
  gDatabaseFactory = std::move(factory);
}

std::shared_ptr<DownloadService> DownloadService::sharedInstance() {
  std::lock_guard lock(gMutex);
  return gDownloadService;
}
void DownloadService::setSharedInstance(std::shared_ptr<DownloadService> service) {
  std::lock_guard lock(gMutex);
  gDownloadService = std::move(service);
}

}  // namespace platform
