#include "module/platform/KeyedArchive.h"

namespace platform {

void KeyedArchiver::encodeString(const std::optional<std::string>& value, const char* key) {
  archive_[key] = value ? KeyedArchive{{"string", *value}} : KeyedArchive(nullptr);
}

void KeyedArchiver::encodeURL(const std::optional<URL>& value, const char* key) {
  archive_[key] = value ? KeyedArchive{{"url", value->absoluteString()}} : KeyedArchive(nullptr);
}

void KeyedArchiver::encodeInt64(int64_t value, const char* key) { archive_[key] = {{"int64", value}}; }

void KeyedArchiver::encodeBool(bool value, const char* key) { archive_[key] = {{"bool", value}}; }

std::string KeyedArchiver::encodedData() const {
  // Names come from servers: bytes that are not UTF-8 are replaced, never thrown on.
  return archive_.dump(-1, ' ', false, KeyedArchive::error_handler_t::replace);
}

KeyedUnarchiver::KeyedUnarchiver(KeyedArchive archive) : archive_(std::move(archive)) {
  if (!archive_.is_object()) failed_ = true;
}

KeyedUnarchiver KeyedUnarchiver::fromData(std::string_view data) {
  // Invalid UTF-8 inside strings is a decoding failure, not a crash.
  KeyedArchive parsed = KeyedArchive::parse(data, nullptr, /*allow_exceptions=*/false);
  return KeyedUnarchiver(parsed.is_discarded() ? KeyedArchive() : std::move(parsed));
}

// The payload of `key` when it holds a value of `kind`; null when absent or
// null; marks the unarchiver failed on a value of another kind.
const KeyedArchive* KeyedUnarchiver::valueOfKind(const char* key, const char* kind) {
  if (failed_) return nullptr;
  auto it = archive_.find(key);
  if (it == archive_.end() || it->is_null()) return nullptr;
  if (it->is_object() && it->size() == 1) {
    auto payload = it->find(kind);
    if (payload != it->end()) return &*payload;
  }
  failed_ = true;
  return nullptr;
}

std::optional<std::string> KeyedUnarchiver::decodeStringForKey(const char* key) {
  const KeyedArchive* v = valueOfKind(key, "string");
  if (!v) return std::nullopt;
  if (!v->is_string()) return failed_ = true, std::nullopt;
  return v->get<std::string>();
}

std::optional<URL> KeyedUnarchiver::decodeURLForKey(const char* key) {
  const KeyedArchive* v = valueOfKind(key, "url");
  if (!v) return std::nullopt;
  std::optional<URL> url = v->is_string() ? URL::URLWithString(v->get<std::string>()) : std::nullopt;
  if (!url) failed_ = true;
  return url;
}

int64_t KeyedUnarchiver::decodeInt64ForKey(const char* key) {
  const KeyedArchive* v = valueOfKind(key, "int64");
  if (!v) return 0;
  if (!v->is_number_integer()) return failed_ = true, 0;
  return v->get<int64_t>();
}

long KeyedUnarchiver::decodeIntegerForKey(const char* key) {
  static_assert(sizeof(long) == sizeof(int64_t), "the native integer is 64 bits wide here");
  return static_cast<long>(decodeInt64ForKey(key));
}

bool KeyedUnarchiver::decodeBoolForKey(const char* key) {
  const KeyedArchive* v = valueOfKind(key, "bool");
  if (!v) return false;
  if (!v->is_boolean()) return failed_ = true, false;
  return v->get<bool>();
}

}  // namespace platform
