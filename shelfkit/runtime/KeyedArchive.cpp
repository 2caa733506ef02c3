#include "module/platform/KeyedArchive.h"

namespace platform {

// The archive is written as text directly: records are saved often (a whole
// queue on every addition), and building a JSON tree first costs several times more.
namespace {

std::string quoted(const std::string& text) {
  // Names come from servers: bytes that are not UTF-8 are replaced, never thrown on.
  return KeyedArchive(text).dump(-1, ' ', false, KeyedArchive::error_handler_t::replace);
}

}  // namespace

void KeyedArchiver::appendKey(const char* key) {
  if (!text_.empty()) text_ += ',';
  text_ += quoted(key);
  text_ += ':';
}

void KeyedArchiver::encodeString(const std::optional<std::string>& value, const char* key) {
  appendKey(key);
  text_ += value ? "{\"string\":" + quoted(*value) + "}" : "null";
}

void KeyedArchiver::encodeURL(const std::optional<URL>& value, const char* key) {
  appendKey(key);
  text_ += value ? "{\"url\":" + quoted(value->absoluteString()) + "}" : "null";
}

void KeyedArchiver::encodeInt64(int64_t value, const char* key) {
  appendKey(key);
  text_ += "{\"int64\":" + std::to_string(value) + "}";
}

void KeyedArchiver::encodeBool(bool value, const char* key) {
  appendKey(key);
  text_ += value ? "{\"bool\":true}" : "{\"bool\":false}";
}

std::string KeyedArchiver::encodedData() const { return "{" + text_ + "}"; }

KeyedArchive KeyedArchiver::archive() const { return KeyedArchive::parse(encodedData()); }

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
