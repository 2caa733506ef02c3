#include "module/platform/ui/Bundle.h"

#include <cctype>
#include <fstream>
#include <map>
#include <mutex>

#include <nlohmann/json.hpp>

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
    : identifier_(std::move(identifier)), path_(std::move(path)), textDomain_(std::move(textDomain)) {
  std::ifstream in(path_ + "/Info.json");
  if (!in) return;
  const auto info = nlohmann::json::parse(in, nullptr, false);
  if (!info.is_object() || !info.contains("imageLabels") || !info["imageLabels"].is_object()) return;
  // Entries of another shape are left out, one by one.
  for (const auto& [name, entry] : info["imageLabels"].items()) {
    if (!isImageName(name) || !entry.is_object() || !entry.contains("label") || !entry["label"].is_string()) continue;
    ImageLabel label{entry["label"].get<std::string>(), std::nullopt};
    if (entry.contains("key") && entry["key"].is_string()) label.key = entry["key"].get<std::string>();
    imageLabels_.emplace(name, std::move(label));
  }
}

std::optional<ImageLabel> Bundle::labelForImage(const std::string& name) const {
  auto found = imageLabels_.find(name);
  if (found == imageLabels_.end()) return std::nullopt;
  ImageLabel label = found->second;
  label.label = localizedStringForKey(label.label);
  return label;
}

std::optional<std::pair<std::shared_ptr<Bundle>, std::string>> Bundle::bundleForImageURL(const std::string& url) {
  constexpr std::string_view kPrefix = "/bundles/", kImages = "/images/", kSuffix = ".svg";
  if (!url.starts_with(kPrefix) || !url.ends_with(kSuffix)) return std::nullopt;
  const auto images = url.find(kImages, kPrefix.size());
  if (images == std::string::npos) return std::nullopt;
  auto bundle = bundleWithIdentifier(url.substr(kPrefix.size(), images - kPrefix.size()));
  const auto nameStart = images + kImages.size();
  if (!bundle || url.size() < nameStart + kSuffix.size()) return std::nullopt;
  std::string name = url.substr(nameStart, url.size() - nameStart - kSuffix.size());
  if (!isImageName(name)) return std::nullopt;
  return std::make_pair(std::move(bundle), std::move(name));
}

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
