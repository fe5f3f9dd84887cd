// Floating-point std::to_chars / std::from_chars for the WebAssembly build.
//
// The library reads and writes text-form model floats with <charconv>, whose
// float overloads the libc++ of Debian's emscripten (3.1.x, LLVM 14) does not
// have. build.sh force-includes this header (-include) in every library file
// compiled for the web, so the library's own sources stay standard C++17.
//
// Same contract as the standard overloads for what the library uses:
// from_chars takes no leading whitespace, no '+' and no hexadecimal prefix,
// and reports out-of-range values; to_chars writes the shortest text that
// reads back to the same float.
#ifndef KESTREL_WEB_FLOAT_CHARCONV_H_
#define KESTREL_WEB_FLOAT_CHARCONV_H_

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>

namespace std {

inline from_chars_result from_chars(const char* first, const char* last, float& value) {
  if (first == last || isspace(static_cast<unsigned char>(*first)) || *first == '+') {
    return {first, errc::invalid_argument};
  }
  // strtof would also read "0x..." hexadecimal floats; from_chars stops at the 'x'.
  const char* end = first;
  while (end != last && *end != 'x' && *end != 'X') ++end;
  const string text(first, end);
  char* stop = nullptr;
  errno = 0;
  const float v = strtof(text.c_str(), &stop);
  if (stop == text.c_str()) return {first, errc::invalid_argument};
  const char* ptr = first + (stop - text.c_str());
  if (errno == ERANGE && (v > 1.0f || v < -1.0f || v == 0.0f)) {
    return {ptr, errc::result_out_of_range};
  }
  value = v;
  return {ptr, errc()};
}

inline to_chars_result to_chars(char* first, char* last, float value) {
  char buf[32];
  int n = 0;
  // Fewest significant digits that read back exactly; 9 always do.
  for (int digits = 1; digits <= 9; ++digits) {
    n = snprintf(buf, sizeof(buf), "%.*g", digits, static_cast<double>(value));
    if (strtof(buf, nullptr) == value || value != value) break;
  }
  if (n < 0 || n > last - first) return {last, errc::value_too_large};
  memcpy(first, buf, static_cast<size_t>(n));
  return {first + n, errc()};
}

}  // namespace std

#endif  // KESTREL_WEB_FLOAT_CHARCONV_H_
