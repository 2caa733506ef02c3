// The module's entries in the host: the side-menu entry that opens the
// downloads screen, the settings page, and the recently-downloaded source.
// Each registers from its class-load hook when the host loads the module.
#include <memory>

#include "module/core/DFLocalizedString.h"
#include "module/platform/RecentItems.h"
#include "module/platform/ui/Registries.h"
#include "module/ui/DFBundle.h"
#include "module/ui/DFDownloaderController.h"
#include "module/ui/DFMenu.h"
#include "module/ui/DFRecentItemsSource.h"
#include "module/ui/DFSettingsController.h"

void DFMenu::load() {
  auto entry = std::make_shared<platform::SideMenuEntry>(
      DFLocalizedString("Downloads"), "DFDownloadsMenuItem", DFModuleBundle()->bundleIdentifier(),
      platform::ControllerClass::of<DFDownloaderController>("DFDownloaderController"), 0, 40);
  entry->setAccessibilityLabel("Downloader");
  platform::SideMenuRegistry::sharedInstance()->addMenuItem(entry);
}

void DFSettings::load() {
  platform::SettingsRegistry::sharedInstance()->addSettingItem(std::make_shared<platform::SettingEntry>(
      DFLocalizedString("Downloads"), 6, platform::ControllerClass::of<DFSettingsController>("DFSettingsController")));
}

void DFRecentItemsSource::load() {
  platform::RecentItemsRegistry::sharedInstance()->addRecentItemsSource(DFRecentItemsSource::sharedInstance());
}

namespace {

struct DFLoadHooks {
  DFLoadHooks() {
    DFMenu::load();
    DFSettings::load();
    DFRecentItemsSource::load();
  }
} gDFLoadHooks;

}  // namespace
