#include "shelf/host/AccessToken.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include <nlohmann/json.hpp>

#include "shelfkit/runtime/AtomicFile.h"

namespace shelf {
namespace {

std::string tokenPath(const shelfkit::RootLayout& layout) { return layout.library + "/AccessToken"; }
std::string serverInfoPath(const shelfkit::RootLayout& layout) { return layout.library + "/Server.json"; }

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) return std::nullopt;
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

std::optional<std::string> existingAccessToken(const shelfkit::RootLayout& layout) {
  auto text = readFile(tokenPath(layout));
  if (!text) return std::nullopt;
  while (!text->empty() && std::isspace(static_cast<unsigned char>(text->back()))) text->pop_back();
  if (text->size() < 32) return std::nullopt;
  return text;
}

std::string accessToken(const shelfkit::RootLayout& layout) {
  if (auto token = existingAccessToken(layout)) return *token;
  std::random_device random;  // the kernel's random source
  std::string token;
  char hex[9];
  for (int i = 0; i < 4; ++i) {
    std::snprintf(hex, sizeof hex, "%08x", static_cast<unsigned>(random()));
    token += hex;
  }
  const mode_t previous = ::umask(077);  // never readable by others, not even for a moment
  shelfkit::writeFileAtomically(tokenPath(layout), token + "\n");
  ::umask(previous);
  return token;
}

void writeServerInfo(const shelfkit::RootLayout& layout, const ServerInfo& info) {
  nlohmann::json json = {{"url", info.url}, {"port", info.port}, {"pid", ::getpid()}};
  shelfkit::writeFileAtomically(serverInfoPath(layout), json.dump(2));
}

std::optional<ServerInfo> readServerInfo(const shelfkit::RootLayout& layout) {
  auto text = readFile(serverInfoPath(layout));
  if (!text) return std::nullopt;
  auto json = nlohmann::json::parse(*text, nullptr, false);
  if (!json.is_object() || !json.value("url", nlohmann::json()).is_string()) return std::nullopt;
  return ServerInfo{json["url"].get<std::string>(), json.value("port", uint16_t{0})};
}

void removeServerInfo(const shelfkit::RootLayout& layout) { std::remove(serverInfoPath(layout).c_str()); }

}  // namespace shelf
