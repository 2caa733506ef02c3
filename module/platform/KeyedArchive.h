// Keyed archiving: an object writes its fields under names into a JSON object
// whose values carry their kind ({"int64": 5}, {"bool": true}, {"string": "a"},
// {"url": "http://..."}); an absent object is written as null.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "module/platform/URL.h"

namespace platform {

using KeyedArchive = nlohmann::ordered_json;

class KeyedArchiver {
 public:
  void encodeString(const std::optional<std::string>& value, const char* key);
  void encodeURL(const std::optional<URL>& value, const char* key);
  void encodeInt64(int64_t value, const char* key);
  void encodeBool(bool value, const char* key);

  // The archive as a JSON object (parsed from the encoded text).
  KeyedArchive archive() const;
  // The archive as bytes, for storage.
  std::string encodedData() const;

 private:
  void appendKey(const char* key);
  std::string text_;  // the members written so far, without the braces
};

// Reads values back. A missing key reads as none, 0 or false. A value of the
// wrong kind, or bytes that are not an archive, mark the unarchiver failed;
// callers check failed() before trusting what they read.
class KeyedUnarchiver {
 public:
  explicit KeyedUnarchiver(KeyedArchive archive);
  static KeyedUnarchiver fromData(std::string_view data);

  std::optional<std::string> decodeStringForKey(const char* key);
  std::optional<URL> decodeURLForKey(const char* key);
  int64_t decodeInt64ForKey(const char* key);
  // The platform's native integer; 64 bits wide here, like decodeInt64ForKey.
  long decodeIntegerForKey(const char* key);
  bool decodeBoolForKey(const char* key);

  bool failed() const { return failed_; }

  // One member of the archive: its key and, when it is a one-member object,
  // the kind it names and its payload. Read from text without building a tree.
  struct Member {
    enum class Payload : uint8_t { Other, String, Integer, Boolean };
    std::string key;
    std::string kind;
    bool isNull = false;
    bool isObject = false;
    int members = 0;  // of the value object, counted up to 2
    Payload payload = Payload::Other;
    std::string text;
    int64_t integer = 0;
    bool boolean = false;
  };

 private:
  KeyedUnarchiver() = default;
  const Member* valueOfKind(const char* key, const char* kind, Member::Payload payload);
  std::vector<Member> members_;
  bool failed_ = false;
};

// What a record database stores.
class Archivable {
 public:
  virtual ~Archivable() = default;
  virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

}  // namespace platform
