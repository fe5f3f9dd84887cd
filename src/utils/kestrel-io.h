// Token-format I/O: the building blocks of every file the library reads or
// writes (model files, networks).
//
// A file is binary or text throughout. Binary files begin with the two bytes
// "\0B"; Output writes them and Input recognises them, so readers never need
// to be told the mode. Every typed reader and writer takes the mode flag first
// and the stream last, and reports failure only by an error-kind log message
// (which throws): a read either yields a whole value or ends the operation.
//
// The encodings follow Kaldi's conventions, so files can be exchanged with
// Kaldi-style tools:
//   token   "<Tok>" plus one space, both modes
//   int32   binary: width byte 4 + 4 bytes (host order); text: "42 "
//   float   binary: width byte 4 + 4 bytes; text: shortest round-trip form + " "
//   bool    binary: 'T' or 'F'; text: "T " or "F "
// Integer forms live in kestrel-io-inl.h; float vectors and matrices in
// kestrel-matrix.h.
//
// All functions are stateless; any thread may use them on its own streams.
#ifndef KESTREL_UTILS_KESTREL_IO_H_
#define KESTREL_UTILS_KESTREL_IO_H_

#include <fstream>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

// Writes `token` followed by one space. A token is non-empty and holds no
// whitespace; anything else is an error.
void WriteToken(bool binary, const char* token, std::ostream* os);
void WriteToken(bool binary, const std::string& token, std::ostream* os);

// Reads the next token (text mode skips leading whitespace first; binary mode
// also consumes the one space after it). End of stream reads as "".
void ReadToken(bool binary, std::string* token, std::istream* is);

// Reads the next token and requires it to be `token`; otherwise the error
// 'Expected token "<A>", got instead "<B>".'
void ExpectToken(bool binary, const char* token, std::istream* is);
void ExpectToken(bool binary, const std::string& token, std::istream* is);

// Looks at the next token without consuming it and returns the character after
// its opening '<' (or the next character itself when it is not '<'). Text mode
// skips whitespace first. Returns -1 at end of stream.
int PeekToken(bool binary, std::istream* is);

// Signed integer forms (int32, int64); defined in kestrel-io-inl.h.
template <class T>
void WriteBasicType(bool binary, T value, std::ostream* os);
template <class T>
void ReadBasicType(bool binary, T* value, std::istream* is);
template <class T>
void WriteIntegerVector(bool binary, const std::vector<T>& v, std::ostream* os);
template <class T>
void ReadIntegerVector(bool binary, std::vector<T>* v, std::istream* is);

// Float: text reading accepts decimal and exponent forms, inf, -inf and nan.
template <>
void WriteBasicType<float>(bool binary, float value, std::ostream* os);
template <>
void ReadBasicType<float>(bool binary, float* value, std::istream* is);
// Bool: 'T' or 'F'; text reading skips whitespace first.
template <>
void WriteBasicType<bool>(bool binary, bool value, std::ostream* os);
template <>
void ReadBasicType<bool>(bool binary, bool* value, std::istream* is);

// Reads a file, recognising binary files by their "\0B" marker (which it
// consumes). A file that cannot be opened is an error naming the file.
// Owns the stream; the file is closed when the object ends.
class Input {
 public:
  explicit Input(const std::string& filename);
  bool Binary() const { return binary_; }
  std::istream* Stream() { return &is_; }
  const std::string& Filename() const { return filename_; }

  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

 private:
  std::string filename_;
  std::ifstream is_;
  bool binary_ = false;
};

// Creates a file for writing; a binary file begins with the "\0B" marker.
// Failure to open, write or close is an error naming the file. Close() reports
// it at a point of the caller's choosing; otherwise the destructor closes.
class Output {
 public:
  Output(const std::string& filename, bool binary);
  ~Output() noexcept(false);
  std::ostream* Stream() { return &os_; }
  void Close();

  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

 private:
  std::string filename_;
  std::ofstream os_;
  bool closed_ = false;
};

}  // namespace kestrel

KESTREL_PUBLIC_END

#include "utils/kestrel-io-inl.h"

#endif  // KESTREL_UTILS_KESTREL_IO_H_
