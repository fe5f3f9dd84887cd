#include "utils/kestrel-io.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "utils/kestrel-log.h"

namespace kestrel {

namespace {

const char kLogFile[] = "kestrel-io";

bool IsSpace(int c) { return c != EOF && std::isspace(static_cast<unsigned char>(c)); }

void SkipSpace(std::istream* is) {
  while (IsSpace(is->peek())) is->get();
}

// Reads characters up to whitespace or end of stream.
std::string ReadWord(std::istream* is) {
  std::string word;
  while (true) {
    int c = is->peek();
    if (c == EOF || IsSpace(c)) break;
    word.push_back(static_cast<char>(is->get()));
  }
  return word;
}

// A token as an error message shows it: bytes of a binary file are escaped
// (so a NUL cannot cut the message short) and long runs are elided.
std::string Printable(const std::string& token) {
  const size_t kMaxShown = 64;
  std::string out;
  char buf[8];
  for (size_t i = 0; i < token.size() && i < kMaxShown; ++i) {
    unsigned char c = static_cast<unsigned char>(token[i]);
    if (std::isprint(c)) {
      out.push_back(static_cast<char>(c));
    } else {
      std::snprintf(buf, sizeof(buf), "\\x%02X", c);
      out += buf;
    }
  }
  if (token.size() > kMaxShown) out += "...";
  return out;
}

void CheckToken(const std::string& token) {
  bool ok = !token.empty();
  for (char c : token) ok = ok && !std::isspace(static_cast<unsigned char>(c));
  if (!ok) {
    KESTREL_ERR(kLogFile) << "WriteToken: a token must be non-empty and hold no "
                          << "whitespace, got \"" << token << "\".";
  }
}

}  // namespace

void WriteToken(bool /*binary*/, const char* token, std::ostream* os) {
  WriteToken(false, std::string(token), os);
}

void WriteToken(bool /*binary*/, const std::string& token, std::ostream* os) {
  CheckToken(token);
  *os << token << " ";
  if (os->fail()) {
    KESTREL_ERR(kLogFile) << "WriteToken: failed to write token \"" << token
                          << "\".";
  }
}

void ReadToken(bool binary, std::string* token, std::istream* is) {
  if (!binary) SkipSpace(is);
  *token = ReadWord(is);
  if (binary && is->peek() == ' ') is->get();
}

void ExpectToken(bool binary, const char* token, std::istream* is) {
  std::string got;
  ReadToken(binary, &got, is);
  if (got != token) {
    KESTREL_ERR(kLogFile) << "Expected token \"" << token << "\", got instead \""
                          << Printable(got) << "\".";
  }
}

void ExpectToken(bool binary, const std::string& token, std::istream* is) {
  ExpectToken(binary, token.c_str(), is);
}

int PeekToken(bool binary, std::istream* is) {
  if (!binary) SkipSpace(is);
  int c = is->peek();
  if (c == EOF) return -1;
  if (c != '<') return c;
  is->get();
  int next = is->peek();
  is->putback('<');
  return next == EOF ? -1 : next;
}

template <>
void WriteBasicType<float>(bool binary, float value, std::ostream* os) {
  if (binary) {
    os->put(static_cast<char>(sizeof(float)));
    os->write(reinterpret_cast<const char*>(&value), sizeof(float));
  } else {
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof(buf), value);
    os->write(buf, res.ptr - buf);
    *os << " ";
  }
  if (os->fail()) {
    KESTREL_ERR(kLogFile) << "WriteBasicType: failed to write float.";
  }
}

template <>
void ReadBasicType<float>(bool binary, float* value, std::istream* is) {
  if (binary) {
    int width = is->get();
    if (width != static_cast<int>(sizeof(float))) {
      KESTREL_ERR(kLogFile) << "ReadBasicType: expected a float (size byte 4), "
                            << (width == EOF ? std::string("reached end of stream")
                                             : "got size byte " + std::to_string(width))
                            << ".";
    }
    float v;
    is->read(reinterpret_cast<char*>(&v), sizeof(float));
    if (is->fail()) {
      KESTREL_ERR(kLogFile) << "ReadBasicType: expected 4 bytes of a float, "
                            << "reached end of stream.";
    }
    *value = v;
    return;
  }
  SkipSpace(is);
  std::string word = ReadWord(is);
  const char* first = word.data();
  const char* last = word.data() + word.size();
  // from_chars takes no leading '+'; accept it as ordinary decimal text does.
  if (first != last && *first == '+') ++first;
  float v = 0.0f;
  auto res = std::from_chars(first, last, v);
  if (word.empty() || res.ec != std::errc() || res.ptr != last) {
    KESTREL_ERR(kLogFile) << "ReadBasicType: expected a float, got \""
                          << (word.empty() ? std::string("end of stream") : word)
                          << "\".";
  }
  *value = v;
}

template <>
void WriteBasicType<bool>(bool binary, bool value, std::ostream* os) {
  os->put(value ? 'T' : 'F');
  if (!binary) os->put(' ');
  if (os->fail()) {
    KESTREL_ERR(kLogFile) << "WriteBasicType: failed to write bool.";
  }
}

template <>
void ReadBasicType<bool>(bool binary, bool* value, std::istream* is) {
  if (!binary) SkipSpace(is);
  int c = is->get();
  if (c != 'T' && c != 'F') {
    KESTREL_ERR(kLogFile) << "ReadBasicType: expected a bool ('T' or 'F'), got "
                          << (c == EOF ? std::string("end of stream")
                                       : CharToString(static_cast<char>(c)))
                          << ".";
  }
  *value = (c == 'T');
}

Input::Input(const std::string& filename) : filename_(filename) {
  is_.open(filename, std::ios::in | std::ios::binary);
  if (!is_.is_open()) {
    KESTREL_ERR(kLogFile) << "Input: cannot open \"" << filename
                          << "\" for reading: " << std::strerror(errno) << ".";
  }
  char marker[2] = {0, 0};
  is_.read(marker, 2);
  if (is_.gcount() == 2 && marker[0] == '\0' && marker[1] == 'B') {
    binary_ = true;
    return;
  }
  is_.clear();
  is_.seekg(0);
}

Output::Output(const std::string& filename, bool binary) : filename_(filename) {
  os_.open(filename, std::ios::out | std::ios::binary | std::ios::trunc);
  if (!os_.is_open()) {
    KESTREL_ERR(kLogFile) << "Output: cannot open \"" << filename
                          << "\" for writing: " << std::strerror(errno) << ".";
  }
  if (binary) {
    os_.put('\0');
    os_.put('B');
  }
}

void Output::Close() {
  if (closed_) return;
  closed_ = true;
  os_.close();
  if (os_.fail()) {
    KESTREL_ERR(kLogFile) << "Output: failed to write or close \"" << filename_
                          << "\".";
  }
}

Output::~Output() noexcept(false) { Close(); }

}  // namespace kestrel
