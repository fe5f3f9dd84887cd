#include "args.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <iostream>
#include <sstream>

#include "commands.h"
#include "detect/universal-detect-stream.h"
#include "facade/hotword-detector.h"
#include "model/hotword-model.h"
#include "utils/kestrel-globals.h"
#include "utils/kestrel-log.h"
#include "utils/kestrel-utils.h"

namespace kestrel {

ArgParser::ArgParser(const std::string& usage, const std::string& description)
    : usage_(usage), description_(description) {}

void ArgParser::AddString(const std::string& name, std::string* value, const std::string& help) {
  options_.push_back({name, Kind::kString, value, help, *value});
}

void ArgParser::AddInt(const std::string& name, int32* value, const std::string& help) {
  options_.push_back({name, Kind::kInt, value, help, std::to_string(*value)});
}

void ArgParser::AddNumber(const std::string& name, std::string* value, const std::string& help) {
  options_.push_back({name, Kind::kNumber, value, help, *value});
}

void ArgParser::AddFlag(const std::string& name, bool* value, const std::string& help) {
  options_.push_back({name, Kind::kFlag, value, help, *value ? "true" : "false"});
}

const ArgParser::Option* ArgParser::Find(const std::string& name) const {
  for (const Option& option : options_) {
    if (option.name == name) return &option;
  }
  return nullptr;
}

bool ArgParser::SetValue(const Option& option, const std::string& text, std::string* error) const {
  switch (option.kind) {
    case Kind::kString:
      *static_cast<std::string*>(option.value) = text;
      return true;
    case Kind::kInt: {
      errno = 0;
      char* end = nullptr;
      const long long v = std::strtoll(text.c_str(), &end, 10);
      if (text.empty() || *end != '\0' || errno == ERANGE ||
          v < std::numeric_limits<int32>::min() || v > std::numeric_limits<int32>::max()) {
        *error = "--" + option.name + " needs an integer, got \"" + text + "\"";
        return false;
      }
      *static_cast<int32*>(option.value) = static_cast<int32>(v);
      return true;
    }
    case Kind::kNumber: {
      char* end = nullptr;
      const double v = std::strtod(text.c_str(), &end);
      if (text.empty() || *end != '\0' || !std::isfinite(v)) {
        *error = "--" + option.name + " needs a number, got \"" + text + "\"";
        return false;
      }
      *static_cast<std::string*>(option.value) = text;
      return true;
    }
    case Kind::kFlag:
      if (text != "true" && text != "false") {
        *error = "--" + option.name + " is a flag; its value can only be true or false, got \"" +
                 text + "\"";
        return false;
      }
      *static_cast<bool*>(option.value) = text == "true";
      return true;
  }
  return false;
}

bool ArgParser::Parse(int argc, char** argv, int first, std::vector<std::string>* positional,
                      std::string* error) {
  bool options_ended = false;
  for (int i = first; i < argc; ++i) {
    const std::string arg = argv[i];
    if (options_ended || arg == "-" || arg.compare(0, 1, "-") != 0) {
      positional->push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_ended = true;
      continue;
    }
    if (arg == "--help" || arg == "-h") {
      help_requested_ = true;
      continue;
    }
    if (arg.compare(0, 2, "--") != 0) {
      *error = "unknown option \"" + arg + "\"";
      return false;
    }
    const size_t equals = arg.find('=');
    const std::string name = arg.substr(2, equals == std::string::npos ? std::string::npos : equals - 2);
    const Option* option = Find(name);
    if (option == nullptr) {
      *error = "unknown option \"--" + name + "\"";
      return false;
    }
    std::string value;
    if (equals != std::string::npos) {
      value = arg.substr(equals + 1);
    } else if (option->kind == Kind::kFlag) {
      value = "true";
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      *error = "--" + name + " needs a value";
      return false;
    }
    if (!SetValue(*option, value, error)) return false;
  }
  return true;
}

bool ArgParser::ParseCommand(int argc, char** argv, std::vector<std::string>* positional,
                             int* status) {
  std::string error;
  if (!Parse(argc, argv, 2, positional, &error)) {
    *status = UsageError(argv[1], error);
    return false;
  }
  if (HelpRequested()) {
    std::cout << Help();
    *status = kExitOk;
    return false;
  }
  return true;
}

std::string ArgParser::Help() const {
  std::ostringstream os;
  os << "usage: " << usage_ << "\n\n" << description_ << "\n";
  if (!options_.empty()) os << "\noptions:\n";
  for (const Option& option : options_) {
    std::string synopsis = "  --" + option.name;
    if (option.kind == Kind::kInt) synopsis += "=N";
    if (option.kind == Kind::kString) synopsis += "=S";
    if (option.kind == Kind::kNumber) synopsis += "=X";
    os << synopsis;
    if (synopsis.size() < 26) {
      os << std::string(26 - synopsis.size(), ' ');
    } else {
      os << "\n" << std::string(26, ' ');
    }
    std::string help = option.help;
    for (size_t at = 0; (at = help.find('\n', at)) != std::string::npos; at += 27) {
      help.insert(at + 1, std::string(26, ' '));
    }
    os << help;
    if (option.kind != Kind::kFlag && !option.default_text.empty()) {
      os << " (default: " << option.default_text << ")";
    }
    os << "\n";
  }
  os << "  --help                  show this help\n";
  return os.str();
}

void AddDetectorOptions(ArgParser* parser, DetectorArgs* args) {
  HotwordDetectorOptions& o = args->options;
  parser->AddString("model-str", &args->model_str,
                    "model files (.kmodel), comma-separated; required");
  parser->AddString("sensitivity-str", &args->sensitivity_str,
                    "sensitivities in [0, 1], higher detects more: one\n"
                    "for all hotwords, one per model or one per hotword,\n"
                    "comma-separated (default: the models' own)");
  parser->AddString("high-sensitivity-str", &args->high_sensitivity_str,
                    "sensitivities used for a while after a near miss,\n"
                    "as above (default: --sensitivity-str, which turns\n"
                    "that mode off)");
  parser->AddInt("slide-step", &o.slide_step, "feature frames per search step");
  parser->AddInt("min-state-frames", &o.min_state_frames,
                 "frames each unit must last in the Viterbi\nsearches");
  parser->AddInt("num-piece-layouts", &o.num_piece_layouts,
                 "piece layouts per hotword in the piecewise\nsearch");
  parser->AddInt("refractory-frames", &o.refractory_frames,
                 "frames after a detection in which no other\nis reported");
  parser->AddString("smooth-window-str", &args->smooth_window_str,
                    "posterior smoothing window in frames, one per\n"
                    "model, comma-separated (default: the models' own)");
  parser->AddString("slide-window-str", &args->slide_window_str,
                    "search window in frames, one per model,\n"
                    "comma-separated (default: the models' own)");
  parser->AddFlag("no-order-check", &o.no_order_check,
                  "naive search: skip its floor and unit-order tests");
  parser->AddString("hotword-names", &args->hotword_names,
                    "names to print, one per hotword in number order,\ncomma-separated");
}

bool MakeDetectorOptions(const DetectorArgs& args, HotwordDetectorOptions* options,
                         std::string* error) {
  if (args.model_str.empty()) {
    *error = "--model-str is required";
    return false;
  }
  if (args.options.slide_step < 1) {
    *error = "--slide-step must be at least 1";
    return false;
  }
  *options = args.options;
  const std::string& delimiter = global_kestrel_string_delimiter;
  std::vector<std::string> paths;
  SplitStringToVector(args.model_str, delimiter, &paths);
  if (paths.empty()) {
    *error = "--model-str names no file: \"" + args.model_str + "\"";
    return false;
  }
  std::string option;  // the list being parsed, for the message
  try {
    option = "--sensitivity-str";
    SplitStringToFloats(args.sensitivity_str, delimiter, &options->sensitivities);
    option = "--high-sensitivity-str";
    SplitStringToFloats(args.high_sensitivity_str, delimiter, &options->high_sensitivities);
    option = "--smooth-window-str";
    SplitStringToIntegers(args.smooth_window_str, delimiter, &options->smooth_windows);
    option = "--slide-window-str";
    SplitStringToIntegers(args.slide_window_str, delimiter, &options->slide_windows);
  } catch (const KestrelError& e) {
    *error = option + ": " + e.what();
    return false;
  }
  SplitStringToVector(args.hotword_names, delimiter, &options->hotword_names);
  options->models.clear();
  for (const std::string& path : paths) options->models.push_back(HotwordModel::ReadFile(path));
  return true;
}

void AddCorpusScanOptions(ArgParser* parser, UniversalDetectStreamOptions* detector) {
  parser->AddInt("slide-step", &detector->slide_step, "detector: feature frames per search step");
  parser->AddInt("min-state-frames", &detector->min_state_frames,
                 "detector: frames each unit must last");
  parser->AddInt("refractory-frames", &detector->refractory_frames,
                 "detector: frames after a detection in which no other is reported");
}

}  // namespace kestrel
