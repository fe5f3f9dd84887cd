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

#include "utils/kestrel-types.h"

namespace kestrel {

struct UniversalDetectStreamOptions;
struct HotwordDetectorOptions;

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
  void AddFlag(const std::string& name, bool* value, const std::string& help);

  // Parses arguments [first, argc) of argv. On a malformed command line
  // returns false with a one-line explanation in *error.
  bool Parse(int argc, char** argv, int first, std::vector<std::string>* positional,
             std::string* error);
  bool HelpRequested() const { return help_requested_; }

  // Usage, description and one entry per option with its default.
  std::string Help() const;

 private:
  enum class Kind { kString, kInt, kFlag };
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

// The options of the commands that run a HotwordDetector on audio (detect,
// serve): every detector stage option by its field name, and
// --hotword-names, whose text lands in *names until FinishDetectorOptions.
void AddDetectorOptions(ArgParser* parser, HotwordDetectorOptions* options, std::string* names);
// After parsing: checks what the parser alone cannot (a model is given, the
// slide step is positive) and splits *names into options->hotword_names.
// False with a one-line *error naming the option when the check fails.
bool FinishDetectorOptions(const std::string& names, HotwordDetectorOptions* options,
                           std::string* error);

// The detector options that the corpus commands (train, evaluate) let the
// user set when they run the detector over stored network outputs.
void AddCorpusScanOptions(ArgParser* parser, UniversalDetectStreamOptions* detector);

}  // namespace kestrel

#endif  // KESTREL_TOOLS_ARGS_H_
