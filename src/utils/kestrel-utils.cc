#include "utils/kestrel-utils.h"

#include <cctype>

namespace kestrel {

void Trim(std::string* str) {
  const char* kSpace = " \t\n\r\f\v";
  size_t first = str->find_first_not_of(kSpace);
  if (first == std::string::npos) {
    str->clear();
    return;
  }
  size_t last = str->find_last_not_of(kSpace);
  *str = str->substr(first, last - first + 1);
}

void SplitStringToVector(const std::string& full, const std::string& delim,
                         std::vector<std::string>* out) {
  out->clear();
  if (delim.empty()) {
    if (!full.empty()) out->push_back(full);
    return;
  }
  size_t start = 0;
  while (start <= full.size()) {
    size_t found = full.find(delim, start);
    size_t end = (found == std::string::npos) ? full.size() : found;
    if (end > start) out->push_back(full.substr(start, end - start));
    if (found == std::string::npos) break;
    start = found + delim.size();
  }
}

std::string CharToString(const char& c) {
  std::ostringstream oss;
  if (std::isprint(static_cast<unsigned char>(c))) {
    oss << '\'' << c << '\'';
  } else {
    oss << "[character " << static_cast<int>(c) << "]";
  }
  return oss.str();
}

void SplitStringToFloats(const std::string& full, const std::string& delim,
                         std::vector<float>* out) {
  SplitStringToIntegers<float>(full, delim, out);
}

}  // namespace kestrel
