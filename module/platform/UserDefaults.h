// The per-user defaults store: typed values by key, written to disk on synchronize().
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace platform {

class UserDefaults {
 public:
  virtual ~UserDefaults() = default;

  // The store the host installed. REQUIRES: the host (or a test) installed one.
  static std::shared_ptr<UserDefaults> standardUserDefaults();
  static void setStandardUserDefaults(std::shared_ptr<UserDefaults> defaults);

  // The stored value, or none when the key is absent.
  virtual std::optional<nlohmann::json> objectForKey(const std::string& key) const = 0;
  virtual void setObject(const nlohmann::json& value, const std::string& key) = 0;
  virtual void removeObjectForKey(const std::string& key) = 0;
  // Writes the store to disk now. Returns false when the write failed; the
  // previous file is then left as it was.
  virtual bool synchronize() = 0;

  // Conveniences over objectForKey/setObject.
  void setInteger(int64_t value, const std::string& key) { setObject(value, key); }
  void setBool(bool value, const std::string& key) { setObject(value, key); }
  // The stored object's integer value (numbers, booleans, numeric text); none otherwise.
  std::optional<int64_t> integerForKey(const std::string& key) const;
  // The stored object's boolean value (booleans, numbers, "YES"/"true" text); none otherwise.
  std::optional<bool> boolForKey(const std::string& key) const;
};

}  // namespace platform
