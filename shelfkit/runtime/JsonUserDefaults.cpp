#include "shelfkit/runtime/JsonUserDefaults.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "module/platform/Log.h"
#include "shelfkit/runtime/AtomicFile.h"

namespace shelfkit {

JsonUserDefaults::JsonUserDefaults(std::string path) : path_(std::move(path)) {
  std::ifstream in(path_, std::ios::binary);
  if (!in) return;
  std::stringstream buffer;
  buffer << in.rdbuf();
  auto parsed = nlohmann::json::parse(buffer.str(), nullptr, /*allow_exceptions=*/false);
  if (parsed.is_object()) {
    values_ = std::move(parsed);
    return;
  }
  std::string aside = moveAside(path_);
  platform::log("defaults: " + path_ + " is not a valid defaults file; kept aside as " + aside +
                ", using the defaults");
}

std::optional<nlohmann::json> JsonUserDefaults::objectForKey(const std::string& key) const {
  std::lock_guard lock(mutex_);
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return *it;
}

void JsonUserDefaults::setObject(const nlohmann::json& value, const std::string& key) {
  std::lock_guard lock(mutex_);
  values_[key] = value;
}

void JsonUserDefaults::removeObjectForKey(const std::string& key) {
  std::lock_guard lock(mutex_);
  values_.erase(key);
}

bool JsonUserDefaults::synchronize() {
  std::string text;
  {
    std::lock_guard lock(mutex_);
    text = values_.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  }
  if (writeFileAtomically(path_, text)) return true;
  platform::log("defaults: could not write " + path_);
  return false;
}

}  // namespace shelfkit

namespace platform {

std::optional<int64_t> UserDefaults::integerForKey(const std::string& key) const {
  auto value = objectForKey(key);
  if (!value) return std::nullopt;
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  if (value->is_number_unsigned()) return static_cast<int64_t>(std::min<uint64_t>(value->get<uint64_t>(), kMax));
  if (value->is_number_integer()) return value->get<int64_t>();
  if (value->is_number_float()) {
    // A value beyond the 64-bit range (a hand-edited file) is clamped, not cast.
    const double number = value->get<double>();
    if (std::isnan(number)) return std::nullopt;
    if (number >= 9223372036854775807.0) return kMax;
    if (number <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(number);
  }
  if (value->is_boolean()) return value->get<bool>() ? 1 : 0;
  if (value->is_string()) return std::strtoll(value->get<std::string>().c_str(), nullptr, 10);
  return std::nullopt;
}

std::optional<bool> UserDefaults::boolForKey(const std::string& key) const {
  auto value = objectForKey(key);
  if (!value) return std::nullopt;
  if (value->is_boolean()) return value->get<bool>();
  if (value->is_number()) return value->get<double>() != 0;
  if (value->is_string()) {
    const std::string& s = value->get_ref<const std::string&>();
    return s == "YES" || s == "yes" || s == "true" || std::strtoll(s.c_str(), nullptr, 10) != 0;
  }
  return std::nullopt;
}

}  // namespace platform
