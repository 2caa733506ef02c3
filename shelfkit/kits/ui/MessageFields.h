// Typed reads of the fields of a message from a browser tab. A field that is
// missing or of another type reads as none, so a handler never throws on what
// a client sent and never converts a number that does not fit.
#pragma once

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace shelfkit {

inline const nlohmann::json* messageField(const nlohmann::json& message, const char* key) {
  if (!message.is_object()) return nullptr;
  auto found = message.find(key);
  return found == message.end() ? nullptr : &*found;
}

inline std::optional<std::string> stringField(const nlohmann::json& message, const char* key) {
  const auto* field = messageField(message, key);
  if (!field || !field->is_string()) return std::nullopt;
  return field->get<std::string>();
}

inline std::optional<bool> boolField(const nlohmann::json& message, const char* key) {
  const auto* field = messageField(message, key);
  if (!field || !field->is_boolean()) return std::nullopt;
  return field->get<bool>();
}

// A finite number.
inline std::optional<double> numberField(const nlohmann::json& message, const char* key) {
  const auto* field = messageField(message, key);
  if (!field || !field->is_number()) return std::nullopt;
  const double value = field->get<double>();
  if (!std::isfinite(value)) return std::nullopt;
  return value;
}

// A whole number within int64_t. Browsers send every number as a double, so a
// float without a fraction counts, up to 2^53 where doubles stop being exact.
inline std::optional<int64_t> integerField(const nlohmann::json& message, const char* key) {
  const auto* field = messageField(message, key);
  if (!field) return std::nullopt;
  if (field->is_number_integer() && !field->is_number_unsigned()) return field->get<int64_t>();
  if (field->is_number_unsigned()) {
    const uint64_t value = field->get<uint64_t>();
    if (value > static_cast<uint64_t>(INT64_MAX)) return std::nullopt;
    return static_cast<int64_t>(value);
  }
  if (!field->is_number_float()) return std::nullopt;
  constexpr double kExact = 9007199254740992.0;  // 2^53
  const double value = field->get<double>();
  if (!std::isfinite(value) || std::trunc(value) != value || std::fabs(value) > kExact) return std::nullopt;
  return static_cast<int64_t>(value);
}

// An identifier: a whole number of zero or more.
inline std::optional<uint64_t> idField(const nlohmann::json& message, const char* key) {
  const auto value = integerField(message, key);
  if (!value || *value < 0) return std::nullopt;
  return static_cast<uint64_t>(*value);
}

}  // namespace shelfkit
