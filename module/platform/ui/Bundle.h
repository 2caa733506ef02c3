// Resource bundles: a folder of images and a gettext text domain, found by the
// bundle's identifier. Modules register their bundle when they are loaded.
// Thread-safe.
#pragma once

#include <memory>
#include <string>

namespace platform {

class Bundle {
 public:
  // Registers the folder `path` (holding images/NAME.svg and
  // locale/LL/LC_MESSAGES/textDomain.mo) under `identifier`, and binds the text domain.
  static void registerBundle(const std::string& identifier, const std::string& path, const std::string& textDomain);
  // The registered bundle, or null.
  static std::shared_ptr<Bundle> bundleWithIdentifier(const std::string& identifier);

  Bundle(std::string identifier, std::string path, std::string textDomain);
  const std::string& bundleIdentifier() const { return identifier_; }
  const std::string& bundlePath() const { return path_; }
  // The translation of `key` in the bundle's strings, or `key` (an empty `value` means key).
  std::string localizedStringForKey(const std::string& key, const std::string& value = "") const;
  // The SVG file of the image `name`, and the address the browser loads it from.
  std::string pathForImage(const std::string& name) const;
  std::string urlForImage(const std::string& name) const;
  // True iff `name` is a plain image name (letters, digits, '_' and '-').
  static bool isImageName(const std::string& name);

 private:
  const std::string identifier_, path_, textDomain_;
};

}  // namespace platform
