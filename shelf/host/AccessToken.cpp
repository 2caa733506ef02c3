#include "shelf/host/AccessToken.h"

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "shelfkit/runtime/AtomicFile.h"

namespace shelf {
namespace {

std::string tokenPath(const shelfkit::RootLayout& layout) { return layout.library + "/AccessToken"; }

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

}  // namespace shelf
