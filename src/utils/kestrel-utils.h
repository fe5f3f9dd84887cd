// String helpers for option lists ("0.5,0.4", "a.kmodel,b.kmodel").
// Diagnostics carry the label "../utils/kestrel-utils". Stateless.
#ifndef KESTREL_UTILS_KESTREL_UTILS_H_
#define KESTREL_UTILS_KESTREL_UTILS_H_

#include <sstream>
#include <string>
#include <vector>

#include "utils/kestrel-log.h"
#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

// Removes leading and trailing whitespace in place.
void Trim(std::string* str);

// Replaces *out by the pieces of `full` between occurrences of the whole
// string `delim`. Empty pieces are dropped (so "" gives no fields and "a,,b"
// gives a, b); pieces are not trimmed. An empty `delim` gives `full` as one
// field (none if `full` is empty).
void SplitStringToVector(const std::string& full, const std::string& delim,
                         std::vector<std::string>* out);

// A printable rendering of one character for diagnostics: 'a' for printable
// characters, [character 10] style decimal codes otherwise.
std::string CharToString(const char& c);

// Converts one field that must be wholly a number (surrounding whitespace is
// ignored). An empty or all-whitespace field converts to 0; digits outside the
// type's range give its nearest limit. Anything left over is an error naming
// the field as given.
template <class T>
T ConvertStringToIntegerOrFloat(const std::string& str) {
  std::string trimmed(str);
  Trim(&trimmed);
  std::istringstream iss(trimmed);
  T value = 0;
  iss >> value;
  if (!iss.eof()) {
    KESTREL_ERR("../utils/kestrel-utils")
        << "ConvertStringToIntegerOrFloat: only part of the string "
        << "can be converted to float or integer: " << str;
  }
  return value;
}

// Splits with SplitStringToVector and converts every field; *out is replaced.
template <class T>
void SplitStringToIntegers(const std::string& full, const std::string& delim,
                           std::vector<T>* out) {
  out->clear();
  std::vector<std::string> fields;
  SplitStringToVector(full, delim, &fields);
  std::vector<T> values(fields.size());
  for (size_t i = 0; i < fields.size(); ++i) {
    values[i] = ConvertStringToIntegerOrFloat<T>(fields[i]);
  }
  out->swap(values);
}

// As SplitStringToIntegers, for floats.
void SplitStringToFloats(const std::string& full, const std::string& delim,
                         std::vector<float>* out);

}  // namespace kestrel

KESTREL_PUBLIC_END

#endif  // KESTREL_UTILS_KESTREL_UTILS_H_
