// The user-defaults store as a JSON file, rewritten atomically on synchronize().
#pragma once

#include <mutex>
#include <string>

#include "module/platform/UserDefaults.h"

namespace shelfkit {

class JsonUserDefaults : public platform::UserDefaults {
 public:
  // Reads `path` when it exists. A file that is not a JSON object is moved
  // aside (".corrupt"), logged, and the store starts empty.
  explicit JsonUserDefaults(std::string path);

  std::optional<nlohmann::json> objectForKey(const std::string& key) const override;
  void setObject(const nlohmann::json& value, const std::string& key) override;
  void removeObjectForKey(const std::string& key) override;
  bool synchronize() override;

  const std::string& path() const { return path_; }

 private:
  const std::string path_;
  mutable std::mutex mutex_;  // guards values_
  nlohmann::json values_ = nlohmann::json::object();
};

}  // namespace shelfkit
