// Logging and errors.
//
// Every diagnostic of the library is one KestrelLogMsg: the call site builds it,
// composes the text with operator<< on stream(), and the message is emitted when
// the object is destroyed at the end of the statement. An error-kind message then
// throws KestrelError, so the failing operation never returns half a result;
// a warning returns to the caller.
//
// By default errors are reported only by the exception and warnings go to
// standard error; a program can install its own handler with SetLogHandler
// (tests do, to capture or silence them), which receives both. The handler is
// global: install it before detectors run, not while they do.
#ifndef KESTREL_UTILS_KESTREL_LOG_H_
#define KESTREL_UTILS_KESTREL_LOG_H_

#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>

#include "utils/kestrel-export.h"

KESTREL_PUBLIC_BEGIN

namespace kestrel {

enum KestrelLogType { kKestrelError = 0, kKestrelWarning = 1 };

// Thrown after an error-kind message is emitted. what() is exactly the composed
// text; where it came from is available separately.
class KestrelError : public std::runtime_error {
 public:
  KestrelError(const std::string& text, KestrelLogType type,
               const std::string& file, int line, const std::string& function);

  KestrelLogType type() const { return type_; }
  const std::string& file() const { return file_; }
  int line() const { return line_; }
  const std::string& function() const { return function_; }

 private:
  KestrelLogType type_;
  std::string file_;
  int line_;
  std::string function_;
};

// Receives every emitted message. Must not throw.
using KestrelLogHandler =
    std::function<void(KestrelLogType type, const std::string& file, int line,
                       const std::string& function, const std::string& text)>;

// Replaces the handler; an empty handler restores the default, which writes
// "WARNING (file:line) text" to standard error and leaves errors to the
// exception.
// Returns the previous handler (empty if it was the default).
KestrelLogHandler SetLogHandler(KestrelLogHandler handler);

class KestrelLogMsg {
 public:
  KestrelLogMsg(int line, const std::string& file, const std::string& function,
                const KestrelLogType& type, int verbosity);
  // Emits the message; for an error, then throws KestrelError (unless the stack
  // is already unwinding from another exception, where throwing would abort).
  ~KestrelLogMsg() noexcept(false);

  std::ostream& stream() { return text_; }

  KestrelLogMsg(const KestrelLogMsg&) = delete;
  KestrelLogMsg& operator=(const KestrelLogMsg&) = delete;

 private:
  int line_;
  std::string file_;
  std::string function_;
  KestrelLogType type_;
  int verbosity_;
  std::ostringstream text_;
};

}  // namespace kestrel

// Call-site macros. `file` is the source label the message carries (for example
// "universal-detect-stream"), so messages name the component, not a build path.
#define KESTREL_LOG(file, type) \
  ::kestrel::KestrelLogMsg(__LINE__, file, __PRETTY_FUNCTION__, type, 0).stream()
#define KESTREL_ERR(file) KESTREL_LOG(file, ::kestrel::kKestrelError)
#define KESTREL_WARN(file) KESTREL_LOG(file, ::kestrel::kKestrelWarning)

KESTREL_PUBLIC_END

#endif  // KESTREL_UTILS_KESTREL_LOG_H_
