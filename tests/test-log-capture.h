// Test helper: captures every log message while in scope, so tests can check
// warnings and keep error output off the console.
#ifndef KESTREL_TESTS_TEST_LOG_CAPTURE_H_
#define KESTREL_TESTS_TEST_LOG_CAPTURE_H_

#include <string>
#include <vector>

#include "utils/kestrel-log.h"

namespace kestrel {

struct CapturedMessage {
  KestrelLogType type;
  std::string file;
  int line;
  std::string function;
  std::string text;
};

class LogCapture {
 public:
  LogCapture() {
    previous_ = SetLogHandler([this](KestrelLogType type, const std::string& file, int line,
                                     const std::string& function, const std::string& text) {
      messages.push_back({type, file, line, function, text});
    });
  }
  ~LogCapture() { SetLogHandler(previous_); }

  std::vector<CapturedMessage> messages;

 private:
  KestrelLogHandler previous_;
};

// The text of the KestrelError that `statement` throws ("" if none).
#define KESTREL_ERROR_TEXT(statement)           \
  ([&]() -> std::string {                       \
    ::kestrel::LogCapture capture_;             \
    try {                                       \
      statement;                                \
    } catch (const ::kestrel::KestrelError& e) { \
      return e.what();                          \
    }                                           \
    return "";                                  \
  }())

}  // namespace kestrel

#endif  // KESTREL_TESTS_TEST_LOG_CAPTURE_H_
