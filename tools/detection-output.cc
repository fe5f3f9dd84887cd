#include "detection-output.h"

#include <cmath>
#include <cstdio>

namespace kestrel {

namespace {

std::string Time(double seconds) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f", seconds);
  return text;
}

// A score as a JSON number (null if it is not a number). Searches that find
// no path at all score hugely negative; those print as 0, which keeps plots
// readable and is below every threshold all the same.
std::string JsonScore(float score) {
  if (std::isnan(score)) return "null";
  char text[32];
  std::snprintf(text, sizeof(text), "%.5g", std::fmax(score, 0.0f));
  return text;
}

std::string JsonPosition(const std::string& label, double seconds, int64 sample, int hotword,
                         const std::string& name) {
  std::string line = "{\"file\": " + JsonString(label) + ", \"time\": " + Time(seconds) +
                     ", \"sample\": " + std::to_string(sample) +
                     ", \"hotword\": " + std::to_string(hotword);
  if (!name.empty()) line += ", \"name\": " + JsonString(name);
  return line;
}

}  // namespace

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      static const char kHex[] = "0123456789abcdef";
      out += "\\u00";
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string DetectionLine(const std::string& label, const Detection& d, bool json) {
  if (json) {
    return JsonPosition(label, d.seconds, d.sample, d.hotword, d.name) +
           ", \"score\": " + JsonScore(d.score) + "}";
  }
  std::string line = label + "\t" + Time(d.seconds) + "\t" + std::to_string(d.hotword);
  if (!d.name.empty()) line += "\t" + d.name;
  return line;
}

std::string ScoreLine(const std::string& label, const HotwordScore& s, const std::string& name) {
  return JsonPosition(label, s.seconds, s.sample, s.hotword, name) +
         ", \"score\": " + JsonScore(s.score) +
         ", \"detected\": " + (s.detected ? "true" : "false") + "}";
}

}  // namespace kestrel
