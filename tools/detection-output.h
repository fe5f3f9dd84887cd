// The lines that `detect` and `listen` print for detections and step scores.
//
// A detection is "label<TAB>time<TAB>hotword[<TAB>name]", or with JSON
// {"file": label, "time", "sample", "hotword", ["name",] "score"}; a step
// score is always JSON, {"file", "time", "sample", "hotword", ["name",]
// "score", "detected"}. Times have two decimals; labels are file names, "-"
// or a device name. No trailing newline.
#ifndef KESTREL_TOOLS_DETECTION_OUTPUT_H_
#define KESTREL_TOOLS_DETECTION_OUTPUT_H_

#include <string>

#include "facade/hotword-detector.h"

namespace kestrel {

// `text` as a JSON string literal, quotes included.
std::string JsonString(const std::string& text);

std::string DetectionLine(const std::string& label, const Detection& detection, bool json);

// `name` may be empty (no names given).
std::string ScoreLine(const std::string& label, const HotwordScore& score, const std::string& name);

}  // namespace kestrel

#endif  // KESTREL_TOOLS_DETECTION_OUTPUT_H_
