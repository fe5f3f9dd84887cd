// kestrel: the command-line front door to the library.
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include "args.h"
#include "commands.h"
#include "kestrel/kestrel.h"
#include "utils/kestrel-log.h"

namespace kestrel {
namespace {

struct Command {
  const char* name;
  int (*run)(int argc, char** argv);
  const char* summary;
};

const Command kCommands[] = {
    {"detect", RunDetect, "find hotwords in WAV files or raw audio on standard input"},
    {"info", RunInfo, "show the hotwords, settings and network of model files"},
    {"convert", RunConvert, "rewrite a model file in binary or text form"},
    {"features", RunFeatures, "write the filterbank features of a WAV file as NumPy .npy"},
#ifdef KESTREL_WITH_ALSA
    {"listen", RunListen, "find hotwords in live audio from a microphone (ALSA)"},
#endif
#ifdef KESTREL_WITH_SERVER
    {"serve", RunServe, "serve hotword detection to Home Assistant (Wyoming protocol)"},
#endif
    {"train", RunTrain, "train a hotword model for a phrase, or from a corpus"},
    {"tune", RunTune, "choose a model's sensitivity from your own recordings"},
    {"evaluate", RunEvaluate, "measure a model's detections and false alarms on a corpus"},
};

std::string MainHelp() {
  std::string help =
      "usage: kestrel <command> [options] [arguments]\n"
      "       kestrel --version\n\n"
      "Hotword (wake-word) detection with .kmodel files.\n\n"
      "commands:\n";
  for (const Command& c : kCommands) {
    help += "  " + std::string(c.name) + std::string(10 - std::strlen(c.name), ' ') + c.summary + "\n";
  }
  help += "\nRun 'kestrel <command> --help' for a command's options and arguments.\n";
  return help;
}

}  // namespace

int UsageError(const std::string& command, const std::string& message) {
  std::cerr << "kestrel " << command << ": " << message << "\n"
            << "Try 'kestrel " << command << " --help'.\n";
  return kExitUsage;
}

int Failure(const std::string& message) {
  // Messages may quote bytes of a damaged file; keep the report on one
  // printable line.
  std::string line = message;
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  }
  std::cerr << "kestrel: " << line << std::endl;
  return kExitFailure;
}

void Progress(const std::string& line) { std::cerr << line << std::endl; }

}  // namespace kestrel

int main(int argc, char** argv) {
  using namespace kestrel;
  // Errors reach the commands as exceptions, which report them in one line
  // with the file concerned; warnings are shown as they come.
  SetLogHandler([](KestrelLogType type, const std::string&, int, const std::string&,
                   const std::string& text) {
    if (type == kKestrelWarning) std::cerr << "kestrel: warning: " << text << std::endl;
  });
  if (argc < 2) {
    std::cerr << MainHelp();
    return kExitUsage;
  }
  const std::string name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    std::cout << MainHelp();
    return kExitOk;
  }
  if (name == "--version") {
    std::cout << "kestrel " << kestrel_version() << "\n";
    return kExitOk;
  }
  for (const Command& c : kCommands) {
    if (name != c.name) continue;
    // The commands report what they expect to go wrong themselves; this is
    // the last line for anything else (say, memory running out).
    try {
      return c.run(argc, argv);
    } catch (const std::exception& e) {
      return Failure(e.what());
    }
  }
  std::cerr << "kestrel: unknown command \"" << name << "\"\n\n" << MainHelp();
  return kExitUsage;
}
