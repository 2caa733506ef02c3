// The module's registration with the host, run once from the class-load hooks.
#pragma once

// Adds the "Downloads" side-menu entry (priority 40) that opens the downloads screen.
class DFMenu {
 public:
  static void load();
};

// Adds the "Downloads" settings entry (priority 6).
class DFSettings {
 public:
  static void load();
};

// The module's marker class; nothing sends it messages.
class DownloaderFramework {};
