// shelf: the host application. For now it runs the main loop with the download
// module's manager and prints the restored queue; the web UI comes later.
#include <clocale>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <boost/asio/signal_set.hpp>

#include "module/core/DFDownloadManager.h"
#include "module/platform/MediaLibraryProbe.h"
#include "shelf/GetCommand.h"
#include "shelfkit/HostServices.h"

namespace {

struct ServeOptions {
  std::optional<std::string> root;
  std::optional<std::string> documents;
};

int serve(const ServeOptions& options) {
  shelfkit::RootLayout layout = shelfkit::RootLayout::resolve(options.root, options.documents);
  std::string error;
  if (!layout.create(&error)) {
    std::cerr << "shelf: " << error << "\n";
    return 1;
  }
  shelfkit::RootLock lock(layout);
  if (!lock.held()) {
    std::cerr << "shelf: another shelf is already running with the root " << layout.root << "\n";
    return 1;
  }

  auto loop = std::make_shared<shelfkit::MainLoop>();
  shelfkit::installHostServices(layout, loop);

  boost::asio::signal_set signals(loop->context(), SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code&, int) { loop->stop(); });

  platform::dispatchAsyncMain([&layout] {
    auto manager = DFDownloadManager::sharedInstance();
    auto queue = manager->downloadOperations();
    std::cout << "shelf: root " << layout.root << ", documents " << layout.documents << "\n";
    std::cout << "shelf: " << queue.size() << " download(s) in the queue\n";
    for (const auto& record : queue) {
      std::cout << "  " << record->priority() << "  " << (record->active() ? "active  " : "inactive") << "  "
                << record->position() << "/" << record->size() << "  "
                << record->outputFilename().value_or(record->url().absoluteString()) << "\n";
    }
    std::cout << std::flush;
  });
  loop->run();
  shelfkit::uninstallHostServices();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  CLI::App app{"shelf: a personal file shelf with a download queue"};
  app.require_subcommand(0, 1);

  ServeOptions serveOptions;
  CLI::App* serveCommand = app.add_subcommand("serve", "Run the host (the default)");
  for (CLI::App* command : {&app, serveCommand}) {
    command->add_option("--root", serveOptions.root, "Folder holding Library/ and Documents/");
    command->add_option("--documents", serveOptions.documents, "Documents folder (default: ROOT/Documents)");
  }

  GetOptions getOptions;
  CLI::App* getCommand = app.add_subcommand("get", "Download the addresses into a folder, then exit");
  getCommand->add_option("urls", getOptions.urls, "Web addresses")->required();
  getCommand->add_option("-o,--output", getOptions.outputDirectory, "Folder for the files (default: here)");
  getCommand->add_option("--tries", getOptions.tries, "Failures in a row before giving up (0: keep retrying)")
      ->check(CLI::NonNegativeNumber);
  getCommand->add_flag("-v,--verbose", getOptions.verbose, "Print the module's log");

  bool noMedia = false;
  for (CLI::App* command : {&app, serveCommand, getCommand})
    command->add_flag("--no-media", noMedia, "Run without the media library: playlists are fetched as plain files");

  CLI11_PARSE(app, argc, argv);
  if (noMedia) platform::MediaLibraryProbe::setEnabled(false);
  if (getCommand->parsed()) return runGet(getOptions);
  return serve(serveOptions);
}
