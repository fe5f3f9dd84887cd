#include "json-value.h"

#include <cstdlib>

#include "utils/kestrel-log.h"

namespace kestrel {

const JsonValue* JsonValue::Find(const std::string& key) const {
  auto it = object_.find(key);
  return it == object_.end() ? nullptr : &it->second;
}

// Recursive descent over one document.
class JsonParser {
 public:
  JsonParser(const std::string& text, const std::string& where) : text_(text), where_(where) {}

  JsonValue ParseDocument() {
    JsonValue value = ParseValue(0);
    SkipSpace();
    if (pos_ != text_.size()) Fail("unexpected text after the value");
    return value;
  }

 private:
  // Deep enough for any manifest, shallow enough that bad input cannot
  // exhaust the stack.
  static constexpr int kMaxDepth = 64;

  [[noreturn]] void Fail(const std::string& what) {
    KESTREL_ERR("json-value") << where_ << ": malformed JSON at byte " << pos_ << ": " << what;
    std::abort();  // not reached: the error above throws
  }

  void SkipSpace() {
    while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                   text_[pos_] == '\n' || text_[pos_] == '\r')) {
      ++pos_;
    }
  }

  bool Consume(const char* literal) {
    size_t n = std::char_traits<char>::length(literal);
    if (text_.compare(pos_, n, literal) != 0) return false;
    pos_ += n;
    return true;
  }

  JsonValue ParseValue(int depth) {
    if (depth > kMaxDepth) Fail("nesting too deep");
    SkipSpace();
    if (pos_ >= text_.size()) Fail("expected a value, found the end");
    JsonValue v;
    char c = text_[pos_];
    if (c == '{') {
      v.type_ = JsonValue::kObject;
      ++pos_;
      SkipSpace();
      if (pos_ < text_.size() && text_[pos_] == '}') {
        ++pos_;
        return v;
      }
      for (;;) {
        SkipSpace();
        if (pos_ >= text_.size() || text_[pos_] != '"') Fail("expected a string key");
        std::string key = ParseString();
        SkipSpace();
        if (!Consume(":")) Fail("expected ':'");
        v.object_[key] = ParseValue(depth + 1);
        SkipSpace();
        if (Consume("}")) return v;
        if (!Consume(",")) Fail("expected ',' or '}'");
      }
    }
    if (c == '[') {
      v.type_ = JsonValue::kArray;
      ++pos_;
      SkipSpace();
      if (Consume("]")) return v;
      for (;;) {
        v.array_.push_back(ParseValue(depth + 1));
        SkipSpace();
        if (Consume("]")) return v;
        if (!Consume(",")) Fail("expected ',' or ']'");
      }
    }
    if (c == '"') {
      v.type_ = JsonValue::kString;
      v.string_ = ParseString();
      return v;
    }
    if (Consume("true") || Consume("false")) {
      v.type_ = JsonValue::kBool;
      v.bool_ = (c == 't');
      return v;
    }
    if (Consume("null")) return v;
    if (c == '-' || (c >= '0' && c <= '9')) {
      const char* begin = text_.c_str() + pos_;
      char* end = nullptr;
      v.number_ = std::strtod(begin, &end);
      if (end == begin) Fail("bad number");
      pos_ += static_cast<size_t>(end - begin);
      v.type_ = JsonValue::kNumber;
      return v;
    }
    Fail(std::string("unexpected character '") + c + "'");
  }

  // At an opening quote; returns the decoded string (\u escapes become UTF-8).
  std::string ParseString() {
    ++pos_;
    std::string out;
    while (pos_ < text_.size()) {
      char c = text_[pos_++];
      if (c == '"') return out;
      if (c != '\\') {
        out += c;
        continue;
      }
      if (pos_ >= text_.size()) break;
      char e = text_[pos_++];
      switch (e) {
        case '"': case '\\': case '/': out += e; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case 'u': AppendUtf8(ParseHex4(), &out); break;
        default: Fail(std::string("bad escape '\\") + e + "'");
      }
    }
    Fail("unterminated string");
  }

  unsigned ParseHex4() {
    if (pos_ + 4 > text_.size()) Fail("short \\u escape");
    unsigned code = 0;
    for (int i = 0; i < 4; ++i) {
      char h = text_[pos_++];
      code <<= 4;
      if (h >= '0' && h <= '9') code |= h - '0';
      else if (h >= 'a' && h <= 'f') code |= h - 'a' + 10;
      else if (h >= 'A' && h <= 'F') code |= h - 'A' + 10;
      else Fail("bad \\u escape");
    }
    return code;
  }

  // Surrogate pairs are not joined: manifests only carry names and sentences,
  // where a replacement is harmless.
  static void AppendUtf8(unsigned code, std::string* out) {
    if (code < 0x80) {
      *out += static_cast<char>(code);
    } else if (code < 0x800) {
      *out += static_cast<char>(0xC0 | (code >> 6));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      *out += static_cast<char>(0xE0 | (code >> 12));
      *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }

  const std::string& text_;
  const std::string& where_;
  size_t pos_ = 0;
};

JsonValue ParseJson(const std::string& text, const std::string& where) {
  return JsonParser(text, where).ParseDocument();
}

}  // namespace kestrel
