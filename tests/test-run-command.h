// Test helper: runs the built `kestrel` program (its path comes from the
// build) through the shell and captures its exit status and output.
#ifndef KESTREL_TESTS_TEST_RUN_COMMAND_H_
#define KESTREL_TESTS_TEST_RUN_COMMAND_H_

#include <sys/wait.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "test-audio.h"

namespace kestrel {

inline std::string Quoted(const std::string& path) { return "'" + path + "'"; }

struct CommandResult {
  int status = -1;
  std::string out, err;
  std::vector<std::string> OutLines() const {
    std::vector<std::string> lines;
    std::istringstream is(out);
    for (std::string line; std::getline(is, line);) lines.push_back(line);
    return lines;
  }
};

// `kestrel <args>` with standard input from `input`; `environment` (say
// "HOME=/tmp/x ") precedes the command.
inline CommandResult RunKestrel(const std::string& args, const std::string& input = "/dev/null",
                                const std::string& environment = "") {
  const std::string out = TempPath("cli.out"), err = TempPath("cli.err");
  const int raw = std::system((environment + "'" + KESTREL_CLI + "' " + args + " < '" + input +
                               "' > '" + out + "' 2> '" + err + "'").c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadFileBytes(out), ReadFileBytes(err)};
}

}  // namespace kestrel

#endif  // KESTREL_TESTS_TEST_RUN_COMMAND_H_
