#include "shelf/GetCommand.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>

#include <boost/asio/signal_set.hpp>

#include "module/platform/DownloadService.h"
#include "module/platform/Log.h"
#include "module/platform/MainQueue.h"
#include "module/platform/NetworkMonitor.h"
#include "module/platform/UserDefaults.h"
#include "shelf/AddressList.h"
#include "shelf/GetQueueFollower.h"
#include "shelf/GetStateFolder.h"
#include "shelf/ProgressPrinter.h"
#include "shelf/host/ModuleLoader.h"
#include "shelfkit/HostServices.h"

namespace fs = std::filesystem;

const char* const kGetStatusHelp =
    "Exit status:\n"
    "  0    every file was placed\n"
    "  1    an address was refused, or a download failed N times in a row (what arrived is kept)\n"
    "  2    bad input: an address, the list, the folder, or another run using the folder\n"
    "  130  interrupted by SIGINT or SIGTERM (what arrived is kept; the same command resumes)";

namespace {

// The module's "downloads permitted" setting: held off while a run decides
// which of the saved downloads run, so that none starts before.
constexpr const char* kDownloadsPermittedPreference = "DFDownloadsPermittedPreference";
constexpr auto kRedrawInterval = std::chrono::milliseconds(200);

std::optional<platform::URL> webAddress(const std::string& text) {
  auto url = platform::URL::URLWithString(text);
  if (!url || (url->scheme() != "http" && url->scheme() != "https")) return std::nullopt;
  return url;
}

// The addresses of the command line, then those of the list. False (with every
// fault printed) when one is not a web address, the list cannot be read, or
// there is none at all.
bool collectAddresses(const GetOptions& options, std::vector<platform::URL>* urls) {
  bool good = true;
  for (const auto& text : options.urls) {
    if (auto url = webAddress(text)) {
      urls->push_back(*url);
    } else {
      std::cerr << "shelf: not a web address: " << text << "\n";
      good = false;
    }
  }
  if (options.inputFile) {
    std::vector<ListedAddress> listed;
    std::string error;
    if (!readAddressList(*options.inputFile, &listed, &error)) {
      std::cerr << "shelf: " << error << "\n";
      return false;
    }
    const std::string source = *options.inputFile == "-" ? "standard input" : *options.inputFile;
    for (const auto& entry : listed) {
      if (auto url = webAddress(entry.text)) {
        urls->push_back(*url);
      } else {
        std::cerr << "shelf: " << source << ":" << entry.line << ": not a web address: " << entry.text << "\n";
        good = false;
      }
    }
  }
  if (good && urls->empty()) {
    std::cerr << "shelf: no address to fetch (give addresses or -i FILE)\n";
    return false;
  }
  return good;
}

ProgressPrinter::Mode printerMode(const GetOptions& options) {
  if (options.quiet) return ProgressPrinter::Mode::Quiet;
  return ::isatty(STDERR_FILENO) ? ProgressPrinter::Mode::Terminal : ProgressPrinter::Mode::Log;
}

// Each address given takes up, in this order, a file an earlier run placed
// (that run was interrupted later), a saved download of the same address
// (switched on; it resumes), or else nothing: it is returned, to be fetched
// anew. Saved downloads of other addresses are switched off: they wait for a
// run that names them. With --restart, what was kept of the addresses goes.
std::vector<platform::URL> takeUpKeptWork(const GetOptions& options, const std::vector<platform::URL>& urls,
                                          const std::vector<platform::DownloadItem>& saved,
                                          platform::DownloadService& service, GetStateFolder& state,
                                          GetQueueFollower& follower, ProgressPrinter& printer) {
  std::map<std::string, std::deque<std::string>> placedByAddress;
  for (auto& entry : state.placed()) placedByAddress[entry.url].push_back(std::move(entry.path));
  std::map<std::string, std::deque<std::string>> savedByAddress;
  for (const auto& item : saved) savedByAddress[item.url].push_back(item.uniqueId);
  std::vector<platform::URL> fresh;
  std::set<std::string> resumed;
  for (const auto& url : urls) {
    const std::string address = url.absoluteString();
    auto& paths = placedByAddress[address];
    auto& ids = savedByAddress[address];
    if (options.restart) {
      if (!paths.empty()) state.forgetPlaced(address);
      paths.clear();
      for (; !ids.empty(); ids.pop_front()) service.removeDownload(ids.front());
    }
    while (!paths.empty() && !fs::exists(paths.front())) paths.pop_front();
    if (!paths.empty()) {
      printer.note("shelf: " + address + ": placed by an earlier run");
      printer.placed("", paths.front(), 0, ProgressPrinter::Clock::now());
      paths.pop_front();
    } else if (!ids.empty()) {
      resumed.insert(ids.front());
      follower.follow(ids.front());
      ids.pop_front();
    } else {
      fresh.push_back(url);
    }
  }
  for (const auto& item : service.downloads()) service.setActive(item.uniqueId, resumed.count(item.uniqueId) > 0);
  return fresh;
}

}  // namespace

