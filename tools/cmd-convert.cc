// kestrel convert: a model file rewritten in binary or text form.
#include <iostream>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "model/hotword-model.h"
#include "utils/kestrel-log.h"

namespace kestrel {

int RunConvert(int argc, char** argv) {
  bool binary = false;
  bool text = false;
  ArgParser parser("kestrel convert IN.kmodel OUT.kmodel --binary|--text",
                   "Reads a model file (binary or text) and writes it again in the form\n"
                   "asked for. Optional settings missing from IN are written out with the\n"
                   "values they take when the model is loaded, so OUT holds every setting.");
  parser.AddFlag("binary", &binary, "write the compact binary form");
  parser.AddFlag("text", &text, "write the readable text form");
  std::vector<std::string> files;
  int status = kExitOk;
  if (!parser.ParseCommand(argc, argv, &files, &status)) return status;
  if (files.size() != 2) return UsageError("convert", "give one input and one output file");
  if (binary == text) return UsageError("convert", "give exactly one of --binary and --text");

  try {
    HotwordModel::ReadFile(files[0]).WriteFile(files[1], binary);
  } catch (const KestrelError& e) {
    return Failure(files[0] + " -> " + files[1] + ": " + e.what());
  }
  return kExitOk;
}

}  // namespace kestrel
