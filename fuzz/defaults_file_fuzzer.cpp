// A defaults file of any bytes. A JSON object is read as the store; anything
// else is kept aside as ".corrupt" with its bytes intact, logged once, and the
// store starts empty. Either way a value set and synchronized reads back after
// reopening, and the keys that were read survive the rewrite.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <nlohmann/json.hpp>

#include "module/platform/Log.h"
#include "shelfkit/runtime/JsonUserDefaults.h"
#include "fuzz/FuzzCheck.h"

namespace {

constexpr const char* kFolderPrefix = "shelf-defaults-fuzz.";
std::string gDirectory;
std::string gPath;
int gLogLines = 0;

const char* const kKeys[] = {"DFMaxActiveDownloadCountPreference", "DFUseCellularDataPreference",
                             "DFDownloadsPermittedPreference", "ShelfOfferedTipsPreference", ""};

bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

std::string contentsOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

size_t fileCount() {
  std::error_code error;
  size_t count = 0;
  for (auto it = std::filesystem::directory_iterator(gDirectory, error); !error && it != std::filesystem::directory_iterator();
       it.increment(error))
    ++count;
  return count;
}

void removeFiles() {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(gDirectory, error))
    std::filesystem::remove(entry.path(), error);
}

void removeDirectory() {
  std::error_code error;
  std::filesystem::remove_all(gDirectory, error);
}

// A run that crashed could not remove its folder; the next one does.
void removeFoldersOfDeadRuns(const std::filesystem::path& base) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(base, error)) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with(kFolderPrefix)) continue;
    const long pid = std::strtol(name.c_str() + std::strlen(kFolderPrefix), nullptr, 10);
    if (pid > 0 && ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
      std::filesystem::remove_all(entry.path(), error);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // One folder per process, in memory when possible: synchronize() fsyncs.
  std::error_code error;
  std::filesystem::path base = std::filesystem::is_directory("/dev/shm", error)
                                   ? std::filesystem::path("/dev/shm")
                                   : std::filesystem::temp_directory_path();
  removeFoldersOfDeadRuns(base);
  gDirectory = (base / (kFolderPrefix + std::to_string(::getpid()))).string();
  std::filesystem::create_directories(gDirectory, error);
  gPath = gDirectory + "/preferences.json";
  std::atexit(removeDirectory);
  platform::setLogSinkForTesting([](const std::string&) { ++gLogLines; });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  removeFiles();
  {
    std::ofstream out(gPath, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    CHECK(out.good());
  }
  const auto parsed = nlohmann::json::parse(bytes, nullptr, /*allow_exceptions=*/false);
  const bool valid = parsed.is_object();

  gLogLines = 0;
  nlohmann::json read = nlohmann::json::object();
  {
    shelfkit::JsonUserDefaults defaults(gPath);
    if (valid) {
      CHECK(gLogLines == 0);
      CHECK(exists(gPath) && !exists(gPath + ".corrupt"));
    } else {
      CHECK(gLogLines == 1);
      CHECK(!exists(gPath));
      CHECK(contentsOf(gPath + ".corrupt") == bytes);
    }

    for (const char* key : kKeys) {
      auto object = defaults.objectForKey(key);
      const bool stored = valid && parsed.contains(key);
      CHECK(object.has_value() == stored);
      if (stored) CHECK(*object == parsed[key]);
      auto integer = defaults.integerForKey(key);
      auto boolean = defaults.boolForKey(key);
      if (!stored) CHECK(!integer && !boolean);
      if (stored && (object->is_boolean() || object->is_number() || object->is_string())) CHECK(integer && boolean);
      if (object) read[key] = *object;
    }
    // A few of the file's own keys as well.
    if (valid) {
      int n = 0;
      for (const auto& [key, value] : parsed.items()) {
        if (++n > 8) break;
        auto object = defaults.objectForKey(key);
        CHECK(object && *object == value);
        (void)defaults.integerForKey(key);
        (void)defaults.boolForKey(key);
        read[key] = value;
      }
    }

    // Set a value taken from the input, then write the store.
    uint64_t hash = size;
    for (size_t i = 0; i < size && i < 8; ++i) hash = hash * 131 + data[i];
    const auto value = static_cast<int64_t>(hash);
    defaults.setInteger(value, kKeys[0]);
    read[kKeys[0]] = value;
    defaults.setBool((size & 1) != 0, kKeys[1]);
    read[kKeys[1]] = (size & 1) != 0;
    defaults.removeObjectForKey(kKeys[2]);
    read.erase(kKeys[2]);
    CHECK(defaults.synchronize());
    CHECK(fileCount() == (valid ? 1u : 2u));  // no temporary file left behind
    CHECK(defaults.integerForKey(kKeys[0]) == value);
  }

  gLogLines = 0;
  {
    shelfkit::JsonUserDefaults reopened(gPath);
    CHECK(gLogLines == 0);
    CHECK(exists(gPath + ".corrupt") == !valid);
    CHECK(reopened.integerForKey(kKeys[0]) == read[kKeys[0]].get<int64_t>());
    CHECK(reopened.boolForKey(kKeys[1]) == read[kKeys[1]].get<bool>());
    CHECK(!reopened.objectForKey(kKeys[2]));
    for (const auto& [key, value] : read.items()) {
      auto object = reopened.objectForKey(key);
      CHECK(object);
      CHECK(*object == value);
    }
  }
  removeFiles();
  return 0;
}
