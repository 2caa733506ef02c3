#include "module/platform/KeyedArchive.h"

#include <algorithm>
#include <charconv>

namespace platform {

// The archive is written as text directly: records are saved often (a whole
// queue on every addition), and building a JSON tree first costs several times more.
namespace {

bool isPlainText(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char ch) {
    const auto c = static_cast<unsigned char>(ch);
    return c >= 0x20 && c <= 0x7e && c != '"' && c != '\\';
  });
}

std::string quoted(const std::string& text) {
  // Plain ASCII needs no escaping; the rest goes through the JSON writer.
  if (isPlainText(text)) return '"' + text + '"';
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

namespace {

using Member = KeyedUnarchiver::Member;

// Reads an archive's text straight into its members (the queue decodes
// thousands of records at start-up, and a JSON tree per record costs most of
// that time). Deeper values are only checked for syntax: no kind has them.
class MemberReader {
 public:
  explicit MemberReader(std::vector<Member>& members) : members_(members) {}

  bool null() {
    if (depth_ == 0) return false;
    if (depth_ == 1) members_.back().isNull = true;
    if (depth_ == 2) payloadIsOther();
    return true;
  }
  bool boolean(bool value) {
    return scalar([&](Member& m) { m.payload = Member::Payload::Boolean, m.boolean = value; });
  }
  bool number_integer(KeyedArchive::number_integer_t value) {
    return scalar([&](Member& m) { m.payload = Member::Payload::Integer, m.integer = value; });
  }
  bool number_unsigned(KeyedArchive::number_unsigned_t value) {
    return number_integer(static_cast<int64_t>(value));
  }
  bool number_float(KeyedArchive::number_float_t, const KeyedArchive::string_t&) {
    return scalar([](Member&) {});
  }
  bool string(KeyedArchive::string_t& value) {
    return scalar([&](Member& m) { m.payload = Member::Payload::String, m.text = std::move(value); });
  }
  bool binary(KeyedArchive::binary_t&) { return false; }

  bool start_object(std::size_t) {
    if (depth_ == 0) isObject_ = true;
    if (depth_ == 1) members_.back().isObject = true;
    if (depth_ == 2) payloadIsOther();
    ++depth_;
    return true;
  }
  bool end_object() { return --depth_, true; }
  bool start_array(std::size_t) {
    if (depth_ == 0) return false;
    if (depth_ == 2) payloadIsOther();
    ++depth_;
    return true;
  }
  bool end_array() { return --depth_, true; }

  bool key(KeyedArchive::string_t& name) {
    if (depth_ == 1) {
      members_.emplace_back().key = std::move(name);
    } else if (depth_ == 2) {
      Member& m = members_.back();
      // A repeated key replaces the earlier value, as in a parsed tree.
      if (m.members == 0) m.kind = std::move(name), m.members = 1;
      else if (m.kind != name) m.members = 2;
      m.payload = Member::Payload::Other;
    }
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) { return false; }

  bool isObject() const { return isObject_; }

 private:
  // A scalar that is the archive itself fails it; as a member's value it is
  // malformed (left so); as a kind's payload it is kept.
  template <class Set>
  bool scalar(Set set) {
    if (depth_ == 0) return false;
    if (depth_ == 2) set(members_.back());
    return true;
  }
  void payloadIsOther() { members_.back().payload = Member::Payload::Other; }

  std::vector<Member>& members_;
  int depth_ = 0;
  bool isObject_ = false;
};

// The text this archiver writes, read by hand: quoted keys and kinds of
// printable ASCII, values null or {"kind":payload} with a string, a 64-bit
// integer or a boolean, no spaces. Anything else (escapes, other bytes, other
// numbers) returns false and goes to the JSON parser, which knows all of JSON.
class CanonicalReader {
 public:
  explicit CanonicalReader(std::string_view text) : text_(text) {}

  bool read(std::vector<Member>& members) {
    if (!take('{')) return false;
    if (take('}')) return atEnd();
    do {
      Member& m = members.emplace_back();
      if (!quoted(m.key) || !take(':')) return false;
      if (literal("null")) {
        m.isNull = true;
        continue;
      }
      if (!take('{') || !quoted(m.kind) || !take(':') || !payload(m) || !take('}')) return false;
      m.isObject = true;
      m.members = 1;
    } while (take(','));
    return take('}') && atEnd();
  }

 private:
  bool payload(Member& m) {
    if (peek() == '"') return m.payload = Member::Payload::String, quoted(m.text);
    for (const bool value : {true, false}) {
      if (literal(value ? "true" : "false")) {
        m.payload = Member::Payload::Boolean;
        m.boolean = value;
        return true;
      }
    }
    const char* begin = text_.data() + at_;
    const char* digits = begin + (peek() == '-' ? 1 : 0);
    const char* end = text_.data() + text_.size();
    auto [next, error] = std::from_chars(begin, end, m.integer);
    // JSON forbids leading zeros; other number forms are the parser's.
    if (error != std::errc() || next == digits || (*digits == '0' && next - digits > 1)) return false;
    at_ += static_cast<std::size_t>(next - begin);
    m.payload = Member::Payload::Integer;
    return true;
  }
  bool quoted(std::string& out) {
    if (!take('"')) return false;
    const std::size_t from = at_;
    for (; at_ < text_.size(); ++at_) {
      const unsigned char c = static_cast<unsigned char>(text_[at_]);
      if (c == '"') {
        out.assign(text_.substr(from, at_ - from));
        ++at_;
        return true;
      }
      if (c < 0x20 || c > 0x7e || c == '\\') return false;
    }
    return false;
  }
  bool literal(std::string_view word) {
    if (text_.substr(at_, word.size()) != word) return false;
    at_ += word.size();
    return true;
  }
  char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  bool take(char c) {
    if (atEnd() || text_[at_] != c) return false;
    ++at_;
    return true;
  }
  bool atEnd() const { return at_ == text_.size(); }

  std::string_view text_;
  std::size_t at_ = 0;
};

void appendMembers(const KeyedArchive& archive, std::vector<Member>& members) {
  for (const auto& [key, value] : archive.items()) {
    Member& m = members.emplace_back();
    m.key = key;
    m.isNull = value.is_null();
    m.isObject = value.is_object();
    if (!m.isObject || value.empty()) continue;
    m.members = value.size() == 1 ? 1 : 2;
    const auto first = value.begin();
    m.kind = first.key();
    const KeyedArchive& payload = first.value();
    if (payload.is_string()) m.payload = Member::Payload::String, m.text = payload.get<std::string>();
    else if (payload.is_number_integer()) m.payload = Member::Payload::Integer, m.integer = payload.get<int64_t>();
    else if (payload.is_boolean()) m.payload = Member::Payload::Boolean, m.boolean = payload.get<bool>();
  }
}

}  // namespace

KeyedUnarchiver::KeyedUnarchiver(KeyedArchive archive) {
  if (!archive.is_object()) failed_ = true;
  else appendMembers(archive, members_);
}

KeyedUnarchiver KeyedUnarchiver::fromData(std::string_view data) {
  // Anything but an object, and invalid UTF-8 inside strings, is a decoding
  // failure, not a crash.
  KeyedUnarchiver coder;
  coder.members_.reserve(12);
  if (CanonicalReader(data).read(coder.members_)) return coder;
  coder.members_.clear();
  MemberReader reader(coder.members_);
  const bool parsed = KeyedArchive::sax_parse(data.begin(), data.end(), &reader);
  if (!parsed || !reader.isObject()) {
    coder.members_.clear();
    coder.failed_ = true;
  }
  return coder;
}

// The member `key` when it holds a value of `kind` with a payload of the
// expected type; null when absent or null; marks the unarchiver failed on
// anything else.
const Member* KeyedUnarchiver::valueOfKind(const char* key, const char* kind, Member::Payload payload) {
  if (failed_) return nullptr;
  // The last of repeated keys counts.
  auto it = std::find_if(members_.rbegin(), members_.rend(), [&](const Member& m) { return m.key == key; });
  if (it == members_.rend() || it->isNull) return nullptr;
  if (it->isObject && it->members == 1 && it->kind == kind && it->payload == payload) return &*it;
  failed_ = true;
  return nullptr;
}

std::optional<std::string> KeyedUnarchiver::decodeStringForKey(const char* key) {
  const Member* m = valueOfKind(key, "string", Member::Payload::String);
  return m ? std::optional<std::string>(m->text) : std::nullopt;
}

std::optional<URL> KeyedUnarchiver::decodeURLForKey(const char* key) {
  const Member* m = valueOfKind(key, "url", Member::Payload::String);
  if (!m) return std::nullopt;
  std::optional<URL> url = URL::URLWithString(m->text);
  if (!url) failed_ = true;
  return url;
}

int64_t KeyedUnarchiver::decodeInt64ForKey(const char* key) {
  const Member* m = valueOfKind(key, "int64", Member::Payload::Integer);
  return m ? m->integer : 0;
}

long KeyedUnarchiver::decodeIntegerForKey(const char* key) {
  static_assert(sizeof(long) == sizeof(int64_t), "the native integer is 64 bits wide here");
  return static_cast<long>(decodeInt64ForKey(key));
}

bool KeyedUnarchiver::decodeBoolForKey(const char* key) {
  const Member* m = valueOfKind(key, "bool", Member::Payload::Boolean);
  return m && m->boolean;
}

}  // namespace platform
