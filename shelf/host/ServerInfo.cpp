#include "shelf/host/ServerInfo.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "shelf/server/RequestGuard.h"
#include "shelfkit/runtime/AtomicFile.h"

namespace shelf {
namespace {

std::string serverInfoPath(const shelfkit::RootLayout& layout) { return layout.library + "/Server.json"; }

}  // namespace

void writeServerInfo(const shelfkit::RootLayout& layout, const ServerInfo& info) {
  nlohmann::json json = {{"url", info.url}, {"address", info.address}, {"port", info.port}, {"pid", ::getpid()}};
  shelfkit::writeFileAtomically(serverInfoPath(layout), json.dump(2));
}

std::optional<ServerInfo> readServerInfo(const shelfkit::RootLayout& layout) {
  std::ifstream in(serverInfoPath(layout));
  if (!in) return std::nullopt;
  std::stringstream text;
  text << in.rdbuf();
  const auto json = nlohmann::json::parse(text.str(), nullptr, false);
  if (!json.is_object()) return std::nullopt;
  auto url = json.find("url"), address = json.find("address"), port = json.find("port");
  if (url == json.end() || !url->is_string()) return std::nullopt;
  if (port == json.end() || !port->is_number_unsigned()) return std::nullopt;
  const uint64_t number = port->get<uint64_t>();
  if (number == 0 || number > 65535) return std::nullopt;
  ServerInfo info{url->get<std::string>(), "127.0.0.1", static_cast<uint16_t>(number)};
  if (address != json.end()) {  // older hosts did not record it: they listened on loopback
    if (!address->is_string() || address->get<std::string>().empty()) return std::nullopt;
    info.address = address->get<std::string>();
  }
  return info;
}

void removeServerInfo(const shelfkit::RootLayout& layout) { std::remove(serverInfoPath(layout).c_str()); }

std::string localBaseURL(const ServerInfo& info) {
  // The server listens on IP literals, or on 127.0.0.1 for "localhost".
  std::string host = info.address;
  const bool v6 = host.find(':') != std::string::npos;
  if (isWildcardAddress(host)) host = v6 ? "::1" : "127.0.0.1";
  else if (!v6 && host.find_first_not_of("0123456789.") != std::string::npos) host = "127.0.0.1";
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  return "http://" + host + ":" + std::to_string(info.port);
}

}  // namespace shelf
