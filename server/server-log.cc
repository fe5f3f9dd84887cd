#include "server-log.h"

#include <iostream>

namespace kestrel {

void ServerLog::Info(const std::string& line) {
  // Client-chosen text (hotword names, error details) reaches the log; keep
  // each entry on one printable line.
  std::string text = "kestrel serve: " + line;
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  }
  std::lock_guard<std::mutex> lock(mutex_);
  std::cerr << text << std::endl;
}

void ServerLog::Debug(const std::string& line) {
  if (debug_) Info(line);
}

}  // namespace kestrel
