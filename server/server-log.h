// ServerLog: the server's lines on standard error, one per connection and,
// with debug on, one per event. Lines from different connection threads
// never interleave.
//
// Shared by every thread; all members may be called from any thread.
#ifndef KESTREL_SERVER_SERVER_LOG_H_
#define KESTREL_SERVER_SERVER_LOG_H_

#include <mutex>
#include <string>

namespace kestrel {

class ServerLog {
 public:
  explicit ServerLog(bool debug) : debug_(debug) {}

  void Info(const std::string& line);
  // Dropped unless debug is on; callers check Debugging() before composing
  // anything costly.
  void Debug(const std::string& line);
  bool Debugging() const { return debug_; }

 private:
  const bool debug_;
  std::mutex mutex_;
};

}  // namespace kestrel

#endif  // KESTREL_SERVER_SERVER_LOG_H_
