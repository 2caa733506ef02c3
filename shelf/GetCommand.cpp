#include "shelf/GetCommand.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>

#include <boost/asio/signal_set.hpp>

#include "module/core/DFDownloadManager.h"
#include "module/platform/Log.h"
#include "module/ui/DFRecentItemsSource.h"
#include "shelf/ProgressPrinter.h"
#include "shelfkit/HostServices.h"

namespace fs = std::filesystem;

namespace {

// Follows the queue for the command line: progress, placements, failures in a row.
class GetObserver : public DFDownloadManagerDelegate {
 public:
  GetObserver(int tries, ProgressPrinter& printer) : tries_(tries), printer_(printer) {}

  void downloadOperationChanged(DFDownloadManager&, const Record& r) override {
    auto& last = lastPosition_[r->uniqueId()];
    if (r->position() > last) failures_[r->uniqueId()] = 0;  // progress ends a run of failures
    last = r->position();
    printer_.update(r->outputFilename().value_or(r->url().absoluteString()), r->actualPosition(), r->size());
  }

  void downloadOperationStopped(DFDownloadManager& manager, const Record& r) override {
    auto error = manager.lastErrorOfDownloadOperation(r);
    if (!error || !r->retryDate() || platform::timeIntervalSinceNow(*r->retryDate()) <= 0) return;
    const int failures = ++failures_[r->uniqueId()];
    const std::string name = r->outputFilename().value_or(r->url().absoluteString());
    if (tries_ > 0 && failures >= tries_) {
      printer_.message("shelf: " + name + ": " + *error + " (" + std::to_string(failures) + " failures in a row)");
      abandoned_.insert(r->uniqueId());
      failed = true;
      // Leave the notification before changing the queue.
      std::weak_ptr<DFDownloadManager> weak = manager.shared_from_this();
      platform::dispatchAsyncMain([weak, r] {
        if (auto m = weak.lock()) m->removeDownloadOperation(r);
      });
    } else {
      printer_.message("shelf: " + name + ": " + *error + "; retrying");
    }
  }

  void downloadOperationRemoved(DFDownloadManager&, const Record& r) override {
    if (abandoned_.count(r->uniqueId())) return;
    // The file is registered with the recent items right after the removal.
    platform::dispatchAsyncMain([this] {
      auto items = DFRecentItemsSource::sharedInstance()->items();
      for (auto it = items.rbegin(); it != items.rend(); ++it) {  // oldest first
        if (!reported_.insert(it->path).second) continue;
        printer_.finish();
        std::cout << it->path << std::endl;
      }
    });
  }

  bool failed = false;

 private:
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
  std::shared_ptr<DFDownloadManager> manager;
  size_t pending = urls.size();
  bool refused = false;
  platform::dispatchAsyncMain([&] {
    auto network = platform::NetworkMonitor::sharedInstance();
    if (network && !network->internetAvailable())
      printer.message("shelf: no network connection (no default route); waiting for one");
    manager = DFDownloadManager::init();
    manager->addDelegate(observer);
    for (const auto& url : urls) {
      manager->downloadFileWithURL(url, [&, url](const DFDownloadManager::Record& r, const std::optional<std::string>& m) {
        --pending;
        if (!r) {
          refused = true;
          printer.message("shelf: " + url.absoluteString() + ": " + m.value_or("refused"));
        }
      });
    }
  });
  loop->runUntil([&] { return interrupted || (manager && pending == 0 && manager->downloadOperations().empty()); },
                 std::chrono::milliseconds::max());
  loop->runFor(std::chrono::milliseconds(50));  // let the last placement be reported
  printer.finish();
  manager.reset();
  shelfkit::uninstallHostServices();
  platform::setLogSinkForTesting(nullptr);
  fs::remove_all(root, error);
  if (interrupted) return 130;
  return refused || observer->failed ? 1 : 0;
}
