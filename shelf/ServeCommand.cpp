#include "shelf/ServeCommand.h"

#include <chrono>
#include <filesystem>
#include <iostream>

#include <boost/asio/signal_set.hpp>
#include <nlohmann/json.hpp>

#include "module/platform/Localization.h"
#include "module/platform/MainQueue.h"
#include "module/platform/ui/Bundle.h"
#include "module/platform/DownloadService.h"
#include "module/platform/NetworkMonitor.h"
#include "shelf/host/AccessToken.h"
#include "shelf/host/DownloadActivity.h"
#include "shelf/host/Api.h"
#include "shelf/host/FileResolver.h"
#include "shelf/host/HostScreens.h"
#include "shelf/host/ModuleLoader.h"
#include "shelf/host/ServerInfo.h"
#include "shelf/host/WebBridge.h"
#include "shelf/server/WebServer.h"
#include "shelfkit/HostServices.h"
#include "shelfkit/runtime/AtomicFile.h"

namespace fs = std::filesystem;

namespace {

constexpr uint16_t kUsualPort = 8787;

// The front end: $SHELF_WEB_DIR, "web" beside the modules folder, or the source tree's.
std::string webDirectory(const std::string& modulesDirectory) {
  if (const char* directory = std::getenv("SHELF_WEB_DIR"); directory && *directory) return directory;
  fs::path beside = fs::path(modulesDirectory).parent_path() / "web";
  if (fs::is_regular_file(beside / "index.html")) return beside.string();
  return SHELF_WEB_SOURCE_DIR;
}

}  // namespace

int runServe(const ServeOptions& options) {
  shelfkit::RootLayout layout = shelfkit::RootLayout::resolve(options.root, options.documents);
  std::string error;
  if (!layout.create(&error)) {
    std::cerr << "shelf: " << error << "\n";
    return 1;
  }
  shelfkit::RootLock lock(layout);
  if (!lock.held()) {
    auto running = shelf::readServerInfo(layout);
    std::cerr << "shelf: another shelf already serves the root " << layout.root
              << (running ? " at " + running->url : std::string()) << "\n";
    return 1;
  }
  shelf::removeServerInfo(layout);  // left by a host that ended without removing it
  if (!options.language.empty()) platform::setPreferredLanguage(options.language);

  auto loop = std::make_shared<shelfkit::MainLoop>();
  shelfkit::installHostServices(layout, loop);
  const std::string modules = shelf::defaultModulesDirectory();
  const std::string web = webDirectory(modules);
  platform::bindTextDomain("shelf", (fs::path(modules).parent_path() / "locale").string());
  platform::Bundle::registerBundle(shelf::kHostBundleIdentifier, web, "");

  auto bridge = shelf::WebBridge::create();
  bridge->installPresenters();
  shelf::registerHostScreens({layout.documents,
                              [bridge](const std::string& url, bool download) {
                                if (auto session = bridge->activeSession())
                                  session->sendMessage({{"t", "open"}, {"url", url}, {"download", download}});
                              },
                              [bridge](std::shared_ptr<platform::TableScreenController> controller) {
                                if (auto session = bridge->activeSession()) session->push(std::move(controller));
                              }});
  std::vector<std::string> errors;
  auto loaded = shelf::loadModules(modules, &errors);
  for (const auto& line : errors) std::cerr << "shelf: " << line << "\n";
  if (auto service = platform::DownloadService::sharedInstance()) {
    shelf::DownloadActivity::start();
    bridge->startActivityUpdates([service, documents = layout.documents] {
      const auto settings = service->settings();
      auto network = platform::NetworkMonitor::sharedInstance();
      const bool usable = !network || (network->internetAvailable() &&
                                       (settings.useCellularData || network->internetViaWiFiAvailable()));
      const double wallNow = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
      auto activity = shelf::DownloadActivity::sharedInstance();
      auto message = activity->message(service->downloads(), settings, usable, shelf::settingsMenuIndex(),
                                       shelf::DownloadActivity::Clock::now(), wallNow);
      message["finished"] = shelf::finishedFiles(activity->finished(), documents);
      return message;
    });
  }

  shelf::WebServerOptions serverOptions;
  serverOptions.listenAddress = options.listen;
  serverOptions.port = options.port.value_or(0);
  if (!shelf::isLoopbackAddress(options.listen)) serverOptions.accessToken = shelf::accessToken(layout);
  const std::string documents = layout.documents;
  auto resolver = std::make_shared<shelf::FileResolver>(web, documents);
  shelf::WebServerHandlers handlers;
  handlers.api = [documents](shelf::HttpRequest request, std::function<void(shelf::HttpResponse)> respond) {
    platform::dispatchAsyncMain([documents, request = std::move(request), respond = std::move(respond)] {
      shelf::handleApiRequest(request, documents, respond);
    });
  };
  handlers.resolveFile = [resolver](const shelf::HttpRequest& request) { return resolver->resolve(request); };
  handlers.opened = [bridge](std::shared_ptr<shelf::WebSocketConnection> c) { bridge->opened(std::move(c)); };
  handlers.message = [bridge](uint64_t id, std::string text) { bridge->message(id, std::move(text)); };
  handlers.closed = [bridge](uint64_t id) { bridge->closed(id); };
  std::unique_ptr<shelf::WebServer> server;
  if (!options.port) {
    // The usual port keeps bookmarks working; any free one will do when it is taken.
    serverOptions.port = kUsualPort;
    server = shelf::WebServer::start(serverOptions, handlers, &error);
    serverOptions.port = 0;
  }
  if (!server) server = shelf::WebServer::start(serverOptions, std::move(handlers), &error);
  if (!server) {
    std::cerr << "shelf: " << error << "\n";
    shelfkit::uninstallHostServices();
    return 1;
  }
  shelf::writeServerInfo(layout, {server->url(), options.listen, server->port()});
  std::cout << "shelf: root " << layout.root << ", documents " << layout.documents << ", " << loaded.size()
            << " module(s)\n";
  std::cout << "shelf: open " << server->url() << std::endl;

  boost::asio::signal_set signals(loop->context(), SIGINT, SIGTERM);
  signals.async_wait([&](const boost::system::error_code&, int) { loop->stop(); });
  loop->run();
  server->stop();
  shelf::removeServerInfo(layout);
  shelfkit::uninstallHostServices();
  return 0;
}