int runGet(const GetOptions& options) {
  std::vector<platform::URL> urls;
  if (!collectAddresses(options, &urls)) return kGetBadInput;
  std::error_code error;
  fs::create_directories(options.outputDirectory, error);
  if (!fs::is_directory(options.outputDirectory)) {
    std::cerr << "shelf: cannot use the folder " << options.outputDirectory << "\n";
    return kGetBadInput;
  }
  GetStateFolder state(fs::absolute(options.outputDirectory).lexically_normal().string());
  std::string failure;
  switch (state.open(&failure)) {
    case GetStateFolder::Opened::Ready:
      break;
    case GetStateFolder::Opened::Busy:
      std::cerr << "shelf: another `shelf get` is using " << state.layout().documents
                << "; wait for it to end (or give another folder with -o)\n";
      return kGetBadInput;
    case GetStateFolder::Opened::Failed:
      std::cerr << "shelf: cannot use the folder " << options.outputDirectory << ": " << failure << "\n";
      return kGetBadInput;
  }
  if (!options.verbose) platform::setLogSinkForTesting([](const std::string&) {});

  auto loop = std::make_shared<shelfkit::MainLoop>();
  shelfkit::installHostServices(state.layout(), loop);
  auto defaults = platform::UserDefaults::standardUserDefaults();
  defaults->setBool(false, kDownloadsPermittedPreference);
  defaults->synchronize();
  boost::asio::signal_set signals(loop->context(), SIGINT, SIGTERM);
  bool interrupted = false;
  signals.async_wait([&](const boost::system::error_code& e, int) {
    if (!e) interrupted = true;
  });

  ProgressPrinter printer(printerMode(options), stderr, stdout);
  auto follower = std::make_shared<GetQueueFollower>(options.tries, printer);
  std::unique_ptr<platform::RepeatingTimer> redraw;
  std::shared_ptr<platform::DownloadService> service;
  size_t pending = urls.size();
  bool refused = false;
  int status = kGetAllPlaced;
  platform::dispatchAsyncMain([&] {
    std::vector<std::string> errors;
    shelf::loadModules(shelf::defaultModulesDirectory(), &errors);
    for (const auto& line : errors) printer.error("shelf: " + line);
    service = platform::DownloadService::sharedInstance();
    if (!service) {
      printer.error("shelf: the download module is not installed in " + shelf::defaultModulesDirectory());
      status = kGetSomeFailed;
      return;
    }
    follower->ignorePlacedBefore();
    // The first call restores the saved queue; nothing starts yet. A file
    // placed just before the last run ended is reported now.
    const auto saved = service->downloads();
    follower->reportPlacements();

    const std::vector<platform::URL> fresh = takeUpKeptWork(options, urls, saved, *service, state, *follower, printer);
    follower->onPlaced = [&state](const std::string& url, const std::string& path) { state.notePlaced(url, path); };
    service->addObserver(follower);
    auto settings = service->settings();
    settings.downloadsPermitted = true;
    service->setSettings(settings);

    auto network = platform::NetworkMonitor::sharedInstance();
    if (network && !network->internetAvailable())
      printer.note("shelf: no network connection (no default route); waiting for one");
    pending = fresh.size();
    for (const auto& url : fresh) {
      service->addDownload(url, std::nullopt,
                           [&, url](const std::optional<platform::DownloadItem>& item, const std::optional<std::string>& m) {
                             --pending;
                             if (!item) {
                               refused = true;
                               printer.error("shelf: " + url.absoluteString() + ": " + m.value_or("refused"));
                             }
                           });
    }
    if (printerMode(options) == ProgressPrinter::Mode::Terminal)
      redraw = platform::scheduledTimer(kRedrawInterval, [&] { printer.redraw(ProgressPrinter::Clock::now()); });
  });
  loop->runUntil(
      [&] { return interrupted || status != kGetAllPlaced || (service && pending == 0 && follower->done()); },
      std::chrono::milliseconds::max());
  loop->runFor(std::chrono::milliseconds(50));  // lets the last switch-offs and clean-ups run
  if (redraw) redraw->invalidate();
  printer.finish();

  const bool nothingKept = service && service->downloads().empty();
  if (nothingKept) {
    state.remove();
  } else if (interrupted) {
    printer.error("shelf: interrupted; what arrived is kept in " + state.path() +
                  ": run the same command again to resume");
  }
  service.reset();
  shelfkit::uninstallHostServices();
  platform::setLogSinkForTesting(nullptr);
  if (interrupted) return kGetInterrupted;
  if (status != kGetAllPlaced) return status;
  return refused || follower->gaveUp() ? kGetSomeFailed : kGetAllPlaced;
}
