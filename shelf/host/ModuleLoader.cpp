#include "shelf/host/ModuleLoader.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "module/platform/ui/Bundle.h"

namespace fs = std::filesystem;

namespace shelf {

std::string defaultModulesDirectory() {
  if (const char* directory = std::getenv("SHELF_MODULES_DIR"); directory && *directory) return directory;
  std::error_code error;
  fs::path executable = fs::read_symlink("/proc/self/exe", error);
  fs::path directory = error ? fs::current_path() : executable.parent_path();
  // Installed, the modules lie beside the executable; in a build tree, one level up.
  if (!fs::is_directory(directory / "modules") && fs::is_directory(directory.parent_path() / "modules"))
    return (directory.parent_path() / "modules").string();
  return (directory / "modules").string();
}

std::vector<LoadedModule> loadModules(const std::string& directory, std::vector<std::string>* errors) {
  std::vector<LoadedModule> loaded;
  std::vector<fs::path> bundles;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory, error))
    if (entry.is_directory() && entry.path().extension() == ".bundle") bundles.push_back(entry.path());
  if (error && errors) errors->push_back("cannot read the modules folder " + directory + ": " + error.message());
  std::sort(bundles.begin(), bundles.end());

  for (const auto& bundle : bundles) {
    std::ifstream in(bundle / "Info.json");
    auto info = nlohmann::json::parse(in, nullptr, false);
    if (!info.is_object() || !info.value("identifier", nlohmann::json()).is_string() ||
        !info.value("executable", nlohmann::json()).is_string()) {
      if (errors) errors->push_back(bundle.string() + ": no valid Info.json");
      continue;
    }
    const std::string identifier = info["identifier"];
    const fs::path executable = bundle / info["executable"].get<std::string>();
    if (executable.parent_path() != bundle) {
      if (errors) errors->push_back(bundle.string() + ": the executable must lie in the bundle");
      continue;
    }
    // The bundle is registered first, so the load hooks find their strings and images.
    platform::Bundle::registerBundle(identifier, bundle.string(), info.value("textDomain", ""));
    if (!dlopen(executable.c_str(), RTLD_NOW | RTLD_LOCAL)) {
      if (errors) errors->push_back(executable.string() + ": " + dlerror());
      continue;
    }
    loaded.push_back({identifier, bundle.string()});
  }
  return loaded;
}

}  // namespace shelf
