#include "module/ui/DFRecentItemsSource.h"

#include <mutex>

#include "module/core/DFLocalizedString.h"
#include "module/ui/DFBundle.h"

std::shared_ptr<DFRecentItemsSource> DFRecentItemsSource::sharedInstance() {
  static std::once_flag once;
  static std::shared_ptr<DFRecentItemsSource>* instance = nullptr;  // lives as long as the process
  std::call_once(once, [] { instance = new std::shared_ptr<DFRecentItemsSource>(std::make_shared<DFRecentItemsSource>("DFRecentItemsSource")); });
  return *instance;
}

std::string DFRecentItemsSource::title() const { return DFLocalizedString("Recently Downloaded"); }

std::string DFRecentItemsSource::iconBundle() const { return kDFBundleIdentifier; }
