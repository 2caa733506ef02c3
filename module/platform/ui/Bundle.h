// Resource bundles: a folder of images and a gettext text domain, found by the
// bundle's identifier. Modules register their bundle when they are loaded.
// Thread-safe.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace platform {

// What a control showing one of the bundle's images is called, from the
// "imageLabels" table of the bundle's Info.json:
//   "imageLabels": {"DFRemove": {"label": "Remove", "key": "Delete"}, ...}
// `label` is English, translated through the bundle's strings; `key` is the
// keyboard shortcut that presses the control (a KeyboardEvent key, with
// "Control+" for the control key), when it has one.
struct ImageLabel {
  std::string label;
  std::optional<std::string> key;
};

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
  // The label of the image `name`, translated, or none when the bundle names none.
  std::optional<ImageLabel> labelForImage(const std::string& name) const;
  // The bundle of an address made by urlForImage, and the image's name; none for any other address.
  static std::optional<std::pair<std::shared_ptr<Bundle>, std::string>> bundleForImageURL(const std::string& url);

 private:
  const std::string identifier_, path_, textDomain_;
  std::map<std::string, ImageLabel> imageLabels_;  // read from Info.json when made
};

}  // namespace platform
