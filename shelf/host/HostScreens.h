// The host's own screens: the documents folder, the recent items of every
// source, and the list of settings pages. Registered as side-menu entries.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>
#include <string>

#include "module/platform/ui/TableScreenController.h"

namespace shelf {

inline constexpr const char* kHostBundleIdentifier = "org.shelf.host";

struct HostScreenContext {
  std::string documentsDirectory;
  // Asks the browser tab the user acts in to open (or save) a same-origin address.
  std::function<void(const std::string& url, bool download)> open;
  // Shows a screen on top of the current one, in that tab.
  std::function<void(std::shared_ptr<platform::TableScreenController>)> push;
};

// REQUIRES: main thread. Adds "Documents", "Recent" and "Settings" to the side menu.
void registerHostScreens(HostScreenContext context);

// REQUIRES: main thread. The side-menu index of the host's Settings entry.
std::optional<int64_t> settingsMenuIndex();

// REQUIRES: main thread. Of `paths` (newest first), the files the documents folder
// still sends, at most kMaxFinishedFiles:
// [{"name", "url", "save"}] (addresses to open and to save), for the Downloads screen's "Finished" strip.
inline constexpr size_t kMaxFinishedFiles = 3;
nlohmann::json finishedFiles(const std::vector<std::string>& paths, const std::string& documentsDirectory);

// REQUIRES: main thread. The host changed the documents folder: the file lists on screen reload.
void documentsChanged();

// The address under which the server sends a file of the documents folder,
// or "" when `path` lies outside it.
std::string documentURLForPath(const std::string& documentsDirectory, const std::string& path);

}  // namespace shelf
