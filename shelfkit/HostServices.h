// Installs the Linux implementations behind the module's platform interfaces.
#pragma once

#include <memory>

#include "shelfkit/runtime/MainLoop.h"
#include "shelfkit/runtime/RootLayout.h"

namespace shelfkit {

// REQUIRES: main thread; `layout` exists (RootLayout::create).
// Installs the main loop, the defaults store, the file manager, the record
// databases (in Library/Databases) and the rtnetlink network monitor. Removes
// the transfer bodies an earlier process left in Library/Caches.
void installHostServices(const RootLayout& layout, std::shared_ptr<MainLoop> loop);

// Drops every installed service (for orderly shutdown and tests).
void uninstallHostServices();

}  // namespace shelfkit
