// ArgParser: the options and positional arguments of one `kestrel` command.
//
// Options are "--name=value" or "--name value" and may stand anywhere among
// the positional arguments; a flag is "--name" (or "--name=true|false"); "--"
// ends the options; "-" is positional (standard input). "--help" and "-h"
// request the help text instead of running. Each option writes straight into
// the variable it was registered with, whose value before parsing is the
// default shown in the help.
#ifndef KESTREL_TOOLS_ARGS_H_
#define KESTREL_TOOLS_ARGS_H_

#include <string>
#include <vector>

#include "facade/hotword-detector.h"
#include "utils/kestrel-types.h"

namespace kestrel {

// Exit codes of every command.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // the input or a file could not be processed
constexpr int kExitUsage = 2;    // the command line is wrong

class ArgParser {
 public:
  // `usage` is the synopsis line(s) after "usage: "; `description` follows it.
  ArgParser(const std::string& usage, const std::string& description);

  void AddString(const std::string& name, std::string* value, const std::string& help);
  void AddInt(const std::string& name, int32* value, const std::string& help);
  // A real number kept as typed (run stamps and reports show it so); one
  // that is not a finite number is a usage error naming the option.
  void AddNumber(const std::string& name, std::string* value, const std::string& help);
  void AddFlag(const std::string& name, bool* value, const std::string& help);

  // Parses arguments [first, argc) of argv. On a malformed command line
  // returns false with a one-line explanation in *error.
  bool Parse(int argc, char** argv, int first, std::vector<std::string>* positional,
             std::string* error);
  bool HelpRequested() const { return help_requested_; }

  // Every command's preamble: parses the command's arguments (argv[2] on;
  // argv[1] names the command) and returns true when the command should run.
  // Otherwise it has printed the help (*status kExitOk) or reported the
  // malformed command line (UsageError, *status kExitUsage).
  bool ParseCommand(int argc, char** argv, std::vector<std::string>* positional, int* status);

  // Usage, description and one entry per option with its default.
  std::string Help() const;

 private:
  enum class Kind { kString, kInt, kNumber, kFlag };
  struct Option {
    std::string name;  // without the leading "--"
    Kind kind;
    void* value;
    std::string help;
    std::string default_text;
  };
  // Stores `text` into `option`; false with *error when it does not fit.
  bool SetValue(const Option& option, const std::string& text, std::string* error) const;
  const Option* Find(const std::string& name) const;

  std::string usage_;
  std::string description_;
  std::vector<Option> options_;
  bool help_requested_ = false;
};

// The detector options of the commands that run HotwordDetector (detect, and
// any other that listens for hotwords): AddDetectorOptions registers them,
// MakeDetectorOptions turns them into the facade's typed options.
struct DetectorArgs {
  // Comma-separated lists as typed (--model-str, --sensitivity-str, ...).
  std::string model_str;
  std::string sensitivity_str;
  std::string high_sensitivity_str;
  std::string smooth_window_str;
  std::string slide_window_str;
  std::string hotword_names;
  // The parser writes the scalar settings straight into these options;
  // MakeDetectorOptions adds the lists and the models.
  HotwordDetectorOptions options;
};
void AddDetectorOptions(ArgParser* parser, DetectorArgs* args);
// Checks and parses the lists: false with a one-line *error for a bad command
// line (no models, a step below 1, a value that is not a number). Then loads
// the models, and errors that concern them (an unreadable or malformed file)
// are KestrelError exceptions, whose text the caller reports.
bool MakeDetectorOptions(const DetectorArgs& args, HotwordDetectorOptions* options,
                         std::string* error);

// The detector options that the corpus commands (train, evaluate) let the
// user set when they run the detector over stored network outputs.
void AddCorpusScanOptions(ArgParser* parser, UniversalDetectStreamOptions* detector);

}  // namespace kestrel

#endif  // KESTREL_TOOLS_ARGS_H_
