#include "shelf/GetCommand.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>

#include <boost/asio/signal_set.hpp>

#include "module/platform/Clock.h"
#include "module/platform/DownloadService.h"
#include "module/platform/Log.h"
#include "module/platform/MainQueue.h"
#include "module/platform/NetworkMonitor.h"
#include "module/platform/RecentItems.h"
#include "shelf/host/ModuleLoader.h"
#include "shelf/ProgressPrinter.h"
#include "shelfkit/HostServices.h"

namespace fs = std::filesystem;

namespace {

// Follows the queue for the command line: progress, placements, failures in a row.
class GetObserver : public platform::DownloadServiceObserver {
 public:
  GetObserver(int tries, ProgressPrinter& printer) : tries_(tries), printer_(printer) {}

  void downloadServiceEvent(platform::DownloadEvent event, const platform::DownloadItem& item) override {
    if (event == platform::DownloadEvent::Changed) changed(item);
    if (event == platform::DownloadEvent::Stopped) stopped(item);
    if (event == platform::DownloadEvent::Removed) removed(item);
  }

  bool failed = false;

 private:
  static std::string nameOf(const platform::DownloadItem& item) { return item.outputFilename.value_or(item.url); }

  void changed(const platform::DownloadItem& item) {
    auto& last = lastPosition_[item.uniqueId];
    if (item.position > last) failures_[item.uniqueId] = 0;  // progress ends a run of failures
    last = item.position;
    printer_.update(nameOf(item), item.actualPosition, item.size);
  }

  void stopped(const platform::DownloadItem& item) {
    const double now = std::chrono::duration<double>(platform::now().time_since_epoch()).count();
    if (!item.lastError || !item.retryDate || *item.retryDate <= now) return;
    const int failures = ++failures_[item.uniqueId];
    if (tries_ > 0 && failures >= tries_) {
      printer_.message("shelf: " + nameOf(item) + ": " + *item.lastError + " (" + std::to_string(failures) +
                       " failures in a row)");
      abandoned_.insert(item.uniqueId);
      failed = true;
      // Leave the notification before changing the queue.
      platform::dispatchAsyncMain([id = item.uniqueId] {
        if (auto service = platform::DownloadService::sharedInstance()) service->removeDownload(id);
      });
    } else {
      printer_.message("shelf: " + nameOf(item) + ": " + *item.lastError + "; retrying");
    }
  }

  void removed(const platform::DownloadItem& item) {
    if (abandoned_.count(item.uniqueId)) return;
    // The file is registered with the recent items right after the removal.
    platform::dispatchAsyncMain([this] {
      for (const auto& source : platform::RecentItemsRegistry::sharedInstance()->sources()) {
        auto items = source->items();
        for (auto it = items.rbegin(); it != items.rend(); ++it) {  // oldest first
          if (!reported_.insert(it->path).second) continue;
          printer_.finish();
          std::cout << it->path << std::endl;
        }
      }
    });
  }

  const int tries_;
  ProgressPrinter& printer_;
  std::map<std::string, int> failures_;
  std::map<std::string, int64_t> lastPosition_;
  std::set<std::string> abandoned_;
  std::set<std::string> reported_;  // placed files already printed
};

}  // namespace

int runGet(const GetOptions& options) {
  std::vector<platform::URL> urls;
  for (const auto& text : options.urls) {
    auto url = platform::URL::URLWithString(text);
    if (!url || (url->scheme() != "http" && url->scheme() != "https")) {
      std::cerr << "shelf: not a web address: " << text << "\n";
      return 2;
    }
    urls.push_back(*url);
  }
  std::error_code error;
  fs::create_directories(options.outputDirectory, error);
  if (!fs::is_directory(options.outputDirectory)) {
    std::cerr << "shelf: cannot use the folder " << options.outputDirectory << "\n";
    return 2;
  }

  // A private Library for this run; the output folder is the documents folder.
  std::string root = (fs::temp_directory_path() / "shelf-get-XXXXXX").string();
  if (!::mkdtemp(root.data())) {
    std::cerr << "shelf: cannot create a temporary folder\n";
    return 1;
  }
  auto layout = shelfkit::RootLayout::resolve(root, fs::absolute(options.outputDirectory).string());
  layout.create(nullptr);
  if (!options.verbose) platform::setLogSinkForTesting([](const std::string&) {});

  auto loop = std::make_shared<shelfkit::MainLoop>();
  shelfkit::installHostServices(layout, loop);
  boost::asio::signal_set signals(loop->context(), SIGINT, SIGTERM);
  bool interrupted = false;
  signals.async_wait([&](const boost::system::error_code& e, int) {
    if (!e) interrupted = true;
  });

  ProgressPrinter printer(isatty(STDERR_FILENO));
  auto observer = std::make_shared<GetObserver>(options.tries, printer);
  std::shared_ptr<platform::DownloadService> service;
  size_t pending = urls.size();
  bool refused = false;
  int status = 0;
  platform::dispatchAsyncMain([&] {
    std::vector<std::string> errors;
    shelf::loadModules(shelf::defaultModulesDirectory(), &errors);
    for (const auto& line : errors) printer.message("shelf: " + line);
    service = platform::DownloadService::sharedInstance();
    if (!service) {
      printer.message("shelf: the download module is not installed in " + shelf::defaultModulesDirectory());
      status = 1;
      return;
    }
    auto network = platform::NetworkMonitor::sharedInstance();
    if (network && !network->internetAvailable())
      printer.message("shelf: no network connection (no default route); waiting for one");
    service->addObserver(observer);
    for (const auto& url : urls) {
      service->addDownload(url, std::nullopt,
                           [&, url](const std::optional<platform::DownloadItem>& item, const std::optional<std::string>& m) {
                             --pending;
                             if (!item) {
                               refused = true;
                               printer.message("shelf: " + url.absoluteString() + ": " + m.value_or("refused"));
                             }
                           });
    }
  });
  loop->runUntil([&] { return interrupted || status != 0 || (service && pending == 0 && service->downloads().empty()); },
                 std::chrono::milliseconds::max());
  loop->runFor(std::chrono::milliseconds(50));  // let the last placement be reported
  printer.finish();
  service.reset();
  shelfkit::uninstallHostServices();
  platform::setLogSinkForTesting(nullptr);
  fs::remove_all(root, error);
  if (interrupted) return 130;
  if (status != 0) return status;
  return refused || observer->failed ? 1 : 0;
}
