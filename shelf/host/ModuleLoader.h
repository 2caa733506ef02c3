// Loads the host's modules: every NAME.bundle folder in the modules folder
// whose Info.json names an executable. Loading a module runs its load hooks,
// which register its entries with the host.
#pragma once

#include <string>
#include <vector>

namespace shelf {

struct LoadedModule {
  std::string identifier;
  std::string path;  // the bundle folder
};

// The modules folder: $SHELF_MODULES_DIR, or "modules" beside the executable.
std::string defaultModulesDirectory();

// REQUIRES: main thread, with the host's services installed (load hooks use them).
// Loads the modules in name order; writes a line to `errors` for each that fails.
std::vector<LoadedModule> loadModules(const std::string& directory, std::vector<std::string>* errors);

}  // namespace shelf
