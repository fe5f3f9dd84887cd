#include "utils/kestrel-log.h"

#include <exception>
#include <iostream>
#include <mutex>

#include "utils/kestrel-globals.h"

namespace kestrel {

namespace {

std::mutex& HandlerMutex() {
  static std::mutex mutex;
  return mutex;
}

KestrelLogHandler& Handler() {
  static KestrelLogHandler handler;
  return handler;
}

// Errors reach the caller as the exception that follows, so printing them
// too would put a message on the console of an application that handled it.
void DefaultHandler(KestrelLogType type, const std::string& file, int line,
                    const std::string& /*function*/, const std::string& text) {
  if (type == kKestrelError) return;
  std::cerr << "WARNING (" << file << ":" << line << ") " << text << std::endl;
}

}  // namespace

KestrelError::KestrelError(const std::string& text, KestrelLogType type,
                           const std::string& file, int line,
                           const std::string& function)
    : std::runtime_error(text),
      type_(type),
      file_(file),
      line_(line),
      function_(function) {}

KestrelLogHandler SetLogHandler(KestrelLogHandler handler) {
  std::lock_guard<std::mutex> lock(HandlerMutex());
  KestrelLogHandler previous = std::move(Handler());
  Handler() = std::move(handler);
  return previous;
}

KestrelLogMsg::KestrelLogMsg(int line, const std::string& file,
                             const std::string& function,
                             const KestrelLogType& type, int verbosity)
    : line_(line),
      file_(file),
      function_(function),
      type_(type),
      verbosity_(verbosity) {}

KestrelLogMsg::~KestrelLogMsg() noexcept(false) {
  const std::string text = text_.str();
  // Errors always go out; a warning above the global verbosity is dropped.
  if (type_ == kKestrelError || verbosity_ <= global_kestrel_verbose_level) {
    KestrelLogHandler handler;
    {
      std::lock_guard<std::mutex> lock(HandlerMutex());
      handler = Handler();
    }
    if (handler) {
      handler(type_, file_, line_, function_, text);
    } else {
      DefaultHandler(type_, file_, line_, function_, text);
    }
  }
  if (type_ == kKestrelError && std::uncaught_exceptions() == 0) {
    throw KestrelError(text, type_, file_, line_, function_);
  }
}

}  // namespace kestrel
