#include "module/platform/ui/Bundle.h"

#include <cctype>
#include <map>
#include <mutex>

#include "module/platform/Localization.h"

namespace platform {
namespace {

std::mutex gMutex;
std::map<std::string, std::shared_ptr<Bundle>> gBundles;  // by identifier; guarded by gMutex

}  // namespace

void Bundle::registerBundle(const std::string& identifier, const std::string& path, const std::string& textDomain) {
  if (!textDomain.empty()) bindTextDomain(textDomain, path + "/locale");
  std::lock_guard lock(gMutex);
  gBundles[identifier] = std::make_shared<Bundle>(identifier, path, textDomain);
}

std::shared_ptr<Bundle> Bundle::bundleWithIdentifier(const std::string& identifier) {
  std::lock_guard lock(gMutex);
  auto found = gBundles.find(identifier);
  return found == gBundles.end() ? nullptr : found->second;
}

Bundle::Bundle(std::string identifier, std::string path, std::string textDomain)
    : identifier_(std::move(identifier)), path_(std::move(path)), textDomain_(std::move(textDomain)) {}

std::string Bundle::localizedStringForKey(const std::string& key, const std::string& value) const {
  const std::string& english = value.empty() ? key : value;
  if (textDomain_.empty()) return english;
  std::string translated = localizedString(textDomain_.c_str(), key.c_str());
  return translated == key ? english : translated;
}

bool Bundle::isImageName(const std::string& name) {
  if (name.empty() || name.size() > 100) return false;
  for (char c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-') return false;
  return true;
}

std::string Bundle::pathForImage(const std::string& name) const {
  return isImageName(name) ? path_ + "/images/" + name + ".svg" : std::string();
}

std::string Bundle::urlForImage(const std::string& name) const {
  return isImageName(name) ? "/bundles/" + identifier_ + "/images/" + name + ".svg" : std::string();
}

}  // namespace platform
