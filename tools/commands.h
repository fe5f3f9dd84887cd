// The subcommands of the `kestrel` program and the two ways they report
// trouble. Each Run* function takes the whole argv (argv[1] is the command's
// name) and returns the process exit status (see args.h).
#ifndef KESTREL_TOOLS_COMMANDS_H_
#define KESTREL_TOOLS_COMMANDS_H_

#include <string>

namespace kestrel {

int RunDetect(int argc, char** argv);
int RunInfo(int argc, char** argv);
int RunConvert(int argc, char** argv);
int RunFeatures(int argc, char** argv);
// Built where ALSA is found.
int RunListen(int argc, char** argv);
// Built when the server library is (server/ needs nlohmann-json3-dev).
int RunServe(int argc, char** argv);
int RunTrain(int argc, char** argv);
int RunEvaluate(int argc, char** argv);
int RunTune(int argc, char** argv);

// "kestrel <command>: <message>" and a pointer to the help on standard
// error; returns kExitUsage.
int UsageError(const std::string& command, const std::string& message);
// "kestrel: <message>" on standard error, one line; returns kExitFailure.
int Failure(const std::string& message);
// A progress line of a long command (train, evaluate) on standard error.
void Progress(const std::string& line);

}  // namespace kestrel

#endif  // KESTREL_TOOLS_COMMANDS_H_
